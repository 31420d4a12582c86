// SSE2 kernels for the UTF engines (see utf_sse2.h for the contract).
//
// Only the functions marked AMBIT_SSE2 use SSE2, and this file defines no
// inline function that another file could share: the rest of the library
// keeps running on processors without SSE2.
//
// Writing exactly the produced units: where a block's output has a variable
// length, the kernel stores each character with a fixed-width store and
// advances by the character's length, so the last store of a block may
// spill a few units past the block's output. The kernel reads those units
// first and puts them back after the block; they lie inside the target's
// room, which the kernel checks before the block. The caller's target thus
// never changes past the units written.
#include "unicode/utf_sse2.h"

#include <emmintrin.h>

#include <cstdint>
#include <cstring>

#define AMBIT_SSE2 __attribute__((target("sse2")))

namespace ambit_utf {
namespace {

AMBIT_SSE2 inline __m128i Load(const void* p) {
  return _mm_loadu_si128(static_cast<const __m128i*>(p));
}

AMBIT_SSE2 inline void Store(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }

inline unsigned Popcount16(unsigned x) {
  x = x - ((x >> 1) & 0x5555U);
  x = (x & 0x3333U) + ((x >> 2) & 0x3333U);
  x = (x + (x >> 4)) & 0x0F0FU;
  return (x + (x >> 8)) & 0x1FU;
}

// Output kinds of the UTF-8 kernel: written or only counted, and whether a
// supplementary character takes two units (UTF-16) or one (UTF-32).
struct Utf16Out {
  typedef UTF16 Unit;
  static constexpr bool kCount = false, kPairs = true;
};
struct Utf32Out {
  typedef UTF32 Unit;
  static constexpr bool kCount = false, kPairs = false;
};
struct Count16Out {
  typedef UTF16 Unit;  // unused
  static constexpr bool kCount = true, kPairs = true;
};
struct Count32Out {
  typedef UTF32 Unit;  // unused
  static constexpr bool kCount = true, kPairs = false;
};

// Stores eight UTF-16 values (lanes of v) as t[0..7] in the output form.
AMBIT_SSE2 inline void Put8(UTF16* t, __m128i v) { Store(t, v); }
AMBIT_SSE2 inline void Put8(UTF32* t, __m128i v) {
  const __m128i zero = _mm_setzero_si128();
  Store(t, _mm_unpacklo_epi16(v, zero));
  Store(t + 4, _mm_unpackhi_epi16(v, zero));
}

// Stores the six values in lanes 0..5 of v as t[0..5].
AMBIT_SSE2 inline void Put6(UTF16* t, __m128i v) {
  _mm_storel_epi64(reinterpret_cast<__m128i*>(t), v);
  const uint32_t w = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(v, 8)));
  std::memcpy(t + 4, &w, sizeof w);
}
AMBIT_SSE2 inline void Put6(UTF32* t, __m128i v) {
  const __m128i zero = _mm_setzero_si128();
  Store(t, _mm_unpacklo_epi16(v, zero));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(t + 4), _mm_unpackhi_epi16(v, zero));
}

// Six three-byte characters in s[0..17], or false. The bytes must follow
// the pattern lead (0xE0..0xEF), continuation, continuation six times over,
// and each value must be at least 0x800 and not a surrogate (which is what
// the second-byte rules after 0xE0 and 0xED amount to). On success the six
// values are in lanes 0..5 of *out.
AMBIT_SSE2 inline bool DecodeSixThreeByte(__m128i v0, __m128i v1, __m128i v2, __m128i* out) {
  // v0 holds s[0..15], v2 holds s[2..17]: both must match the pattern.
  const __m128i mask0 = _mm_setr_epi8(-16, -64, -64, -16, -64, -64, -16, -64, -64, -16, -64, -64,
                                      -16, -64, -64, -16);
  const __m128i want0 = _mm_setr_epi8(-32, -128, -128, -32, -128, -128, -32, -128, -128, -32,
                                      -128, -128, -32, -128, -128, -32);
  const __m128i mask2 = _mm_setr_epi8(-64, -16, -64, -64, -16, -64, -64, -16, -64, -64, -16, -64,
                                      -64, -16, -64, -64);
  const __m128i want2 = _mm_setr_epi8(-128, -32, -128, -128, -32, -128, -128, -32, -128, -128,
                                      -32, -128, -128, -32, -128, -128);
  const __m128i ok = _mm_and_si128(_mm_cmpeq_epi8(_mm_and_si128(v0, mask0), want0),
                                   _mm_cmpeq_epi8(_mm_and_si128(v2, mask2), want2));
  if (_mm_movemask_epi8(ok) != 0xFFFF) return false;
  // A 16-bit lane k of a load from p holds p[2k] | p[2k+1] << 8. The leads
  // at 0, 6 and 12 sit in lanes 0, 3 and 6 of v0 (lead and second byte) and
  // of v1 (second and third byte); those at 3, 9 and 15 in lanes 1, 4 and 7
  // of v1 and v2.
  const __m128i lo4 = _mm_set1_epi16(0x000F), mid6 = _mm_set1_epi16(0x3F00),
                low6 = _mm_set1_epi16(0x003F);
  const __m128i even = _mm_or_si128(
      _mm_or_si128(_mm_slli_epi16(_mm_and_si128(v0, lo4), 12),
                   _mm_srli_epi16(_mm_and_si128(v0, mid6), 2)),
      _mm_and_si128(_mm_srli_epi16(v1, 8), low6));
  const __m128i odd = _mm_or_si128(
      _mm_or_si128(_mm_slli_epi16(_mm_and_si128(v1, lo4), 12),
                   _mm_srli_epi16(_mm_and_si128(v1, mid6), 2)),
      _mm_and_si128(_mm_srli_epi16(v2, 8), low6));
  // Characters 0..5 in lanes 0, 1, 3, 4, 6, 7; then close the gaps.
  const __m128i m = _mm_or_si128(_mm_and_si128(even, _mm_setr_epi16(-1, 0, 0, -1, 0, 0, -1, 0)),
                                 _mm_and_si128(odd, _mm_setr_epi16(0, -1, 0, 0, -1, 0, 0, -1)));
  const __m128i first = _mm_shufflelo_epi16(m, _MM_SHUFFLE(3, 3, 1, 0));
  const __m128i second = _mm_srli_si128(_mm_shufflehi_epi16(m, _MM_SHUFFLE(3, 3, 2, 0)), 2);
  const __m128i v = _mm_or_si128(_mm_and_si128(first, _mm_setr_epi16(-1, -1, -1, 0, 0, 0, 0, 0)),
                                 _mm_and_si128(second, _mm_setr_epi16(0, 0, 0, -1, -1, -1, 0, 0)));
  const __m128i top = _mm_and_si128(v, _mm_set1_epi16(static_cast<short>(0xF800)));
  const __m128i bad = _mm_or_si128(_mm_cmpeq_epi16(top, _mm_setzero_si128()),
                                   _mm_cmpeq_epi16(top, _mm_set1_epi16(static_cast<short>(0xD800))));
  if ((_mm_movemask_epi8(bad) & 0x0FFF) != 0) return false;
  *out = v;
  return true;
}

