// The fast engines (ASCII a word at a time, straight-line decoding, and the
// SSE2 kernels in the runs that switch them on) against
// the plain transcription of the algorithm: on random ASCII-heavy text with
// zeros, ill-formed bytes, cut sequences, every alignment and every target
// size, both give the same result, stop at the same source and target
// positions, write the same units and touch nothing else.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "gtest/gtest.h"
#include "unicode/convert_utf_impl.h"
#include "unicode/utf_test_util.h"

namespace {

// Every test runs with the SSE2 kernels and again without them.
class ConvertUtfFastPathTest : public utf_test::BothPathsTest {};
INSTANTIATE_TEST_SUITE_P(Paths, ConvertUtfFastPathTest, testing::Bool(), utf_test::PathName);

using ambit_utf::BufferSink;
using ambit_utf::CountSink;
using utf_test::Rng;

struct Run {
  ConversionResult result;
  size_t consumed;
  size_t written;
  unsigned counted;
};

// Runs one engine form on a copy of `in` placed `shift` units into a fresh
// block (to vary alignment), into a target of `room` units placed `shift`
// units into another. Both blocks end where the data ends, so that the
// sanitizer sees any access past either end. Returns the run and the whole
// target block for comparison.
template <typename S, typename T, typename Engine>
Run RunEngine(Engine engine, const std::vector<S>& in, size_t shift, size_t room,
              ConversionFlags flags, std::vector<unsigned char>* targetBytes) {
  std::unique_ptr<S[]> srcBlock(new S[shift + in.size()]);
  S* src = srcBlock.get() + shift;
  std::copy(in.begin(), in.end(), src);
  const size_t dstBytes = (shift + room) * sizeof(T);
  std::unique_ptr<T[]> dstBlock(new T[shift + room]);
  std::memset(dstBlock.get(), 0xA5, dstBytes);
  T* dst = dstBlock.get() + shift;

  Run run;
  const S* s = src;
  BufferSink<T> sink(dst, dst + room);
  run.result = engine(&s, src + in.size(), sink, flags);
  run.consumed = size_t(s - src);
  run.written = size_t(sink.Position() - dst);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(dstBlock.get());
  targetBytes->assign(bytes, bytes + dstBytes);

  s = src;
  CountSink counter;
  const ConversionResult cr = engine(&s, src + in.size(), counter, flags);
  run.counted = counter.Count();
  // The counting form never runs out of room; where the target did not run
  // out either, it stopped in the same place.
  if (run.result != targetExhausted) {
    EXPECT_EQ(run.result, cr);
    EXPECT_EQ(run.consumed, size_t(s - src));
    EXPECT_EQ(run.written, size_t(run.counted));
  }
  return run;
}

template <typename S, typename T, typename Plain, typename Fast>
testing::AssertionResult SameAsPlain(const char* name, Plain plain, Fast fast,
                                     const std::vector<S>& in, size_t shift, size_t room,
                                     ConversionFlags flags) {
  std::vector<unsigned char> plainBytes, fastBytes;
  const Run p = RunEngine<S, T>(plain, in, shift, room, flags, &plainBytes);
  const Run f = RunEngine<S, T>(fast, in, shift, room, flags, &fastBytes);
  if (p.result == f.result && p.consumed == f.consumed && p.written == f.written &&
      p.counted == f.counted && plainBytes == fastBytes)
    return testing::AssertionSuccess();
  auto describe = [](const Run& r, const std::vector<unsigned char>& bytes) {
    std::ostringstream os;
    os << utf_test::ResultName(r.result) << ", consumed " << r.consumed << ", written "
       << r.written << ", counted " << r.counted << ", target bytes "
       << utf_test::Units(std::vector<UTF8>(bytes.begin(), bytes.end()));
    return os.str();
  };
  return testing::AssertionFailure()
         << name << " on " << utf_test::Units(in) << ", shift " << shift << ", room " << room
         << ", flags " << int(flags) << "\n  expected (plain): " << describe(p, plainBytes)
         << "\n  actual (fast):    " << describe(f, fastBytes);
}

// ASCII runs of every length around the word sizes, broken by zeros,
// non-ASCII characters, ill-formed bytes and sequences cut short.
std::vector<UTF8> AsciiHeavyUtf8(Rng& rng) {
  std::vector<UTF8> v;
  const int pieces = 1 + rng() % 6;
  for (int i = 0; i < pieces; ++i) {
    const size_t run = rng() % 40;
    for (size_t j = 0; j < run; ++j) v.push_back(UTF8(1 + rng() % 0x7F));
    switch (rng() % 6) {
      case 0: v.push_back(0); break;
      case 1: utf_test::EncodeUtf8(utf_test::RandomScalar(rng), &v); break;
      case 2: v.push_back(utf_test::BoundaryByte(rng)); break;
      case 3: v.push_back(UTF8(0x80 | rng())); break;
      default: break;
    }
  }
  if (rng() % 4 == 0) v.push_back(UTF8(0xE0 + rng() % 0x10));  // cut at the end
  return v;
}

std::vector<UTF16> AsciiHeavyUtf16(Rng& rng) {
  std::vector<UTF16> v;
  const int pieces = 1 + rng() % 6;
  for (int i = 0; i < pieces; ++i) {
    const size_t run = rng() % 40;
    for (size_t j = 0; j < run; ++j) v.push_back(UTF16(1 + rng() % 0x7F));
    switch (rng() % 6) {
      case 0: v.push_back(0); break;
      case 1: utf_test::EncodeUtf16(utf_test::RandomScalar(rng), &v); break;
      case 2: v.push_back(UTF16(0xD800 + rng() % 0x800)); break;
      case 3: v.push_back(UTF16(0x80 + rng() % 0x80)); break;  // just above ASCII
      case 4: v.push_back(UTF16(rng())); break;
      default: break;
    }
  }
  return v;
}

std::vector<UTF32> AsciiHeavyUtf32(Rng& rng) {
  std::vector<UTF32> v;
  const int pieces = 1 + rng() % 6;
  for (int i = 0; i < pieces; ++i) {
    const size_t run = rng() % 40;
    for (size_t j = 0; j < run; ++j) v.push_back(1 + rng() % 0x7F);
    switch (rng() % 7) {
      case 0: v.push_back(0); break;
      case 1: v.push_back(utf_test::RandomScalar(rng)); break;
      case 2: v.push_back(0xD800 + rng() % 0x800); break;
      case 3: v.push_back(0x80); break;
      case 4: v.push_back(0x110000 + rng() % 16); break;
      case 5: v.push_back(UTF32(rng())); break;
      default: break;
    }
  }
  return v;
}

template <bool kFast, bool kTo32>
struct Utf8Engine {
  template <typename Sink>
  ConversionResult operator()(const UTF8** s, const UTF8* e, Sink& sink, ConversionFlags f) const {
    return ambit_utf::Utf8ToWide<kFast, kTo32>(s, e, sink, f);
  }
};
template <bool kFast>
struct Utf16Engine {
  template <typename Sink>
  ConversionResult operator()(const UTF16** s, const UTF16* e, Sink& sink, ConversionFlags f) const {
    return ambit_utf::Utf16ToUtf8<kFast>(s, e, sink, f);
  }
};
template <bool kFast>
struct Utf32Engine {
  template <typename Sink>
  ConversionResult operator()(const UTF32** s, const UTF32* e, Sink& sink, ConversionFlags f) const {
    return ambit_utf::Utf32ToUtf8<kFast>(s, e, sink, f);
  }
};

constexpr int kRounds = 4000;

TEST_P(ConvertUtfFastPathTest, Utf8ToUtf16FastPathMatchesPlainPath) {
  Rng rng(21);
  for (int i = 0; i < kRounds; ++i) {
    const auto in = AsciiHeavyUtf8(rng);
    const size_t room = rng() % (in.size() + 3);
    ASSERT_TRUE((SameAsPlain<UTF8, UTF16>("Utf8ToUtf16", Utf8Engine<false, false>(),
                                          Utf8Engine<true, false>(), in, rng() % 4, room,
                                          ConversionFlags(i % 2))));
  }
}

TEST_P(ConvertUtfFastPathTest, Utf8ToUtf32FastPathMatchesPlainPath) {
  Rng rng(22);
  for (int i = 0; i < kRounds; ++i) {
    const auto in = AsciiHeavyUtf8(rng);
    const size_t room = rng() % (in.size() + 3);
    ASSERT_TRUE((SameAsPlain<UTF8, UTF32>("Utf8ToUtf32", Utf8Engine<false, true>(),
                                          Utf8Engine<true, true>(), in, rng() % 4, room,
                                          ConversionFlags(i % 2))));
  }
}

TEST_P(ConvertUtfFastPathTest, Utf16ToUtf8FastPathMatchesPlainPath) {
  Rng rng(23);
  for (int i = 0; i < kRounds; ++i) {
    const auto in = AsciiHeavyUtf16(rng);
    const size_t room = rng() % (in.size() * 3 + 3);
    ASSERT_TRUE((SameAsPlain<UTF16, UTF8>("Utf16ToUtf8", Utf16Engine<false>(), Utf16Engine<true>(),
                                          in, rng() % 4, room, ConversionFlags(i % 2))));
  }
}

TEST_P(ConvertUtfFastPathTest, Utf32ToUtf8FastPathMatchesPlainPath) {
  Rng rng(24);
  for (int i = 0; i < kRounds; ++i) {
    const auto in = AsciiHeavyUtf32(rng);
    const size_t room = rng() % (in.size() * 3 + 3);
    ASSERT_TRUE((SameAsPlain<UTF32, UTF8>("Utf32ToUtf8", Utf32Engine<false>(), Utf32Engine<true>(),
                                          in, rng() % 4, room, ConversionFlags(i % 2))));
  }
}

TEST_P(ConvertUtfFastPathTest, FastPathMatchesPlainPathOnGeneralText) {
  Rng rng(25);
  for (int i = 0; i < 1500; ++i) {
    const ConversionFlags f = ConversionFlags(i % 2);
    const auto u8 = utf_test::RandomUtf8(rng, 1 + rng() % 30, true);
    ASSERT_TRUE((SameAsPlain<UTF8, UTF16>("Utf8ToUtf16", Utf8Engine<false, false>(),
                                          Utf8Engine<true, false>(), u8, rng() % 4,
                                          rng() % (u8.size() + 2), f)));
    ASSERT_TRUE((SameAsPlain<UTF8, UTF32>("Utf8ToUtf32", Utf8Engine<false, true>(),
                                          Utf8Engine<true, true>(), u8, rng() % 4,
                                          rng() % (u8.size() + 2), f)));
    const auto u16 = utf_test::RandomUtf16(rng, 1 + rng() % 30, true);
    ASSERT_TRUE((SameAsPlain<UTF16, UTF8>("Utf16ToUtf8", Utf16Engine<false>(), Utf16Engine<true>(),
                                          u16, rng() % 4, rng() % (u16.size() * 3 + 2), f)));
    const auto u32 = utf_test::RandomUtf32(rng, 1 + rng() % 30, true);
    ASSERT_TRUE((SameAsPlain<UTF32, UTF8>("Utf32ToUtf8", Utf32Engine<false>(), Utf32Engine<true>(),
                                          u32, rng() % 4, rng() % (u32.size() * 3 + 2), f)));
  }
}

}  // namespace
