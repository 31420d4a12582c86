#ifndef AMBIT_UNICODE_CONVERT_UTF_IMPL_H_
#define AMBIT_UNICODE_CONVERT_UTF_IMPL_H_

// The engines behind the UTF converters and counters.
//
// Each zero-stopping direction (UTF-8 to UTF-16, UTF-8 to UTF-32, UTF-16 to
// UTF-8, UTF-32 to UTF-8) is one template that writes through a sink: a
// BufferSink writes into the caller's target and knows its room, a CountSink
// only counts and never runs out. A converter and its counter are therefore
// the same code and cannot disagree on where they stop or what they count.
//
// Each engine exists in two forms, chosen by a template flag:
//   - the plain form is a literal transcription of the classic algorithm
//     (table lookup, legality check, accumulate and subtract);
//   - the fast form, used by the public functions, moves runs of ASCII a
//     32-bit word at a time and decodes multi-byte sequences in straight-line
//     code. It takes a word only when every unit of it is 0x01..0x7F and
//     both the source and the target have room for all of it, so it never
//     passes a stopping zero, a source end or a target end, and leaves the
//     pointers and results exactly where the plain form would. The unit tests
//     compare the two forms on random input and random target sizes.
//
// Where the processor has SSE2 (UseVectorPaths()), the fast form also hands
// the text to the SSE2 kernels of utf_sse2.h, which take whole blocks of
// well-formed text; between kernel calls it converts a window of units
// itself, so that what the kernels refuse (ill-formed input, the stopping
// zero, the last units before an end, a target too short for a block) is
// handled by the scalar code and gives the same results.
//
// Everything here is private to the library; the tests include it directly.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "ambit/convertutf.h"
#include "unicode/utf_sse2.h"
#include "unicode/utf_vector_switch.h"

static_assert(sizeof(UTF32) == 4, "UTF32 must be 32 bits");
static_assert(sizeof(UTF16) == 2, "UTF16 must be 16 bits");
static_assert(sizeof(UTF8) == 1, "UTF8 must be 8 bits");
static_assert(sizeof(wchar_t) == 4, "wchar_t carries UTF-32");

namespace ambit_utf {

constexpr UTF32 kReplacementChar = 0xFFFD;
constexpr UTF32 kMaxBmp = 0xFFFF;
constexpr UTF32 kMaxUtf16 = 0x10FFFF;
constexpr UTF32 kMaxLegalUtf32 = 0x10FFFF;
constexpr UTF32 kSurHighStart = 0xD800;
constexpr UTF32 kSurHighEnd = 0xDBFF;
constexpr UTF32 kSurLowStart = 0xDC00;
constexpr UTF32 kSurLowEnd = 0xDFFF;
constexpr int kHalfShift = 10;
constexpr UTF32 kHalfBase = 0x10000;
constexpr UTF32 kHalfMask = 0x3FF;

// Continuation bytes that follow a lead byte. The 5- and 6-byte rows are
// kept although such sequences are never legal: they decide how many bytes a
// reader wants before it judges the sequence.
inline constexpr signed char kTrailingBytesForUTF8[256] = {
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
    2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5};

// Subtracted after accumulating a sequence of extra + 1 bytes; removes the
// lead and continuation marker bits in one step.
inline constexpr UTF32 kOffsetsFromUTF8[6] = {
    0x00000000UL, 0x00003080UL, 0x000E2080UL,
    0x03C82080UL, 0xFA082080UL, 0x82082080UL};

// OR-ed into the lead byte of an encoded sequence, by its length.
inline constexpr UTF8 kFirstByteMark[7] = {0x00, 0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};

// Judges the `length` bytes at source, from the last backwards. Lengths other
// than 1 to 4 are never legal. The second byte's lower bound depends on the
// lead: after 0xE0 it is 0xA0 and after 0xF0 it is 0x90; after 0xED and
// 0xF4 only the upper bounds 0x9F and 0x8F are checked, and after any other
// lead it must be at least 0x80. Lead bytes 0x80..0xC1 and above 0xF4 are
// never legal. The caller guarantees that `length` bytes can be read.
inline bool IsLegalUtf8(const UTF8* source, int length) {
  UTF8 a;
  const UTF8* p = source + length;
  switch (length) {
    default:
      return false;
    case 4:
      if ((a = *--p) < 0x80 || a > 0xBF) return false;
      [[fallthrough]];
    case 3:
      if ((a = *--p) < 0x80 || a > 0xBF) return false;
      [[fallthrough]];
    case 2:
      if ((a = *--p) > 0xBF) return false;
      switch (*source) {
        case 0xE0:
          if (a < 0xA0) return false;
          break;
        case 0xED:
          if (a > 0x9F) return false;
          break;
        case 0xF0:
          if (a < 0x90) return false;
          break;
        case 0xF4:
          if (a > 0x8F) return false;
          break;
        default:
          if (a < 0x80) return false;
      }
      [[fallthrough]];
    case 1:
      if (*source >= 0x80 && *source < 0xC2) return false;
  }
  if (*source > 0xF4) return false;
  return true;
}

// Units from p up to end, or 0 when p is at or past end. Computed on the
// addresses so that a range larger than 2 GiB cannot overflow ptrdiff_t.
template <typename T>
inline size_t Remaining(const T* p, const T* end) {
  return p < end ? (reinterpret_cast<uintptr_t>(end) - reinterpret_cast<uintptr_t>(p)) / sizeof(T)
                 : 0;
}

inline uint32_t Load32(const void* p) {
  uint32_t w;
  std::memcpy(&w, p, sizeof w);
  return w;
}

inline void Store32(void* p, uint32_t w) { std::memcpy(p, &w, sizeof w); }

// True when each of the four bytes of w is 0x01..0x7F: no high bit, and no
// zero byte (a zero byte is the lowest one to borrow in w - 0x01010101).
inline bool AllAsciiNonZero8(uint32_t w) {
  return ((w | (w - 0x01010101U)) & 0x80808080U) == 0;
}

// The same for the two 16-bit units of w.
inline bool AllAsciiNonZero16(uint32_t w) {
  return ((w | (w - 0x00010001U)) & 0xFF80FF80U) == 0;
}

// --- Sinks ---------------------------------------------------------------------

// Writes into [p, end).
template <typename Unit>
class BufferSink {
 public:
  // An end before the start is taken as no room at all.
  BufferSink(Unit* p, Unit* end) : m_p(p), m_end(end < p ? p : end) {}