// Eight decoded values from one half of a block: lanes of b0, b1, b2 hold
// the byte at a position and the two after it, zero-extended. isLead3 marks
// three-byte leads; ASCII positions give their byte and the rest a two-byte
// value (continuation positions give values that are never stored).
AMBIT_SSE2 inline __m128i DecodeHalf(__m128i b0, __m128i b1, __m128i b2) {
  const __m128i isAscii = _mm_cmplt_epi16(b0, _mm_set1_epi16(0x80));
  const __m128i isLead3 = _mm_cmpgt_epi16(b0, _mm_set1_epi16(0xDF));
  const __m128i two = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(b0, _mm_set1_epi16(0x1F)), 6),
                                   _mm_and_si128(b1, _mm_set1_epi16(0x3F)));
  const __m128i three =
      _mm_or_si128(_mm_slli_epi16(two, 6), _mm_and_si128(b2, _mm_set1_epi16(0x3F)));
  const __m128i multi =
      _mm_or_si128(_mm_and_si128(isLead3, three), _mm_andnot_si128(isLead3, two));
  return _mm_or_si128(_mm_and_si128(isAscii, b0), _mm_andnot_si128(isAscii, multi));
}

// For each byte position, how many of the positions before it start a
// character (are not marked in isCont): an exclusive prefix sum.
AMBIT_SSE2 inline __m128i StartsBefore(__m128i isCont) {
  __m128i x = _mm_slli_si128(_mm_andnot_si128(isCont, _mm_set1_epi8(1)), 1);
  x = _mm_add_epi8(x, _mm_slli_si128(x, 1));
  x = _mm_add_epi8(x, _mm_slli_si128(x, 2));
  x = _mm_add_epi8(x, _mm_slli_si128(x, 4));
  return _mm_add_epi8(x, _mm_slli_si128(x, 8));
}

// Writes the characters of a block at base: the values of the sixteen
// positions are the 16-bit lanes of low and high, and the positions marked
// in isCont are no characters. Returns how many were written; base has room
// for two units more than that.
//
// Positions go in pairs: each pair's starts (none, one or two) are moved to
// the front of a two-unit word, which is stored where the pair's first
// character goes (the count of starts before the pair). What a word holds
// past its starts is overwritten by the next pair's, or lies past the last
// character and is put back.
template <typename Unit>
AMBIT_SSE2 inline unsigned PlaceValues(Unit* base, __m128i low, __m128i high, __m128i isCont) {
  alignas(16) UTF8 index[16];
  Store(index, StartsBefore(isCont));
  const unsigned chars = index[15] + (static_cast<unsigned>(_mm_movemask_epi8(isCont)) >> 15 ^ 1U);
  // Per 32-bit lane (a pair): whether its first position is a continuation,
  // as a whole-lane mask.
  const __m128i firstLow = _mm_unpacklo_epi8(isCont, isCont);
  const __m128i firstHigh = _mm_unpackhi_epi8(isCont, isCont);
  const __m128i skipLow = _mm_srai_epi32(_mm_slli_epi32(firstLow, 16), 16);
  const __m128i skipHigh = _mm_srai_epi32(_mm_slli_epi32(firstHigh, 16), 16);
  low = _mm_or_si128(_mm_and_si128(skipLow, _mm_srli_epi32(low, 16)), _mm_andnot_si128(skipLow, low));
  high = _mm_or_si128(_mm_and_si128(skipHigh, _mm_srli_epi32(high, 16)), _mm_andnot_si128(skipHigh, high));
  uint32_t spilled[2];
  std::memcpy(spilled, base + chars, 2 * sizeof(Unit));
  if (sizeof(Unit) == 2) {
    alignas(16) uint32_t pair[8];
    Store(pair, low);
    Store(pair + 4, high);
    for (unsigned j = 0; j < 8; ++j) std::memcpy(base + index[2 * j], &pair[j], sizeof pair[j]);
  } else {
    const __m128i zero = _mm_setzero_si128();
    alignas(16) uint32_t pair[16];
    Store(pair, _mm_unpacklo_epi16(low, zero));
    Store(pair + 4, _mm_unpackhi_epi16(low, zero));
    Store(pair + 8, _mm_unpacklo_epi16(high, zero));
    Store(pair + 12, _mm_unpackhi_epi16(high, zero));
    for (unsigned j = 0; j < 8; ++j)
      _mm_storel_epi64(reinterpret_cast<__m128i*>(base + index[2 * j]),
                       _mm_loadl_epi64(reinterpret_cast<const __m128i*>(pair + 2 * j)));
  }
  std::memcpy(base + chars, spilled, 2 * sizeof(Unit));
  return chars;
}

// The same when no position holds a three-byte lead.
AMBIT_SSE2 inline __m128i DecodeHalfTwo(__m128i b0, __m128i b1) {
  const __m128i isAscii = _mm_cmplt_epi16(b0, _mm_set1_epi16(0x80));
  const __m128i two = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(b0, _mm_set1_epi16(0x1F)), 6),
                                   _mm_and_si128(b1, _mm_set1_epi16(0x3F)));
  return _mm_or_si128(_mm_and_si128(isAscii, b0), _mm_andnot_si128(isAscii, two));
}

