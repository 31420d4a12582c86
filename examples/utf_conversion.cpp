// UTF-8 to UTF-16 and back, measuring the output first with a SizeOf
// counter, and what strict conversion says about broken input.
//
// Build: g++ utf_conversion.cpp $(pkg-config --cflags --libs ambit)
// Run:   ./a.out          (exit status 0 when the round trip is exact)
#include <ambit/ambit.h>

#include <cstdio>
#include <cstring>
#include <vector>

int main() {
  // "grüß 世界 😀": 1-, 2-, 3- and 4-byte characters.
  const char text[] = "gr\xC3\xBC\xC3\x9F \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80";
  const UTF8* begin = reinterpret_cast<const UTF8*>(text);
  const UTF8* end = begin + std::strlen(text);

  // How many UTF-16 units? The counter reads without writing.
  const UTF8* probe = begin;
  unsigned units = 0;
  if (SizeOfConvertUTF8toUTF16(&probe, end, strictConversion, &units) != conversionOK) return 1;

  std::vector<UTF16> utf16(units);
  const UTF8* source = begin;
  UTF16* target = utf16.data();
  if (ConvertUTF8toUTF16(&source, end, &target, target + units, strictConversion) !=
      conversionOK)
    return 1;
  std::printf("%zu UTF-8 bytes -> %u UTF-16 units:", static_cast<size_t>(end - begin), units);
  for (UTF16 u : utf16) std::printf(" %04X", u);
  std::printf("\n");

  // And back.
  std::vector<UTF8> back(64);
  const UTF16* from = utf16.data();
  UTF8* to = back.data();
  if (ConvertUTF16toUTF8(&from, from + units, &to, to + back.size(), strictConversion) !=
      conversionOK)
    return 1;
  const size_t length = static_cast<size_t>(to - back.data());
  const bool same = length == static_cast<size_t>(end - begin) &&
                    std::memcmp(back.data(), begin, length) == 0;
  std::printf("round trip: %s\n", same ? "identical" : "DIFFERENT");

  // A truncated sequence: the source is left at its lead byte.
  const UTF8 broken[] = {'a', 0xE4, 0xB8};
  const UTF8* at = broken;
  UTF16 out[4];
  UTF16* outAt = out;
  const ConversionResult r =
      ConvertUTF8toUTF16(&at, broken + sizeof broken, &outAt, out + 4, strictConversion);
  std::printf("\"a\" + 2 bytes of a 3-byte character: result %d (sourceExhausted), stopped at "
              "byte %d\n",
              static_cast<int>(r), static_cast<int>(at - broken));
  return same && r == sourceExhausted && at == broken + 1 ? 0 : 1;
}
