// String helpers: lstrcpyn, case-insensitive compares, case mapping in
// place, strtok_r and the UTF-8-aware truncation truncUTF8.
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ambit/portable.h"
#include "gtest/gtest.h"

namespace {

std::string Hex(const std::string& bytes) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : bytes) {
    if (!out.empty()) out += ' ';
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
  return "[" + out + "]";
}

// lstrcpyn

TEST(LstrcpynTest, KeepsAtMostLengthMinusOneCharacters) {
  char dst[16];
  std::memset(dst, 'X', sizeof dst);
  EXPECT_EQ(dst, CPortable::lstrcpyn(dst, "abcdef", 4));
  EXPECT_STREQ("abc", dst);
  // strncpy wrote exactly four bytes; the rest is untouched.
  for (size_t i = 4; i < sizeof dst; ++i) EXPECT_EQ('X', dst[i]) << "byte " << i;
}

TEST(LstrcpynTest, ShorterSourceIsZeroFilledUpToLength) {
  char dst[16];
  std::memset(dst, 'X', sizeof dst);
  CPortable::lstrcpyn(dst, "ab", 8);
  EXPECT_STREQ("ab", dst);
  for (int i = 2; i < 8; ++i) EXPECT_EQ('\0', dst[i]) << "byte " << i;
  for (size_t i = 8; i < sizeof dst; ++i) EXPECT_EQ('X', dst[i]) << "byte " << i;
}

TEST(LstrcpynTest, LengthOneGivesAnEmptyString) {
  char dst[4];
  std::memset(dst, 'X', sizeof dst);
  CPortable::lstrcpyn(dst, "abcdef", 1);
  EXPECT_EQ('\0', dst[0]);
  EXPECT_EQ('X', dst[1]);
}

TEST(LstrcpynTest, SourceExactlyFillingTheLengthLosesItsLastCharacter) {
  char dst[8];
  std::memset(dst, 'X', sizeof dst);
  CPortable::lstrcpyn(dst, "abcd", 4);
  EXPECT_STREQ("abc", dst);
  std::memset(dst, 'X', sizeof dst);
  CPortable::lstrcpyn(dst, "abc", 4);
  EXPECT_STREQ("abc", dst);
  EXPECT_EQ('X', dst[4]);
}

// Case-insensitive compares.

TEST(CaseInsensitiveCompareTest, StricmpIgnoresCaseAndKeepsOrder) {
  EXPECT_EQ(0, CPortable::stricmp("Hello", "hELLO"));
  EXPECT_EQ(0, CPortable::stricmp("", ""));
  EXPECT_LT(CPortable::stricmp("abc", "ABD"), 0);
  EXPECT_GT(CPortable::stricmp("ABD", "abc"), 0);
  EXPECT_LT(CPortable::stricmp("ab", "ABC"), 0);  // a prefix sorts first
  EXPECT_GT(CPortable::stricmp("abc", "AB"), 0);
}

TEST(CaseInsensitiveCompareTest, StrnicmpComparesOnlyCountCharacters) {
  EXPECT_EQ(0, CPortable::strnicmp("abcX", "ABCy", 3));
  EXPECT_LT(CPortable::strnicmp("abcX", "ABCy", 4), 0);
  EXPECT_EQ(0, CPortable::strnicmp("x", "y", 0));
  EXPECT_EQ(0, CPortable::strnicmp("2024-01-02 03:04:05.678Z", "2024-01-02 03:04:05.678z", 23));
  EXPECT_NE(0, CPortable::strnicmp("2024-01-02 03:04:05.678", "2024-01-02 03:04:05.679", 23));
  EXPECT_EQ(0, CPortable::strnicmp("ab", "AB", 100));  // stops at the terminators
}

// Case mapping in place.

TEST(CaseMappingTest, StruprAndStrlwrMapAsciiInPlaceAndReturnTheArgument) {
  char text[] = "Hello, World! 123";
  EXPECT_EQ(text, CPortable::strupr(text));
  EXPECT_STREQ("HELLO, WORLD! 123", text);
  EXPECT_EQ(text, CPortable::strlwr(text));
  EXPECT_STREQ("hello, world! 123", text);
  char empty[] = "";
  EXPECT_EQ(empty, CPortable::strupr(empty));
  EXPECT_STREQ("", empty);
}