// A block of sixteen positions at p that holds four-byte characters
// besides shorter ones; p[0..18] are readable. The classes of the bytes
// other than four-byte leads come from the caller. Writes the characters at
// base (room for 19 units) or only counts them, adds the units to *out and
// returns the bytes taken, or 0 when the block is not well-formed.
template <typename Out>
AMBIT_SSE2 inline size_t FourByteBlock(const UTF8* p, __m128i v0, __m128i v1, __m128i v2,
                                       __m128i isCont, unsigned cont, unsigned ascii,
                                       unsigned lead2, unsigned lead3,
                                       typename Out::Unit* base, size_t* out) {
  typedef typename Out::Unit Unit;
  const __m128i zero = _mm_setzero_si128();
  // Four-byte leads 0xF0..0xF4 are -16..-12 as signed bytes.
  const __m128i isLead4 = _mm_and_si128(_mm_cmpgt_epi8(v0, _mm_set1_epi8(-17)),
                                        _mm_cmplt_epi8(v0, _mm_set1_epi8(-11)));
  const unsigned lead4 = static_cast<unsigned>(_mm_movemask_epi8(isLead4));
  if ((ascii | cont | lead2 | lead3 | lead4) != 0xFFFFU) return 0;
  const __m128i v3 = Load(p + 3);
  const unsigned multi = lead3 | lead4;
  const unsigned want = (lead2 << 1) | (multi << 1) | (multi << 2) | (lead4 << 3);
  const unsigned tail =
      static_cast<unsigned>(_mm_movemask_epi8(_mm_cmplt_epi8(v3, _mm_set1_epi8(-64)))) >> 13;
  if (((want ^ cont) & 0xFFFFU) != 0 || ((want >> 16) & ~tail) != 0) return 0;
  // The second byte: at least 0x90 after 0xF0, at most 0x8F after 0xF4;
  // at least 0xA0 after 0xE0, at most 0x9F after 0xED.
  __m128i bad = _mm_or_si128(
      _mm_and_si128(_mm_cmpeq_epi8(v0, _mm_set1_epi8(-16)), _mm_cmplt_epi8(v1, _mm_set1_epi8(-112))),
      _mm_and_si128(_mm_cmpeq_epi8(v0, _mm_set1_epi8(-12)), _mm_cmpgt_epi8(v1, _mm_set1_epi8(-113))));
  if (lead3 != 0)
    bad = _mm_or_si128(
        bad, _mm_or_si128(_mm_and_si128(_mm_cmpeq_epi8(v0, _mm_set1_epi8(-32)),
                                        _mm_cmplt_epi8(v1, _mm_set1_epi8(-96))),
                          _mm_and_si128(_mm_cmpeq_epi8(v0, _mm_set1_epi8(-19)),
                                        _mm_cmpgt_epi8(v1, _mm_set1_epi8(-97)))));
  if (_mm_movemask_epi8(bad) != 0) return 0;
  // Text of ASCII and four-byte characters only (emoji between words)
  // needs no two- or three-byte decoding.
  const bool onlyAsciiBesides = (lead2 | lead3) == 0;
  const size_t taken = 16 + ((want >> 16) & 1U) + ((want >> 17) & 1U) + ((want >> 18) & 1U);
  if (Out::kCount) {
    *out += 16 - Popcount16(cont) + (Out::kPairs ? Popcount16(lead4) : 0);
    return taken;
  }
  // Values in 16-bit lanes, half a block at a time: a four-byte character
  // gives its low sixteen bits and the bits above them separately.
  alignas(16) uint32_t word[16];
  for (int half = 0; half < 2; ++half) {
    const __m128i b0 = half ? _mm_unpackhi_epi8(v0, zero) : _mm_unpacklo_epi8(v0, zero);
    const __m128i b1 = half ? _mm_unpackhi_epi8(v1, zero) : _mm_unpacklo_epi8(v1, zero);
    const __m128i b2 = half ? _mm_unpackhi_epi8(v2, zero) : _mm_unpacklo_epi8(v2, zero);
    const __m128i b3 = half ? _mm_unpackhi_epi8(v3, zero) : _mm_unpacklo_epi8(v3, zero);
    const __m128i shorter = onlyAsciiBesides ? b0 : DecodeHalf(b0, b1, b2);
    const __m128i is4 = _mm_cmpgt_epi16(b0, _mm_set1_epi16(0xEF));
    const __m128i low6 = _mm_set1_epi16(0x3F);
    const __m128i low16 = _mm_or_si128(
        _mm_or_si128(_mm_slli_epi16(_mm_and_si128(b1, _mm_set1_epi16(0xF)), 12),
                     _mm_slli_epi16(_mm_and_si128(b2, low6), 6)),
        _mm_and_si128(b3, low6));
    const __m128i above = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(b0, _mm_set1_epi16(7)), 2),
                                       _mm_srli_epi16(_mm_and_si128(b1, low6), 4));
    __m128i first, second;
    if (Out::kPairs) {
      // High surrogate 0xD800 + ((c - 0x10000) >> 10), low 0xDC00 + (c & 0x3FF).
      const __m128i highUnit = _mm_add_epi16(
          _mm_or_si128(_mm_slli_epi16(above, 6), _mm_srli_epi16(low16, 10)),
          _mm_set1_epi16(static_cast<short>(0xD7C0)));
      const __m128i lowUnit = _mm_or_si128(_mm_and_si128(low16, _mm_set1_epi16(0x3FF)),
                                           _mm_set1_epi16(static_cast<short>(0xDC00)));
      first = _mm_or_si128(_mm_and_si128(is4, highUnit), _mm_andnot_si128(is4, shorter));
      second = lowUnit;
    } else {
      first = _mm_or_si128(_mm_and_si128(is4, low16), _mm_andnot_si128(is4, shorter));
      second = _mm_and_si128(is4, above);
    }
    Store(word + 8 * half, _mm_unpacklo_epi16(first, second));
    Store(word + 8 * half + 4, _mm_unpackhi_epi16(first, second));
  }
  // Where each character goes: the units of those before it.
  __m128i length = _mm_andnot_si128(isCont, _mm_set1_epi8(1));
  if (Out::kPairs) length = _mm_add_epi8(length, _mm_and_si128(isLead4, _mm_set1_epi8(1)));
  __m128i at = _mm_slli_si128(length, 1);
  at = _mm_add_epi8(at, _mm_slli_si128(at, 1));
  at = _mm_add_epi8(at, _mm_slli_si128(at, 2));
  at = _mm_add_epi8(at, _mm_slli_si128(at, 4));
  at = _mm_add_epi8(at, _mm_slli_si128(at, 8));
  alignas(16) UTF8 index[16], units[16];
  Store(index, at);
  Store(units, length);
  const unsigned total = static_cast<unsigned>(index[15]) + units[15];
  if (Out::kPairs) {
    // Each character is stored as a two-unit word; what spills past the
    // last is put back.
    uint32_t spilled;
    std::memcpy(&spilled, base + total, sizeof spilled);
    for (unsigned i = 0; i < 16; ++i) std::memcpy(base + index[i], &word[i], sizeof word[i]);
    std::memcpy(base + total, &spilled, sizeof spilled);
  } else {
    const Unit spilled = base[total];
    for (unsigned i = 0; i < 16; ++i) base[index[i]] = word[i];
    base[total] = spilled;
  }
  *out += total;
  return taken;
}

template <typename Out>
AMBIT_SSE2 size_t Utf8Blocks(const UTF8* s, size_t n, typename Out::Unit* t, size_t room,
                             size_t* written) {
  constexpr bool kCount = Out::kCount;
  const __m128i zero = _mm_setzero_si128();
  size_t pos = 0, out = 0;
  while (n - pos >= 16) {
    // Every block below writes at most 16 units and may spill two more.
    if (!kCount && room - out < 18) break;
    const UTF8* p = s + pos;
    const __m128i v0 = Load(p);
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(v0, zero)) != 0) break;
    const unsigned high = static_cast<unsigned>(_mm_movemask_epi8(v0));
    if (high == 0) {  // sixteen ASCII characters, and maybe more
      __m128i v = v0;
      for (;;) {
        if (!kCount) {
          Put8(t + out, _mm_unpacklo_epi8(v, zero));
          Put8(t + out + 8, _mm_unpackhi_epi8(v, zero));
        }
        pos += 16;
        out += 16;
        if (n - pos < 16 || (!kCount && room - out < 18)) break;
        v = Load(s + pos);
        if (_mm_movemask_epi8(_mm_or_si128(v, _mm_cmpeq_epi8(v, zero))) != 0) break;
      }
      continue;
    }
    if (n - pos < 18) break;
    const __m128i v1 = Load(p + 1), v2 = Load(p + 2);
    __m128i six;
    if ((p[0] & 0xF0) == 0xE0 && DecodeSixThreeByte(v0, v1, v2, &six)) {
      if (!kCount) Put6(t + out, six);
      pos += 18;
      out += 6;
      continue;
    }
    // Classes of the sixteen bytes, as bit masks. As signed bytes,
    // continuations 0x80..0xBF are -128..-65, two-byte leads 0xC2..0xDF are
    // -62..-33 and three-byte leads 0xE0..0xEF are -32..-17.
    const __m128i isCont = _mm_cmplt_epi8(v0, _mm_set1_epi8(-64));
    const unsigned cont = static_cast<unsigned>(_mm_movemask_epi8(isCont));
    const unsigned lead2 = static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(
        _mm_cmpgt_epi8(v0, _mm_set1_epi8(-63)), _mm_cmplt_epi8(v0, _mm_set1_epi8(-32)))));
    const unsigned lead3 = static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(
        _mm_cmpgt_epi8(v0, _mm_set1_epi8(-33)), _mm_cmplt_epi8(v0, _mm_set1_epi8(-16)))));
    const unsigned ascii = ~high & 0xFFFFU;
    if ((ascii | cont | lead2 | lead3) != 0xFFFFU) {
      // Four-byte characters, or bytes that are never legal.
      if (n - pos < 19 || (!kCount && room - out < 19)) break;
      const size_t taken = FourByteBlock<Out>(p, v0, v1, v2, isCont, cont, ascii, lead2, lead3,
                                              kCount ? nullptr : t + out, &out);
      if (taken == 0) break;
      pos += taken;
      continue;
    }
    // Continuations must sit exactly where the leads want them; those of a
    // character that starts near the end of the block lie in s[16..17].
    const unsigned want = (lead2 << 1) | (lead3 << 1) | (lead3 << 2);
    const unsigned tail = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmplt_epi8(v2, _mm_set1_epi8(-64)))) >> 14;
    if (((want ^ cont) & 0xFFFFU) != 0 || ((want >> 16) & ~tail) != 0) break;
    // After 0xE0 the second byte is at least 0xA0; after 0xED at most 0x9F.
    if (lead3 != 0) {
      const __m128i bad = _mm_or_si128(
          _mm_and_si128(_mm_cmpeq_epi8(v0, _mm_set1_epi8(-32)), _mm_cmplt_epi8(v1, _mm_set1_epi8(-96))),
          _mm_and_si128(_mm_cmpeq_epi8(v0, _mm_set1_epi8(-19)), _mm_cmpgt_epi8(v1, _mm_set1_epi8(-97))));
      if (_mm_movemask_epi8(bad) != 0) break;
    }
    if (kCount) {
      out += 16 - Popcount16(cont);
    } else {
      __m128i low, high;
      if (lead3 == 0) {  // ASCII and two-byte characters only
        low = DecodeHalfTwo(_mm_unpacklo_epi8(v0, zero), _mm_unpacklo_epi8(v1, zero));
        high = DecodeHalfTwo(_mm_unpackhi_epi8(v0, zero), _mm_unpackhi_epi8(v1, zero));
      } else {
        low = DecodeHalf(_mm_unpacklo_epi8(v0, zero), _mm_unpacklo_epi8(v1, zero),
                         _mm_unpacklo_epi8(v2, zero));
        high = DecodeHalf(_mm_unpackhi_epi8(v0, zero), _mm_unpackhi_epi8(v1, zero),
                          _mm_unpackhi_epi8(v2, zero));
      }
      const unsigned chars = PlaceValues(t + out, low, high, isCont);
      out += chars;
    }
    pos += 16 + ((want >> 16) & 1U) + (want >> 17);
  }
  *written = out;
  return pos;
}

