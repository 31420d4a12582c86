// PUUIDs: the GUID memory layout behind the text forms, the one-digit first
// field of the form without dashes, nil values and memory-order compares.
#include <cctype>
#include <cstring>
#include <set>
#include <string>

#include "ambit/portable.h"
#include "gtest/gtest.h"

namespace {

using PUUID = CPortable::PUUID;

PUUID FromBytes(std::initializer_list<unsigned> bytes) {
  PUUID uuid;
  std::memset(&uuid, 0, sizeof uuid);
  unsigned char* b = reinterpret_cast<unsigned char*>(&uuid);
  int i = 0;
  for (unsigned v : bytes) b[i++] = static_cast<unsigned char>(v);
  return uuid;
}

PUUID Filled(unsigned char value) {
  PUUID uuid;
  std::memset(&uuid, value, sizeof uuid);
  return uuid;
}

std::string HexBytes(const PUUID& uuid) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(&uuid);
  std::string out;
  char two[4];
  for (int i = 0; i < 16; ++i) {
    std::snprintf(two, sizeof two, i == 0 ? "%02x" : " %02x", b[i]);
    out += two;
  }
  return out;
}

// The 16 bytes in memory order against the expected ones.
::testing::AssertionResult HasBytes(const PUUID& uuid, const PUUID& expected) {
  if (std::memcmp(&uuid, &expected, sizeof uuid) != 0)
    return ::testing::AssertionFailure()
           << "bytes " << HexBytes(uuid) << ", expected " << HexBytes(expected);
  return ::testing::AssertionSuccess();
}

const PUUID kExample = FromBytes({0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                                  0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff});
const char kExampleText[] = "00112233-4455-6677-8899-aabbccddeeff";

TEST(PuuidTextTest, DashedTextMapsToLittleEndianFirstGroups) {
  PUUID uuid = Filled(0xEE);
  CPortable::PUUIDFromString(kExampleText, &uuid);
  EXPECT_TRUE(HasBytes(uuid, kExample));
  PUUID copy = kExample;
  EXPECT_EQ(kExampleText, CPortable::PUUIDToString(&copy));
}

TEST(PuuidTextTest, UpperCaseHexIsAccepted) {
  PUUID uuid = Filled(0xEE);
  CPortable::PUUIDFromString("00112233-4455-6677-8899-AABBCCDDEEFF", &uuid);
  EXPECT_TRUE(HasBytes(uuid, kExample));
  // The text written is always lower case.
  EXPECT_EQ(kExampleText, CPortable::PUUIDToString(&uuid));
}

TEST(PuuidTextTest, FieldsThatDoNotParseBecomeZero) {
  PUUID uuid = Filled(0xEE);
  CPortable::PUUIDFromString("00112233-4455-zz77-8899-aabbccddeeff", &uuid);
  EXPECT_TRUE(HasBytes(uuid, FromBytes({0x33, 0x22, 0x11, 0x00, 0x55, 0x44})));
  uuid = Filled(0xEE);
  CPortable::PUUIDFromString("not a uuid", &uuid);
  EXPECT_TRUE(HasBytes(uuid, FromBytes({})));
}

TEST(PuuidTextTest, ToStringIsThirtySixLowerCaseCharacters) {
  PUUID uuid = FromBytes({0xab, 0xcd, 0xef, 0x01, 0x23, 0x45, 0x67, 0x89,
                          0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10});
  EXPECT_EQ("01efcdab-4523-8967-fedc-ba9876543210", CPortable::PUUIDToString(&uuid));
}

TEST(PuuidTextTest, SansDashesTextWithFirstByteBelow0x10Has31CharactersAndReadsBack) {
  PUUID uuid = FromBytes({0x33, 0x22, 0x11, 0x0a, 0x55, 0x44, 0x77, 0x66,
                          0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff});
  const std::string text = CPortable::PUUIDToStringSansDashes(&uuid);
  EXPECT_EQ("a112233445566778899aabbccddeeff", text);
  EXPECT_EQ(31u, text.size());
  PUUID back = Filled(0xEE);
  CPortable::PUUIDFromStringSansDashes(text, &back);
  EXPECT_TRUE(HasBytes(back, uuid));
}

TEST(PuuidTextTest, SansDashesTextWithFirstByte0xabHas32CharactersAndReadsBackShifted) {
  PUUID uuid = FromBytes({0x33, 0x22, 0x11, 0xab, 0x55, 0x44, 0x77, 0x66,
                          0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff});
  const std::string text = CPortable::PUUIDToStringSansDashes(&uuid);
  EXPECT_EQ("ab112233445566778899aabbccddeeff", text);
  EXPECT_EQ(32u, text.size());
  PUUID back = Filled(0xEE);
  CPortable::PUUIDFromStringSansDashes(text, &back);
  // The first field takes one digit, so every later field starts one digit
  // early and the last digit is never read.
  EXPECT_FALSE(CPortable::PUUIDEqual(&back, &uuid));
  EXPECT_TRUE(HasBytes(back, FromBytes({0x23, 0x12, 0xb1, 0x0a, 0x45, 0x34, 0x67, 0x56,
                                        0x78, 0x89, 0x9a, 0xab, 0xbc, 0xcd, 0xde, 0xef})));
  EXPECT_EQ("0ab11223-3445-5667-7889-9aabbccddeef", CPortable::PUUIDToString(&back));
}

TEST(PuuidTextTest, NilSansDashesIs31Zeros) {
  PUUID nil = FromBytes({});
  EXPECT_EQ(std::string(31, '0'), CPortable::PUUIDToStringSansDashes(&nil));
}

