#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "ambit/portable.h"
#include "gtest/gtest.h"

namespace {

constexpr unsigned kError = 0xFFFFFFFFu;

TEST(WideStringsTest, MeasuringUtf32CountsTheUtf8Bytes) {
  const wchar_t text[] = {L'A', 0xE9, 0x20AC, 0x1F600};
  EXPECT_EQ(10u, CPortable::wcstombs(nullptr, text, 4));
  EXPECT_EQ(3u, CPortable::wcstombs(nullptr, text, 2));
}

TEST(WideStringsTest, ConvertingWritesNoTerminatorAndReturnsTheBytes) {
  const wchar_t text[] = {L'A', 0xE9, 0x20AC};
  char out[16];
  std::memset(out, 'x', sizeof out);
  EXPECT_EQ(6u, CPortable::wcstombs(out, text, 3));
  EXPECT_EQ(std::string("A\xC3\xA9\xE2\x82\xAC"), std::string(out, 6));
  EXPECT_EQ('x', out[6]);
}

TEST(WideStringsTest, SurrogatesAndOutOfRangeAreConversionErrors) {
  const wchar_t surrogate[] = {L'A', 0xD800};
  char out[16];
  EXPECT_EQ(kError, CPortable::wcstombs(nullptr, surrogate, 2));
  EXPECT_EQ(kError, CPortable::wcstombs(out, surrogate, 2));
  EXPECT_EQ(nullptr, CPortable::wcstombs(surrogate, 2));
  const wchar_t tooLarge[] = {0x110000};
  EXPECT_EQ(kError, CPortable::wcstombs(out, tooLarge, 1));
}

TEST(WideStringsTest, AllocatingFormIsTerminatedAndNullForNoInput) {
  const wchar_t text[] = {L'h', 0xE9, L'!'};
  char* out = CPortable::wcstombs(text, 3);
  ASSERT_NE(nullptr, out);
  EXPECT_STREQ("h\xC3\xA9!", out);
  delete[] out;
  EXPECT_EQ(nullptr, CPortable::wcstombs(nullptr, 3));
  EXPECT_EQ(nullptr, CPortable::wcstombs(text, 0));
}

TEST(WideStringsTest, ZeroUnitEndsTheConversionEarly) {
  const wchar_t text[] = {L'a', 0, L'b'};
  EXPECT_EQ(1u, CPortable::wcstombs(nullptr, text, 3));
}

TEST(WideStringsTest, MeasuringUtf8CountsSourceBytes) {
  const char text[] = "A\xC3\xA9\xF0\x9F\x98\x80";
  EXPECT_EQ(3u, CPortable::mbstowcs(nullptr, text, 7));
  EXPECT_EQ(2u, CPortable::mbstowcs(nullptr, text, 3));
  EXPECT_EQ(kError, CPortable::mbstowcs(nullptr, text, 4));  // cut character
}

TEST(WideStringsTest, ConvertingCountsUnitsToWriteNotSourceBytes) {
  const char text[] = "A\xC3\xA9" "BC";
  wchar_t out[8] = {};
  EXPECT_EQ(2u, CPortable::mbstowcs(out, text, 2));
  EXPECT_EQ(L'A', out[0]);
  EXPECT_EQ(0xE9, static_cast<int>(out[1]));
  EXPECT_EQ(0, static_cast<int>(out[2]));
  // Asked for more units than the text has: it ends at the terminator.
  EXPECT_EQ(4u, CPortable::mbstowcs(out, text, 7));
}

TEST(WideStringsTest, IllegalUtf8IsAConversionError) {
  const char text[] = "a\xC0\x80";
  wchar_t out[4];
  EXPECT_EQ(kError, CPortable::mbstowcs(nullptr, text, 3));
  EXPECT_EQ(kError, CPortable::mbstowcs(out, text, 3));
  EXPECT_EQ(nullptr, CPortable::mbstowcs(text, 3));
}

// A page as high in the address space as this process can map, so that a
// buffer in it lies less than a million bytes below the top.
char* HighestPage() {
  const uintptr_t page = 4096;
  for (uintptr_t a = (UINTPTR_MAX - page + 1) - page; a > UINTPTR_MAX - (64u << 20); a -= page) {
    void* p = mmap(reinterpret_cast<void*>(a), page, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (p != MAP_FAILED) return static_cast<char*>(p);
  }
  return nullptr;
}

TEST(WideStringsTest, BuffersNearTheTopOfTheAddressSpaceConvert) {
  char* page = HighestPage();
  if (page == nullptr) GTEST_SKIP() << "no page near the top of the address space";
  ASSERT_GT(reinterpret_cast<uintptr_t>(page), UINTPTR_MAX - 1000000u);
  char* text = page + 4096 - 8;
  std::memcpy(text, "a\xC0\x80", 4);
  wchar_t out[4];
  EXPECT_EQ(kError, CPortable::mbstowcs(out, text, 3));
  std::memcpy(text, "ab\xC3\xA9", 5);
  EXPECT_EQ(3u, CPortable::mbstowcs(out, text, 3));
  wchar_t* wide = reinterpret_cast<wchar_t*>(page + 4096 - 4 * sizeof(wchar_t));
  wide[0] = L'x';
  wide[1] = 0xE9;
  char* bytes = page;
  EXPECT_EQ(3u, CPortable::wcstombs(bytes, wide, 2));
  munmap(page, 4096);
}

TEST(WideStringsTest, AllocatingUtf8FormRoundTrips) {
  const std::string text = "gr\xC3\xBC\xC3\x9F \xF0\x9F\x98\x80";
  wchar_t* wide = CPortable::mbstowcs(text.c_str(), static_cast<unsigned>(text.size()));
  ASSERT_NE(nullptr, wide);
  EXPECT_EQ(0x1F600, static_cast<int>(wide[5]));
  EXPECT_EQ(0, static_cast<int>(wide[6]));
  char* back = CPortable::wcstombs(wide, 6);
  ASSERT_NE(nullptr, back);
  EXPECT_EQ(text, std::string(back));
  delete[] back;
  delete[] wide;
  EXPECT_EQ(nullptr, CPortable::mbstowcs(nullptr, 3));
  EXPECT_EQ(nullptr, CPortable::mbstowcs("abc", 0));
}

}  // namespace
