// Behaviour of the UTF converters, counters and isLegalUTF8Sequence, case by
// case: results, where the source and target pointers stop, replacement
// characters, the stop at zero, strict and lenient handling, resumption.
#include "ambit/convertutf.h"

#include <vector>

#include "gtest/gtest.h"
#include "unicode/utf_test_util.h"

namespace {

// Every test runs with the SSE2 kernels and again without them.
class ConvertUtfTest : public utf_test::BothPathsTest {};
INSTANTIATE_TEST_SUITE_P(Paths, ConvertUtfTest, testing::Bool(), utf_test::PathName);

using utf_test::Converts;
using utf_test::Counts;
using B = std::vector<UTF8>;
using W = std::vector<UTF16>;
using D = std::vector<UTF32>;

constexpr ConversionFlags kStrict = strictConversion;
constexpr ConversionFlags kLenient = lenientConversion;
const ConversionFlags kFlags[] = {strictConversion, lenientConversion};

// Shorthands naming the function in failure messages.
#define U8TO16 "ConvertUTF8toUTF16", ConvertUTF8toUTF16
#define U8TO32 "ConvertUTF8toUTF32", ConvertUTF8toUTF32
#define U16TO8 "ConvertUTF16toUTF8", ConvertUTF16toUTF8
#define U16TO32 "ConvertUTF16toUTF32", ConvertUTF16toUTF32
#define U32TO8 "ConvertUTF32toUTF8", ConvertUTF32toUTF8
#define U32TO16 "ConvertUTF32toUTF16", ConvertUTF32toUTF16
#define SZ8TO16 "SizeOfConvertUTF8toUTF16", SizeOfConvertUTF8toUTF16
#define SZ8TO32 "SizeOfConvertUTF8toUTF32", SizeOfConvertUTF8toUTF32
#define SZ16TO8 "SizeOfConvertUTF16toUTF8", SizeOfConvertUTF16toUTF8
#define SZ32TO8 "SizeOfConvertUTF32toUTF8", SizeOfConvertUTF32toUTF8

TEST_P(ConvertUtfTest, ResultAndFlagValuesAreFixed) {
  EXPECT_EQ(0, conversionOK);
  EXPECT_EQ(1, sourceExhausted);
  EXPECT_EQ(2, targetExhausted);
  EXPECT_EQ(3, sourceIllegal);
  EXPECT_EQ(0, strictConversion);
  EXPECT_EQ(1, lenientConversion);
  EXPECT_EQ(4u, sizeof(UTF32));
  EXPECT_EQ(2u, sizeof(UTF16));
  EXPECT_EQ(1u, sizeof(UTF8));
  EXPECT_EQ(1u, sizeof(Boolean));
}

// --- Stopping at zero ---------------------------------------------------------------

TEST_P(ConvertUtfTest, Utf8ToUtf32StopsAtZeroAndLeavesSourceOnIt) {
  EXPECT_TRUE(Converts(U8TO32, B{'A', 0, 'B'}, 3, kStrict, conversionOK, 1, D{0x41}));
}

TEST_P(ConvertUtfTest, Utf16ToUtf32ConvertsZeroLikeAnyUnit) {
  EXPECT_TRUE(Converts(U16TO32, W{0x41, 0, 0x42}, 3, kStrict, conversionOK, 3,
                       D{0x41, 0, 0x42}));
}

TEST_P(ConvertUtfTest, Utf32ToUtf16ConvertsZeroLikeAnyUnit) {
  EXPECT_TRUE(Converts(U32TO16, D{0x41, 0, 0x42}, 3, kStrict, conversionOK, 3,
                       W{0x41, 0, 0x42}));
}

TEST_P(ConvertUtfTest, EveryZeroStoppingFunctionStopsAtZero) {
  for (ConversionFlags f : kFlags) {
    EXPECT_TRUE(Converts(U8TO16, B{'A', 0xC3, 0xA9, 0, 'B'}, 9, f, conversionOK, 3,
                         W{0x41, 0xE9}));
    EXPECT_TRUE(Converts(U8TO32, B{0, 'B'}, 9, f, conversionOK, 0, D{}));
    EXPECT_TRUE(Converts(U16TO8, W{0x20AC, 0, 0x42}, 9, f, conversionOK, 1,
                         B{0xE2, 0x82, 0xAC}));
    EXPECT_TRUE(Converts(U32TO8, D{0x1F600, 0, 0x42}, 9, f, conversionOK, 1,
                         B{0xF0, 0x9F, 0x98, 0x80}));
    EXPECT_TRUE(Counts(SZ8TO16, B{'A', 0xF0, 0x9F, 0x98, 0x80, 0, 'B'}, f, conversionOK, 5, 3));
    EXPECT_TRUE(Counts(SZ8TO32, B{'A', 0xF0, 0x9F, 0x98, 0x80, 0, 'B'}, f, conversionOK, 5, 2));
    EXPECT_TRUE(Counts(SZ16TO8, W{0x41, 0xE9, 0, 0x42}, f, conversionOK, 2, 3));
    EXPECT_TRUE(Counts(SZ32TO8, D{0x41, 0x20AC, 0, 0x42}, f, conversionOK, 2, 4));
  }
}

TEST_P(ConvertUtfTest, ZeroStopKeepsAnErrorAlreadyRecorded) {
  // A value above 0x10FFFF is replaced, recorded and passed; the zero then
  // stops the conversion with the recorded result.
  EXPECT_TRUE(Converts(U32TO8, D{0x110000, 0x41, 0, 0x42}, 9, kStrict, sourceIllegal, 2,
                       B{0xEF, 0xBF, 0xBD, 0x41}));
  EXPECT_TRUE(Counts(SZ32TO8, D{0x110000, 0x41, 0, 0x42}, kLenient, sourceIllegal, 2, 4));
}

TEST_P(ConvertUtfTest, EmptySourceIsConversionOk) {
  for (ConversionFlags f : kFlags) {
    EXPECT_TRUE(Converts(U8TO16, B{}, 0, f, conversionOK, 0, W{}));
    EXPECT_TRUE(Converts(U8TO32, B{}, 0, f, conversionOK, 0, D{}));
    EXPECT_TRUE(Converts(U16TO8, W{}, 0, f, conversionOK, 0, B{}));
    EXPECT_TRUE(Converts(U16TO32, W{}, 0, f, conversionOK, 0, D{}));
    EXPECT_TRUE(Converts(U32TO8, D{}, 0, f, conversionOK, 0, B{}));
    EXPECT_TRUE(Converts(U32TO16, D{}, 0, f, conversionOK, 0, W{}));
    EXPECT_TRUE(Counts(SZ8TO16, B{}, f, conversionOK, 0, 0));
    EXPECT_TRUE(Counts(SZ8TO32, B{}, f, conversionOK, 0, 0));
    EXPECT_TRUE(Counts(SZ16TO8, W{}, f, conversionOK, 0, 0));
    EXPECT_TRUE(Counts(SZ32TO8, D{}, f, conversionOK, 0, 0));
  }
}

// --- Counters ------------------------------------------------------------------------

TEST_P(ConvertUtfTest, Utf32ToUtf8CounterCountsEachLength) {
  EXPECT_TRUE(Counts(SZ32TO8, D{0x41, 0xE9, 0x20AC, 0x1F600}, kStrict, conversionOK, 4, 10));
}

TEST_P(ConvertUtfTest, Utf32ToUtf8CounterCountsOutOfRangeAsThreeAndGoesOn) {
  for (ConversionFlags f : kFlags) {
    EXPECT_TRUE(Counts(SZ32TO8, D{0x41, 0xE9, 0x20AC, 0x1F600, 0x110000}, f, sourceIllegal, 5,
                       13));
    EXPECT_TRUE(Counts(SZ32TO8, D{0xFFFFFFFF, 0x41}, f, sourceIllegal, 2, 4));
  }
}

TEST_P(ConvertUtfTest, Utf8ToUtf16CounterCountsAPairForASupplementaryCharacter) {
  EXPECT_TRUE(Counts(SZ8TO16, B{0xF0, 0x9F, 0x98, 0x80}, kStrict, conversionOK, 4, 2));
  EXPECT_TRUE(Counts(SZ8TO32, B{0xF0, 0x9F, 0x98, 0x80}, kStrict, conversionOK, 4, 1));
}

TEST_P(ConvertUtfTest, CountersCoverOnlyTheCharactersBeforeAnError) {
  EXPECT_TRUE(Counts(SZ8TO16, B{'a', 'b', 0xC0, 0x80, 'c'}, kLenient, sourceIllegal, 2, 2));
  EXPECT_TRUE(Counts(SZ8TO32, B{'a', 0xE2, 0x82}, kStrict, sourceExhausted, 1, 1));
  EXPECT_TRUE(Counts(SZ16TO8, W{0xE9, 0xDC00, 0x41}, kStrict, sourceIllegal, 1, 2));
  EXPECT_TRUE(Counts(SZ16TO8, W{0xE9, 0xD800}, kLenient, sourceExhausted, 1, 2));
  EXPECT_TRUE(Counts(SZ32TO8, D{0x20AC, 0xDFFF, 0x41}, kStrict, sourceIllegal, 1, 3));
}

// --- UTF-8 readers ---------------------------------------------------------------

TEST_P(ConvertUtfTest, EncodedSurrogateIsIllegalInEveryUtf8Reader) {
  const B in{'x', 0xED, 0xA0, 0x80};
  for (ConversionFlags f : kFlags) {
    EXPECT_TRUE(Converts(U8TO16, in, 8, f, sourceIllegal, 1, W{'x'}));
    EXPECT_TRUE(Converts(U8TO32, in, 8, f, sourceIllegal, 1, D{'x'}));
    EXPECT_TRUE(Counts(SZ8TO16, in, f, sourceIllegal, 1, 1));
    EXPECT_TRUE(Counts(SZ8TO32, in, f, sourceIllegal, 1, 1));
  }
  EXPECT_FALSE(isLegalUTF8Sequence(&in[1], &in[0] + in.size()));
}

TEST_P(ConvertUtfTest, OverlongAndOutOfRangeSequencesAreIllegal) {
  const B cases[] = {
      {0xC0, 0x80},              // lead below 0xC2
      {0xC1, 0xBF},              // lead below 0xC2
      {0xE0, 0x9F, 0xBF},        // overlong 3-byte form
      {0xF0, 0x8F, 0xBF, 0xBF},  // overlong 4-byte form
      {0xF4, 0x90, 0x80, 0x80},  // above U+10FFFF
      {0xF5, 0x80, 0x80, 0x80},  // lead above 0xF4
      {0x80},                    // continuation byte as a lead
      {0xBF},
      {0xC2, 0xC0},              // second byte above 0xBF
      {0xE1, 0x80, 0x7F},        // third byte below 0x80
      {0xF1, 0x80, 0x80, 0xC0},  // fourth byte above 0xBF
      {0xF8, 0x88, 0x80, 0x80, 0x80},        // 5-byte form
      {0xFC, 0x84, 0x80, 0x80, 0x80, 0x80},  // 6-byte form
  };
  for (const B& c : cases) {
    for (ConversionFlags f : kFlags) {
      EXPECT_TRUE(Converts(U8TO16, c, 8, f, sourceIllegal, 0, W{}));
      EXPECT_TRUE(Converts(U8TO32, c, 8, f, sourceIllegal, 0, D{}));
      EXPECT_TRUE(Counts(SZ8TO16, c, f, sourceIllegal, 0, 0));
      EXPECT_TRUE(Counts(SZ8TO32, c, f, sourceIllegal, 0, 0));
    }
    EXPECT_FALSE(isLegalUTF8Sequence(c.data(), c.data() + c.size())) << utf_test::Units(c);
  }
}

TEST_P(ConvertUtfTest, SequenceCutByTheEndIsSourceExhaustedAndNotConsumed) {
  const B cases[] = {{0xC3}, {0xE2, 0x82}, {0xF0, 0x9F, 0x98}, {0xF0}};
  for (const B& c : cases) {
    B in{'a'};
    in.insert(in.end(), c.begin(), c.end());
    for (ConversionFlags f : kFlags) {
      EXPECT_TRUE(Converts(U8TO16, in, 8, f, sourceExhausted, 1, W{'a'}));
      EXPECT_TRUE(Converts(U8TO32, in, 8, f, sourceExhausted, 1, D{'a'}));
      EXPECT_TRUE(Counts(SZ8TO16, in, f, sourceExhausted, 1, 1));
      EXPECT_TRUE(Counts(SZ8TO32, in, f, sourceExhausted, 1, 1));
    }
  }
}

TEST_P(ConvertUtfTest, LengthIsCheckedBeforeLegality) {
  // The lead asks for more bytes than remain: sourceExhausted, even though
  // the bytes that are there could never be completed legally.
  for (ConversionFlags f : kFlags) {
    EXPECT_TRUE(Converts(U8TO32, B{0xE2, 0x41}, 8, f, sourceExhausted, 0, D{}));
    EXPECT_TRUE(Converts(U8TO16, B{0xF8, 0x88, 0x80, 0x80}, 8, f, sourceExhausted, 0, W{}));
    EXPECT_TRUE(Counts(SZ8TO16, B{0xFF}, f, sourceExhausted, 0, 0));
  }
}

TEST_P(ConvertUtfTest, EdAndF4LeadsCheckOnlyTheUpperBoundOfTheSecondByte) {
  // The legality check bounds the byte after 0xED and 0xF4 from above only,
  // so these sequences pass it and are decoded by the usual arithmetic.
  const B ed{0xED, 0x41, 0x80};
  EXPECT_TRUE(isLegalUTF8Sequence(ed.data(), ed.data() + 3));
  EXPECT_TRUE(Converts(U8TO32, ed, 4, kStrict, conversionOK, 3, D{0xC040}));
  const B f4{0xF4, 0x41, 0x80, 0x80};
  EXPECT_TRUE(isLegalUTF8Sequence(f4.data(), f4.data() + 4));
  EXPECT_TRUE(Converts(U8TO32, f4, 4, kStrict, conversionOK, 4, D{0xC1000}));
}

TEST_P(ConvertUtfTest, Utf8DecodesEveryLength) {
  const B in{0x24, 0xC2, 0xA2, 0xE2, 0x82, 0xAC, 0xF0, 0x90, 0x8D, 0x88};
  for (ConversionFlags f : kFlags) {
    EXPECT_TRUE(Converts(U8TO32, in, 4, f, conversionOK, 10, D{0x24, 0xA2, 0x20AC, 0x10348}));
    EXPECT_TRUE(Converts(U8TO16, in, 5, f, conversionOK, 10,
                         W{0x24, 0xA2, 0x20AC, 0xD800, 0xDF48}));
  }
}

TEST_P(ConvertUtfTest, Utf8ToUtf16NeedsTwoUnitsForAPair) {
  const B in{'a', 0xF0, 0x9F, 0x98, 0x80};
  EXPECT_TRUE(Converts(U8TO16, in, 2, kStrict, targetExhausted, 1, W{'a'}));
  EXPECT_TRUE(Converts(U8TO16, in, 1, kStrict, targetExhausted, 1, W{'a'}));
  EXPECT_TRUE(Converts(U8TO16, in, 3, kStrict, conversionOK, 5, W{'a', 0xD83D, 0xDE00}));
}

TEST_P(ConvertUtfTest, Utf8ReadersReportAFullTargetBeforeTheNextCharacter) {
  EXPECT_TRUE(Converts(U8TO32, B{'a', 'b', 0xC3, 0xA9}, 2, kStrict, targetExhausted, 2,
                       D{'a', 'b'}));
  EXPECT_TRUE(Converts(U8TO16, B{'a', 'b', 'c'}, 0, kStrict, targetExhausted, 0, W{}));
}

// --- UTF-16 readers ----------------------------------------------------------------

TEST_P(ConvertUtfTest, HighSurrogateAtTheEndIsSourceExhausted) {
  for (ConversionFlags f : kFlags) {
    EXPECT_TRUE(Converts(U16TO8, W{0x41, 0xD83D}, 8, f, sourceExhausted, 1, B{0x41}));
    EXPECT_TRUE(Converts(U16TO32, W{0x41, 0xD83D}, 8, f, sourceExhausted, 1, D{0x41}));
    EXPECT_TRUE(Counts(SZ16TO8, W{0x41, 0xD83D}, f, sourceExhausted, 1, 1));
  }
}

TEST_P(ConvertUtfTest, UnpairedHighSurrogateIsIllegalUnderStrict) {
  EXPECT_TRUE(Converts(U16TO8, W{0xD83D, 0x41}, 8, kStrict, sourceIllegal, 0, B{}));
  EXPECT_TRUE(Converts(U16TO32, W{0xD83D, 0x41}, 8, kStrict, sourceIllegal, 0, D{}));
  EXPECT_TRUE(Counts(SZ16TO8, W{0xD83D, 0x41}, kStrict, sourceIllegal, 0, 0));
}

TEST_P(ConvertUtfTest, UnpairedHighSurrogatePassesThroughUnderLenient) {
  EXPECT_TRUE(Converts(U16TO8, W{0xD83D, 0x41}, 8, kLenient, conversionOK, 2,
                       B{0xED, 0xA0, 0xBD, 0x41}));
  EXPECT_TRUE(Converts(U16TO32, W{0xD83D, 0x41}, 8, kLenient, conversionOK, 2,
                       D{0xD83D, 0x41}));
  EXPECT_TRUE(Counts(SZ16TO8, W{0xD83D, 0x41}, kLenient, conversionOK, 2, 4));
  // Followed by a zero: the lone surrogate passes, the zero stops.
  EXPECT_TRUE(Converts(U16TO8, W{0xD83D, 0, 0x41}, 8, kLenient, conversionOK, 1,
                       B{0xED, 0xA0, 0xBD}));
}

TEST_P(ConvertUtfTest, LoneLowSurrogateIsIllegalUnderStrictAndPassesUnderLenient) {
  EXPECT_TRUE(Converts(U16TO8, W{0x41, 0xDE00, 0x42}, 8, kStrict, sourceIllegal, 1, B{0x41}));
  EXPECT_TRUE(Converts(U16TO32, W{0x41, 0xDE00, 0x42}, 8, kStrict, sourceIllegal, 1, D{0x41}));
  EXPECT_TRUE(Converts(U16TO8, W{0x41, 0xDE00, 0x42}, 8, kLenient, conversionOK, 3,
                       B{0x41, 0xED, 0xB8, 0x80, 0x42}));
  EXPECT_TRUE(Converts(U16TO32, W{0x41, 0xDE00, 0x42}, 8, kLenient, conversionOK, 3,
                       D{0x41, 0xDE00, 0x42}));
}

TEST_P(ConvertUtfTest, SurrogatePairBecomesOneCodePoint) {
  for (ConversionFlags f : kFlags) {
    EXPECT_TRUE(Converts(U16TO32, W{0xD83D, 0xDE00}, 1, f, conversionOK, 2, D{0x1F600}));
    EXPECT_TRUE(Converts(U16TO8, W{0xDBFF, 0xDFFF}, 4, f, conversionOK, 2,
                         B{0xF4, 0x8F, 0xBF, 0xBF}));
    EXPECT_TRUE(Converts(U16TO8, W{0xD800, 0xDC00}, 4, f, conversionOK, 2,
                         B{0xF0, 0x90, 0x80, 0x80}));
  }
}

TEST_P(ConvertUtfTest, Utf16ToUtf32ReportsSourceErrorsBeforeAFullTarget) {
  EXPECT_TRUE(Converts(U16TO32, W{0x41, 0xD800}, 1, kStrict, sourceExhausted, 1, D{0x41}));
  EXPECT_TRUE(Converts(U16TO32, W{0x41, 0x42}, 1, kStrict, targetExhausted, 1, D{0x41}));
  EXPECT_TRUE(Converts(U16TO32, W{0xD800, 0xDC00}, 0, kStrict, targetExhausted, 0, D{}));
}

// --- UTF-32 input ---------------------------------------------------------------------

TEST_P(ConvertUtfTest, Utf32ToUtf16SkipsOutOfRangeUnderStrictAndGoesOn) {
  EXPECT_TRUE(Converts(U32TO16, D{0x41, 0x110000, 0x42, 0x1F600}, 8, kStrict, sourceIllegal, 4,
                       W{0x41, 0x42, 0xD83D, 0xDE00}));
  EXPECT_TRUE(Converts(U32TO16, D{0x41, 0x110000, 0x42}, 8, kLenient, conversionOK, 3,
                       W{0x41, 0xFFFD, 0x42}));
  // Any non-zero flag value is lenient.
  EXPECT_TRUE(Converts(U32TO16, D{0xFFFFFFFF}, 8, ConversionFlags(2), conversionOK, 1,
                       W{0xFFFD}));
}

TEST_P(ConvertUtfTest, Utf32ToUtf16SurrogateIsIllegalOrReplaced) {
  EXPECT_TRUE(Converts(U32TO16, D{0x41, 0xD800, 0x42}, 8, kStrict, sourceIllegal, 1, W{0x41}));
  EXPECT_TRUE(Converts(U32TO16, D{0x41, 0xDFFF, 0x42}, 8, kLenient, conversionOK, 3,
                       W{0x41, 0xFFFD, 0x42}));
}

TEST_P(ConvertUtfTest, Utf32ToUtf16NeedsRoomForAWholePair) {
  EXPECT_TRUE(Converts(U32TO16, D{0x41, 0x10000}, 2, kStrict, targetExhausted, 1, W{0x41}));
  EXPECT_TRUE(Converts(U32TO16, D{0x41, 0x10FFFF}, 3, kStrict, conversionOK, 2,
                       W{0x41, 0xDBFF, 0xDFFF}));
  EXPECT_TRUE(Converts(U32TO16, D{0x41, 0x42}, 1, kStrict, targetExhausted, 1, W{0x41}));
}

TEST_P(ConvertUtfTest, Utf32ToUtf8SurrogateIsIllegalOrEncodedInThreeBytes) {
  EXPECT_TRUE(Converts(U32TO8, D{0x41, 0xD800}, 8, kStrict, sourceIllegal, 1, B{0x41}));
  EXPECT_TRUE(Counts(SZ32TO8, D{0x41, 0xD800}, kStrict, sourceIllegal, 1, 1));
  EXPECT_TRUE(Converts(U32TO8, D{0x41, 0xD800}, 8, kLenient, conversionOK, 2,
                       B{0x41, 0xED, 0xA0, 0x80}));
  EXPECT_TRUE(Counts(SZ32TO8, D{0x41, 0xDFFF}, kLenient, conversionOK, 2, 4));
}

TEST_P(ConvertUtfTest, Utf32ToUtf8ReplacesOutOfRangeAndGoesOn) {
  for (ConversionFlags f : kFlags)
    EXPECT_TRUE(Converts(U32TO8, D{0x110000, 0x41, 0x80000000}, 8, f, sourceIllegal, 3,
                         B{0xEF, 0xBF, 0xBD, 0x41, 0xEF, 0xBF, 0xBD}));
}

// --- UTF-8 writers and a short target ------------------------------------------------

TEST_P(ConvertUtfTest, TargetOneByteShortLeavesSourceAtTheCharacter) {
  // "A" then U+20AC, with room for "A" and two more bytes only.
  EXPECT_TRUE(Converts(U32TO8, D{0x41, 0x20AC}, 3, kStrict, targetExhausted, 1, B{0x41}));
  EXPECT_TRUE(Converts(U16TO8, W{0x41, 0x20AC}, 3, kStrict, targetExhausted, 1, B{0x41}));
  EXPECT_TRUE(Converts(U16TO8, W{0x41, 0xD83D, 0xDE00}, 4, kStrict, targetExhausted, 1, B{0x41}));
  EXPECT_TRUE(Converts(U32TO8, D{0xE9}, 1, kStrict, targetExhausted, 0, B{}));
  EXPECT_TRUE(Converts(U32TO8, D{0x41, 0x20AC}, 4, kStrict, conversionOK, 2,
                       B{0x41, 0xE2, 0x82, 0xAC}));
}

TEST_P(ConvertUtfTest, FullTargetBeatsARecordedOutOfRangeError) {
  // The replacement for 0x110000 does not fit: the conversion stops there
  // with targetExhausted, and a resumed call records sourceIllegal again.
  EXPECT_TRUE(Converts(U32TO8, D{0x41, 0x110000}, 3, kStrict, targetExhausted, 1, B{0x41}));
}

// --- Resumption ---------------------------------------------------------------------

// Converts `in` through a target of `chunk` units at a time, resuming after
// each targetExhausted, and returns everything written.
template <typename S, typename T>
std::vector<T> ConvertInChunks(utf_test::ConvertFn<S, T> fn, const std::vector<S>& in,
                               size_t chunk, ConversionResult* last) {
  std::vector<T> out;
  const S* s = in.data();
  const S* end = in.data() + in.size();
  for (int guard = 0; guard < 100000; ++guard) {
    std::vector<T> buf(chunk);
    T* t = buf.data();
    *last = fn(&s, end, &t, buf.data() + chunk, strictConversion);
    out.insert(out.end(), buf.data(), t);
    if (*last != targetExhausted) break;
  }
  return out;
}

TEST_P(ConvertUtfTest, ConversionResumesAfterTargetExhausted) {
  utf_test::Rng rng(7);
  const std::vector<UTF32> text = utf_test::RandomValidUtf32(rng, 300);
  std::vector<UTF8> u8;
  std::vector<UTF16> u16;
  for (UTF32 c : text) {
    utf_test::EncodeUtf8(c, &u8);
    utf_test::EncodeUtf16(c, &u16);
  }
  for (size_t chunk : {4u, 5u, 7u, 64u}) {  // room for any one character
    ConversionResult r;
    EXPECT_EQ(u16, (ConvertInChunks<UTF8, UTF16>(ConvertUTF8toUTF16, u8, chunk, &r)));
    EXPECT_EQ(conversionOK, r);
    EXPECT_EQ(text, (ConvertInChunks<UTF8, UTF32>(ConvertUTF8toUTF32, u8, chunk, &r)));
    EXPECT_EQ(conversionOK, r);
    EXPECT_EQ(u8, (ConvertInChunks<UTF16, UTF8>(ConvertUTF16toUTF8, u16, chunk, &r)));
    EXPECT_EQ(conversionOK, r);
    EXPECT_EQ(text, (ConvertInChunks<UTF16, UTF32>(ConvertUTF16toUTF32, u16, chunk, &r)));
    EXPECT_EQ(conversionOK, r);
    EXPECT_EQ(u8, (ConvertInChunks<UTF32, UTF8>(ConvertUTF32toUTF8, text, chunk, &r)));
    EXPECT_EQ(conversionOK, r);
    EXPECT_EQ(u16, (ConvertInChunks<UTF32, UTF16>(ConvertUTF32toUTF16, text, chunk, &r)));
    EXPECT_EQ(conversionOK, r);
  }
}

TEST_P(ConvertUtfTest, ConversionResumesAfterSourceExhausted) {
  // The source arrives a few bytes at a time; each call converts what is
  // complete and the next resumes from where the last stopped.
  const B in{'a', 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80, 0xC3, 0xA9, 'z'};
  for (size_t step = 1; step <= 3; ++step) {
    std::vector<UTF32> out(16);
    const UTF8* s = in.data();
    UTF32* t = out.data();
    for (size_t avail = 0; avail < in.size();) {
      avail = std::min(in.size(), avail + step);
      const ConversionResult r =
          ConvertUTF8toUTF32(&s, in.data() + avail, &t, out.data() + out.size(), strictConversion);
      EXPECT_TRUE(r == conversionOK || r == sourceExhausted) << utf_test::ResultName(r);
    }
    out.resize(t - out.data());
    EXPECT_EQ((D{'a', 0x20AC, 0x1F600, 0xE9, 'z'}), out) << "step " << step;
    EXPECT_EQ(in.data() + in.size(), s);
  }
  // The same for a surrogate pair split between UTF-16 calls.
  const W w{0x41, 0xD83D, 0xDE00};
  std::vector<UTF8> out(8);
  const UTF16* s = w.data();
  UTF8* t = out.data();
  EXPECT_EQ(sourceExhausted, ConvertUTF16toUTF8(&s, w.data() + 2, &t, out.data() + 8, strictConversion));
  EXPECT_EQ(w.data() + 1, s);
  EXPECT_EQ(conversionOK, ConvertUTF16toUTF8(&s, w.data() + 3, &t, out.data() + 8, strictConversion));
  out.resize(t - out.data());
  EXPECT_EQ((B{0x41, 0xF0, 0x9F, 0x98, 0x80}), out);
}

// --- isLegalUTF8Sequence ---------------------------------------------------------------

TEST_P(ConvertUtfTest, LegalSequenceMustLieWhollyBeforeTheEnd) {
  const B euro{0xE2, 0x82, 0xAC, 0x41};
  EXPECT_TRUE(isLegalUTF8Sequence(euro.data(), euro.data() + 3));
  EXPECT_TRUE(isLegalUTF8Sequence(euro.data(), euro.data() + 4));  // only the first is judged
  EXPECT_FALSE(isLegalUTF8Sequence(euro.data(), euro.data() + 2));
  EXPECT_FALSE(isLegalUTF8Sequence(euro.data(), euro.data()));  // empty range
  EXPECT_TRUE(isLegalUTF8Sequence(euro.data() + 3, euro.data() + 4));
  const B nul{0};
  EXPECT_TRUE(isLegalUTF8Sequence(nul.data(), nul.data() + 1));
}

}  // namespace
