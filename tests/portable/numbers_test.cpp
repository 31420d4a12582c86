// Number helpers: itoa/ltoa with their sign rule and radix fallback, the
// signed stoull/ulltos pair, and the 32-bit rotations.
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ambit/portable.h"
#include "gtest/gtest.h"

namespace {

// Runs `convert` into a buffer full of 'X' and compares the NUL-terminated
// text with `expected`; the return value must be the buffer itself.
template <typename Convert>
::testing::AssertionResult ConvertGives(const char* what, Convert convert,
                                        long long value, int radix,
                                        const char* expected) {
  char buffer[64];
  std::memset(buffer, 'X', sizeof buffer);
  char* returned = convert(buffer, radix);
  if (returned != buffer)
    return ::testing::AssertionFailure()
           << what << "(" << value << ", " << radix << ") returned " << (void*)returned
           << ", not its buffer " << (void*)buffer;
  if (std::memchr(buffer, '\0', sizeof buffer) == nullptr)
    return ::testing::AssertionFailure()
           << what << "(" << value << ", " << radix << ") left no terminator";
  if (std::strcmp(buffer, expected) != 0)
    return ::testing::AssertionFailure()
           << what << "(" << value << ", " << radix << ") gave \"" << buffer
           << "\", expected \"" << expected << "\"";
  // Nothing is written after the terminator.
  const size_t length = std::strlen(buffer);
  for (size_t i = length + 1; i < sizeof buffer; ++i)
    if (buffer[i] != 'X')
      return ::testing::AssertionFailure()
             << what << "(" << value << ", " << radix << ") wrote byte " << i
             << " past the terminator";
  return ::testing::AssertionSuccess();
}

// itoa and ltoa must agree on every case.
::testing::AssertionResult ItoaGives(int value, int radix, const char* expected) {
  ::testing::AssertionResult r = ConvertGives(
      "itoa", [&](char* b, int rx) { return CPortable::itoa(value, b, rx); }, value,
      radix, expected);
  if (!r) return r;
  return ConvertGives(
      "ltoa",
      [&](char* b, int rx) { return CPortable::ltoa(static_cast<long>(value), b, rx); },
      value, radix, expected);
}

TEST(ItoaTest, NegativeValueIsSignedOnlyInRadixTen) {
  EXPECT_TRUE(ItoaGives(-255, 16, "ffffff01"));
  EXPECT_TRUE(ItoaGives(-255, 10, "-255"));
  EXPECT_TRUE(ItoaGives(-1, 16, "ffffffff"));
  EXPECT_TRUE(ItoaGives(-1, 2, "11111111111111111111111111111111"));
  EXPECT_TRUE(ItoaGives(-1, 36, "1z141z3"));
  EXPECT_TRUE(ItoaGives(-1, 8, "37777777777"));
  EXPECT_TRUE(ItoaGives(-1, 10, "-1"));
  EXPECT_TRUE(ItoaGives(INT_MIN, 16, "80000000"));
}

TEST(ItoaTest, RadixOutsideTwoToThirtySixFallsBackToTen) {
  EXPECT_TRUE(ItoaGives(5, 99, "5"));
  EXPECT_TRUE(ItoaGives(255, 99, "255"));
  EXPECT_TRUE(ItoaGives(255, 1, "255"));
  EXPECT_TRUE(ItoaGives(255, 37, "255"));
  EXPECT_TRUE(ItoaGives(255, 0, "255"));
  EXPECT_TRUE(ItoaGives(255, -16, "255"));
  // The fallback radix is ten, so a negative value gets its sign.
  EXPECT_TRUE(ItoaGives(-255, 1, "-255"));
  EXPECT_TRUE(ItoaGives(-255, 37, "-255"));
}

TEST(ItoaTest, RadixTwoAndThirtySixAreTheLimitsStillHonoured) {
  EXPECT_TRUE(ItoaGives(5, 2, "101"));
  EXPECT_TRUE(ItoaGives(1, 2, "1"));
  EXPECT_TRUE(ItoaGives(35, 36, "z"));
  EXPECT_TRUE(ItoaGives(36, 36, "10"));
  EXPECT_TRUE(ItoaGives(INT_MAX, 36, "zik0zj"));
}

TEST(ItoaTest, ExtremeValuesInRadixTen) {
  EXPECT_TRUE(ItoaGives(INT_MIN, 10, "-2147483648"));
  EXPECT_TRUE(ItoaGives(INT_MAX, 10, "2147483647"));
}

TEST(ItoaTest, ZeroIsASingleDigitInEveryRadix) {
  EXPECT_TRUE(ItoaGives(0, 10, "0"));
  EXPECT_TRUE(ItoaGives(0, 2, "0"));
  EXPECT_TRUE(ItoaGives(0, 16, "0"));
  EXPECT_TRUE(ItoaGives(0, 36, "0"));
  EXPECT_TRUE(ItoaGives(0, 99, "0"));
}

TEST(ItoaTest, DigitsAreLowerCaseAndUnpadded) {
  EXPECT_TRUE(ItoaGives(0xABCDEF, 16, "abcdef"));
  EXPECT_TRUE(ItoaGives(255, 16, "ff"));
  EXPECT_TRUE(ItoaGives(15, 16, "f"));
  EXPECT_TRUE(ItoaGives(7, 8, "7"));
  EXPECT_TRUE(ItoaGives(8, 8, "10"));
  EXPECT_TRUE(ItoaGives(1, 16, "1"));
}

// stoull and ulltos: "%lld" both ways.

const unsigned long long kTwoTo63 = 1ULL << 63;

::testing::AssertionResult RoundTrips(unsigned long long value) {
  const std::string text = CPortable::ulltos(value);
  const unsigned long long back = CPortable::stoull(text);
  if (back != value)
    return ::testing::AssertionFailure()
           << "ulltos(" << value << ") = \"" << text << "\", read back as " << back;
  return ::testing::AssertionSuccess();
}

TEST(SignedPairTest, UlltosPrintsValuesFromTwoTo63AsNegative) {
  EXPECT_EQ("0", CPortable::ulltos(0));
  EXPECT_EQ("9223372036854775807", CPortable::ulltos(kTwoTo63 - 1));
  EXPECT_EQ("-9223372036854775808", CPortable::ulltos(kTwoTo63));
  EXPECT_EQ("-1", CPortable::ulltos(~0ULL));
  EXPECT_EQ("-2", CPortable::ulltos(~0ULL - 1));
  EXPECT_EQ("4294967296", CPortable::ulltos(1ULL << 32));
}

TEST(SignedPairTest, StoullReadsSignedText) {
  EXPECT_EQ(0ULL, CPortable::stoull("0"));
  EXPECT_EQ(42ULL, CPortable::stoull("42"));
  EXPECT_EQ(kTwoTo63 - 1, CPortable::stoull("9223372036854775807"));
  EXPECT_EQ(kTwoTo63, CPortable::stoull("-9223372036854775808"));
  EXPECT_EQ(~0ULL, CPortable::stoull("-1"));
  EXPECT_EQ(7ULL, CPortable::stoull("+7"));
  EXPECT_EQ(4294967296ULL, CPortable::stoull("4294967296"));
}

TEST(SignedPairTest, UnparsableTextGivesZero) {
  EXPECT_EQ(0ULL, CPortable::stoull(""));
  EXPECT_EQ(0ULL, CPortable::stoull("abc"));
  EXPECT_EQ(0ULL, CPortable::stoull("-"));
  EXPECT_EQ(0ULL, CPortable::stoull("   "));
}

TEST(SignedPairTest, StoullReadsTheLeadingDecimalNumberOnly) {
  EXPECT_EQ(42ULL, CPortable::stoull("  42xyz"));
  EXPECT_EQ(0ULL, CPortable::stoull("0x10"));  // decimal: stops at the x
  EXPECT_EQ(12ULL, CPortable::stoull("12 34"));
}

TEST(SignedPairTest, RoundTripIsExactAtTheEdges) {
  for (unsigned long long v : {0ULL, 1ULL, kTwoTo63 - 1, kTwoTo63, kTwoTo63 + 1,
                               ~0ULL, ~0ULL - 1, 1ULL << 32, (1ULL << 32) - 1})
    EXPECT_TRUE(RoundTrips(v));
}

TEST(SignedPairTest, RoundTripIsExactForRandomPatterns) {
  std::mt19937_64 random(20240607);
  for (int i = 0; i < 20000; ++i) {
    const unsigned long long v = random();
    ASSERT_TRUE(RoundTrips(v));
    // Also patterns with few bits set, which plain random sampling misses.
    ASSERT_TRUE(RoundTrips(v >> (i % 64)));
  }
}

// Rotations.

::testing::AssertionResult RotatesTo(unsigned value, int shift, unsigned expected) {
  const unsigned r = CPortable::_rotl(value, shift);
  const unsigned long lr = CPortable::_lrotl(value, shift);
  if (r != expected || lr != expected)
    return ::testing::AssertionFailure()
           << std::hex << "rotating 0x" << value << std::dec << " by " << shift
           << std::hex << " gave _rotl 0x" << r << ", _lrotl 0x" << lr
           << ", expected 0x" << expected;
  return ::testing::AssertionSuccess();
}

TEST(RotateTest, ShiftIsTakenModulo32) {
  EXPECT_TRUE(RotatesTo(0x12345678u, 0, 0x12345678u));
  EXPECT_TRUE(RotatesTo(0x12345678u, 4, 0x23456781u));
  EXPECT_TRUE(RotatesTo(0x80000001u, 1, 0x00000003u));
  EXPECT_TRUE(RotatesTo(0x80000001u, 31, 0xC0000000u));
  EXPECT_TRUE(RotatesTo(0x80000001u, 32, 0x80000001u));
  EXPECT_TRUE(RotatesTo(0x80000001u, 33, 0x00000003u));
  EXPECT_TRUE(RotatesTo(0x80000001u, -1, 0xC0000000u));
  EXPECT_TRUE(RotatesTo(0x80000001u, 64, 0x80000001u));
  EXPECT_TRUE(RotatesTo(0x12345678u, -4, 0x81234567u));
  EXPECT_TRUE(RotatesTo(0xFFFFFFFFu, 13, 0xFFFFFFFFu));
  EXPECT_TRUE(RotatesTo(0u, 7, 0u));
}

TEST(RotateTest, EveryShiftAgreesWithAReferenceRotation) {
  const unsigned value = 0xA5C3F00Du;
  for (int shift = -70; shift <= 70; ++shift) {
    const unsigned s = static_cast<unsigned>(shift) & 31u;
    const unsigned expected = s == 0 ? value : (value << s) | (value >> (32 - s));
    ASSERT_TRUE(RotatesTo(value, shift, expected));
  }
}

}  // namespace