  static constexpr bool kCountsOnly = false;

  size_t Room() const {
    return (reinterpret_cast<uintptr_t>(m_end) - reinterpret_cast<uintptr_t>(m_p)) / sizeof(Unit);
  }
  void Put(UTF32 u) { *m_p++ = static_cast<Unit>(u); }
  Unit* Position() const { return m_p; }
  // Takes n units written in place at Position(); Room() >= n.
  void Skip(size_t n) { m_p += n; }

  // Four ASCII characters, given as the four bytes of w (first in the low
  // byte). The caller has checked Room() >= 4.
  void PutAscii4(uint32_t w) {
    if constexpr (sizeof(Unit) == 1) {
      Store32(m_p, w);
    } else if constexpr (sizeof(Unit) == 2) {
      Store32(m_p, (w & 0xFFU) | ((w << 8) & 0xFF0000U));
      Store32(m_p + 2, ((w >> 16) & 0xFFU) | ((w >> 8) & 0xFF0000U));
    } else {
      Store32(m_p, w & 0xFFU);
      Store32(m_p + 1, (w >> 8) & 0xFFU);
      Store32(m_p + 2, (w >> 16) & 0xFFU);
      Store32(m_p + 3, w >> 24);
    }
    m_p += 4;
  }

 private:
  Unit* m_p;
  Unit* m_end;
};

// Counts what would be written; never runs out of room.
class CountSink {
 public:
  static constexpr bool kCountsOnly = true;

  size_t Room() const { return SIZE_MAX; }
  void Put(UTF32) { ++m_count; }
  void Skip(size_t n) { m_count += static_cast<unsigned>(n); }
  void PutAscii4(uint32_t) { m_count += 4; }
  unsigned Count() const { return m_count; }