// UTF-8 bytes of the eight UTF-16 values in c, all nonzero, none a
// surrogate: the bytes of value i in word i (first byte lowest), and where
// they go relative to the first in offset[i]. Returns the total length.
// kTwoAtMost: no value is above 0x7FF, which spares the three-byte form.
template <bool kTwoAtMost>
AMBIT_SSE2 inline unsigned EncodeEight(__m128i c, uint32_t* word, UTF16* offset) {
  const __m128i isAscii = _mm_cmpeq_epi16(_mm_and_si128(c, _mm_set1_epi16(static_cast<short>(0xFF80))),
                                          _mm_setzero_si128());
  const __m128i isTwo = _mm_cmpeq_epi16(_mm_and_si128(c, _mm_set1_epi16(static_cast<short>(0xF800))),
                                        _mm_setzero_si128());
  const __m128i mid6 = _mm_set1_epi16(0x3F00);
  // Bytes 0 and 1 of a two- and of a three-byte form, and byte 2 of the
  // latter.
  const __m128i two = _mm_or_si128(
      _mm_or_si128(_mm_srli_epi16(c, 6), _mm_and_si128(_mm_slli_epi16(c, 8), mid6)),
      _mm_set1_epi16(static_cast<short>(0x80C0)));
  __m128i length;
  if (kTwoAtMost) {
    const __m128i low = _mm_or_si128(_mm_and_si128(isAscii, c), _mm_andnot_si128(isAscii, two));
    Store(word, _mm_unpacklo_epi16(low, _mm_setzero_si128()));
    Store(word + 4, _mm_unpackhi_epi16(low, _mm_setzero_si128()));
    length = _mm_add_epi16(_mm_set1_epi16(2), isAscii);
  } else {
    const __m128i three = _mm_or_si128(
        _mm_or_si128(_mm_srli_epi16(c, 12), _mm_and_si128(_mm_slli_epi16(c, 2), mid6)),
        _mm_set1_epi16(static_cast<short>(0x80E0)));
    const __m128i third =
        _mm_or_si128(_mm_and_si128(c, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
    const __m128i multi = _mm_or_si128(_mm_and_si128(isTwo, two), _mm_andnot_si128(isTwo, three));
    const __m128i low = _mm_or_si128(_mm_and_si128(isAscii, c), _mm_andnot_si128(isAscii, multi));
    Store(word, _mm_unpacklo_epi16(low, third));
    Store(word + 4, _mm_unpackhi_epi16(low, third));
    length = _mm_add_epi16(_mm_set1_epi16(3), _mm_add_epi16(isAscii, isTwo));
  }
  // Where each value goes: the lengths of those before it, summed.
  __m128i at = _mm_slli_si128(length, 2);
  at = _mm_add_epi16(at, _mm_slli_si128(at, 2));
  at = _mm_add_epi16(at, _mm_slli_si128(at, 4));
  at = _mm_add_epi16(at, _mm_slli_si128(at, 8));
  Store(offset, at);
  return static_cast<unsigned>(_mm_extract_epi16(_mm_add_epi16(at, length), 7));
}

// True when none of the eight UTF-16 units in c is zero or a surrogate.
AMBIT_SSE2 inline bool EncodableEight(__m128i c) {
  const __m128i top = _mm_and_si128(c, _mm_set1_epi16(static_cast<short>(0xF800)));
  const __m128i bad = _mm_or_si128(_mm_cmpeq_epi16(c, _mm_setzero_si128()),
                                   _mm_cmpeq_epi16(top, _mm_set1_epi16(static_cast<short>(0xD800))));
  return _mm_movemask_epi8(bad) == 0;
}

// Packs the three low bytes of each 32-bit lane of w into bytes 0..11.
AMBIT_SSE2 inline __m128i PackThreeOfFour(__m128i w) {
  // Within each 64-bit half: bytes 0..2 stay, bytes 4..6 move to 3..5.
  const __m128i q = _mm_or_si128(
      _mm_and_si128(w, _mm_set_epi32(0, 0x00FFFFFF, 0, 0x00FFFFFF)),
      _mm_and_si128(_mm_srli_epi64(w, 8), _mm_set_epi32(0x0000FFFF, static_cast<int>(0xFF000000U),
                                                        0x0000FFFF, static_cast<int>(0xFF000000U))));
  // Then bytes 8..13 move to 6..11.
  return _mm_or_si128(_mm_and_si128(q, _mm_set_epi32(0, 0, 0x0000FFFF, -1)),
                      _mm_and_si128(_mm_srli_si128(q, 2), _mm_set_epi32(0, -1, static_cast<int>(0xFFFF0000U), 0)));
}

// Eight values of 0x800..0xFFFF, none a surrogate, as 24 bytes at t.
AMBIT_SSE2 inline void PutEightThreeByte(__m128i c, UTF8* t) {
  const __m128i mid6 = _mm_set1_epi16(0x3F00);
  const __m128i first = _mm_or_si128(
      _mm_or_si128(_mm_srli_epi16(c, 12), _mm_and_si128(_mm_slli_epi16(c, 2), mid6)),
      _mm_set1_epi16(static_cast<short>(0x80E0)));
  const __m128i third =
      _mm_or_si128(_mm_and_si128(c, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
  const __m128i a = PackThreeOfFour(_mm_unpacklo_epi16(first, third));
  const __m128i b = PackThreeOfFour(_mm_unpackhi_epi16(first, third));
  Store(t, _mm_or_si128(a, _mm_slli_si128(b, 12)));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(t + 16), _mm_srli_si128(b, 4));
}

// One block of eight encodable values to UTF-8 at t + *out (or only
// counted). The target has room for 28 bytes past *out.
template <bool kCount>
AMBIT_SSE2 inline void PutEight(__m128i c, UTF8* t, size_t* out) {
  const int twoAtMost = _mm_movemask_epi8(_mm_cmpeq_epi16(
      _mm_and_si128(c, _mm_set1_epi16(static_cast<short>(0xF800))), _mm_setzero_si128()));
  if (twoAtMost == 0) {
    if (!kCount) PutEightThreeByte(c, t + *out);
    *out += 24;
    return;
  }
  alignas(16) uint32_t word[8];
  alignas(16) UTF16 offset[8];
  const unsigned total = twoAtMost == 0xFFFF ? EncodeEight<true>(c, word, offset)
                                             : EncodeEight<false>(c, word, offset);
  if (!kCount) {
    // Each character is stored as a whole word; the bytes after the last
    // one are put back.
    UTF8* const base = t + *out;
    uint32_t spilled;
    std::memcpy(&spilled, base + total, sizeof spilled);
    for (unsigned i = 0; i < 8; ++i) std::memcpy(base + offset[i], &word[i], sizeof word[i]);
    std::memcpy(base + total, &spilled, sizeof spilled);
  }
  *out += total;
}

// Sixteen packed bytes, when each is 0x01..0x7F. The saturating packs that
// made them turn a unit above 0x7F into a byte with the high bit set (or
// zero, for a unit that is negative as a signed value), so both are caught.
AMBIT_SSE2 inline bool AsciiBytes(__m128i bytes) {
  return _mm_movemask_epi8(_mm_or_si128(bytes, _mm_cmpeq_epi8(bytes, _mm_setzero_si128()))) == 0;
}

// Runs of sixteen ASCII units from UTF-16 or UTF-32 to bytes (or only
// counted), while the source holds sixteen more and the target has room.
AMBIT_SSE2 inline __m128i PackSixteen(const UTF16* s) {
  return _mm_packus_epi16(Load(s), Load(s + 8));
}
AMBIT_SSE2 inline __m128i PackSixteen(const UTF32* s) {
  return _mm_packus_epi16(_mm_packs_epi32(Load(s), Load(s + 4)),
                          _mm_packs_epi32(Load(s + 8), Load(s + 12)));
}

template <bool kCount, typename S>
AMBIT_SSE2 inline void AsciiRun(const S* s, size_t n, UTF8* t, size_t room, size_t* pos,
                                size_t* out) {
  while (n - *pos >= 16 && (kCount || room - *out >= 16)) {
    const __m128i bytes = PackSixteen(s + *pos);
    if (!AsciiBytes(bytes)) break;
    if (!kCount) Store(t + *out, bytes);
    *pos += 16;
    *out += 16;
  }
}

// UTF-8 form of four code points (32-bit lanes, none above 0x10FFFF, none
// a surrogate): the bytes in the lanes of *word (first byte lowest), the
// lengths in the lanes of *length. kAsciiOrFour: every value is below 0x80
// or above 0xFFFF, which spares the two- and three-byte forms.
template <bool kAsciiOrFour>
AMBIT_SSE2 inline void EncodeFourWide(__m128i c, __m128i* word, __m128i* length) {
  const __m128i low6 = _mm_set1_epi32(0x3F);
  const __m128i t0 = _mm_and_si128(c, low6);
  const __m128i t1 = _mm_and_si128(_mm_srli_epi32(c, 6), low6);
  const __m128i t2 = _mm_and_si128(_mm_srli_epi32(c, 12), low6);
  const __m128i four = _mm_or_si128(
      _mm_or_si128(_mm_or_si128(_mm_srli_epi32(c, 18), _mm_slli_epi32(t2, 8)),
                   _mm_or_si128(_mm_slli_epi32(t1, 16), _mm_slli_epi32(t0, 24))),
      _mm_set1_epi32(static_cast<int>(0x808080F0U)));
  const __m128i is1 = _mm_cmplt_epi32(c, _mm_set1_epi32(0x80));
  if (kAsciiOrFour) {
    *word = _mm_or_si128(_mm_and_si128(is1, c), _mm_andnot_si128(is1, four));
    // 4, or 1 where is1 is -1.
    *length = _mm_add_epi32(_mm_set1_epi32(4), _mm_add_epi32(is1, _mm_add_epi32(is1, is1)));
    return;
  }
  const __m128i two = _mm_or_si128(_mm_or_si128(_mm_srli_epi32(c, 6), _mm_slli_epi32(t0, 8)),
                                   _mm_set1_epi32(0x80C0));
  const __m128i three = _mm_or_si128(
      _mm_or_si128(_mm_srli_epi32(c, 12), _mm_slli_epi32(t1, 8)),
      _mm_or_si128(_mm_slli_epi32(t0, 16), _mm_set1_epi32(0x8080E0)));
  const __m128i is2 = _mm_cmplt_epi32(c, _mm_set1_epi32(0x800));
  const __m128i is3 = _mm_cmplt_epi32(c, _mm_set1_epi32(0x10000));
  __m128i w = _mm_or_si128(_mm_and_si128(is3, three), _mm_andnot_si128(is3, four));
  w = _mm_or_si128(_mm_and_si128(is2, two), _mm_andnot_si128(is2, w));
  *word = _mm_or_si128(_mm_and_si128(is1, c), _mm_andnot_si128(is1, w));
  *length = _mm_add_epi32(_mm_set1_epi32(4), _mm_add_epi32(is1, _mm_add_epi32(is2, is3)));
}

// UTF-8 of eight code points (lanes of c0, then c1; none zero, none above
// 0x10FFFF, none a surrogate) at t + *out, or only counted. The target has
// room for 36 bytes past *out.
template <bool kCount>
AMBIT_SSE2 inline void PutWideEight(__m128i c0, __m128i c1, UTF8* t, size_t* out) {
  __m128i w0, w1, l0, l1;
  // A value from 0x80 to 0xFFFF is one whose excess over 0x80 is below
  // 0xFF80, unsigned; compared signed with the top bits flipped.
  const __m128i top = _mm_set1_epi32(static_cast<int>(0x80000000U));
  const __m128i limit = _mm_set1_epi32(static_cast<int>(0x80000000U + 0xFF80));
  const __m128i ascii = _mm_set1_epi32(0x80);
  const bool asciiOrFour =
      _mm_movemask_epi8(_mm_or_si128(
          _mm_cmplt_epi32(_mm_sub_epi32(_mm_xor_si128(c0, top), ascii), limit),
          _mm_cmplt_epi32(_mm_sub_epi32(_mm_xor_si128(c1, top), ascii), limit))) == 0;
  if (asciiOrFour) {
    EncodeFourWide<true>(c0, &w0, &l0);
    EncodeFourWide<true>(c1, &w1, &l1);
  } else {
    EncodeFourWide<false>(c0, &w0, &l0);
    EncodeFourWide<false>(c1, &w1, &l1);
  }
  // Where each value goes: the lengths of those before it, summed.
  const __m128i at0 = _mm_add_epi32(_mm_add_epi32(_mm_slli_si128(l0, 4), _mm_slli_si128(l0, 8)),
                                    _mm_slli_si128(l0, 12));
  const __m128i all0 = _mm_shuffle_epi32(_mm_add_epi32(at0, l0), _MM_SHUFFLE(3, 3, 3, 3));
  __m128i at1 = _mm_add_epi32(_mm_slli_si128(l1, 4), _mm_slli_si128(l1, 8));
  at1 = _mm_add_epi32(_mm_add_epi32(at1, _mm_slli_si128(l1, 12)), all0);
  const unsigned total = static_cast<unsigned>(
      _mm_cvtsi128_si32(_mm_shuffle_epi32(_mm_add_epi32(at1, l1), _MM_SHUFFLE(3, 3, 3, 3))));
  if (!kCount) {
    alignas(16) uint32_t word[8], offset[8];
    Store(word, w0);
    Store(word + 4, w1);
    Store(offset, at0);
    Store(offset + 4, at1);
    UTF8* const base = t + *out;
    uint32_t spilled;
    std::memcpy(&spilled, base + total, sizeof spilled);
    for (unsigned i = 0; i < 8; ++i) std::memcpy(base + offset[i], &word[i], sizeof word[i]);
    std::memcpy(base + total, &spilled, sizeof spilled);
  }
  *out += total;
}

// UTF-8 of eight UTF-16 units at s that hold only nonzero units and whole
// surrogate pairs, a pair possibly ending at s[8] (which must be readable),
// at t + *out or only counted; the target has room for 36 bytes past *out.
// Returns the units taken (8 or 9), or 0 when the units do not qualify.
// Works in 16-bit lanes: a pair's four bytes come from the high surrogate
// (first two) and the low one (last two); a low surrogate's lane writes
// nothing.
template <bool kCount>
AMBIT_SSE2 inline size_t PutEightWithPairs(const UTF16* s, UTF8* t, size_t* out) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i a = Load(s), b = Load(s + 1);
  const __m128i top10 = _mm_set1_epi16(static_cast<short>(0xFC00));
  const __m128i lowTag = _mm_set1_epi16(static_cast<short>(0xDC00));
  const __m128i isHigh = _mm_cmpeq_epi16(_mm_and_si128(a, top10), _mm_set1_epi16(static_cast<short>(0xD800)));
  const __m128i isLow = _mm_cmpeq_epi16(_mm_and_si128(a, top10), lowTag);
  if (_mm_movemask_epi8(_mm_cmpeq_epi16(a, zero)) != 0) return 0;
  const unsigned high = static_cast<unsigned>(_mm_movemask_epi8(isHigh));
  const unsigned low = static_cast<unsigned>(_mm_movemask_epi8(isLow));
  const unsigned lowNext = static_cast<unsigned>(
      _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(b, top10), lowTag)));
  // Each high is followed by a low, and each low follows a high.
  if ((high & ~lowNext) != 0 || low != ((high << 2) & 0xFFFFU)) return 0;

  const __m128i isAscii = _mm_cmpeq_epi16(_mm_and_si128(a, _mm_set1_epi16(static_cast<short>(0xFF80))), zero);
  const __m128i isTwo = _mm_cmpeq_epi16(_mm_and_si128(a, _mm_set1_epi16(static_cast<short>(0xF800))), zero);
  const __m128i length = _mm_andnot_si128(
      isLow, _mm_sub_epi16(_mm_add_epi16(_mm_set1_epi16(3), _mm_add_epi16(isAscii, isTwo)), isHigh));
  __m128i at = _mm_slli_si128(length, 2);
  at = _mm_add_epi16(at, _mm_slli_si128(at, 2));
  at = _mm_add_epi16(at, _mm_slli_si128(at, 4));
  at = _mm_add_epi16(at, _mm_slli_si128(at, 8));
  const unsigned total = static_cast<unsigned>(_mm_extract_epi16(_mm_add_epi16(at, length), 7));
  if (!kCount) {
    const __m128i mid6 = _mm_set1_epi16(0x3F00);
    // The code point's bits above the low ten: (high & 0x3FF) + 0x40.
    const __m128i hh = _mm_add_epi16(_mm_and_si128(a, _mm_set1_epi16(0x3FF)), _mm_set1_epi16(0x40));
    const __m128i fourFirst = _mm_or_si128(
        _mm_or_si128(_mm_srli_epi16(hh, 8), _mm_and_si128(_mm_slli_epi16(hh, 6), mid6)),
        _mm_set1_epi16(static_cast<short>(0x80F0)));
    const __m128i fourLast = _mm_or_si128(
        _mm_or_si128(_mm_slli_epi16(_mm_and_si128(hh, _mm_set1_epi16(3)), 4),
                     _mm_and_si128(_mm_srli_epi16(b, 6), _mm_set1_epi16(0xF))),
        _mm_or_si128(_mm_and_si128(_mm_slli_epi16(b, 8), mid6), _mm_set1_epi16(static_cast<short>(0x8080))));
    __m128i first, last;
    if (_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(isAscii, isHigh), isLow)) == 0xFFFF) {
      // ASCII and pairs only (emoji between words).
      first = _mm_or_si128(_mm_and_si128(isHigh, fourFirst), _mm_andnot_si128(isHigh, a));
      last = fourLast;
    } else {
      const __m128i two = _mm_or_si128(
          _mm_or_si128(_mm_srli_epi16(a, 6), _mm_and_si128(_mm_slli_epi16(a, 8), mid6)),
          _mm_set1_epi16(static_cast<short>(0x80C0)));
      const __m128i three = _mm_or_si128(
          _mm_or_si128(_mm_srli_epi16(a, 12), _mm_and_si128(_mm_slli_epi16(a, 2), mid6)),
          _mm_set1_epi16(static_cast<short>(0x80E0)));
      const __m128i third =
          _mm_or_si128(_mm_and_si128(a, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
      first = _mm_or_si128(_mm_and_si128(isHigh, fourFirst), _mm_andnot_si128(isHigh, three));
      first = _mm_or_si128(_mm_and_si128(isTwo, two), _mm_andnot_si128(isTwo, first));
      first = _mm_or_si128(_mm_and_si128(isAscii, a), _mm_andnot_si128(isAscii, first));
      last = _mm_or_si128(_mm_and_si128(isHigh, fourLast), _mm_andnot_si128(isHigh, third));
    }
    alignas(16) uint32_t word[8];
    alignas(16) UTF16 offset[8];
    Store(word, _mm_unpacklo_epi16(first, last));
    Store(word + 4, _mm_unpackhi_epi16(first, last));
    Store(offset, at);
    UTF8* const base = t + *out;
    uint32_t spilled;
    std::memcpy(&spilled, base + total, sizeof spilled);
    for (unsigned i = 0; i < 8; ++i) std::memcpy(base + offset[i], &word[i], sizeof word[i]);
    std::memcpy(base + total, &spilled, sizeof spilled);
  }
  *out += total;
  return 8 + (high >> 15);
}

