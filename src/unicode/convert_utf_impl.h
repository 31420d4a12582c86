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
// Everything here is private to the library; the tests include it directly.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "ambit/convertutf.h"

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
  BufferSink(Unit* p, Unit* end) : m_p(p), m_end(end) {}

  static constexpr bool kCountsOnly = false;

  size_t Room() const { return Remaining(m_p, m_end); }
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

// --- UTF-8 readers ---------------------------------------------------------------

// Puts one decoded code point into a UTF-16 sink, after the sink was found to
// have at least one unit of room. Returns conversionOK, or the result that
// stops the conversion (the caller then leaves the source at the sequence).
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

// UTF-8 to UTF-16 (kToUtf32 false) or UTF-32 (true). Stops at a zero byte.
template <bool kFast, bool kToUtf32, typename Sink>
ConversionResult Utf8ToWide(const UTF8** sourceStart, const UTF8* sourceEnd, Sink& sink,
                            ConversionFlags flags) {
  ConversionResult result = conversionOK;
  const UTF8* source = *sourceStart;
  while (source < sourceEnd && *source != 0) {
    if constexpr (kFast) {
      if (*source < 0x80) {
        // A run of ASCII, a word at a time while both sides have room.
        size_t n = Remaining(source, sourceEnd);
        const size_t room = sink.Room();
        if (room < n) n = room;
        while (n >= 8) {
          const uint32_t w0 = Load32(source);
          const uint32_t w1 = Load32(source + 4);
          if (!AllAsciiNonZero8(w0) || !AllAsciiNonZero8(w1)) break;
          sink.PutAscii4(w0);
          sink.PutAscii4(w1);
          source += 8;
          n -= 8;
        }
        if (n >= 4) {
          const uint32_t w = Load32(source);
          if (AllAsciiNonZero8(w)) {
            sink.PutAscii4(w);
            source += 4;
          }
        }
        // One ASCII character more, then back to the loop test, which
        // stops at a zero or the end.
        if (source >= sourceEnd || *source == 0) break;
        if (*source < 0x80) {
          if (sink.Room() < 1) {
            result = targetExhausted;
            break;
          }
          sink.Put(*source++);
          continue;
        }
      }
    }
    const unsigned extra = static_cast<unsigned>(kTrailingBytesForUTF8[*source]);
    if (extra >= Remaining(source, sourceEnd)) {
      result = sourceExhausted;
      break;
    }
    if (!IsLegalUtf8(source, static_cast<int>(extra) + 1)) {
      result = sourceIllegal;
      break;
    }
    UTF32 ch = 0;
    if constexpr (kFast) {
      // IsLegalUtf8 admits at most four bytes.
      switch (extra) {
        case 0:
          ch = source[0];
          break;
        case 1:
          ch = (UTF32(source[0]) << 6) + source[1] - kOffsetsFromUTF8[1];
          break;
        case 2:
          ch = (UTF32(source[0]) << 12) + (UTF32(source[1]) << 6) + source[2] -
               kOffsetsFromUTF8[2];
          break;
        default:
          ch = (UTF32(source[0]) << 18) + (UTF32(source[1]) << 12) +
               (UTF32(source[2]) << 6) + source[3] - kOffsetsFromUTF8[3];
          break;
      }
    } else {
      const UTF8* p = source;
      for (unsigned i = 0; i < extra; ++i) {
        ch += *p++;
        ch <<= 6;
      }
      ch += *p;
      ch -= kOffsetsFromUTF8[extra];
    }
    if (sink.Room() < 1) {
      result = targetExhausted;
      break;
    }
    ConversionResult r;
    if constexpr (kToUtf32) {
      r = PutAsUtf32(ch, sink, flags, &result);
    } else {
      r = PutAsUtf16(ch, sink, flags);
    }
    if (r != conversionOK) {
      result = r;
      break;
    }
    source += extra + 1;
  }
  *sourceStart = source;
  return result;
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

// Writes ch in `length` bytes, the last first. The sink has room for them.
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

// UTF-16 to UTF-8. Stops at a zero unit.
template <bool kFast, typename Sink>
ConversionResult Utf16ToUtf8(const UTF16** sourceStart, const UTF16* sourceEnd, Sink& sink,
                             ConversionFlags flags) {
  ConversionResult result = conversionOK;
  const UTF16* source = *sourceStart;
  while (source < sourceEnd && *source != 0) {
    if constexpr (kFast) {
      if (*source < 0x80) {
        size_t n = Remaining(source, sourceEnd);
        const size_t room = sink.Room();
        if (room < n) n = room;
        while (n >= 4) {
          const uint32_t w0 = Load32(source);
          const uint32_t w1 = Load32(source + 2);
          if (!AllAsciiNonZero16(w0) || !AllAsciiNonZero16(w1)) break;
          sink.PutAscii4((w0 & 0xFFU) | ((w0 >> 8) & 0xFF00U) | ((w1 & 0xFFU) << 16) |
                         ((w1 << 8) & 0xFF000000U));
          source += 4;
          n -= 4;
        }
        if (source >= sourceEnd || *source == 0) break;
        if (*source < 0x80) {
          if (sink.Room() < 1) {
            result = targetExhausted;
            break;
          }
          sink.Put(*source++);
          continue;
        }
      }
    }
    const UTF16* next = source;
    UTF32 ch = *next++;
    if (ch >= kSurHighStart && ch <= kSurHighEnd) {
      if (next < sourceEnd) {
        const UTF32 ch2 = *next;
        if (ch2 >= kSurLowStart && ch2 <= kSurLowEnd) {
          ch = ((ch - kSurHighStart) << kHalfShift) + (ch2 - kSurLowStart) + kHalfBase;
          ++next;
        } else if (flags == strictConversion) {
          result = sourceIllegal;
          break;
        }
      } else {
        result = sourceExhausted;
        break;
      }
    } else if (flags == strictConversion) {
      if (ch >= kSurLowStart && ch <= kSurLowEnd) {
        result = sourceIllegal;
        break;
      }
    }
    unsigned length = Utf8Length(ch);
    if (ch >= 0x110000) ch = kReplacementChar;
    if (sink.Room() < length) {
      result = targetExhausted;
      break;
    }
    PutUtf8(ch, length, sink);
    source = next;
  }
  *sourceStart = source;
  return result;
}

// UTF-32 to UTF-8. Stops at a zero unit.
template <bool kFast, typename Sink>
ConversionResult Utf32ToUtf8(const UTF32** sourceStart, const UTF32* sourceEnd, Sink& sink,
                             ConversionFlags flags) {
  ConversionResult result = conversionOK;
  const UTF32* source = *sourceStart;
  while (source < sourceEnd && *source != 0) {
    if constexpr (kFast) {
      if (*source < 0x80) {
        size_t n = Remaining(source, sourceEnd);
        const size_t room = sink.Room();
        if (room < n) n = room;
        while (n >= 4) {
          const UTF32 a = source[0], b = source[1], c = source[2], d = source[3];
          // All below 0x80, and none zero (only a zero wraps on - 1).
          if (((a | b | c | d) & ~UTF32(0x7F)) != 0 ||
              (((a - 1) | (b - 1) | (c - 1) | (d - 1)) & 0x80000000UL) != 0)
            break;
          sink.PutAscii4(uint32_t(a) | (uint32_t(b) << 8) | (uint32_t(c) << 16) |
                         (uint32_t(d) << 24));
          source += 4;
          n -= 4;
        }
        if (source >= sourceEnd || *source == 0) break;
        if (*source < 0x80) {
          if (sink.Room() < 1) {
            result = targetExhausted;
            break;
          }
          sink.Put(*source++);
          continue;
        }
      }
    }
    UTF32 ch = *source;
    if (flags == strictConversion) {
      if (ch >= kSurHighStart && ch <= kSurLowEnd) {
        result = sourceIllegal;
        break;
      }
    }
    const unsigned length = Utf8Length(ch);
    if (ch > kMaxLegalUtf32) {
      ch = kReplacementChar;
      result = sourceIllegal;
    }
    if (sink.Room() < length) {
      result = targetExhausted;
      break;
    }
    PutUtf8(ch, length, sink);
    ++source;
  }
  *sourceStart = source;
  return result;
}

}  // namespace ambit_utf

#endif  // AMBIT_UNICODE_CONVERT_UTF_IMPL_H_