TEST(CaseMappingTest, StruprWorksByteByByteAndLeavesUtf8BytesAlone) {
  char text[] = "h\xC3\xA9llo";  // "héllo" in UTF-8
  CPortable::strupr(text);
  EXPECT_EQ(std::string("H\xC3\xA9LLO"), std::string(text)) << Hex(text);
  CPortable::strlwr(text);
  EXPECT_EQ(std::string("h\xC3\xA9llo"), std::string(text)) << Hex(text);
}

TEST(CaseMappingTest, StruprStopsAtTheTerminator) {
  char text[] = {'a', 'b', '\0', 'c', '\0'};
  CPortable::strupr(text);
  EXPECT_EQ('A', text[0]);
  EXPECT_EQ('B', text[1]);
  EXPECT_EQ('c', text[3]);
  char upper[] = {'A', '\0', 'B', '\0'};
  CPortable::strlwr(upper);
  EXPECT_EQ('a', upper[0]);
  EXPECT_EQ('B', upper[2]);
}

TEST(CaseMappingTest, WcsuprAndWcslwrMapWideTextInPlaceUpToTheTerminator) {
  wchar_t text[] = L"Hello, World 42";
  EXPECT_EQ(text, CPortable::wcsupr(text));
  EXPECT_STREQ(L"HELLO, WORLD 42", text);
  EXPECT_EQ(text, CPortable::wcslwr(text));
  EXPECT_STREQ(L"hello, world 42", text);

  wchar_t tail[] = {L'a', L'\0', L'b', L'\0'};
  CPortable::wcsupr(tail);
  EXPECT_EQ(L'A', tail[0]);
  EXPECT_EQ(L'b', tail[2]);
  wchar_t upperTail[] = {L'A', L'\0', L'B', L'\0'};
  CPortable::wcslwr(upperTail);
  EXPECT_EQ(L'a', upperTail[0]);
  EXPECT_EQ(L'B', upperTail[2]);
}

// strtok_r

TEST(StrtokTest, SplitsOnAnyDelimiterAndSkipsRunsOfThem) {
  char text[] = ",a,,b;c;";
  char* state = nullptr;
  std::vector<std::string> tokens;
  for (char* t = CPortable::strtok_r(text, ",;", &state); t != nullptr;
       t = CPortable::strtok_r(nullptr, ",;", &state))
    tokens.push_back(t);
  EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), tokens);
}

TEST(StrtokTest, TwoTokenizationsWithTheirOwnStateInterleave) {
  char first[] = "1 2 3";
  char second[] = "x:y";
  char* s1 = nullptr;
  char* s2 = nullptr;
  EXPECT_STREQ("1", CPortable::strtok_r(first, " ", &s1));
  EXPECT_STREQ("x", CPortable::strtok_r(second, ":", &s2));
  EXPECT_STREQ("2", CPortable::strtok_r(nullptr, " ", &s1));
  EXPECT_STREQ("y", CPortable::strtok_r(nullptr, ":", &s2));
  EXPECT_STREQ("3", CPortable::strtok_r(nullptr, " ", &s1));
  EXPECT_EQ(nullptr, CPortable::strtok_r(nullptr, ":", &s2));
  EXPECT_EQ(nullptr, CPortable::strtok_r(nullptr, " ", &s1));
}

TEST(StrtokTest, OnlyDelimitersGiveNoToken) {
  char text[] = ";;;";
  char* state = nullptr;
  EXPECT_EQ(nullptr, CPortable::strtok_r(text, ";", &state));
}

// truncUTF8

constexpr size_t kDstBytes = 64;

// Truncates `src` into a 64-byte buffer full of 'X' with `size` and checks
// that the text is `expected` and that nothing at or after index `size` was
// written.
::testing::AssertionResult TruncGives(const std::string& src, unsigned size,
                                      const std::string& expected) {
  char dst[kDstBytes];
  std::memset(dst, 'X', sizeof dst);
  CPortable::truncUTF8(src, dst, size);
  for (size_t i = size; i < sizeof dst; ++i)
    if (dst[i] != 'X')
      return ::testing::AssertionFailure()
             << "truncUTF8(" << Hex(src) << ", " << size << ") wrote byte " << i;
  if (std::memchr(dst, '\0', size) == nullptr)
    return ::testing::AssertionFailure()
           << "truncUTF8(" << Hex(src) << ", " << size << ") left no terminator";
  const std::string got(dst);
  if (got != expected)
    return ::testing::AssertionFailure()
           << "truncUTF8(" << Hex(src) << ", " << size << ") gave " << Hex(got)
           << ", expected " << Hex(expected);
  return ::testing::AssertionSuccess();
}

