#ifndef AMBIT_TESTS_UNICODE_UTF_TEST_UTIL_H_
#define AMBIT_TESTS_UNICODE_UTF_TEST_UTIL_H_

// Helpers shared by the UTF conversion tests: running a converter or counter
// on buffers of exactly the given size (so that AddressSanitizer sees any
// access outside them), printing units, AssertionResult checkers that print
// expected against actual, and generators of random valid and invalid text.

#include <cstdio>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "ambit/convertutf.h"
#include "gtest/gtest.h"
#include "unicode/utf_encoders.h"
#include "unicode/utf_vector_switch.h"

namespace utf_test {

// --- Both paths -----------------------------------------------------------------

// A fixture for tests that run twice: with the SSE2 kernels (parameter
// true; skipped where the processor has no SSE2) and with them switched off
// (false). Instantiate with testing::Bool() and PathName.
class BothPathsTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    m_wasOn = ambit_utf::SetVectorPaths(GetParam());
    if (GetParam() && !ambit_utf::UseVectorPaths()) GTEST_SKIP() << "no SSE2 on this processor";
  }
  void TearDown() override { ambit_utf::SetVectorPaths(m_wasOn); }

 private:
  bool m_wasOn = false;
};

inline std::string PathName(const testing::TestParamInfo<bool>& info) {
  return info.param ? "Vector" : "Scalar";
}

template <typename S, typename T>
using ConvertFn = ConversionResult (*)(const S**, const S*, T**, T*, ConversionFlags);
template <typename S>
using CountFn = ConversionResult (*)(const S**, const S*, ConversionFlags, unsigned*);

inline const char* ResultName(ConversionResult r) {
  switch (r) {
    case conversionOK: return "conversionOK";
    case sourceExhausted: return "sourceExhausted";
    case targetExhausted: return "targetExhausted";
    case sourceIllegal: return "sourceIllegal";
  }
  return "(unknown result)";
}

template <typename U>
std::string Units(const std::vector<U>& v) {
  std::ostringstream os;
  os << "[";
  for (size_t i = 0; i < v.size(); ++i) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%s%0*lX", i ? " " : "", int(sizeof(U) * 2),
                  static_cast<unsigned long>(v[i]));
    os << buf;
  }
  os << "]";
  return os.str();
}

// What one call did: its result, how many source units it consumed and
// what it wrote (for a counter, output stays empty and count is set).
template <typename T>
struct Outcome {
  ConversionResult result;
  size_t consumed;
  std::vector<T> output;
  unsigned count;

  bool operator==(const Outcome& o) const {
    return result == o.result && consumed == o.consumed && output == o.output &&
           count == o.count;
  }
  std::string Describe() const {
    std::ostringstream os;
    os << ResultName(result) << ", consumed " << consumed << ", output " << Units(output)
       << " (" << output.size() << " units), count " << count;
    return os.str();
  }
};

// Copies `in` into a heap block of exactly its size and gives the converter
// a heap target of exactly `room` units, then checks that nothing outside
// [target, written) changed.
template <typename S, typename T>
Outcome<T> Convert(ConvertFn<S, T> fn, const std::vector<S>& in, size_t room,
                   ConversionFlags flags) {
  std::unique_ptr<S[]> src(new S[in.size()]);
  std::copy(in.begin(), in.end(), src.get());
  std::unique_ptr<T[]> dst(new T[room]);
  for (size_t i = 0; i < room; ++i) dst[i] = static_cast<T>(0xA5A5A5A5UL);
  const S* s = src.get();
  T* t = dst.get();
  Outcome<T> out;
  out.result = fn(&s, src.get() + in.size(), &t, dst.get() + room, flags);
  out.consumed = static_cast<size_t>(s - src.get());
  out.output.assign(dst.get(), t);
  out.count = 0;
  for (T* p = t; p < dst.get() + room; ++p)
    if (*p != static_cast<T>(0xA5A5A5A5UL)) ADD_FAILURE() << "wrote past its stop position";
  return out;
}

template <typename S>
Outcome<UTF8> Count(CountFn<S> fn, const std::vector<S>& in, ConversionFlags flags) {
  std::unique_ptr<S[]> src(new S[in.size()]);
  std::copy(in.begin(), in.end(), src.get());
  const S* s = src.get();
  Outcome<UTF8> out;
  out.count = 12345;  // counters set the count, they never add to it
  out.result = fn(&s, src.get() + in.size(), flags, &out.count);
  out.consumed = static_cast<size_t>(s - src.get());
  return out;
}

// Checker for table tests of a converter.
template <typename S, typename T>
testing::AssertionResult Converts(const char* name, ConvertFn<S, T> fn, const std::vector<S>& in,
                                  size_t room, ConversionFlags flags, ConversionResult wantResult,
                                  size_t wantConsumed, const std::vector<T>& wantOutput) {
  const Outcome<T> got = Convert(fn, in, room, flags);
  const Outcome<T> want{wantResult, wantConsumed, wantOutput, 0};
  if (got == want) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << name << " on " << Units(in) << ", room " << room << ", flags " << int(flags)
         << "\n  expected: " << want.Describe() << "\n  actual:   " << got.Describe();
}