TEST(PuuidTextTest, DashedFormRoundTripsForEveryFirstByte) {
  for (unsigned first = 0; first < 256; ++first) {
    PUUID uuid = FromBytes({1, 2, 3, first, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
    PUUID back = Filled(0xEE);
    CPortable::PUUIDFromString(CPortable::PUUIDToString(&uuid), &back);
    ASSERT_TRUE(HasBytes(back, uuid)) << "first byte " << first;
  }
}

TEST(PuuidNilTest, NilTextIsAllZerosWithDashes) {
  EXPECT_EQ("00000000-0000-0000-0000-000000000000", CPortable::nilPUUID());
  EXPECT_EQ(CPortable::nilPUUID(), CPortable::nilPUUID());
}

TEST(PuuidNilTest, NullPointerCountsAsNil) {
  EXPECT_EQ(1, CPortable::PUUIDIsNil(nullptr));
}

TEST(PuuidNilTest, OnlySixteenZeroBytesAreNil) {
  PUUID zero = FromBytes({});
  EXPECT_EQ(1, CPortable::PUUIDIsNil(&zero));
  for (int i = 0; i < 16; ++i) {
    PUUID one = FromBytes({});
    reinterpret_cast<unsigned char*>(&one)[i] = 1;
    EXPECT_EQ(0, CPortable::PUUIDIsNil(&one)) << "byte " << i;
  }
}

TEST(PuuidNilTest, PuuidNilZeroesEveryByte) {
  PUUID uuid = Filled(0xA5);
  CPortable::PUUIDNil(&uuid);
  EXPECT_TRUE(HasBytes(uuid, FromBytes({})));
  EXPECT_EQ(1, CPortable::PUUIDIsNil(&uuid));
  EXPECT_EQ(CPortable::nilPUUID(), CPortable::PUUIDToString(&uuid));
}

TEST(PuuidCompareTest, EqualComparesAllSixteenBytes) {
  PUUID a = kExample;
  PUUID b = kExample;
  EXPECT_EQ(1, CPortable::PUUIDEqual(&a, &b));
  for (int i = 0; i < 16; ++i) {
    PUUID c = kExample;
    reinterpret_cast<unsigned char*>(&c)[i] ^= 0x01;
    EXPECT_EQ(0, CPortable::PUUIDEqual(&a, &c)) << "byte " << i;
  }
}

TEST(PuuidCompareTest, OrderIsMemoryOrderNotTextOrder) {
  // a: byte 0 is 01, text 00000001-...; b: byte 1 is 01, text 00000100-...
  PUUID a = FromBytes({0x01, 0x00});
  PUUID b = FromBytes({0x00, 0x01});
  const std::string textA = CPortable::PUUIDToString(&a);
  const std::string textB = CPortable::PUUIDToString(&b);
  EXPECT_EQ("00000001-0000-0000-0000-000000000000", textA);
  EXPECT_EQ("00000100-0000-0000-0000-000000000000", textB);
  ASSERT_LT(textA, textB);  // the texts sort a first ...
  EXPECT_EQ(1, CPortable::PUUIDGreaterThan(&a, &b));  // ... the bytes b first
  EXPECT_EQ(0, CPortable::PUUIDLessThan(&a, &b));
  EXPECT_EQ(1, CPortable::PUUIDLessThan(&b, &a));
  EXPECT_EQ(0, CPortable::PUUIDGreaterThan(&b, &a));
}

TEST(PuuidCompareTest, BytesCompareAsUnsigned) {
  PUUID high = FromBytes({0x80});
  PUUID low = FromBytes({0x7f});
  EXPECT_EQ(1, CPortable::PUUIDGreaterThan(&high, &low));
  EXPECT_EQ(1, CPortable::PUUIDLessThan(&low, &high));
}

TEST(PuuidCompareTest, EqualValuesAreNeitherLessNorGreater) {
  PUUID a = kExample;
  PUUID b = kExample;
  EXPECT_EQ(0, CPortable::PUUIDLessThan(&a, &b));
  EXPECT_EQ(0, CPortable::PUUIDGreaterThan(&a, &b));
}

TEST(PuuidCompareTest, LastByteDecidesWhenTheRestIsEqual) {
  PUUID a = kExample;
  PUUID b = kExample;
  reinterpret_cast<unsigned char*>(&b)[15] = 0x00;
  EXPECT_EQ(1, CPortable::PUUIDGreaterThan(&a, &b));
  EXPECT_EQ(1, CPortable::PUUIDLessThan(&b, &a));
}

bool IsDashedLowerHex(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-'
             : !(std::isdigit(static_cast<unsigned char>(text[i])) ||
                 (text[i] >= 'a' && text[i] <= 'f')))
      return false;
  }
  return true;
}

TEST(NewPuuidTest, GivesDashedLowerCaseTextsThatDiffer) {
  std::set<std::string> seen;
  for (int i = 0; i < 50; ++i) {
    const std::string text = CPortable::newPUUID();
    ASSERT_TRUE(IsDashedLowerHex(text)) << "\"" << text << "\"";
    EXPECT_NE(CPortable::nilPUUID(), text);
    EXPECT_TRUE(seen.insert(text).second) << "repeated " << text;
  }
}

TEST(NewPuuidTest, TextReadsBackToTheSameText) {
  const std::string text = CPortable::newPUUID();
  PUUID uuid;
  CPortable::PUUIDFromString(text, &uuid);
  EXPECT_EQ(text, CPortable::PUUIDToString(&uuid));
}

}  // namespace
