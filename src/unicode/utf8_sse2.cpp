// SSE2 kernels that read UTF-8 (see utf_sse2.h for the contract). Only the
// functions marked AMBIT_SSE2 use SSE2, and everything here but the entry
// points is private to this file.
//
// A block is sixteen positions. Runs of ASCII are widened directly, six
// three-byte characters in a row are decoded by a pattern of their own,
// and any other mix is classified byte by byte (ASCII, continuation, two-,
// three- and four-byte leads), checked for a continuation exactly where
// each lead wants one and for the second-byte limits, decoded at every
// position, and placed by prefix sums of the starts.
//
// Writing exactly the produced units: where a block's output has a variable
// length, the kernel stores each character with a fixed-width store, so the
// last store of a block may spill a few units past the block's output. The
// kernel reads those units first and puts them back after the block; they
// lie inside the target's room, which the kernel checks before the block.
// The caller's target thus never changes past the units written.
#include <cstdint>
#include <cstring>

#include "unicode/utf_sse2.h"
#include "unicode/utf_sse2_common.h"

namespace ambit_utf {
namespace {

using sse2::Load;
using sse2::Store;

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

}  // namespace ambit_utf
