// The SSE2 kernels against the scalar code, through the public functions:
// on long text made of runs of every UTF-8 length (so that blocks of 8 to 18
// units are taken whole, cut, and crossed), with errors, zeros and cut
// sequences placed near block edges, at every source alignment and with
// targets that end inside a block. Each converter must give the same
// result, stop at the same source and target positions and leave the same
// bytes in its whole target block, sentinels past the output included; each
// counter the same result, position and count.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "ambit/convertutf.h"
#include "gtest/gtest.h"
#include "unicode/utf_sse2.h"
#include "unicode/utf_test_util.h"
#include "unicode/utf_vector_switch.h"

namespace {

using utf_test::Rng;

class ConvertUtfVectorTest : public testing::Test {
 protected:
  void SetUp() override {
    m_wasOn = ambit_utf::SetVectorPaths(true);
    if (!ambit_utf::UseVectorPaths()) GTEST_SKIP() << "no SSE2 on this processor";
  }
  void TearDown() override { ambit_utf::SetVectorPaths(m_wasOn); }

 private:
  bool m_wasOn = false;
};

// Code points in runs: ASCII, two-byte, three-byte (with the edges of the
// ranges and of the surrogates), four-byte, and the odd zero.
std::vector<UTF32> RunText(Rng& rng, size_t minLength) {
  static const UTF32 kEdges[] = {0x80, 0x7FF, 0x800, 0xFFF, 0x1000, 0xD7FF, 0xE000, 0xFFFD, 0xFFFF};
  std::vector<UTF32> v;
  while (v.size() < minLength) {
    const size_t run = rng() % 40;
    const unsigned kind = rng() % 16;
    for (size_t i = 0; i < run; ++i) {
      switch (kind) {
        case 0: case 1: case 2: case 3: case 4: v.push_back(1 + rng() % 0x7F); break;
        case 5: case 6: case 7: v.push_back(0x80 + rng() % 0x780); break;
        case 8: case 9: case 10: {
          UTF32 c = 0x800 + rng() % 0xF800;
          if (c >= 0xD800 && c <= 0xDFFF) c -= 0x800;
          v.push_back(c);
          break;
        }
        case 11: v.push_back(kEdges[rng() % 9]); break;
        case 12: v.push_back(0x10000 + rng() % 0x100000); break;
        default: v.push_back(utf_test::RandomScalar(rng)); break;
      }
    }
    if (rng() % 40 == 0) v.push_back(0);
  }
  return v;
}

std::vector<UTF8> Utf8Of(const std::vector<UTF32>& text) {
  std::vector<UTF8> v;
  for (UTF32 c : text) {
    if (c == 0)
      v.push_back(0);
    else
      utf_test::EncodeUtf8(c, &v);
  }
  return v;
}

std::vector<UTF16> Utf16Of(const std::vector<UTF32>& text) {
  std::vector<UTF16> v;
  for (UTF32 c : text) {
    if (c == 0)
      v.push_back(0);
    else
      utf_test::EncodeUtf16(c, &v);
  }
  return v;
}

// A few damaged units, each near a 16-byte edge of the text where the
// kernels' blocks tend to start and end; sometimes the text is cut short.
void Damage(Rng& rng, std::vector<UTF8>* v) {
  if (v->empty()) return;
  const int hits = rng() % 3;
  for (int i = 0; i < hits; ++i) {
    // Two bytes either side of a multiple of 16.
    const size_t at = std::min(v->size() - 1, (rng() % (v->size() / 16 + 1)) * 16 + 14 + rng() % 4);
    // Overlong, surrogate, out-of-range and broken sequences, and two
    // legal edge cases (U+FFFF, U+10FFFF) for good measure.
    static const UTF8 kSeqs[][4] = {
        {0xE0, 0x80, 0x80, 0x41}, {0xED, 0xA0, 0x80, 0x41}, {0xC0, 0x80, 0x41, 0x41},
        {0x80, 0x41, 0x41, 0x41}, {0xF5, 0x80, 0x80, 0x80}, {0xE1, 0x41, 0x80, 0x41},
        {0xF0, 0x80, 0x80, 0x80}, {0xF0, 0x8F, 0xBF, 0xBF}, {0xF4, 0x90, 0x80, 0x80},
        {0xF1, 0x80, 0x41, 0x80}, {0xEF, 0xBF, 0xBF, 0x41}, {0xF4, 0x8F, 0xBF, 0xBF}};
    const UTF8* seq = kSeqs[rng() % 12];
    switch (rng() % 3) {
      case 0:
        (*v)[at] = utf_test::BoundaryByte(rng);
        break;
      case 1:
        for (size_t k = 0; k < 4 && at + k < v->size(); ++k) (*v)[at + k] = seq[k];
        break;
      default: {
        // Inserted between two characters, so that only the sequence
        // itself is wrong.
        size_t boundary = at;
        while (boundary < v->size() && ((*v)[boundary] & 0xC0) == 0x80) ++boundary;
        v->insert(v->begin() + boundary, seq, seq + 4);
        break;
      }
    }
  }
  if (rng() % 4 == 0) v->resize(v->size() - rng() % std::min<size_t>(v->size(), 3));
}

void Damage(Rng& rng, std::vector<UTF16>* v) {
  if (v->empty()) return;
  const int hits = rng() % 3;
  for (int i = 0; i < hits; ++i)
    (*v)[rng() % v->size()] = rng() % 2 ? UTF16(0xD800 + rng() % 0x800) : UTF16(rng() % 3);
  if (rng() % 4 == 0) v->pop_back();
}

void Damage(Rng& rng, std::vector<UTF32>* v) {
  if (v->empty()) return;
  const int hits = rng() % 3;
  static const UTF32 kBad[] = {0, 0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0x110000, 0xFFFFFFFF, 0x10000};
  for (int i = 0; i < hits; ++i) (*v)[rng() % v->size()] = kBad[rng() % 8];
}

struct Outcome {
  ConversionResult result;
  size_t consumed;
  size_t written;
  std::vector<unsigned char> block;  // the whole target block
};

// Converts `in`, placed `shift` units into an exact source block, into a
// target of `room` units placed `shift` units into an exact block filled
// with 0xA5.
template <typename S, typename T>
Outcome RunConvert(utf_test::ConvertFn<S, T> fn, const std::vector<S>& in, size_t shift,
                   size_t room, ConversionFlags flags) {
  std::unique_ptr<S[]> src(new S[shift + in.size()]);
  if (!in.empty()) std::memcpy(src.get() + shift, in.data(), in.size() * sizeof(S));
  std::unique_ptr<T[]> dst(new T[shift + room]);
  std::memset(dst.get(), 0xA5, (shift + room) * sizeof(T));
  const S* s = src.get() + shift;
  T* t = dst.get() + shift;
  Outcome o;
  o.result = fn(&s, src.get() + shift + in.size(), &t, dst.get() + shift + room, flags);
  o.consumed = size_t(s - (src.get() + shift));
  o.written = size_t(t - (dst.get() + shift));
  const unsigned char* b = reinterpret_cast<const unsigned char*>(dst.get());
  o.block.assign(b, b + (shift + room) * sizeof(T));
  return o;
}

template <typename S>
Outcome RunCount(utf_test::CountFn<S> fn, const std::vector<S>& in, size_t shift,
                 ConversionFlags flags) {
  std::unique_ptr<S[]> src(new S[shift + in.size()]);
  if (!in.empty()) std::memcpy(src.get() + shift, in.data(), in.size() * sizeof(S));
  const S* s = src.get() + shift;
  unsigned count = 0xFFFFFFFF;
  Outcome o;
  o.result = fn(&s, src.get() + shift + in.size(), flags, &count);
  o.consumed = size_t(s - (src.get() + shift));
  o.written = count;
  return o;
}

std::string Describe(const Outcome& o) {
  std::ostringstream os;
  os << utf_test::ResultName(o.result) << ", consumed " << o.consumed << ", written "
     << o.written;
  return os.str();
}

testing::AssertionResult Same(const char* name, const Outcome& vector, const Outcome& scalar,
                              size_t units, size_t shift, size_t room, ConversionFlags flags) {
  if (vector.result == scalar.result && vector.consumed == scalar.consumed &&
      vector.written == scalar.written && vector.block == scalar.block)
    return testing::AssertionSuccess();
  testing::AssertionResult r = testing::AssertionFailure();
  r << name << " on " << units << " units, shift " << shift << ", room " << room << ", flags "
    << int(flags) << "\n  expected (scalar): " << Describe(scalar)
    << "\n  actual (vector):   " << Describe(vector);
  if (vector.block != scalar.block) r << "\n  target bytes differ";
  return r;
}

template <typename S, typename T>
testing::AssertionResult ConvertsAlike(const char* name, utf_test::ConvertFn<S, T> fn,
                                       const std::vector<S>& in, size_t shift, size_t room,
                                       ConversionFlags flags) {
  ambit_utf::SetVectorPaths(false);
  const Outcome scalar = RunConvert(fn, in, shift, room, flags);
  ambit_utf::SetVectorPaths(true);
  const Outcome vector = RunConvert(fn, in, shift, room, flags);
  return Same(name, vector, scalar, in.size(), shift, room, flags);
}

template <typename S>
testing::AssertionResult CountsAlike(const char* name, utf_test::CountFn<S> fn,
                                     const std::vector<S>& in, size_t shift,
                                     ConversionFlags flags) {
  ambit_utf::SetVectorPaths(false);
  const Outcome scalar = RunCount(fn, in, shift, flags);
  ambit_utf::SetVectorPaths(true);
  const Outcome vector = RunCount(fn, in, shift, flags);
  return Same(name, vector, scalar, in.size(), shift, 0, flags);
}

// Target sizes to try for an output of about `full` units: none, a few
// ending inside or at the edge of a block, short by one, exact, ample.
std::vector<size_t> Rooms(Rng& rng, size_t full) {
  std::vector<size_t> rooms = {0, full, full + 20, full > 0 ? full - 1 : 0};
  for (int i = 0; i < 4; ++i) rooms.push_back(rng() % (full + 2));
  for (size_t b = 16; b < full && rooms.size() < 16; b += 16 * (1 + rng() % 4))
    rooms.push_back(b + rng() % 3 - 1);
  return rooms;
}

constexpr int kRounds = 300;

TEST_F(ConvertUtfVectorTest, Utf8ReadersMatchTheScalarCode) {
  Rng rng(61);
  for (int round = 0; round < kRounds; ++round) {
    std::vector<UTF8> in = Utf8Of(RunText(rng, 1 + rng() % 200));
    if (round % 2) Damage(rng, &in);
    const ConversionFlags flags = ConversionFlags(rng() % 2);
    const size_t shift = rng() % 16;
    for (size_t room : Rooms(rng, in.size())) {
      ASSERT_TRUE((ConvertsAlike<UTF8, UTF16>("ConvertUTF8toUTF16", ConvertUTF8toUTF16, in,
                                              shift, room, flags)));
      ASSERT_TRUE((ConvertsAlike<UTF8, UTF32>("ConvertUTF8toUTF32", ConvertUTF8toUTF32, in,
                                              shift, room, flags)));
    }
    ASSERT_TRUE(CountsAlike<UTF8>("SizeOfConvertUTF8toUTF16", SizeOfConvertUTF8toUTF16, in,
                                  shift, flags));
    ASSERT_TRUE(CountsAlike<UTF8>("SizeOfConvertUTF8toUTF32", SizeOfConvertUTF8toUTF32, in,
                                  shift, flags));
  }
}

TEST_F(ConvertUtfVectorTest, Utf16ReadersMatchTheScalarCode) {
  Rng rng(62);
  for (int round = 0; round < kRounds; ++round) {
    std::vector<UTF16> in = Utf16Of(RunText(rng, 1 + rng() % 200));
    if (round % 2) Damage(rng, &in);
    const ConversionFlags flags = ConversionFlags(rng() % 2);
    const size_t shift = rng() % 8;
    for (size_t room : Rooms(rng, in.size() * 3)) {
      ASSERT_TRUE((ConvertsAlike<UTF16, UTF8>("ConvertUTF16toUTF8", ConvertUTF16toUTF8, in,
                                              shift, room, flags)));
    }
    for (size_t room : Rooms(rng, in.size())) {
      ASSERT_TRUE((ConvertsAlike<UTF16, UTF32>("ConvertUTF16toUTF32", ConvertUTF16toUTF32, in,
                                               shift, room, flags)));
    }
    ASSERT_TRUE(CountsAlike<UTF16>("SizeOfConvertUTF16toUTF8", SizeOfConvertUTF16toUTF8, in,
                                   shift, flags));
  }
}

TEST_F(ConvertUtfVectorTest, Utf32ReadersMatchTheScalarCode) {
  Rng rng(63);
  for (int round = 0; round < kRounds; ++round) {
    std::vector<UTF32> in = RunText(rng, 1 + rng() % 200);
    if (round % 2) Damage(rng, &in);
    const ConversionFlags flags = ConversionFlags(rng() % 2);
    const size_t shift = rng() % 4;
    for (size_t room : Rooms(rng, in.size() * 3)) {
      ASSERT_TRUE((ConvertsAlike<UTF32, UTF8>("ConvertUTF32toUTF8", ConvertUTF32toUTF8, in,
                                              shift, room, flags)));
    }
    for (size_t room : Rooms(rng, in.size() * 2)) {
      ASSERT_TRUE((ConvertsAlike<UTF32, UTF16>("ConvertUTF32toUTF16", ConvertUTF32toUTF16, in,
                                               shift, room, flags)));
    }
    ASSERT_TRUE(CountsAlike<UTF32>("SizeOfConvertUTF32toUTF8", SizeOfConvertUTF32toUTF8, in,
                                   shift, flags));
  }
}

// Every target size for one text of each kind, so that the target ends at
// every unit of every block.
TEST_F(ConvertUtfVectorTest, EveryTargetSizeMatchesTheScalarCode) {
  Rng rng(64);
  const std::vector<UTF32> text = RunText(rng, 120);
  const std::vector<UTF8> u8 = Utf8Of(text);
  const std::vector<UTF16> u16 = Utf16Of(text);
  for (size_t room = 0; room <= u8.size() + 1; ++room) {
    ASSERT_TRUE((ConvertsAlike<UTF8, UTF16>("ConvertUTF8toUTF16", ConvertUTF8toUTF16, u8, 1, room,
                                            strictConversion)));
    ASSERT_TRUE((ConvertsAlike<UTF8, UTF32>("ConvertUTF8toUTF32", ConvertUTF8toUTF32, u8, 3, room,
                                            strictConversion)));
    ASSERT_TRUE((ConvertsAlike<UTF16, UTF8>("ConvertUTF16toUTF8", ConvertUTF16toUTF8, u16, 1,
                                            room, strictConversion)));
    ASSERT_TRUE((ConvertsAlike<UTF32, UTF8>("ConvertUTF32toUTF8", ConvertUTF32toUTF8, text, 2,
                                            room, strictConversion)));
    ASSERT_TRUE((ConvertsAlike<UTF16, UTF32>("ConvertUTF16toUTF32", ConvertUTF16toUTF32, u16, 1,
                                             room, strictConversion)));
    ASSERT_TRUE((ConvertsAlike<UTF32, UTF16>("ConvertUTF32toUTF16", ConvertUTF32toUTF16, text, 1,
                                             room, strictConversion)));
  }
}

// Long runs of each UTF-8 length decode to exactly the text, with the
// kernels and without.
TEST_F(ConvertUtfVectorTest, LongRunsOfEachKindConvertExactly) {
  const UTF32 kFirst[] = {'a', 0xE9, 0x4E2D, 0x1F600};
  for (UTF32 first : kFirst) {
    std::vector<UTF32> text;
    for (UTF32 i = 0; i < 1000; ++i) text.push_back(first + i % 20);
    const std::vector<UTF8> u8 = Utf8Of(text);
    for (bool on : {true, false}) {
      ambit_utf::SetVectorPaths(on);
      std::vector<UTF32> back(text.size());
      const UTF8* s = u8.data();
      UTF32* t = back.data();
      ASSERT_EQ(conversionOK, ConvertUTF8toUTF32(&s, u8.data() + u8.size(), &t,
                                                 back.data() + back.size(), strictConversion));
      EXPECT_EQ(u8.data() + u8.size(), s);
      EXPECT_TRUE(back == text) << "first " << first << ", vector " << on;
    }
  }
}

// The kernels themselves take long well-formed runs of each kind whole (up
// to the last block), and write what the scalar code writes: were they never
// to take anything, the comparisons above would pass without testing them.
TEST_F(ConvertUtfVectorTest, KernelsTakeLongRunsOfEachKind) {
  const UTF32 kFirst[] = {'a', 0xE9, 0x4E2D, 0x1F600};
  for (UTF32 first : kFirst) {
    std::vector<UTF32> text;
    for (UTF32 i = 0; i < 600; ++i) text.push_back(first + i % 20);
    const std::vector<UTF8> u8 = Utf8Of(text);
    const std::vector<UTF16> u16 = Utf16Of(text);
    std::vector<UTF16> out16(u16.size() + 20);
    std::vector<UTF32> out32(text.size() + 20);
    std::vector<UTF8> out8(u8.size() + 40);
    size_t written = 0;

    size_t taken = ambit_utf::Sse2Utf8ToUtf16(u8.data(), u8.size(), out16.data(), out16.size(),
                                              &written);
    EXPECT_GE(taken + 19, u8.size()) << "UTF-8 to UTF-16, first " << first;
    EXPECT_TRUE(std::equal(out16.begin(), out16.begin() + written, u16.begin()));
    taken = ambit_utf::Sse2Utf8ToUtf32(u8.data(), u8.size(), out32.data(), out32.size(), &written);
    EXPECT_GE(taken + 19, u8.size()) << "UTF-8 to UTF-32, first " << first;
    EXPECT_TRUE(std::equal(out32.begin(), out32.begin() + written, text.begin()));
    taken = ambit_utf::Sse2Utf16ToUtf8(u16.data(), u16.size(), out8.data(), out8.size(), &written);
    EXPECT_GE(taken + 16, u16.size()) << "UTF-16 to UTF-8, first " << first;
    EXPECT_TRUE(std::equal(out8.begin(), out8.begin() + written, u8.begin()));
    taken = ambit_utf::Sse2Utf32ToUtf8(text.data(), text.size(), out8.data(), out8.size(), &written);
    EXPECT_GE(taken + 16, text.size()) << "UTF-32 to UTF-8, first " << first;
    EXPECT_TRUE(std::equal(out8.begin(), out8.begin() + written, u8.begin()));
    taken = ambit_utf::Sse2Utf16ToUtf32(u16.data(), u16.size(), out32.data(), out32.size(),
                                        &written);
    EXPECT_GE(taken + 16, u16.size()) << "UTF-16 to UTF-32, first " << first;
    EXPECT_TRUE(std::equal(out32.begin(), out32.begin() + written, text.begin()));
    taken = ambit_utf::Sse2Utf32ToUtf16(text.data(), text.size(), out16.data(), out16.size(),
                                        &written);
    EXPECT_GE(taken + 16, text.size()) << "UTF-32 to UTF-16, first " << first;
    EXPECT_TRUE(std::equal(out16.begin(), out16.begin() + written, u16.begin()));
  }
}

}  // namespace
