// Proofs by enumeration and by random sampling:
//   - every code point round-trips UTF-32 -> UTF-8 -> UTF-32 and
//     UTF-32 -> UTF-16 -> UTF-32 under strict conversion, with the bytes and
//     units an independent encoder gives, and every surrogate is rejected;
//   - isLegalUTF8Sequence judges every 1-, 2- and 3-byte buffer and a large
//     sample of 4-byte ones as a model built from the Unicode table of
//     well-formed byte sequences does, apart from the one documented
//     difference in the second byte after 0xED and 0xF4;
//   - each counter agrees with its converter (result, stop position, length)
//     on random valid and invalid text, and valid output round-trips.
#include <algorithm>
#include <vector>

#include "ambit/convertutf.h"
#include "gtest/gtest.h"
#include "unicode/utf_test_util.h"

namespace {

// Every test runs with the SSE2 kernels and again without them.
class ConvertUtfExhaustiveTest : public utf_test::BothPathsTest {};
INSTANTIATE_TEST_SUITE_P(Paths, ConvertUtfExhaustiveTest, testing::Bool(), utf_test::PathName);

using utf_test::Rng;

// --- Every code point ---------------------------------------------------------------

std::vector<UTF32> AllScalarsButZero() {
  std::vector<UTF32> v;
  v.reserve(0x110000 - 0x800);
  for (UTF32 c = 1; c <= 0x10FFFF; ++c)
    if (c < 0xD800 || c > 0xDFFF) v.push_back(c);
  return v;
}

TEST_P(ConvertUtfExhaustiveTest, EveryCodePointRoundTripsThroughUtf8) {
  const std::vector<UTF32> all = AllScalarsButZero();
  std::vector<UTF8> expected;
  for (UTF32 c : all) utf_test::EncodeUtf8(c, &expected);

  std::vector<UTF8> u8(expected.size());
  const UTF32* s = all.data();
  UTF8* t = u8.data();
  ASSERT_EQ(conversionOK, ConvertUTF32toUTF8(&s, all.data() + all.size(), &t,
                                             u8.data() + u8.size(), strictConversion));
  ASSERT_EQ(all.data() + all.size(), s);
  ASSERT_EQ(u8.data() + u8.size(), t);
  ASSERT_TRUE(u8 == expected) << "UTF-8 bytes differ from the independent encoder";

  unsigned count = 0;
  s = all.data();
  EXPECT_EQ(conversionOK, SizeOfConvertUTF32toUTF8(&s, all.data() + all.size(),
                                                   strictConversion, &count));
  EXPECT_EQ(u8.size(), count);

  std::vector<UTF32> back(all.size());
  const UTF8* bs = u8.data();
  UTF32* bt = back.data();
  ASSERT_EQ(conversionOK, ConvertUTF8toUTF32(&bs, u8.data() + u8.size(), &bt,
                                             back.data() + back.size(), strictConversion));
  ASSERT_EQ(u8.data() + u8.size(), bs);
  ASSERT_EQ(back.data() + back.size(), bt);
  ASSERT_TRUE(back == all) << "UTF-8 to UTF-32 did not give back the code points";

  bs = u8.data();
  EXPECT_EQ(conversionOK, SizeOfConvertUTF8toUTF32(&bs, u8.data() + u8.size(),
                                                   strictConversion, &count));
  EXPECT_EQ(all.size(), count);

  // Each encoding on its own is a legal sequence.
  for (const UTF8* p = u8.data(); p < u8.data() + u8.size();) {
    ASSERT_TRUE(isLegalUTF8Sequence(p, u8.data() + u8.size())) << "at byte " << (p - u8.data());
    p += (*p < 0x80) ? 1 : (*p < 0xE0) ? 2 : (*p < 0xF0) ? 3 : 4;
  }
}

TEST_P(ConvertUtfExhaustiveTest, EveryCodePointRoundTripsThroughUtf16) {
  std::vector<UTF32> all = AllScalarsButZero();
  all.insert(all.begin(), 0);  // no stop at zero between UTF-32 and UTF-16
  std::vector<UTF16> expected;
  for (UTF32 c : all) utf_test::EncodeUtf16(c, &expected);

  std::vector<UTF16> u16(expected.size());
  const UTF32* s = all.data();
  UTF16* t = u16.data();
  ASSERT_EQ(conversionOK, ConvertUTF32toUTF16(&s, all.data() + all.size(), &t,
                                              u16.data() + u16.size(), strictConversion));
  ASSERT_EQ(all.data() + all.size(), s);
  ASSERT_EQ(u16.data() + u16.size(), t);
  ASSERT_TRUE(u16 == expected) << "UTF-16 units differ from the independent encoder";

  std::vector<UTF32> back(all.size());
  const UTF16* bs = u16.data();
  UTF32* bt = back.data();
  ASSERT_EQ(conversionOK, ConvertUTF16toUTF32(&bs, u16.data() + u16.size(), &bt,
                                              back.data() + back.size(), strictConversion));
  ASSERT_EQ(back.data() + back.size(), bt);
  ASSERT_TRUE(back == all) << "UTF-16 to UTF-32 did not give back the code points";
}

TEST_P(ConvertUtfExhaustiveTest, ZeroCodePointStopsUtf32ToUtf8) {
  EXPECT_TRUE(utf_test::Converts("ConvertUTF32toUTF8", ConvertUTF32toUTF8,
                                 std::vector<UTF32>{0}, 1, strictConversion, conversionOK, 0,
                                 std::vector<UTF8>{}));
}

TEST_P(ConvertUtfExhaustiveTest, EverySurrogateIsRejectedUnderStrict) {
  for (UTF32 c = 0xD800; c <= 0xDFFF; ++c) {
    const std::vector<UTF32> in{0x41, c, 0x42};
    ASSERT_TRUE(utf_test::Converts("ConvertUTF32toUTF8", ConvertUTF32toUTF8, in, 8,
                                   strictConversion, sourceIllegal, 1, std::vector<UTF8>{0x41}));
    ASSERT_TRUE(utf_test::Converts("ConvertUTF32toUTF16", ConvertUTF32toUTF16, in, 8,
                                   strictConversion, sourceIllegal, 1, std::vector<UTF16>{0x41}));
    ASSERT_TRUE(utf_test::Counts("SizeOfConvertUTF32toUTF8", SizeOfConvertUTF32toUTF8, in,
                                 strictConversion, sourceIllegal, 1, 1));
    // The same value in UTF-8 form is ill-formed for every reader.
    std::vector<UTF8> u8{0x41, UTF8(0xE0 | (c >> 12)), UTF8(0x80 | ((c >> 6) & 0x3F)),
                         UTF8(0x80 | (c & 0x3F))};
    ASSERT_TRUE(utf_test::Converts("ConvertUTF8toUTF32", ConvertUTF8toUTF32, u8, 8,
                                   lenientConversion, sourceIllegal, 1, std::vector<UTF32>{0x41}));
    ASSERT_TRUE(utf_test::Converts("ConvertUTF8toUTF16", ConvertUTF8toUTF16, u8, 8,
                                   strictConversion, sourceIllegal, 1, std::vector<UTF16>{0x41}));
  }
}

// --- isLegalUTF8Sequence against the table of well-formed sequences -----------------

// The rows of the Unicode table of well-formed UTF-8 byte sequences: the
// allowed range of each byte, by position.
struct WellFormedRow {
  int length;
  UTF8 lo[4];
  UTF8 hi[4];
};
const WellFormedRow kWellFormed[] = {
    {1, {0x00}, {0x7F}},
    {2, {0xC2, 0x80}, {0xDF, 0xBF}},
    {3, {0xE0, 0xA0, 0x80}, {0xE0, 0xBF, 0xBF}},
    {3, {0xE1, 0x80, 0x80}, {0xEC, 0xBF, 0xBF}},
    {3, {0xED, 0x80, 0x80}, {0xED, 0x9F, 0xBF}},
    {3, {0xEE, 0x80, 0x80}, {0xEF, 0xBF, 0xBF}},
    {4, {0xF0, 0x90, 0x80, 0x80}, {0xF0, 0xBF, 0xBF, 0xBF}},
    {4, {0xF1, 0x80, 0x80, 0x80}, {0xF3, 0xBF, 0xBF, 0xBF}},
    {4, {0xF4, 0x80, 0x80, 0x80}, {0xF4, 0x8F, 0xBF, 0xBF}},
};

// The model: the row whose first-byte range holds the lead decides the
// length; the sequence is legal when that many bytes are available and each
// lies in its row's range. A lead in no row is never legal.
class WellFormedModel {
 public:
  WellFormedModel() {
    std::fill(m_row, m_row + 256, -1);
    for (int r = 0; r < int(sizeof kWellFormed / sizeof kWellFormed[0]); ++r)
      for (int b = kWellFormed[r].lo[0]; b <= kWellFormed[r].hi[0]; ++b) m_row[b] = r;
  }
  bool IsLegal(const UTF8* p, size_t available) const {
    if (available == 0 || m_row[*p] < 0) return false;
    const WellFormedRow& row = kWellFormed[m_row[*p]];
    if (size_t(row.length) > available) return false;
    for (int i = 1; i < row.length; ++i)
      if (p[i] < row.lo[i] || p[i] > row.hi[i]) return false;
    return true;
  }