 private:
  unsigned m_count = 0;
};

inline bool IsContinuation(UTF32 b) { return (b & 0xC0) == 0x80; }

// --- ASCII runs ------------------------------------------------------------------

// True for a unit 0x01..0x7F: ASCII, and not the zero that stops a
// conversion.
template <typename U>
inline bool IsAsciiNonZero(U u) {
  return static_cast<uint32_t>(u) - 1U < 0x7FU;
}

// Takes a run of ASCII from `source` a group of four units at a time, while
// both buffers have room for a whole group. `Pack` gives the four units as
// the bytes of one word, or false when any of them is not 0x01..0x7F; the
// units of that last group up to the first such one are then taken one by
// one (the scan cannot leave the group). Returns whether anything was
// taken: false only when less than a group fits, or the first unit is not
// 0x01..0x7F.
template <typename S, typename Sink, typename Pack>
inline bool TakeAsciiGroups(const S*& source, const S* sourceEnd, Sink& sink, Pack pack) {
  size_t n = Remaining(source, sourceEnd);
  const size_t room = sink.Room();
  if (room < n) n = room;
  if (n < 4) return false;
  const S* const from = source;
  const S* const stop = source + (n & ~size_t(3));
  do {
    uint32_t w;
    if (!pack(source, &w)) {
      while (IsAsciiNonZero(*source)) sink.Put(*source++);
      break;
    }
    sink.PutAscii4(w);
    source += 4;
  } while (source < stop);
  return source != from;
}

// Where a bulk loop must stop so that, at every check of `source < end`,
// at least four source units remain and the target has room for the
// largest single step (four units). kOutPerIn bounds the units written per
// unit consumed by any step: 1 for UTF-8 to UTF-16 or UTF-32, 3 for UTF-16
// to UTF-8, 4 for UTF-32 to UTF-8. Returns `source` when no bulk step is
// safe.
template <unsigned kOutPerIn, typename S, typename Sink>
inline const S* BulkEnd(const S* source, const S* sourceEnd, const Sink& sink) {
  size_t n = Remaining(source, sourceEnd);
  const size_t room = sink.Room();
  if (n < 4 || room < 4) return source;
  n -= 3;
  const size_t byRoom = (room - 4) / kOutPerIn + 1;
  return source + (byRoom < n ? byRoom : n);
}

// ASCII characters in a row after which the UTF-8 bulk loop moves words.
// (For UTF-16 and UTF-32 sources the word test is cheap enough to try on
// every ASCII unit; measured, that is faster on every kind of text.)
constexpr unsigned kLongAsciiRun = 8;

inline bool PackAscii8(const UTF8* s, uint32_t* w) {
  *w = Load32(s);
  return AllAsciiNonZero8(*w);
}

inline bool PackAscii16(const UTF16* s, uint32_t* w) {
  const uint32_t w0 = Load32(s);
  const uint32_t w1 = Load32(s + 2);
  if (!AllAsciiNonZero16(w0) || !AllAsciiNonZero16(w1)) return false;
  *w = (w0 & 0xFFU) | ((w0 >> 8) & 0xFF00U) | ((w1 & 0xFFU) << 16) | ((w1 << 8) & 0xFF000000U);
  return true;
}

inline bool PackAscii32(const UTF32* s, uint32_t* w) {
  const UTF32 a = s[0], b = s[1], c = s[2], d = s[3];
  // All below 0x80, and none zero (only a zero wraps on - 1).
  if (((a | b | c | d) & ~UTF32(0x7F)) != 0 ||
      (((a - 1) | (b - 1) | (c - 1) | (d - 1)) & 0x80000000UL) != 0)
    return false;
  *w = uint32_t(a) | (uint32_t(b) << 8) | (uint32_t(c) << 16) | (uint32_t(d) << 24);
  return true;
}

// --- Vector steps ----------------------------------------------------------------

// Each runs the SSE2 kernel of its direction from `source` and moves the
// source and the sink past the blocks it took. Only when UseVectorPaths().
// From UTF-8, kToUtf32 tells a counter whether a supplementary character
// counts one unit or two.
template <bool kToUtf32>
inline void VectorStepUtf8(const UTF8*& source, const UTF8* sourceEnd, BufferSink<UTF16>& sink) {
  size_t written = 0;
  source += Sse2Utf8ToUtf16(source, Remaining(source, sourceEnd), sink.Position(), sink.Room(),
                            &written);
  sink.Skip(written);
}

template <bool kToUtf32>
inline void VectorStepUtf8(const UTF8*& source, const UTF8* sourceEnd, BufferSink<UTF32>& sink) {
  size_t written = 0;
  source += Sse2Utf8ToUtf32(source, Remaining(source, sourceEnd), sink.Position(), sink.Room(),
                            &written);
  sink.Skip(written);
}

template <bool kToUtf32>
inline void VectorStepUtf8(const UTF8*& source, const UTF8* sourceEnd, CountSink& sink) {
  size_t units = 0;
  source += kToUtf32 ? Sse2Utf8CountUtf32(source, Remaining(source, sourceEnd), &units)
                     : Sse2Utf8CountUtf16(source, Remaining(source, sourceEnd), &units);
  sink.Skip(units);
}

inline void VectorStep(const UTF16*& source, const UTF16* sourceEnd, BufferSink<UTF8>& sink) {
  size_t written = 0;
  source += Sse2Utf16ToUtf8(source, Remaining(source, sourceEnd), sink.Position(), sink.Room(),
                            &written);
  sink.Skip(written);
}

inline void VectorStep(const UTF16*& source, const UTF16* sourceEnd, CountSink& sink) {
  size_t bytes = 0;
  source += Sse2Utf16CountUtf8(source, Remaining(source, sourceEnd), &bytes);
  sink.Skip(bytes);
}

inline void VectorStep(const UTF32*& source, const UTF32* sourceEnd, BufferSink<UTF8>& sink) {
  size_t written = 0;
  source += Sse2Utf32ToUtf8(source, Remaining(source, sourceEnd), sink.Position(), sink.Room(),
                            &written);
  sink.Skip(written);
}

inline void VectorStep(const UTF32*& source, const UTF32* sourceEnd, CountSink& sink) {
  size_t bytes = 0;
  source += Sse2Utf32CountUtf8(source, Remaining(source, sourceEnd), &bytes);
  sink.Skip(bytes);
}

// How many source units the scalar code converts between two kernel calls:
// a block's worth after a call that took a long run; doubling, up to a
// limit, after calls that took little or nothing, so that text the kernels
// mostly refuse (ill-formed text converted leniently, say) pays little for
// the attempts.
class VectorWindow {
 public:
  static constexpr size_t kMin = 16;
  static constexpr size_t kMax = 512;
  static constexpr size_t kLongRun = 64;