template <bool kCount>
AMBIT_SSE2 size_t Utf16Blocks(const UTF16* s, size_t n, UTF8* t, size_t room, size_t* written) {
  size_t pos = 0, out = 0;
  while (n - pos >= 8) {
    // A run of ASCII is tried only where the block starts and ends with it,
    // which spares most attempts in prose with accented letters.
    if (s[pos] < 0x80 && n - pos >= 16 && s[pos + 15] < 0x80) {
      const size_t from = pos;
      AsciiRun<kCount>(s, n, t, room, &pos, &out);
      if (pos != from) continue;
    }
    if (!kCount && room - out < 28) break;
    const __m128i a = Load(s + pos);
    if (EncodableEight(a)) {
      PutEight<kCount>(a, t, &out);
      pos += 8;
      continue;
    }
    // Surrogate pairs among the eight.
    if (n - pos < 9 || (!kCount && room - out < 36)) break;
    const size_t taken = PutEightWithPairs<kCount>(s + pos, t, &out);
    if (taken == 0) break;
    pos += taken;
  }
  *written = out;
  return pos;
}

// Eight UTF-32 units as UTF-16 values, when all are at most 0xFFFF.
AMBIT_SSE2 inline bool NarrowEight(const UTF32* s, __m128i* c) {
  const __m128i a = Load(s), b = Load(s + 4);
  if (_mm_movemask_epi8(_mm_cmpeq_epi16(
          _mm_and_si128(_mm_or_si128(a, b), _mm_set1_epi32(static_cast<int>(0xFFFF0000U))),
          _mm_setzero_si128())) != 0xFFFF)
    return false;
  // The signed pack is exact once the values are moved to -0x8000..0x7FFF.
  const __m128i bias32 = _mm_set1_epi32(0x8000);
  *c = _mm_add_epi16(_mm_packs_epi32(_mm_sub_epi32(a, bias32), _mm_sub_epi32(b, bias32)),
                     _mm_set1_epi16(static_cast<short>(0x8000)));
  return true;
}