 private:
  int m_row[256];
};

// The one place where the library's check is looser than the table: after
// the leads 0xED and 0xF4 it bounds the second byte from above only (at
// most 0x9F and 0x8F), not from below, so a second byte 0x00..0x7F passes
// when the bytes after it are continuation bytes.
bool InLooseSecondByteSet(const UTF8* p, size_t available) {
  auto cont = [](UTF8 b) { return b >= 0x80 && b <= 0xBF; };
  if (p[0] == 0xED && available >= 3) return p[1] < 0x80 && cont(p[2]);
  if (p[0] == 0xF4 && available >= 4) return p[1] < 0x80 && cont(p[2]) && cont(p[3]);
  return false;
}

testing::AssertionResult JudgedLikeTheModel(const WellFormedModel& model, const UTF8* p,
                                            size_t n, size_t* loose) {
  const bool table = model.IsLegal(p, n);
  const bool isLoose = !table && InLooseSecondByteSet(p, n);
  if (isLoose) ++*loose;
  const bool want = table || isLoose;
  const bool got = isLegalUTF8Sequence(p, p + n) != 0;
  if (got == want) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << "isLegalUTF8Sequence(" << utf_test::Units(std::vector<UTF8>(p, p + n))
         << ")\n  expected: " << want << (isLoose ? " (loose second byte)" : "")
         << "\n  actual:   " << got;
}

TEST_P(ConvertUtfExhaustiveTest, EveryOneTwoAndThreeByteBufferIsJudgedLikeTheTable) {
  const WellFormedModel model;
  size_t loose = 0, legal = 0;
  UTF8 buf[3];
  for (unsigned a = 0; a < 256; ++a) {
    buf[0] = UTF8(a);
    ASSERT_TRUE(JudgedLikeTheModel(model, buf, 1, &loose));
    for (unsigned b = 0; b < 256; ++b) {
      buf[1] = UTF8(b);
      ASSERT_TRUE(JudgedLikeTheModel(model, buf, 2, &loose));
      for (unsigned c = 0; c < 256; ++c) {
        buf[2] = UTF8(c);
        // Inline the common verdict for speed; the checker prints on failure.
        const bool got = isLegalUTF8Sequence(buf, buf + 3) != 0;
        legal += got;
        const bool table = model.IsLegal(buf, 3);
        if (got != table) {
          ASSERT_TRUE(JudgedLikeTheModel(model, buf, 3, &loose));
        }
      }
    }
  }
  // Legal three-byte buffers: 128 single-byte leads x 65536, 30 two-byte
  // leads x 64 x 256, and the three-byte rows: 32 x 64 + 12 x 64 x 64 +
  // 32 x 64 + 2 x 64 x 64 = 2048 + 49152 + 2048 + 8192 = 61440; plus the
  // loose set.
  EXPECT_EQ(128u * 65536 + 30u * 64 * 256 + 61440 + 128 * 64, legal);
  // The loose set: 0xED, second byte 0x00..0x7F, third 0x80..0xBF.
  EXPECT_EQ(128u * 64, loose);
}

TEST_P(ConvertUtfExhaustiveTest, RandomFourByteBuffersAreJudgedLikeTheTable) {
  const WellFormedModel model;
  Rng rng(4);
  size_t loose = 0;
  UTF8 buf[4];
  for (int i = 0; i < 1000000; ++i) {
    // Leads F0..F4 and boundary bytes are drawn often, uniform bytes too.
    const unsigned k = rng() % 4;
    buf[0] = k == 0 ? UTF8(0xF0 + rng() % 5) : k == 1 ? utf_test::BoundaryByte(rng) : UTF8(rng());
    for (int j = 1; j < 4; ++j) {
      const unsigned m = rng() % 3;
      buf[j] = m == 0 ? UTF8(0x80 + rng() % 0x40) : m == 1 ? utf_test::BoundaryByte(rng)
                                                           : UTF8(rng());
    }
    ASSERT_TRUE(JudgedLikeTheModel(model, buf, 4, &loose));
  }
  EXPECT_GT(loose, 0u);  // the sample did reach the loose set
}

TEST_P(ConvertUtfExhaustiveTest, FourByteLeadsWithEverySecondByteAreJudgedLikeTheTable) {
  const WellFormedModel model;
  size_t loose = 0;
  UTF8 buf[4];
  static const UTF8 kTail[] = {0x00, 0x7F, 0x80, 0xBF, 0xC0, 0xFF};
  for (unsigned a = 0xF0; a < 0x100; ++a)
    for (unsigned b = 0; b < 256; ++b)
      for (UTF8 c : kTail)
        for (UTF8 d : kTail) {
          buf[0] = UTF8(a);
          buf[1] = UTF8(b);
          buf[2] = c;
          buf[3] = d;
          ASSERT_TRUE(JudgedLikeTheModel(model, buf, 4, &loose));
        }
  EXPECT_EQ(128u * 2 * 2, loose);  // 0xF4, 0x00..0x7F, then 0x80 or 0xBF twice
}

// --- Counters agree with converters -------------------------------------------------

template <typename S, typename T>
void ExpectCounterAgrees(const char* name, utf_test::ConvertFn<S, T> convert,
                         utf_test::CountFn<S> count, const std::vector<S>& in,
                         ConversionFlags flags) {
  // Room enough for any output: at most 4 units out per unit in.
  const auto c = utf_test::Convert(convert, in, in.size() * 4 + 4, flags);
  const auto n = utf_test::Count(count, in, flags);
  ASSERT_NE(targetExhausted, c.result) << name;
  ASSERT_TRUE(c.result == n.result && c.consumed == n.consumed && c.output.size() == n.count)
      << name << " on " << utf_test::Units(in) << ", flags " << int(flags)
      << "\n  converter: " << c.Describe() << "\n  counter:   " << n.Describe();
}

TEST_P(ConvertUtfExhaustiveTest, CountersAgreeWithConvertersOnRandomText) {
  Rng rng(11);
  for (int i = 0; i < 3000; ++i) {
    const bool dirty = i % 3 != 0;
    const ConversionFlags f = ConversionFlags(i % 2);
    const size_t len = 1 + rng() % 40;
    const auto u8 = utf_test::RandomUtf8(rng, len, dirty);
    ExpectCounterAgrees<UTF8, UTF16>("UTF8toUTF16", ConvertUTF8toUTF16, SizeOfConvertUTF8toUTF16,
                                     u8, f);
    ExpectCounterAgrees<UTF8, UTF32>("UTF8toUTF32", ConvertUTF8toUTF32, SizeOfConvertUTF8toUTF32,
                                     u8, f);
    ExpectCounterAgrees<UTF16, UTF8>("UTF16toUTF8", ConvertUTF16toUTF8, SizeOfConvertUTF16toUTF8,
                                     utf_test::RandomUtf16(rng, len, dirty), f);
    ExpectCounterAgrees<UTF32, UTF8>("UTF32toUTF8", ConvertUTF32toUTF8, SizeOfConvertUTF32toUTF8,
                                     utf_test::RandomUtf32(rng, len, dirty), f);
    if (HasFatalFailure()) return;
  }
}

TEST_P(ConvertUtfExhaustiveTest, CountSizesABufferThatTheConverterFillsExactly) {
  // Sized by the counter, the target is exactly big enough: one unit less
  // gives targetExhausted (when anything is written at all).
  Rng rng(12);
  for (int i = 0; i < 500; ++i) {
    const auto u8 = utf_test::RandomUtf8(rng, 1 + rng() % 30, false);
    unsigned n = 0;
    const UTF8* s = u8.data();
    ASSERT_EQ(conversionOK, SizeOfConvertUTF8toUTF16(&s, u8.data() + u8.size(), strictConversion, &n));
    const auto exact = utf_test::Convert<UTF8, UTF16>(ConvertUTF8toUTF16, u8, n, strictConversion);
    ASSERT_EQ(conversionOK, exact.result);
    ASSERT_EQ(u8.size(), exact.consumed);
    if (n > 0) {
      const auto shy = utf_test::Convert<UTF8, UTF16>(ConvertUTF8toUTF16, u8, n - 1, strictConversion);
      ASSERT_EQ(targetExhausted, shy.result);
      ASSERT_TRUE(std::equal(shy.output.begin(), shy.output.end(), exact.output.begin()));
    }
  }
}

TEST_P(ConvertUtfExhaustiveTest, ShortTargetsStopOnACharacterBoundaryOfTheFullOutput) {
  Rng rng(13);
  for (int i = 0; i < 1500; ++i) {
    const ConversionFlags f = ConversionFlags(i % 2);
    const auto u8 = utf_test::RandomUtf8(rng, 1 + rng() % 30, true);
    const auto full = utf_test::Convert<UTF8, UTF32>(ConvertUTF8toUTF32, u8, u8.size() + 1, f);
    const size_t room = rng() % (full.output.size() + 1);
    const auto part = utf_test::Convert<UTF8, UTF32>(ConvertUTF8toUTF32, u8, room, f);
    if (room < full.output.size()) {
      ASSERT_EQ(targetExhausted, part.result);
      ASSERT_EQ(room, part.output.size());
    } else {
      ASSERT_EQ(full.result, part.result);
    }
    ASSERT_TRUE(std::equal(part.output.begin(), part.output.end(), full.output.begin()));
    // The rest, converted from where the short call stopped, completes it.
    const std::vector<UTF8> rest(u8.begin() + part.consumed, u8.end());
    const auto tail = utf_test::Convert<UTF8, UTF32>(ConvertUTF8toUTF32, rest, rest.size() + 1, f);
    std::vector<UTF32> joined = part.output;
    joined.insert(joined.end(), tail.output.begin(), tail.output.end());
    ASSERT_EQ(full.output, joined);
  }
}

// --- Valid output round-trips ---------------------------------------------------------

TEST_P(ConvertUtfExhaustiveTest, RandomValidTextRoundTripsAmongAllThreeForms) {
  Rng rng(14);
  for (int i = 0; i < 400; ++i) {
    const auto text = utf_test::RandomValidUtf32(rng, 1 + rng() % 60);
    const auto u8 = utf_test::Convert<UTF32, UTF8>(ConvertUTF32toUTF8, text, text.size() * 4,
                                                   strictConversion);
    const auto u16 = utf_test::Convert<UTF32, UTF16>(ConvertUTF32toUTF16, text, text.size() * 2,
                                                     strictConversion);
    ASSERT_EQ(conversionOK, u8.result);
    ASSERT_EQ(conversionOK, u16.result);
    const auto a = utf_test::Convert<UTF8, UTF16>(ConvertUTF8toUTF16, u8.output,
                                                  u16.output.size(), strictConversion);
    ASSERT_EQ(conversionOK, a.result);
    ASSERT_EQ(u16.output, a.output);
    const auto b = utf_test::Convert<UTF16, UTF8>(ConvertUTF16toUTF8, u16.output,
                                                  u8.output.size(), strictConversion);
    ASSERT_EQ(conversionOK, b.result);
    ASSERT_EQ(u8.output, b.output);
    const auto c = utf_test::Convert<UTF8, UTF32>(ConvertUTF8toUTF32, u8.output, text.size(),
                                                  strictConversion);
    ASSERT_EQ(text, c.output);
    const auto d = utf_test::Convert<UTF16, UTF32>(ConvertUTF16toUTF32, u16.output,
                                                   text.size(), strictConversion);
    ASSERT_EQ(text, d.output);
  }
}

}  // namespace
