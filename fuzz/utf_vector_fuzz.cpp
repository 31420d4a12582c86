// Differential fuzz target: the UTF converters and counters with the SSE2
// kernels against the same functions with the kernels switched off.
//
// Input: a header of four bytes, then the body.
//   byte 0: bit 0 the flags (strict or lenient); bit 1 whether the body is
//           taken as raw text or as a recipe (below);
//   byte 1: the target size, as a fraction of the full output or as a few
//           units short of it (so that targets end inside a block);
//   byte 2: the source shift, 0..15 units into its block (alignment), in
//           the low nibble;
//   byte 3: the target shift, likewise; the high nibbles of bytes 2 and 3
//           give how many units a second run cuts from the end of the text.
// A recipe turns each pair of bytes into a run of characters of one kind
// (ASCII, two-, three- or four-byte, edge values, zeros, damaged bytes) of
// up to 63 characters, so that short inputs make long runs that cross
// 16-byte edges, with errors and cut sequences where one run meets the
// next; the text may end inside a sequence.
//
// For each of the six converters and four counters, on exactly sized heap
// blocks watched by AddressSanitizer, both settings must give the same
// result, the same stop positions, the same count and the same bytes in the
// whole target block, the units past the output included.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "ambit/convertutf.h"
#include "unicode/utf_encoders.h"
#include "unicode/utf_vector_switch.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

// The three forms of a text built from a recipe. Damage is applied to each
// form in its own terms.
struct Text {
  std::vector<UTF8> u8;
  std::vector<UTF16> u16;
  std::vector<UTF32> u32;
};

void PutAll(UTF32 c, Text* t) {
  utf_test::EncodeUtf8(c, &t->u8);
  // Values past U+10FFFF have no UTF-16 form: they are cut to one unit.
  if (c <= 0x10FFFF)
    utf_test::EncodeUtf16(c, &t->u16);
  else
    t->u16.push_back(UTF16(c));
  t->u32.push_back(c);
}

Text FromRecipe(const uint8_t* p, size_t n) {
  static const UTF32 kEdges[] = {0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFFFD, 0xFFFF,
                                 0x10000, 0x10FFFF};
  static const UTF8 kBadBytes[] = {0x80, 0xBF, 0xC0, 0xC1, 0xE0, 0xED, 0xF0, 0xF4, 0xF5, 0xFF};
  Text t;
  uint32_t seed = 1;
  for (size_t i = 0; i + 1 < n; i += 2) {
    const unsigned kind = p[i] >> 5, len = p[i] & 0x3F;
    seed = seed * 1103515245U + p[i + 1] + 12345U;
    for (unsigned k = 0; k < len; ++k) {
      seed = seed * 1103515245U + 12345U;
      const uint32_t r = seed >> 8;
      switch (kind) {
        case 0: case 1: PutAll(0x20 + r % 0x5F, &t); break;
        case 2: PutAll(0x80 + r % 0x780, &t); break;
        case 3: {
          UTF32 c = 0x800 + r % 0xF800;
          if (c >= 0xD800 && c <= 0xDFFF) c += 0x800;
          PutAll(c, &t);
          break;
        }
        case 4: PutAll(0x10000 + r % 0x100000, &t); break;
        case 5: PutAll(kEdges[r % 10], &t); break;
        case 6:  // damage: a bad byte or sequence, a lone surrogate, an out-of-range value
          if (r % 4 == 0) {
            static const UTF8 kBadSeqs[][4] = {{0xF0, 0x80, 0x80, 0x80}, {0xF4, 0x90, 0x80, 0x80},
                                               {0xE0, 0x9F, 0xBF, 0x41}, {0xED, 0xA0, 0x80, 0x41}};
            const UTF8* seq = kBadSeqs[(r >> 2) % 4];
            t.u8.insert(t.u8.end(), seq, seq + 4);
          } else {
            t.u8.push_back(kBadBytes[r % 10]);
          }
          t.u16.push_back(UTF16(0xD800 + r % 0x800));
          t.u32.push_back(r % 2 ? 0xD800 + r % 0x800 : 0x110000 + r % 0x100);
          break;
        default:  // a zero now and then, otherwise ASCII
          PutAll(k == 0 ? 0 : 0x41 + r % 26, &t);
          break;
      }
    }
  }
  // Cut the last sequence when the recipe has an odd byte.
  if (n % 2 == 1 && !t.u8.empty() && (p[n - 1] & 1)) t.u8.pop_back();
  return t;
}

struct Outcome {
  ConversionResult result;
  size_t consumed;
  size_t written;
  std::vector<unsigned char> block;
};

template <typename S, typename T>
Outcome RunConvert(ConversionResult (*fn)(const S**, const S*, T**, T*, ConversionFlags),
                   const std::vector<S>& in, size_t sourceShift, size_t room,
                   size_t targetShift, ConversionFlags flags) {
  std::unique_ptr<S[]> src(new S[sourceShift + in.size()]);
  if (!in.empty()) std::memcpy(src.get() + sourceShift, in.data(), in.size() * sizeof(S));
  std::unique_ptr<T[]> dst(new T[targetShift + room]);
  std::memset(dst.get(), 0xA5, (targetShift + room) * sizeof(T));
  const S* const begin = src.get() + sourceShift;
  const S* s = begin;
  T* const tBegin = dst.get() + targetShift;
  T* t = tBegin;
  Outcome o;
  o.result = fn(&s, begin + in.size(), &t, tBegin + room, flags);
  Check(s >= begin && s <= begin + in.size() && t >= tBegin && t <= tBegin + room);
  o.consumed = size_t(s - begin);
  o.written = size_t(t - tBegin);
  const unsigned char* b = reinterpret_cast<const unsigned char*>(dst.get());
  o.block.assign(b, b + (targetShift + room) * sizeof(T));
  return o;
}