// Lanes of four UTF-32 units that are not scalar values: above 0x10FFFF or
// surrogates.
AMBIT_SSE2 inline __m128i NotScalar(__m128i c) {
  return _mm_or_si128(
      _mm_cmpgt_epi32(_mm_srli_epi32(c, 16), _mm_set1_epi32(0x10)),
      _mm_cmpeq_epi32(_mm_and_si128(c, _mm_set1_epi32(static_cast<int>(0xFFFFF800U))),
                      _mm_set1_epi32(0xD800)));
}

template <bool kCount>
AMBIT_SSE2 size_t Utf32Blocks(const UTF32* s, size_t n, UTF8* t, size_t room, size_t* written) {
  const __m128i zero = _mm_setzero_si128();
  size_t pos = 0, out = 0;
  while (n - pos >= 8) {
    // A run of ASCII is tried only where the block starts and ends with it,
    // which spares most attempts in prose with accented letters.
    if (s[pos] < 0x80 && n - pos >= 16 && s[pos + 15] < 0x80) {
      const size_t from = pos;
      AsciiRun<kCount>(s, n, t, room, &pos, &out);
      if (pos != from) continue;
    }
    if (!kCount && room - out < 28) break;
    __m128i a;
    if (NarrowEight(s + pos, &a)) {
      if (!EncodableEight(a)) break;
      PutEight<kCount>(a, t, &out);
      pos += 8;
      continue;
    }
    // Supplementary characters among the eight.
    if (!kCount && room - out < 36) break;
    const __m128i c0 = Load(s + pos), c1 = Load(s + pos + 4);
    const __m128i bad = _mm_or_si128(
        _mm_or_si128(NotScalar(c0), NotScalar(c1)),
        _mm_or_si128(_mm_cmpeq_epi32(c0, zero), _mm_cmpeq_epi32(c1, zero)));
    if (_mm_movemask_epi8(bad) != 0) break;
    PutWideEight<kCount>(c0, c1, t, &out);
    pos += 8;
  }
  *written = out;
  return pos;
}

}  // namespace

