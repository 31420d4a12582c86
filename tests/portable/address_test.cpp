// IPv4 addresses: the dotted text with its unmasked components, formatting
// cut by size, and host look-up without a network (files only).
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "support/recording_hook.h"

namespace {

::testing::AssertionResult ParsesTo(const std::string& text, unsigned long expected) {
  const unsigned long got = CPortable::stringToIPAddress(text);
  if (got != expected)
    return ::testing::AssertionFailure()
           << std::hex << "stringToIPAddress(\"" << text << "\") = 0x" << got
           << ", expected 0x" << expected;
  return ::testing::AssertionSuccess();
}

TEST(StringToIpAddressTest, FirstComponentIsTheLowByte) {
  EXPECT_TRUE(ParsesTo("10.1.2.3", 0x0302010AUL));
  EXPECT_TRUE(ParsesTo("127.0.0.1", 0x0100007FUL));
  EXPECT_TRUE(ParsesTo("255.255.255.255", 0xFFFFFFFFUL));
  EXPECT_TRUE(ParsesTo("0.0.0.0", 0));
}

TEST(StringToIpAddressTest, ComponentsAboveTwoFiftyFiveSpillIntoTheNextByte) {
  EXPECT_TRUE(ParsesTo("1.256.0.0", 0x00010001UL));
  EXPECT_TRUE(ParsesTo("300.0.0.0", 0x0000012CUL));
  EXPECT_TRUE(ParsesTo("0.0.0.256", 0));  // shifted out of 32 bits
  EXPECT_TRUE(ParsesTo("4294967295", 0xFFFFFFFFUL));
  EXPECT_EQ("44.1.0.0", CPortable::IPAddressToString(CPortable::stringToIPAddress("300.0.0.0")));
  EXPECT_EQ("1.0.1.0", CPortable::IPAddressToString(CPortable::stringToIPAddress("1.256.0.0")));
}

TEST(StringToIpAddressTest, MissingComponentsAreZero) {
  EXPECT_TRUE(ParsesTo("1.2", 0x00000201UL));
  EXPECT_TRUE(ParsesTo("7", 0x00000007UL));
  EXPECT_TRUE(ParsesTo("1.2.x.4", 0x00000201UL));  // parsing stops at x
  EXPECT_TRUE(ParsesTo("", 0));
  EXPECT_TRUE(ParsesTo("localhost", 0));
  EXPECT_TRUE(ParsesTo("1.2.3.4.5", 0x04030201UL));  // extra text ignored
}

// formatIPAddress into a 32-byte buffer full of 'X' with `size`.
::testing::AssertionResult FormatsTo(unsigned long address, int size,
                                     const char* expected, int expectedCount) {
  char dst[32];
  std::memset(dst, 'X', sizeof dst);
  const int count = CPortable::formatIPAddress(address, dst, size);
  for (size_t i = static_cast<size_t>(size); i < sizeof dst; ++i)
    if (dst[i] != 'X')
      return ::testing::AssertionFailure() << "size " << size << " wrote byte " << i;
  if (dst[size - 1] != '\0')
    return ::testing::AssertionFailure() << "size " << size << ": dst[size - 1] not 0";
  if (std::strcmp(dst, expected) != 0 || count != expectedCount)
    return ::testing::AssertionFailure()
           << "size " << size << " gave \"" << dst << "\" count " << count
           << ", expected \"" << expected << "\" count " << expectedCount;
  return ::testing::AssertionSuccess();
}

TEST(FormatIpAddressTest, WritesDottedTextLowByteFirst) {
  EXPECT_TRUE(FormatsTo(0x0302010AUL, 32, "10.1.2.3", 8));
  EXPECT_TRUE(FormatsTo(0xFFFFFFFFUL, 32, "255.255.255.255", 15));
  EXPECT_TRUE(FormatsTo(0, 32, "0.0.0.0", 7));
}

TEST(FormatIpAddressTest, KeepsAtMostSizeMinusTwoCharactersAndReturnsTheFullCount) {
  // snprintf is given size - 1, so its own terminator takes one more byte.
  EXPECT_TRUE(FormatsTo(0x0302010AUL, 10, "10.1.2.3", 8));
  EXPECT_TRUE(FormatsTo(0x0302010AUL, 9, "10.1.2.", 8));
  EXPECT_TRUE(FormatsTo(0x0302010AUL, 8, "10.1.2", 8));
  EXPECT_TRUE(FormatsTo(0x0302010AUL, 3, "1", 8));
  EXPECT_TRUE(FormatsTo(0x0302010AUL, 2, "", 8));
  EXPECT_TRUE(FormatsTo(0x0302010AUL, 1, "", 8));
}

TEST(IpAddressToStringTest, GivesTheDottedText) {
  EXPECT_EQ("10.1.2.3", CPortable::IPAddressToString(0x0302010AUL));
  EXPECT_EQ("127.0.0.1", CPortable::IPAddressToString(0x0100007FUL));
  EXPECT_EQ("255.255.255.255", CPortable::IPAddressToString(0xFFFFFFFFUL));
  EXPECT_EQ("0.0.0.0", CPortable::IPAddressToString(0));
}

TEST(IpAddressToStringTest, TextAndValueRoundTrip) {
  std::mt19937 random(99);
  for (int i = 0; i < 2000; ++i) {
    const unsigned long address = random();
    const std::string text = CPortable::IPAddressToString(address);
    ASSERT_EQ(address, CPortable::stringToIPAddress(text)) << text;
  }
}

// getHostByName, with no network: only /etc/hosts and numeric names.

TEST(GetHostByNameTest, EmptyNameGivesHostNotFoundAndEmptyAddress) {
  std::string address = "junk";
  EXPECT_EQ(0xC1210E1EUL, CPortable::getHostByName("", &address));
  EXPECT_EQ("", address);
}

TEST(GetHostByNameTest, DottedAddressIsReturnedAsItsText) {
  std::string address = "junk";
  EXPECT_EQ(0UL, CPortable::getHostByName("10.1.2.3", &address));
  EXPECT_EQ("10.1.2.3", address);
  EXPECT_EQ(0UL, CPortable::getHostByName("0.0.0.0", &address));
  EXPECT_EQ("0.0.0.0", address);
}

TEST(GetHostByNameTest, ShortDottedFormsAreReadTheWayInetAddrReadsThem) {
  // inet_addr takes "a.b" as a and a 24-bit b, unlike stringToIPAddress.
  std::string address;
  EXPECT_EQ(0UL, CPortable::getHostByName("10.1", &address));
  EXPECT_EQ("10.0.0.1", address);
}

// The first IPv4 address /etc/hosts gives `name`, or "".
std::string HostsFileAddress(const std::string& name) {
  std::ifstream hosts("/etc/hosts");
  std::string line;
  while (std::getline(hosts, line)) {
    line = line.substr(0, line.find('#'));
    std::istringstream words(line);
    std::string address, alias;
    if (!(words >> address) || address.find(':') != std::string::npos) continue;
    while (words >> alias)
      if (alias == name) return address;
  }
  return "";
}

TEST(GetHostByNameTest, LocalhostResolvesFromTheHostsFile) {
  const std::string expected = HostsFileAddress("localhost");
  if (expected.empty()) GTEST_SKIP() << "/etc/hosts has no IPv4 localhost line";
  RecordingHook hook;
  hook.Install();
  std::string address = "junk";
  EXPECT_EQ(0UL, CPortable::getHostByName("localhost", &address));
  EXPECT_EQ(expected, address);
  EXPECT_TRUE(hook.Lines().empty());
}

TEST(GetHostByNameTest, AllOnesAddressIsLookedUpAsANameAndStillResolves) {
  // inet_addr cannot tell 255.255.255.255 from its error value, so the text
  // goes to the resolver, which reads numeric names itself.
  RecordingHook hook;
  hook.Install();
  std::string address = "junk";
  EXPECT_EQ(0UL, CPortable::getHostByName("255.255.255.255", &address));
  EXPECT_EQ("255.255.255.255", address);
  EXPECT_TRUE(hook.Lines().empty());
}

TEST(GetHostByNameTest, UnknownNameGivesEmptyAddressAndOneErrorLine) {
  RecordingHook hook;
  hook.Install();
  std::string address = "junk";
  const unsigned long result = CPortable::getHostByName("no-such-host.invalid", &address);
  EXPECT_EQ("", address);
  EXPECT_TRUE(result == 0 || (result & 0xFFFF0000UL) == 0x80100000UL)
      << std::hex << "result 0x" << result;
  const auto lines = hook.Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(16u, lines[0].category);
  EXPECT_EQ(64u, lines[0].level);
  char expected[128];
  std::snprintf(expected, sizeof expected,
                "(Error) CPortable::getHostByName failed for no-such-host.invalid, "
                "hr 0x%08X\n",
                static_cast<unsigned>(result));
  EXPECT_EQ(expected, lines[0].text);
}

TEST(GetHostByNameTest, SuccessfulLookUpsWriteNoLine) {
  RecordingHook hook;
  hook.Install();
  std::string address;
  CPortable::getHostByName("10.1.2.3", &address);
  CPortable::getHostByName("", &address);
  EXPECT_TRUE(hook.Lines().empty());
}

}  // namespace
