// The public UTF converters and counters. The four zero-stopping directions
// run the fast engines of convert_utf_impl.h, writing through a BufferSink
// (converters) or a CountSink (counters); the two directions between UTF-16
// and UTF-32 have no stop at zero and are written out here, with their own
// SSE2 kernels.
#include "ambit/convertutf.h"

#include "unicode/convert_utf_impl.h"

using ambit_utf::BufferSink;
using ambit_utf::CountSink;

ConversionResult ConvertUTF32toUTF16(const UTF32** sourceStart, const UTF32* sourceEnd,
                                     UTF16** targetStart, UTF16* targetEnd,
                                     ConversionFlags flags) {
  using namespace ambit_utf;
  ConversionResult result = conversionOK;
  const UTF32* source = *sourceStart;
  UTF16* target = *targetStart;
  const bool vector = UseVectorPaths();
  VectorWindow window;
  bool going = true;
  while (going && source < sourceEnd) {
    const UTF32* stop =
        vector ? window.Step(Sse2Utf32ToUtf16, source, sourceEnd, target, targetEnd) : sourceEnd;
    while (source < stop) {
      if (target >= targetEnd) {
        result = targetExhausted;
        going = false;
        break;
      }
      const UTF32 ch = *source;
      if (ch <= kMaxBmp) {
        if (ch >= kSurHighStart && ch <= kSurLowEnd) {
          if (flags == strictConversion) {
            result = sourceIllegal;  // the source stays at the surrogate
            going = false;
            break;
          }
          *target++ = static_cast<UTF16>(kReplacementChar);
        } else {
          *target++ = static_cast<UTF16>(ch);
        }
      } else if (ch > kMaxLegalUtf32) {
        // Strict skips the unit and goes on, remembering the error.
        if (flags == strictConversion)
          result = sourceIllegal;
        else
          *target++ = static_cast<UTF16>(kReplacementChar);
      } else {
        if (Remaining(target, targetEnd) < 2) {
          result = targetExhausted;
          going = false;
          break;
        }
        const UTF32 c = ch - kHalfBase;
        *target++ = static_cast<UTF16>((c >> kHalfShift) + kSurHighStart);
        *target++ = static_cast<UTF16>((c & kHalfMask) + kSurLowStart);
      }
      ++source;
    }
  }
  *sourceStart = source;
  *targetStart = target;
  return result;
}

ConversionResult ConvertUTF16toUTF32(const UTF16** sourceStart, const UTF16* sourceEnd,
                                     UTF32** targetStart, UTF32* targetEnd,
                                     ConversionFlags flags) {
  using namespace ambit_utf;
  ConversionResult result = conversionOK;
  const UTF16* source = *sourceStart;
  UTF32* target = *targetStart;
  const bool vector = UseVectorPaths();
  VectorWindow window;
  bool going = true;
  while (going && source < sourceEnd) {
    const UTF16* stop =
        vector ? window.Step(Sse2Utf16ToUtf32, source, sourceEnd, target, targetEnd) : sourceEnd;
    while (source < stop) {
      const UTF16* next = source;
      UTF32 ch = *next++;
      if (ch >= kSurHighStart && ch <= kSurHighEnd) {
        if (next < sourceEnd) {
          const UTF32 ch2 = *next;
          if (ch2 >= kSurLowStart && ch2 <= kSurLowEnd) {
            ch = ((ch - kSurHighStart) << kHalfShift) + (ch2 - kSurLowStart) + kHalfBase;
            ++next;
          } else if (flags == strictConversion) {
            result = sourceIllegal;  // unpaired high surrogate
            going = false;
            break;
          }
        } else {
          result = sourceExhausted;  // the pair is cut by the end
          going = false;
          break;
        }
      } else if (flags == strictConversion) {
        if (ch >= kSurLowStart && ch <= kSurLowEnd) {
          result = sourceIllegal;  // lone low surrogate
          going = false;
          break;
        }
      }
      if (target >= targetEnd) {
        result = targetExhausted;
        going = false;
        break;
      }
      *target++ = ch;
      source = next;
    }
  }
  *sourceStart = source;
  *targetStart = target;
  return result;
}