size_t Sse2Utf8ToUtf16(const UTF8* s, size_t n, UTF16* t, size_t room, size_t* written) {
  return Utf8Blocks<Utf16Out>(s, n, t, room, written);
}

size_t Sse2Utf8ToUtf32(const UTF8* s, size_t n, UTF32* t, size_t room, size_t* written) {
  return Utf8Blocks<Utf32Out>(s, n, t, room, written);
}

size_t Sse2Utf8CountUtf16(const UTF8* s, size_t n, size_t* units) {
  return Utf8Blocks<Count16Out>(s, n, nullptr, 0, units);
}

size_t Sse2Utf8CountUtf32(const UTF8* s, size_t n, size_t* units) {
  return Utf8Blocks<Count32Out>(s, n, nullptr, 0, units);
}

size_t Sse2Utf16ToUtf8(const UTF16* s, size_t n, UTF8* t, size_t room, size_t* written) {
  return Utf16Blocks<false>(s, n, t, room, written);
}

size_t Sse2Utf16CountUtf8(const UTF16* s, size_t n, size_t* bytes) {
  return Utf16Blocks<true>(s, n, nullptr, 0, bytes);
}

size_t Sse2Utf32ToUtf8(const UTF32* s, size_t n, UTF8* t, size_t room, size_t* written) {
  return Utf32Blocks<false>(s, n, t, room, written);
}

size_t Sse2Utf32CountUtf8(const UTF32* s, size_t n, size_t* bytes) {
  return Utf32Blocks<true>(s, n, nullptr, 0, bytes);
}

AMBIT_SSE2 size_t Sse2Utf16ToUtf32(const UTF16* s, size_t n, UTF32* t, size_t room,
                                   size_t* written) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i surrogate = _mm_set1_epi16(static_cast<short>(0xD800));
  const __m128i topMask = _mm_set1_epi16(static_cast<short>(0xF800));
  const __m128i top10 = _mm_set1_epi16(static_cast<short>(0xFC00));
  size_t pos = 0, out = 0;
  // Sixteen units without surrogates at a time while they last.
  while (n - pos >= 16 && room - out >= 16) {
    const __m128i a = Load(s + pos), b = Load(s + pos + 8);
    if (_mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi16(_mm_and_si128(a, topMask), surrogate),
                                       _mm_cmpeq_epi16(_mm_and_si128(b, topMask), surrogate))) != 0)
      break;
    Store(t + out, _mm_unpacklo_epi16(a, zero));
    Store(t + out + 4, _mm_unpackhi_epi16(a, zero));
    Store(t + out + 8, _mm_unpacklo_epi16(b, zero));
    Store(t + out + 12, _mm_unpackhi_epi16(b, zero));
    pos += 16;
    out += 16;
  }
  // Each block writes at most eight units and may spill one more.
  while (n - pos >= 8 && room - out >= 9) {
    const __m128i a = Load(s + pos);
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(a, topMask), surrogate)) == 0) {
      Store(t + out, _mm_unpacklo_epi16(a, zero));
      Store(t + out + 4, _mm_unpackhi_epi16(a, zero));
      pos += 8;
      out += 8;
      continue;
    }
    // Surrogate pairs, checked as PutEightWithPairs checks them, but zero
    // is an ordinary unit here.
    if (n - pos < 9) break;
    const __m128i b = Load(s + pos + 1);
    const __m128i isHigh = _mm_cmpeq_epi16(_mm_and_si128(a, top10), surrogate);
    const __m128i isLow = _mm_cmpeq_epi16(_mm_and_si128(a, top10), _mm_set1_epi16(static_cast<short>(0xDC00)));
    const unsigned high = static_cast<unsigned>(_mm_movemask_epi8(isHigh));
    const unsigned low = static_cast<unsigned>(_mm_movemask_epi8(isLow));
    const unsigned lowNext = static_cast<unsigned>(_mm_movemask_epi8(
        _mm_cmpeq_epi16(_mm_and_si128(b, top10), _mm_set1_epi16(static_cast<short>(0xDC00)))));
    if ((high & ~lowNext) != 0 || low != ((high << 2) & 0xFFFFU)) break;
    const __m128i a0 = _mm_unpacklo_epi16(a, zero), a1 = _mm_unpackhi_epi16(a, zero);
    const __m128i b0 = _mm_unpacklo_epi16(b, zero), b1 = _mm_unpackhi_epi16(b, zero);
    const __m128i h0 = _mm_unpacklo_epi16(isHigh, isHigh), h1 = _mm_unpackhi_epi16(isHigh, isHigh);
    const __m128i offset = _mm_set1_epi32(0x35FDC00);
    const __m128i p0 = _mm_sub_epi32(_mm_add_epi32(_mm_slli_epi32(a0, 10), b0), offset);
    const __m128i p1 = _mm_sub_epi32(_mm_add_epi32(_mm_slli_epi32(a1, 10), b1), offset);
    alignas(16) uint32_t value[8];
    Store(value, _mm_or_si128(_mm_and_si128(h0, p0), _mm_andnot_si128(h0, a0)));
    Store(value + 4, _mm_or_si128(_mm_and_si128(h1, p1), _mm_andnot_si128(h1, a1)));
    // Low surrogates are no characters of their own: each value goes where
    // the next character goes (the count of characters before it), and the
    // spill past the last is put back.
    __m128i at = _mm_slli_si128(_mm_andnot_si128(isLow, _mm_set1_epi16(1)), 2);
    at = _mm_add_epi16(at, _mm_slli_si128(at, 2));
    at = _mm_add_epi16(at, _mm_slli_si128(at, 4));
    at = _mm_add_epi16(at, _mm_slli_si128(at, 8));
    alignas(16) UTF16 index[8];
    Store(index, at);
    const unsigned chars = index[7] + (((low >> 15) & 1U) ^ 1U);
    UTF32* const base = t + out;
    const UTF32 spilled = base[chars];
    for (unsigned i = 0; i < 8; ++i) base[index[i]] = value[i];
    base[chars] = spilled;
    pos += 8 + (high >> 15);
    out += chars;
  }
  *written = out;
  return pos;
}