  void After(size_t taken) { m_n = taken >= kLongRun ? kMin : (m_n < kMax ? m_n * 2 : kMax); }
  // Runs a vector kernel from `source` (kernel(source, units, target,
  // room, &written) returns the units it took), moves source and target
  // past what it did, and returns where the scalar code stops next.
  template <typename S, typename T, typename Kernel>
  const S* Step(Kernel kernel, const S*& source, const S* end, T*& target, T* targetEnd) {
    size_t written = 0;
    const size_t taken =
        kernel(source, Remaining(source, end), target, Remaining(target, targetEnd), &written);
    source += taken;
    target += written;
    After(taken);
    return Limit(source, end);
  }
  // `end` pulled in to at most the window's units past `source`.
  template <typename S>
  const S* Limit(const S* source, const S* end) const {
    return Remaining(source, end) > m_n ? source + m_n : end;
  }

 private:
  size_t m_n = kMin;
};

// --- UTF-8 readers ---------------------------------------------------------------

// Puts one decoded code point into a UTF-16 sink that has at least one unit
// of room. Returns conversionOK, or the result that stops the conversion
// (the caller then leaves the source at the sequence).
template <typename Sink>
inline ConversionResult PutAsUtf16(UTF32 ch, Sink& sink, ConversionFlags flags) {
  if (ch <= kMaxBmp) {
    if (ch >= kSurHighStart && ch <= kSurLowEnd) {
      if (flags == strictConversion) return sourceIllegal;
      sink.Put(kReplacementChar);
    } else {
      sink.Put(ch);
    }
  } else if (ch > kMaxUtf16) {
    if (flags == strictConversion) return sourceIllegal;
    sink.Put(kReplacementChar);
  } else {
    if (sink.Room() < 2) return targetExhausted;
    ch -= kHalfBase;
    sink.Put((ch >> kHalfShift) + kSurHighStart);
    sink.Put((ch & kHalfMask) + kSurLowStart);
  }
  return conversionOK;
}

// The same for a UTF-32 sink. A value above 0x10FFFF is written as U+FFFD
// and reported in *recorded, without stopping.
template <typename Sink>
inline ConversionResult PutAsUtf32(UTF32 ch, Sink& sink, ConversionFlags flags,
                                   ConversionResult* recorded) {
  if (ch <= kMaxLegalUtf32) {
    if (ch >= kSurHighStart && ch <= kSurLowEnd) {
      if (flags == strictConversion) return sourceIllegal;
      sink.Put(kReplacementChar);
    } else {
      sink.Put(ch);
    }
  } else {
    *recorded = sourceIllegal;
    sink.Put(kReplacementChar);
  }
  return conversionOK;
}

// One character, exactly as the classic algorithm reads it: the lead byte
// gives the length; a sequence cut by the end is sourceExhausted and one
// that fails IsLegalUtf8 is sourceIllegal, both with the source left at the
// lead; the bytes are accumulated and the offset subtracted; a full target
// is targetExhausted. On success the source moves past the sequence and the
// function returns true; otherwise *result is set and the source stays.
template <bool kToUtf32, typename Sink>
inline __attribute__((always_inline)) bool StepUtf8(const UTF8*& source, const UTF8* sourceEnd, Sink& sink,
                     ConversionFlags flags, ConversionResult* result) {
  const unsigned extra = static_cast<unsigned>(kTrailingBytesForUTF8[*source]);
  if (extra >= Remaining(source, sourceEnd)) {
    *result = sourceExhausted;
    return false;
  }
  if (!IsLegalUtf8(source, static_cast<int>(extra) + 1)) {
    *result = sourceIllegal;
    return false;
  }
  UTF32 ch = 0;
  const UTF8* p = source;
  for (unsigned i = 0; i < extra; ++i) {
    ch += *p++;
    ch <<= 6;
  }
  ch += *p;
  ch -= kOffsetsFromUTF8[extra];
  if (sink.Room() < 1) {
    *result = targetExhausted;
    return false;
  }
  ConversionResult r;
  if constexpr (kToUtf32)
    r = PutAsUtf32(ch, sink, flags, result);
  else
    r = PutAsUtf16(ch, sink, flags);
  if (r != conversionOK) {
    *result = r;
    return false;
  }
  source += extra + 1;
  return true;
}

// UTF-8 to UTF-16 (kToUtf32 false) or UTF-32 (true), one character at a
// time. Stops at a zero byte.
template <bool kToUtf32, typename Sink>
ConversionResult Utf8ToWidePlain(const UTF8** sourceStart, const UTF8* sourceEnd, Sink& sink,
                                 ConversionFlags flags) {
  ConversionResult result = conversionOK;
  const UTF8* source = *sourceStart;
  while (source < sourceEnd && *source != 0)
    if (!StepUtf8<kToUtf32>(source, sourceEnd, sink, flags, &result)) break;
  *sourceStart = source;
  return result;
}

// The same, fast. Well-formed sequences of 1 to 4 bytes are decoded in line
// (ASCII a word at a time); everything else (a cut sequence, an ill-formed
// one, or one of the looser forms that IsLegalUtf8 also admits) goes
// through StepUtf8. The in-line paths accept only sequences that
// IsLegalUtf8 accepts and compute the same value, which for these is never
// a surrogate and never above 0x10FFFF, so no replacement or error can
// arise on them.
template <bool kToUtf32, typename Sink>
ConversionResult Utf8ToWideFast(const UTF8** sourceStart, const UTF8* sourceEnd, Sink& out,
                                ConversionFlags flags) {
  // A local copy keeps the write position in a register: byte stores
  // through the target could otherwise alias the caller's sink.
  Sink sink = out;
  ConversionResult result = conversionOK;
  const UTF8* source = *sourceStart;
  const bool vector = UseVectorPaths();
  VectorWindow window;
  while (source < sourceEnd) {
    if (vector) {
      const UTF8* const before = source;
      VectorStepUtf8<kToUtf32>(source, sourceEnd, sink);
      window.After(Remaining(before, source));
    }
    // In bulk: with four source bytes left and room for four units at every
    // step (see BulkEnd), no well-formed character can run out of either,
    // so the common cases need no bounds checks. Anything else leaves for
    // the checked code.
    // ASCII goes a byte at a time, like any character, until a run of it
    // grows long; then a word at a time. Trying words on the short runs of
    // prose would cost a mispredicted branch on most of them.
    const UTF8* bulkEnd = BulkEnd<1>(source, sourceEnd, sink);
    if (vector) bulkEnd = window.Limit(source, bulkEnd);
    unsigned asciiRun = 0;
    while (source < bulkEnd) {
      const UTF32 c0 = *source;
      if (c0 < 0x80) {
        if (c0 == 0) break;
        if (++asciiRun > kLongAsciiRun) {
          uint32_t w = Load32(source);
          if (AllAsciiNonZero8(w)) {
            do {
              sink.PutAscii4(w);
              source += 4;
            } while (source < bulkEnd && AllAsciiNonZero8(w = Load32(source)));
            continue;
          }
        }
        sink.Put(c0);
        ++source;
        continue;
      }
      asciiRun = 0;
      const UTF32 c1 = source[1];
      if (c0 - 0xC2 < 0x1E) {
        if (!IsContinuation(c1)) break;
        sink.Put((c0 << 6) + c1 - kOffsetsFromUTF8[1]);
        source += 2;
        continue;
      }
      if (c0 - 0xE0 < 0x10) {
        // With both continuation bytes right, the rules for E0 and ED are
        // the value lying at or above 0x800 and outside the surrogates: one
        // test of the bytes' top bits and one of the value.
        const UTF32 c2 = source[2];
        const UTF32 ch = (c0 << 12) + (c1 << 6) + c2 - kOffsetsFromUTF8[2];
        if ((((c1 << 8) | c2) & 0xC0C0) != 0x8080 || ch < 0x800 || ch - 0xD800 < 0x800) break;
        sink.Put(ch);
        source += 3;
        continue;
      }
      if (c0 - 0xF0 < 0x05) {
        // Likewise F0 and F4: the value must lie in [0x10000, 0x10FFFF].
        const UTF32 c2 = source[2], c3 = source[3];
        UTF32 ch = (c0 << 18) + (c1 << 12) + (c2 << 6) + c3 - kOffsetsFromUTF8[3];
        if ((((c1 << 16) | (c2 << 8) | c3) & 0xC0C0C0) != 0x808080 || ch - 0x10000 >= 0x100000)
          break;
        if constexpr (kToUtf32) {
          sink.Put(ch);
        } else {
          ch -= kHalfBase;
          sink.Put((ch >> kHalfShift) + kSurHighStart);
          sink.Put((ch & kHalfMask) + kSurLowStart);
        }
        source += 4;
        continue;
      }
      break;
    }
    // One character with every check.
    if (source >= sourceEnd) break;
    const UTF32 b0 = *source;
    if (b0 < 0x80) {
      if (b0 == 0) break;
      if (!vector && TakeAsciiGroups(source, sourceEnd, sink, PackAscii8)) continue;
      if (sink.Room() < 1) {
        result = targetExhausted;
        break;
      }
      sink.Put(b0);
      ++source;
      continue;
    }
    const size_t avail = Remaining(source, sourceEnd);
    if (b0 >= 0xC2 && b0 <= 0xDF) {
      if (avail >= 2 && IsContinuation(source[1])) {
        if (sink.Room() < 1) {
          result = targetExhausted;
          break;
        }
        sink.Put((b0 << 6) + source[1] - kOffsetsFromUTF8[1]);
        source += 2;
        continue;
      }
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
      if (avail >= 3) {
        const UTF32 b1 = source[1];
        if (IsContinuation(b1) && IsContinuation(source[2]) && (b0 != 0xE0 || b1 >= 0xA0) &&
            (b0 != 0xED || b1 <= 0x9F)) {
          if (sink.Room() < 1) {
            result = targetExhausted;
            break;
          }
          sink.Put((b0 << 12) + (b1 << 6) + source[2] - kOffsetsFromUTF8[2]);
          source += 3;
          continue;
        }
      }
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
      if (avail >= 4) {
        const UTF32 b1 = source[1];
        if (IsContinuation(b1) && IsContinuation(source[2]) && IsContinuation(source[3]) &&
            (b0 != 0xF0 || b1 >= 0x90) && (b0 != 0xF4 || b1 <= 0x8F)) {
          UTF32 ch = (b0 << 18) + (b1 << 12) + (UTF32(source[2]) << 6) + source[3] -
                     kOffsetsFromUTF8[3];
          if (sink.Room() < (kToUtf32 ? 1 : 2)) {
            result = targetExhausted;
            break;
          }
          if constexpr (kToUtf32) {
            sink.Put(ch);
          } else {
            ch -= kHalfBase;
            sink.Put((ch >> kHalfShift) + kSurHighStart);
            sink.Put((ch & kHalfMask) + kSurLowStart);
          }
          source += 4;
          continue;
        }
      }
    }
    if (!StepUtf8<kToUtf32>(source, sourceEnd, sink, flags, &result)) break;
  }
  out = sink;
  *sourceStart = source;
  return result;
}

template <bool kFast, bool kToUtf32, typename Sink>
ConversionResult Utf8ToWide(const UTF8** sourceStart, const UTF8* sourceEnd, Sink& sink,
                            ConversionFlags flags) {
  if constexpr (kFast)
    return Utf8ToWideFast<kToUtf32>(sourceStart, sourceEnd, sink, flags);
  else
    return Utf8ToWidePlain<kToUtf32>(sourceStart, sourceEnd, sink, flags);
}

// --- UTF-8 writers -------------------------------------------------------------

// Bytes needed for ch (3 for the replacement of an out-of-range value).
inline unsigned Utf8Length(UTF32 ch) {
  if (ch < 0x80) return 1;
  if (ch < 0x800) return 2;
  if (ch < 0x10000) return 3;
  if (ch < 0x110000) return 4;
  return 3;
}

// Writes a scalar value ch in exactly kLength bytes, first to last; gives the
// same bytes as PutUtf8 for a value of that length.
template <unsigned kLength, typename Sink>
inline void PutUtf8Fixed(UTF32 ch, Sink& sink) {
  if constexpr (Sink::kCountsOnly) {
    sink.Skip(kLength);
  } else {
    UTF8* t = sink.Position();
    if constexpr (kLength == 2) {
      t[0] = static_cast<UTF8>(0xC0 | (ch >> 6));
      t[1] = static_cast<UTF8>(0x80 | (ch & 0x3F));
    } else if constexpr (kLength == 3) {
      t[0] = static_cast<UTF8>(0xE0 | (ch >> 12));
      t[1] = static_cast<UTF8>(0x80 | ((ch >> 6) & 0x3F));
      t[2] = static_cast<UTF8>(0x80 | (ch & 0x3F));
    } else {
      static_assert(kLength == 4, "two to four bytes");
      t[0] = static_cast<UTF8>(0xF0 | (ch >> 18));
      t[1] = static_cast<UTF8>(0x80 | ((ch >> 12) & 0x3F));
      t[2] = static_cast<UTF8>(0x80 | ((ch >> 6) & 0x3F));
      t[3] = static_cast<UTF8>(0x80 | (ch & 0x3F));
    }
    sink.Skip(kLength);
  }
}

// Writes ch in `length` bytes, the last first: each continuation byte takes
// the low six bits, and the lead byte gets the mark for the length. The
// sink has room for them.
template <typename Sink>
inline void PutUtf8(UTF32 ch, unsigned length, Sink& sink) {
  if constexpr (Sink::kCountsOnly) {
    sink.Skip(length);
  } else {
    UTF8* target = sink.Position() + length;
    switch (length) {
      case 4:
        *--target = static_cast<UTF8>((ch | 0x80) & 0xBF);
        ch >>= 6;
        [[fallthrough]];
      case 3:
        *--target = static_cast<UTF8>((ch | 0x80) & 0xBF);
        ch >>= 6;
        [[fallthrough]];
      case 2:
        *--target = static_cast<UTF8>((ch | 0x80) & 0xBF);
        ch >>= 6;
        [[fallthrough]];
      case 1:
        *--target = static_cast<UTF8>(ch | kFirstByteMark[length]);
    }
    sink.Skip(length);
  }
}

// One UTF-16 character the classic way: pairs are joined, a high surrogate
// as the last unit is sourceExhausted, an unpaired surrogate is
// sourceIllegal under strict and passed on under lenient; a character that
// does not fit whole is targetExhausted. Returns false with *result set when
// the conversion stops, the source left at the character.
template <typename Sink>
inline __attribute__((always_inline)) bool StepUtf16ToUtf8(const UTF16*& source, const UTF16* sourceEnd, Sink& sink,
                            ConversionFlags flags, ConversionResult* result) {
  const UTF16* next = source;
  UTF32 ch = *next++;
  if (ch >= kSurHighStart && ch <= kSurHighEnd) {
    if (next < sourceEnd) {
      const UTF32 ch2 = *next;
      if (ch2 >= kSurLowStart && ch2 <= kSurLowEnd) {
        ch = ((ch - kSurHighStart) << kHalfShift) + (ch2 - kSurLowStart) + kHalfBase;
        ++next;
      } else if (flags == strictConversion) {
        *result = sourceIllegal;
        return false;
      }
    } else {
      *result = sourceExhausted;
      return false;
    }
  } else if (flags == strictConversion) {
    if (ch >= kSurLowStart && ch <= kSurLowEnd) {
      *result = sourceIllegal;
      return false;
    }
  }
  const unsigned length = Utf8Length(ch);
  if (ch > kMaxLegalUtf32) ch = kReplacementChar;
  if (sink.Room() < length) {
    *result = targetExhausted;
    return false;
  }
  PutUtf8(ch, length, sink);
  source = next;
  return true;
}

// One UTF-32 character the classic way: a surrogate is sourceIllegal under
// strict; a value above 0x10FFFF becomes U+FFFD with sourceIllegal recorded
// in *result and the conversion going on; a character that does not fit
// whole is targetExhausted.
template <typename Sink>
inline __attribute__((always_inline)) bool StepUtf32ToUtf8(const UTF32*& source, Sink& sink, ConversionFlags flags,
                            ConversionResult* result) {
  UTF32 ch = *source;
  if (flags == strictConversion) {
    if (ch >= kSurHighStart && ch <= kSurLowEnd) {
      *result = sourceIllegal;
      return false;
    }
  }
  const unsigned length = Utf8Length(ch);
  if (ch > kMaxLegalUtf32) {
    ch = kReplacementChar;
    *result = sourceIllegal;
  }
  if (sink.Room() < length) {
    *result = targetExhausted;
    return false;
  }
  PutUtf8(ch, length, sink);
  ++source;
  return true;
}

// UTF-16 to UTF-8. Stops at a zero unit. The fast form writes ASCII groups,
// BMP characters other than surrogates and proper pairs in line, and leaves
// lone surrogates and cut pairs to StepUtf16ToUtf8.
template <bool kFast, typename Sink>
ConversionResult Utf16ToUtf8(const UTF16** sourceStart, const UTF16* sourceEnd, Sink& out,
                             ConversionFlags flags) {
  // A local copy keeps the write position in a register: byte stores
  // through the target could otherwise alias the caller's sink.
  Sink sink = out;
  ConversionResult result = conversionOK;
  const UTF16* source = *sourceStart;
  const bool vector = kFast && UseVectorPaths();
  VectorWindow window;
  while (source < sourceEnd && *source != 0) {
    if constexpr (kFast) {
      if (vector) {
        const UTF16* const before = source;
        VectorStep(source, sourceEnd, sink);
        window.After(Remaining(before, source));
        if (source >= sourceEnd || *source == 0) break;
      }
      // In bulk (see BulkEnd): ASCII, other BMP characters and proper pairs
      // need no bounds checks.
      const UTF16* bulkEnd = BulkEnd<3>(source, sourceEnd, sink);
      if (vector) bulkEnd = window.Limit(source, bulkEnd);
      while (source < bulkEnd) {
        UTF32 c = *source;
        if (c < 0x80) {
          if (c == 0) break;
          uint32_t w;
          if (PackAscii16(source, &w)) {
            do {
              sink.PutAscii4(w);
              source += 4;
            } while (source < bulkEnd && PackAscii16(source, &w));
            continue;
          }
          sink.Put(c);
          ++source;
          continue;
        }
        if (c < 0x800) {
          PutUtf8Fixed<2>(c, sink);
          ++source;
        } else if (c < kSurHighStart || c > kSurLowEnd) {
          PutUtf8Fixed<3>(c, sink);
          ++source;
        } else if (c <= kSurHighEnd && source[1] >= kSurLowStart && source[1] <= kSurLowEnd) {
          c = ((c - kSurHighStart) << kHalfShift) + (source[1] - kSurLowStart) + kHalfBase;
          PutUtf8Fixed<4>(c, sink);
          source += 2;
        } else {
          break;
        }
      }
      if (source >= sourceEnd || *source == 0) break;
      UTF32 ch = *source;
      unsigned length = 0, units = 1;
      if (ch < 0x80) {
        if (!vector && TakeAsciiGroups(source, sourceEnd, sink, PackAscii16)) continue;
        length = 1;
      } else if (ch < 0x800) {
        length = 2;
      } else if (ch < kSurHighStart || ch > kSurLowEnd) {
        length = 3;
      } else if (ch <= kSurHighEnd && Remaining(source, sourceEnd) >= 2 &&
                 source[1] >= kSurLowStart && source[1] <= kSurLowEnd) {
        ch = ((ch - kSurHighStart) << kHalfShift) + (source[1] - kSurLowStart) + kHalfBase;
        length = 4;
        units = 2;
      }
      if (length != 0) {
        if (sink.Room() < length) {
          result = targetExhausted;
          break;
        }
        PutUtf8(ch, length, sink);
        source += units;
        continue;
      }
    }
    if (!StepUtf16ToUtf8(source, sourceEnd, sink, flags, &result)) break;
  }
  out = sink;
  *sourceStart = source;
  return result;
}

// UTF-32 to UTF-8. Stops at a zero unit. The fast form writes ASCII groups
// and scalar values in line, and leaves surrogates and values above
// 0x10FFFF to StepUtf32ToUtf8.
template <bool kFast, typename Sink>
ConversionResult Utf32ToUtf8(const UTF32** sourceStart, const UTF32* sourceEnd, Sink& out,
                             ConversionFlags flags) {
  // A local copy keeps the write position in a register: byte stores
  // through the target could otherwise alias the caller's sink.
  Sink sink = out;
  ConversionResult result = conversionOK;
  const UTF32* source = *sourceStart;
  const bool vector = kFast && UseVectorPaths();
  VectorWindow window;
  while (source < sourceEnd && *source != 0) {
    if constexpr (kFast) {
      if (vector) {
        const UTF32* const before = source;
        VectorStep(source, sourceEnd, sink);
        window.After(Remaining(before, source));
        if (source >= sourceEnd || *source == 0) break;
      }
      // In bulk (see BulkEnd): scalar values need no bounds checks.
      const UTF32* bulkEnd = BulkEnd<4>(source, sourceEnd, sink);
      if (vector) bulkEnd = window.Limit(source, bulkEnd);
      while (source < bulkEnd) {
        const UTF32 c = *source;
        if (c < 0x80) {
          if (c == 0) break;
          uint32_t w;
          if (PackAscii32(source, &w)) {
            do {
              sink.PutAscii4(w);
              source += 4;
            } while (source < bulkEnd && PackAscii32(source, &w));
            continue;
          }
          sink.Put(c);
          ++source;
          continue;
        }
        if (c < 0x800) {
          PutUtf8Fixed<2>(c, sink);
        } else if (c < 0x10000) {
          if (c >= kSurHighStart && c <= kSurLowEnd) break;
          PutUtf8Fixed<3>(c, sink);
        } else if (c <= kMaxLegalUtf32) {
          PutUtf8Fixed<4>(c, sink);
        } else {
          break;
        }
        ++source;
      }
      if (source >= sourceEnd || *source == 0) break;
      const UTF32 ch = *source;
      unsigned length = 0;
      if (ch < 0x80) {
        if (!vector && TakeAsciiGroups(source, sourceEnd, sink, PackAscii32)) continue;
        length = 1;
      } else if (ch < 0x800) {
        length = 2;
      } else if (ch < 0x10000) {
        if (ch < kSurHighStart || ch > kSurLowEnd) length = 3;
      } else if (ch <= kMaxLegalUtf32) {
        length = 4;
      }
      if (length != 0) {
        if (sink.Room() < length) {
          result = targetExhausted;
          break;
        }
        PutUtf8(ch, length, sink);
        ++source;
        continue;
      }
    }
    if (!StepUtf32ToUtf8(source, sink, flags, &result)) break;
  }
  out = sink;
  *sourceStart = source;
  return result;
}

}  // namespace ambit_utf

#endif  // AMBIT_UNICODE_CONVERT_UTF_IMPL_H_
