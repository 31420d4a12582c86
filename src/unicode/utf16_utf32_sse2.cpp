// SSE2 kernels that read UTF-16 or UTF-32 (see utf_sse2.h for the
// contract). Only the functions marked AMBIT_SSE2 use SSE2, and everything
// here but the entry points is private to this file.
//
// A block is eight units (sixteen for runs of ASCII). Units up to 0xFFFF
// are encoded in 16-bit lanes; eight three-byte characters are packed by
// shifts; supplementary characters (proper surrogate pairs, or UTF-32
// values above 0xFFFF) take their own paths. Anything else stops the
// kernel.
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