AMBIT_SSE2 size_t Sse2Utf32ToUtf16(const UTF32* s, size_t n, UTF16* t, size_t room,
                                   size_t* written) {
  const __m128i surrogate = _mm_set1_epi16(static_cast<short>(0xD800));
  const __m128i topMask = _mm_set1_epi16(static_cast<short>(0xF800));
  size_t pos = 0, out = 0;
  // Sixteen units up to 0xFFFF, none a surrogate, at a time while they
  // last. The biased signed pack turns a value above 0xFFFF into 0xFFFF and
  // one above 0x7FFFFFFF into 0; lanes holding either are left to the code
  // below, which tells them apart.
  const __m128i bias32 = _mm_set1_epi32(0x8000), bias16 = _mm_set1_epi16(static_cast<short>(0x8000));
  const __m128i zero = _mm_setzero_si128(), ones = _mm_set1_epi8(-1);
  while (n - pos >= 16 && room - out >= 16) {
    const __m128i a = _mm_add_epi16(_mm_packs_epi32(_mm_sub_epi32(Load(s + pos), bias32),
                                                    _mm_sub_epi32(Load(s + pos + 4), bias32)),
                                    bias16);
    const __m128i b = _mm_add_epi16(_mm_packs_epi32(_mm_sub_epi32(Load(s + pos + 8), bias32),
                                                    _mm_sub_epi32(Load(s + pos + 12), bias32)),
                                    bias16);
    const __m128i bad = _mm_or_si128(
        _mm_or_si128(_mm_cmpeq_epi16(_mm_and_si128(a, topMask), surrogate),
                     _mm_cmpeq_epi16(_mm_and_si128(b, topMask), surrogate)),
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi16(a, ones), _mm_cmpeq_epi16(b, ones)),
                     _mm_or_si128(_mm_cmpeq_epi16(a, zero), _mm_cmpeq_epi16(b, zero))));
    if (_mm_movemask_epi8(bad) != 0) break;
    Store(t + out, a);
    Store(t + out + 8, b);
    pos += 16;
    out += 16;
  }
  // Each block writes at most sixteen units and may spill two more.
  while (n - pos >= 8 && room - out >= 18) {
    __m128i c;
    if (NarrowEight(s + pos, &c)) {
      if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(c, topMask), surrogate)) != 0) break;
      Store(t + out, c);
      pos += 8;
      out += 8;
      continue;
    }
    // Supplementary characters become pairs: high | low << 16 in a word,
    // stored whole, two units long; other values one unit.
    const __m128i c0 = Load(s + pos), c1 = Load(s + pos + 4);
    if (_mm_movemask_epi8(_mm_or_si128(NotScalar(c0), NotScalar(c1))) != 0) break;
    alignas(16) uint32_t word[8], length[8];
    const __m128i bmpMax = _mm_set1_epi32(0xFFFF);
    const __m128i isPair0 = _mm_cmpgt_epi32(c0, bmpMax), isPair1 = _mm_cmpgt_epi32(c1, bmpMax);
    const __m128i base0 = _mm_sub_epi32(c0, _mm_set1_epi32(0x10000));
    const __m128i base1 = _mm_sub_epi32(c1, _mm_set1_epi32(0x10000));
    const __m128i highBase = _mm_set1_epi32(0xD800), lowBase = _mm_set1_epi32(0xDC00),
                  mask10 = _mm_set1_epi32(0x3FF);
    const __m128i pair0 = _mm_or_si128(_mm_add_epi32(_mm_srli_epi32(base0, 10), highBase),
                                       _mm_slli_epi32(_mm_add_epi32(_mm_and_si128(base0, mask10), lowBase), 16));
    const __m128i pair1 = _mm_or_si128(_mm_add_epi32(_mm_srli_epi32(base1, 10), highBase),
                                       _mm_slli_epi32(_mm_add_epi32(_mm_and_si128(base1, mask10), lowBase), 16));
    Store(word, _mm_or_si128(_mm_and_si128(isPair0, pair0), _mm_andnot_si128(isPair0, c0)));
    Store(word + 4, _mm_or_si128(_mm_and_si128(isPair1, pair1), _mm_andnot_si128(isPair1, c1)));
    const __m128i one = _mm_set1_epi32(1);
    const __m128i l0 = _mm_sub_epi32(one, isPair0), l1 = _mm_sub_epi32(one, isPair1);
    Store(length, l0);
    Store(length + 4, l1);
    __m128i sum = _mm_add_epi32(l0, l1);
    sum = _mm_add_epi32(sum, _mm_srli_si128(sum, 8));
    sum = _mm_add_epi32(sum, _mm_srli_si128(sum, 4));
    const unsigned total = static_cast<unsigned>(_mm_cvtsi128_si32(sum));
    UTF16* const b = t + out;
    uint32_t spilled;
    std::memcpy(&spilled, b + total, sizeof spilled);
    size_t k = 0;
    for (unsigned i = 0; i < 8; ++i) {
      std::memcpy(b + k, &word[i], sizeof word[i]);
      k += length[i];
    }
    std::memcpy(b + total, &spilled, sizeof spilled);
    pos += 8;
    out += total;
  }
  *written = out;
  return pos;
}

}  // namespace ambit_utf