ConversionResult ConvertUTF16toUTF8(const UTF16** sourceStart, const UTF16* sourceEnd,
                                    UTF8** targetStart, UTF8* targetEnd,
                                    ConversionFlags flags) {
  BufferSink<UTF8> sink(*targetStart, targetEnd);
  const ConversionResult result =
      ambit_utf::Utf16ToUtf8<true>(sourceStart, sourceEnd, sink, flags);
  *targetStart = sink.Position();
  return result;
}

ConversionResult ConvertUTF8toUTF16(const UTF8** sourceStart, const UTF8* sourceEnd,
                                    UTF16** targetStart, UTF16* targetEnd,
                                    ConversionFlags flags) {
  BufferSink<UTF16> sink(*targetStart, targetEnd);
  const ConversionResult result =
      ambit_utf::Utf8ToWide<true, false>(sourceStart, sourceEnd, sink, flags);
  *targetStart = sink.Position();
  return result;
}

ConversionResult ConvertUTF32toUTF8(const UTF32** sourceStart, const UTF32* sourceEnd,
                                    UTF8** targetStart, UTF8* targetEnd,
                                    ConversionFlags flags) {
  BufferSink<UTF8> sink(*targetStart, targetEnd);
  const ConversionResult result =
      ambit_utf::Utf32ToUtf8<true>(sourceStart, sourceEnd, sink, flags);
  *targetStart = sink.Position();
  return result;
}

ConversionResult ConvertUTF8toUTF32(const UTF8** sourceStart, const UTF8* sourceEnd,
                                    UTF32** targetStart, UTF32* targetEnd,
                                    ConversionFlags flags) {
  BufferSink<UTF32> sink(*targetStart, targetEnd);
  const ConversionResult result =
      ambit_utf::Utf8ToWide<true, true>(sourceStart, sourceEnd, sink, flags);
  *targetStart = sink.Position();
  return result;
}

// The counters set *count even on an error; a null count is tolerated.

ConversionResult SizeOfConvertUTF8toUTF16(const UTF8** sourceStart, const UTF8* sourceEnd,
                                          ConversionFlags flags, unsigned* count) {
  CountSink sink;
  const ConversionResult result =
      ambit_utf::Utf8ToWide<true, false>(sourceStart, sourceEnd, sink, flags);
  if (count) *count = sink.Count();
  return result;
}

ConversionResult SizeOfConvertUTF16toUTF8(const UTF16** sourceStart, const UTF16* sourceEnd,
                                          ConversionFlags flags, unsigned* count) {
  CountSink sink;
  const ConversionResult result =
      ambit_utf::Utf16ToUtf8<true>(sourceStart, sourceEnd, sink, flags);
  if (count) *count = sink.Count();
  return result;
}

ConversionResult SizeOfConvertUTF8toUTF32(const UTF8** sourceStart, const UTF8* sourceEnd,
                                          ConversionFlags flags, unsigned* count) {
  CountSink sink;
  const ConversionResult result =
      ambit_utf::Utf8ToWide<true, true>(sourceStart, sourceEnd, sink, flags);
  if (count) *count = sink.Count();
  return result;
}

ConversionResult SizeOfConvertUTF32toUTF8(const UTF32** sourceStart, const UTF32* sourceEnd,
                                          ConversionFlags flags, unsigned* count) {
  CountSink sink;
  const ConversionResult result =
      ambit_utf::Utf32ToUtf8<true>(sourceStart, sourceEnd, sink, flags);
  if (count) *count = sink.Count();
  return result;
}

Boolean isLegalUTF8Sequence(const UTF8* source, const UTF8* sourceEnd) {
  // An empty range holds no sequence; this also keeps the lead byte read
  // inside the buffer.
  if (source >= sourceEnd) return false;
  const int length = ambit_utf::kTrailingBytesForUTF8[*source] + 1;
  if (static_cast<size_t>(length) > ambit_utf::Remaining(source, sourceEnd)) return false;
  return ambit_utf::IsLegalUtf8(source, length);
}