template <typename S>
Outcome RunCount(ConversionResult (*fn)(const S**, const S*, ConversionFlags, unsigned*),
                 const std::vector<S>& in, size_t sourceShift, ConversionFlags flags) {
  std::unique_ptr<S[]> src(new S[sourceShift + in.size()]);
  if (!in.empty()) std::memcpy(src.get() + sourceShift, in.data(), in.size() * sizeof(S));
  const S* const begin = src.get() + sourceShift;
  const S* s = begin;
  unsigned count = 0;
  Outcome o;
  o.result = fn(&s, begin + in.size(), flags, &count);
  o.consumed = size_t(s - begin);
  o.written = count;
  return o;
}

bool Same(const Outcome& a, const Outcome& b) {
  return a.result == b.result && a.consumed == b.consumed && a.written == b.written &&
         a.block == b.block;
}

struct Setup {
  ConversionFlags flags;
  unsigned roomByte;
  size_t sourceShift;
  size_t targetShift;
};

// A target size from the header byte and the full output length.
size_t RoomFor(unsigned roomByte, size_t full) {
  if (roomByte & 0x80) {
    const size_t shortBy = roomByte & 0x1F;
    return full > shortBy ? full - shortBy : 0;
  }
  return full * roomByte / 0x7F + (roomByte & 1);
}

template <typename S, typename T>
void Convert(ConversionResult (*fn)(const S**, const S*, T**, T*, ConversionFlags),
             const std::vector<S>& in, const Setup& setup) {
  // The full output length, from an ample target (four units out per unit
  // in at most).
  ambit_utf::SetVectorPaths(false);
  const Outcome ample = RunConvert(fn, in, setup.sourceShift, in.size() * 4 + 4, 0, setup.flags);
  const size_t room = RoomFor(setup.roomByte, ample.written);
  const Outcome scalar = RunConvert(fn, in, setup.sourceShift, room, setup.targetShift, setup.flags);
  ambit_utf::SetVectorPaths(true);
  const Outcome vector = RunConvert(fn, in, setup.sourceShift, room, setup.targetShift, setup.flags);
  Check(Same(scalar, vector));
}

template <typename S>
void Count(ConversionResult (*fn)(const S**, const S*, ConversionFlags, unsigned*),
           const std::vector<S>& in, const Setup& setup) {
  ambit_utf::SetVectorPaths(false);
  const Outcome scalar = RunCount(fn, in, setup.sourceShift, setup.flags);
  ambit_utf::SetVectorPaths(true);
  const Outcome vector = RunCount(fn, in, setup.sourceShift, setup.flags);
  Check(Same(scalar, vector));
}

void CheckText(const Text& t, const Setup& setup) {
  Convert(ConvertUTF8toUTF16, t.u8, setup);
  Convert(ConvertUTF8toUTF32, t.u8, setup);
  Convert(ConvertUTF16toUTF8, t.u16, setup);
  Convert(ConvertUTF16toUTF32, t.u16, setup);
  Convert(ConvertUTF32toUTF8, t.u32, setup);
  Convert(ConvertUTF32toUTF16, t.u32, setup);
  Count(SizeOfConvertUTF8toUTF16, t.u8, setup);
  Count(SizeOfConvertUTF8toUTF32, t.u8, setup);
  Count(SizeOfConvertUTF16toUTF8, t.u16, setup);
  Count(SizeOfConvertUTF32toUTF8, t.u32, setup);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  Setup setup;
  setup.flags = ConversionFlags(data[0] & 1);
  const bool recipe = (data[0] & 2) != 0;
  setup.roomByte = data[1];
  setup.sourceShift = data[2] & 15;
  setup.targetShift = data[3] & 15;
  data += 4;
  size -= 4;

  Text t;
  if (recipe) {
    t = FromRecipe(data, size);
  } else {
    t.u8.assign(data, data + size);
    for (size_t i = 0; i + 1 < size; i += 2) {
      UTF16 u;
      std::memcpy(&u, data + i, sizeof u);
      t.u16.push_back(u);
    }
    for (size_t i = 0; i + 3 < size; i += 4) {
      uint32_t u;
      std::memcpy(&u, data + i, sizeof u);
      t.u32.push_back(u);
    }
  }
  CheckText(t, setup);
  // Again with the text cut short, so that the source ends where a kernel
  // block ends or inside one: the upper nibbles of bytes 2 and 3 choose the
  // cut, in sixteenths of the text and in units.
  const size_t cut = (data[-2] >> 4) * 16 + (data[-1] >> 4);
  t.u8.resize(t.u8.size() > cut ? t.u8.size() - cut : 0);
  t.u16.resize(t.u16.size() > cut ? t.u16.size() - cut : 0);
  t.u32.resize(t.u32.size() > cut ? t.u32.size() - cut : 0);
  CheckText(t, setup);
  return 0;
}