// Checker for table tests of a counter.
template <typename S>
testing::AssertionResult Counts(const char* name, CountFn<S> fn, const std::vector<S>& in,
                                ConversionFlags flags, ConversionResult wantResult,
                                size_t wantConsumed, unsigned wantCount) {
  const Outcome<UTF8> got = Count(fn, in, flags);
  const Outcome<UTF8> want{wantResult, wantConsumed, {}, wantCount};
  if (got == want) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << name << " on " << Units(in) << ", flags " << int(flags)
         << "\n  expected: " << want.Describe() << "\n  actual:   " << got.Describe();
}

// --- Random text ----------------------------------------------------------------

using Rng = std::mt19937;

// A scalar value (no surrogate), never zero, drawn so that every UTF-8
// length is common.
inline UTF32 RandomScalar(Rng& rng) {
  switch (rng() % 4) {
    case 0: return 1 + rng() % 0x7F;
    case 1: return 0x80 + rng() % (0x800 - 0x80);
    case 2: {
      UTF32 c;
      do c = 0x800 + rng() % (0x10000 - 0x800);
      while (c >= 0xD800 && c <= 0xDFFF);
      return c;
    }
    default: return 0x10000 + rng() % 0x100000;
  }
}

inline std::vector<UTF32> RandomValidUtf32(Rng& rng, size_t n) {
  std::vector<UTF32> v;
  for (size_t i = 0; i < n; ++i) v.push_back(RandomScalar(rng));
  return v;
}

// Bytes near the boundaries of the well-formed ranges.
inline UTF8 BoundaryByte(Rng& rng) {
  static const UTF8 kBytes[] = {0x00, 0x01, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0,
                                0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1, 0xEC, 0xED,
                                0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xF7, 0xF8,
                                0xFB, 0xFC, 0xFE, 0xFF};
  return kBytes[rng() % (sizeof kBytes)];
}

// UTF-8 that is mostly valid, with ASCII runs, and (when `dirty`) random
// and boundary bytes, zeros, surrogate encodings and cut sequences mixed in.
inline std::vector<UTF8> RandomUtf8(Rng& rng, size_t chars, bool dirty) {
  std::vector<UTF8> v;
  for (size_t i = 0; i < chars; ++i) {
    const unsigned k = rng() % 100;
    if (k < 30) {
      const size_t run = rng() % 24;
      for (size_t j = 0; j < run; ++j) v.push_back(UTF8(0x20 + rng() % 0x5F));
    } else if (!dirty || k < 80) {
      EncodeUtf8(RandomScalar(rng), &v);
    } else if (k < 88) {
      v.push_back(BoundaryByte(rng));
    } else if (k < 92) {
      v.push_back(UTF8(rng()));
    } else if (k < 94) {
      v.push_back(0);
    } else if (k < 97) {
      std::vector<UTF8> seq;
      EncodeUtf8(0x800 + rng() % 0x10F800, &seq);
      seq.resize(1 + rng() % seq.size());  // possibly cut short
      v.insert(v.end(), seq.begin(), seq.end());
    } else {
      const UTF32 s = 0xD800 + rng() % 0x800;  // a surrogate in UTF-8 form
      v.push_back(UTF8(0xE0 | (s >> 12)));
      v.push_back(UTF8(0x80 | ((s >> 6) & 0x3F)));
      v.push_back(UTF8(0x80 | (s & 0x3F)));
    }
  }
  return v;
}

inline std::vector<UTF16> RandomUtf16(Rng& rng, size_t chars, bool dirty) {
  std::vector<UTF16> v;
  for (size_t i = 0; i < chars; ++i) {
    const unsigned k = rng() % 100;
    if (k < 30) {
      const size_t run = rng() % 24;
      for (size_t j = 0; j < run; ++j) v.push_back(UTF16(0x20 + rng() % 0x5F));
    } else if (!dirty || k < 85) {
      EncodeUtf16(RandomScalar(rng), &v);
    } else if (k < 93) {
      v.push_back(UTF16(0xD800 + rng() % 0x800));  // lone surrogate
    } else if (k < 95) {
      v.push_back(0);
    } else {
      v.push_back(UTF16(rng()));
    }
  }
  return v;
}

inline std::vector<UTF32> RandomUtf32(Rng& rng, size_t chars, bool dirty) {
  std::vector<UTF32> v;
  for (size_t i = 0; i < chars; ++i) {
    const unsigned k = rng() % 100;
    if (k < 30) {
      const size_t run = rng() % 24;
      for (size_t j = 0; j < run; ++j) v.push_back(0x20 + rng() % 0x5F);
    } else if (!dirty || k < 85) {
      v.push_back(RandomScalar(rng));
    } else if (k < 90) {
      v.push_back(0xD800 + rng() % 0x800);
    } else if (k < 93) {
      v.push_back(0x110000 + rng() % 0x1000);
    } else if (k < 95) {
      v.push_back(0);
    } else {
      v.push_back(UTF32(rng()));
    }
  }
  return v;
}

}  // namespace utf_test

#endif  // AMBIT_TESTS_UNICODE_UTF_TEST_UTIL_H_