const std::string kAEacute = "a\xC3\xA9";  // a, then a two-byte character

TEST(TruncUtf8Test, TwoByteCharacterIsDroppedWholeWhenItDoesNotFit) {
  EXPECT_TRUE(TruncGives(kAEacute, 3, "a"));
  EXPECT_TRUE(TruncGives(kAEacute, 4, kAEacute));
  EXPECT_TRUE(TruncGives(kAEacute, 5, kAEacute));
  EXPECT_TRUE(TruncGives(kAEacute, 2, "a"));
  EXPECT_TRUE(TruncGives(kAEacute, 1, ""));
}

TEST(TruncUtf8Test, SizeZeroLeavesTheDestinationUntouched) {
  char dst[8];
  std::memset(dst, 'X', sizeof dst);
  CPortable::truncUTF8(kAEacute, dst, 0);
  for (size_t i = 0; i < sizeof dst; ++i) EXPECT_EQ('X', dst[i]) << "byte " << i;
  CPortable::truncUTF8("", dst, 0);
  for (size_t i = 0; i < sizeof dst; ++i) EXPECT_EQ('X', dst[i]) << "byte " << i;
}

TEST(TruncUtf8Test, EmptySourceGivesAnEmptyString) {
  EXPECT_TRUE(TruncGives("", 1, ""));
  EXPECT_TRUE(TruncGives("", 5, ""));
}

TEST(TruncUtf8Test, AsciiIsCutAtSizeMinusOne) {
  EXPECT_TRUE(TruncGives("abcdef", 1, ""));
  EXPECT_TRUE(TruncGives("abcdef", 4, "abc"));
  EXPECT_TRUE(TruncGives("abcdef", 6, "abcde"));
  EXPECT_TRUE(TruncGives("abcdef", 7, "abcdef"));  // exactly fits with terminator
  EXPECT_TRUE(TruncGives("abcdef", 8, "abcdef"));
}

TEST(TruncUtf8Test, LeadByteThatDoesNotFitIsCutBefore) {
  EXPECT_TRUE(TruncGives("ab\xC3\xA9", 3, "ab"));
  EXPECT_TRUE(TruncGives("\xC3\xA9", 1, ""));
}

TEST(TruncUtf8Test, ThreeByteCharacterIsCutCorrectlyAtEveryPosition) {
  const std::string euro = "\xE2\x82\xAC";
  const std::string text = "x" + euro + "y";  // 78 E2 82 AC 79
  EXPECT_TRUE(TruncGives(text, 1, ""));
  EXPECT_TRUE(TruncGives(text, 2, "x"));
  EXPECT_TRUE(TruncGives(text, 3, "x"));
  EXPECT_TRUE(TruncGives(text, 4, "x"));
  EXPECT_TRUE(TruncGives(text, 5, "x" + euro));
  EXPECT_TRUE(TruncGives(text, 6, text));
  EXPECT_TRUE(TruncGives(text, 7, text));
}

TEST(TruncUtf8Test, FourByteCharacterIsCutCorrectlyAtEveryPosition) {
  const std::string grin = "\xF0\x9F\x98\x80";
  const std::string text = grin + "z" + grin;  // F0 9F 98 80 7A F0 9F 98 80
  EXPECT_TRUE(TruncGives(text, 1, ""));  // cuts at 0
  EXPECT_TRUE(TruncGives(text, 2, ""));
  EXPECT_TRUE(TruncGives(text, 3, ""));
  EXPECT_TRUE(TruncGives(text, 4, ""));
  EXPECT_TRUE(TruncGives(text, 5, grin));
  EXPECT_TRUE(TruncGives(text, 6, grin + "z"));
  EXPECT_TRUE(TruncGives(text, 7, grin + "z"));
  EXPECT_TRUE(TruncGives(text, 8, grin + "z"));
  EXPECT_TRUE(TruncGives(text, 9, grin + "z"));
  EXPECT_TRUE(TruncGives(text, 10, text));
  EXPECT_TRUE(TruncGives(text, 11, text));
}

TEST(TruncUtf8Test, WalkInMalformedTextStepsBackOverAscii) {
  // 78 C3 61 62 80: the stray continuation byte at index 4 sends the walk
  // back over "ab" to the lead byte C3, and the cut falls before it.
  const std::string text = "x\xC3" "ab\x80";
  EXPECT_TRUE(TruncGives(text, 5, "x"));
  // Sizes where the first byte that does not fit is ASCII cut there.
  EXPECT_TRUE(TruncGives(text, 4, "x\xC3" "a"));
  EXPECT_TRUE(TruncGives(text, 6, text));
}

TEST(TruncUtf8Test, WalkPastTheStartGivesAnEmptyString) {
  // No byte with both top bits set before the continuation byte.
  EXPECT_TRUE(TruncGives("ab\x80\x80", 4, ""));
  EXPECT_TRUE(TruncGives("\x80\x80\x80", 2, ""));
}

// For well-formed text: a byte at index size - 1 that is ASCII, the
// terminator or a lead byte lies on a character boundary, and the cut falls
// there; a continuation byte sends the walk back to its own lead byte, the
// boundary just before. Either way the cut is the largest character
// boundary not above size - 1, so the result is the longest prefix of whole
// characters that fits in size - 1 bytes (all of src when it fits).
TEST(TruncUtf8Test, ResultIsTheLongestWholeCharacterPrefixThatFits) {
  std::mt19937 random(7411);
  auto randomCodePoint = [&](int bytes) -> unsigned {
    switch (bytes) {
      case 1: return std::uniform_int_distribution<unsigned>(1, 0x7F)(random);
      case 2: return std::uniform_int_distribution<unsigned>(0x80, 0x7FF)(random);
      case 3: {
        unsigned c;
        do c = std::uniform_int_distribution<unsigned>(0x800, 0xFFFF)(random);
        while (c >= 0xD800 && c <= 0xDFFF);
        return c;
      }
      default: return std::uniform_int_distribution<unsigned>(0x10000, 0x10FFFF)(random);
    }
  };
  auto encode = [](unsigned c, std::string* out) {
    if (c < 0x80) {
      *out += static_cast<char>(c);
    } else if (c < 0x800) {
      *out += static_cast<char>(0xC0 | c >> 6);
      *out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      *out += static_cast<char>(0xE0 | c >> 12);
      *out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      *out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      *out += static_cast<char>(0xF0 | c >> 18);
      *out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
      *out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
      *out += static_cast<char>(0x80 | (c & 0x3F));
    }
  };

  for (int round = 0; round < 500; ++round) {
    std::string src;
    std::vector<size_t> boundaries{0};
    const int characters = std::uniform_int_distribution<int>(1, 12)(random);
    for (int i = 0; i < characters; ++i) {
      encode(randomCodePoint(std::uniform_int_distribution<int>(1, 4)(random)), &src);
      boundaries.push_back(src.size());
    }
    ASSERT_LT(src.size() + 3, kDstBytes);
    for (unsigned size = 1; size <= src.size() + 3; ++size) {
      char dst[kDstBytes];
      std::memset(dst, 'X', sizeof dst);
      CPortable::truncUTF8(src, dst, size);
      const void* nul = std::memchr(dst, '\0', size);
      ASSERT_NE(nullptr, nul) << Hex(src) << " size " << size;
      const size_t length = static_cast<const char*>(nul) - dst;
      ASSERT_LE(length, size - 1u);
      ASSERT_EQ(0, std::memcmp(dst, src.data(), length))
          << "not a prefix: " << Hex(src) << " size " << size;
      size_t longest = 0;
      for (size_t b : boundaries)
        if (b <= size - 1u) longest = b;
      ASSERT_EQ(longest, length)
          << Hex(src) << " size " << size << " gave " << Hex(std::string(dst, length));
      for (size_t i = size; i < sizeof dst; ++i)
        ASSERT_EQ('X', dst[i]) << Hex(src) << " size " << size << " wrote byte " << i;
    }
  }
}

}  // namespace
