// The UTF converters on four generated corpora (ASCII source code, mixed
// Latin/Greek/Cyrillic prose, CJK, emoji-heavy text), against a plain
// textbook byte-at-a-time loop written here and against glibc iconv, for
// all six converters. Before timing, every pair is checked to give
// bit-identical output; a mismatch fails the benchmark. Throughput is in source bytes per second.
#include <iconv.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ambit/convertutf.h"
#include "benchmark/benchmark.h"
#include "ratio_main.h"

namespace {

// --- Corpora -------------------------------------------------------------------------

constexpr size_t kCorpusChars = 48 * 1024;

void Append(std::vector<UTF32>* out, const char32_t* s) {
  while (*s) out->push_back(*s++);
}

std::vector<UTF32> AsciiSourceCode() {
  static const char32_t* const kLines[] = {
      U"  for (size_t i = 0; i < count; ++i) {\n",
      U"    total += values[i] * weight;\n",
      U"  }\n",
      U"static int parse_header(const char* text, struct header* out);\n",
      U"  if (result != 0) return result;  // propagate the error\n",
      U"#include <stdio.h>\n",
      U"    buffer->length = strlen(name) + 1;\n",
      U"/* Reads the next record from the stream and returns its size. */\n",
      U"  std::vector<std::string> names = load_names(path, options);\n",
      U"\n",
  };
  std::mt19937 rng(1);
  std::vector<UTF32> v;
  while (v.size() < kCorpusChars) Append(&v, kLines[rng() % 10]);
  return v;
}

std::vector<UTF32> MixedEuropeanProse() {
  static const char32_t* const kWords[] = {
      U"the", U"über", U"Straße", U"café", U"déjà", U"naïve", U"garçon", U"año", U"señor",
      U"Ελλάδα", U"καλημέρα", U"φιλοσοφία", U"λόγος", U"Москва", U"спасибо", U"книга",
      U"человек", U"and", U"with", U"müssen", U"été", U"Αθήνα", U"привет", U"København",
  };
  std::mt19937 rng(2);
  std::vector<UTF32> v;
  while (v.size() < kCorpusChars) {
    Append(&v, kWords[rng() % 24]);
    Append(&v, rng() % 9 == 0 ? U", " : rng() % 13 == 0 ? U". " : U" ");
  }
  return v;
}

std::vector<UTF32> CjkText() {
  static const char32_t kPunct[] = U"、。「」";
  std::mt19937 rng(3);
  std::vector<UTF32> v;
  while (v.size() < kCorpusChars) {
    const unsigned k = rng() % 20;
    if (k < 14)
      v.push_back(0x4E00 + rng() % 0x5200);  // CJK unified ideographs
    else if (k < 18)
      v.push_back(0x3041 + rng() % 0x56);  // hiragana
    else
      v.push_back(kPunct[rng() % 4]);
  }
  return v;
}

std::vector<UTF32> EmojiHeavyText() {
  static const char32_t* const kWords[] = {U"ok", U"lol", U"yes", U"see you", U"wow", U"gg"};
  std::mt19937 rng(4);
  std::vector<UTF32> v;
  while (v.size() < kCorpusChars) {
    const unsigned n = 1 + rng() % 4;
    for (unsigned i = 0; i < n; ++i)
      v.push_back(rng() % 2 ? 0x1F600 + rng() % 0x50 : 0x1F300 + rng() % 0x100);
    v.push_back(' ');
    if (rng() % 2) {
      Append(&v, kWords[rng() % 6]);
      v.push_back(' ');
    }
  }
  return v;
}

std::vector<UTF8> ToUtf8(const std::vector<UTF32>& text) {
  std::vector<UTF8> out;
  for (UTF32 c : text) {
    if (c < 0x80) {
      out.push_back(UTF8(c));
    } else if (c < 0x800) {
      out.push_back(UTF8(0xC0 | (c >> 6)));
      out.push_back(UTF8(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out.push_back(UTF8(0xE0 | (c >> 12)));
      out.push_back(UTF8(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(UTF8(0x80 | (c & 0x3F)));
    } else {
      out.push_back(UTF8(0xF0 | (c >> 18)));
      out.push_back(UTF8(0x80 | ((c >> 12) & 0x3F)));
      out.push_back(UTF8(0x80 | ((c >> 6) & 0x3F)));
      out.push_back(UTF8(0x80 | (c & 0x3F)));
    }
  }
  return out;
}

std::vector<UTF16> ToUtf16(const std::vector<UTF32>& text) {
  std::vector<UTF16> out;
  for (UTF32 c : text) {
    if (c < 0x10000) {
      out.push_back(UTF16(c));
    } else {
      out.push_back(UTF16(0xD800 + ((c - 0x10000) >> 10)));
      out.push_back(UTF16(0xDC00 + ((c - 0x10000) & 0x3FF)));
    }
  }
  return out;
}

struct Corpus {
  const char* name;
  std::vector<UTF32> u32;
  std::vector<UTF16> u16;
  std::vector<UTF8> u8;
};

std::vector<Corpus>& Corpora() {
  static std::vector<Corpus>* corpora = [] {
    auto* c = new std::vector<Corpus>;
    const std::pair<const char*, std::vector<UTF32>> texts[] = {
        {"ascii_code", AsciiSourceCode()},
        {"latin_greek_cyrillic", MixedEuropeanProse()},
        {"cjk", CjkText()},
        {"emoji", EmojiHeavyText()},
    };
    for (const auto& t : texts) c->push_back({t.first, t.second, ToUtf16(t.second), ToUtf8(t.second)});
    return c;
  }();
  return *corpora;
}

// --- Textbook reference loops: one byte (or unit) at a time, validating ---
// Each returns the number of units written, or SIZE_MAX on ill-formed input
// or a full target.

inline bool IsCont(UTF8 b) { return (b & 0xC0) == 0x80; }

// Decodes one character at s; returns its length, or 0 when ill-formed.
inline size_t RefDecodeUtf8(const UTF8* s, const UTF8* end, UTF32* out) {
  const UTF32 b0 = s[0];
  if (b0 < 0x80) {
    *out = b0;
    return 1;
  }
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    if (end - s < 2 || !IsCont(s[1])) return 0;
    *out = ((b0 & 0x1F) << 6) | (s[1] & 0x3F);
    return 2;
  }
  if (b0 >= 0xE0 && b0 <= 0xEF) {
    if (end - s < 3 || !IsCont(s[1]) || !IsCont(s[2])) return 0;
    const UTF32 c = ((b0 & 0x0F) << 12) | ((s[1] & 0x3F) << 6) | (s[2] & 0x3F);
    if (c < 0x800 || (c >= 0xD800 && c <= 0xDFFF)) return 0;
    *out = c;
    return 3;
  }
  if (b0 >= 0xF0 && b0 <= 0xF4) {
    if (end - s < 4 || !IsCont(s[1]) || !IsCont(s[2]) || !IsCont(s[3])) return 0;
    const UTF32 c =
        ((b0 & 0x07) << 18) | ((s[1] & 0x3F) << 12) | ((s[2] & 0x3F) << 6) | (s[3] & 0x3F);
    if (c < 0x10000 || c > 0x10FFFF) return 0;
    *out = c;
    return 4;
  }
  return 0;
}

size_t RefUtf8ToUtf16(const UTF8* s, const UTF8* end, UTF16* t, UTF16* tEnd) {
  UTF16* const start = t;
  while (s < end) {
    UTF32 c;
    const size_t n = RefDecodeUtf8(s, end, &c);
    if (n == 0) return SIZE_MAX;
    s += n;
    if (c < 0x10000) {
      if (t >= tEnd) return SIZE_MAX;
      *t++ = UTF16(c);
    } else {
      if (tEnd - t < 2) return SIZE_MAX;
      c -= 0x10000;
      *t++ = UTF16(0xD800 + (c >> 10));
      *t++ = UTF16(0xDC00 + (c & 0x3FF));
    }
  }
  return size_t(t - start);
}

size_t RefUtf8ToUtf32(const UTF8* s, const UTF8* end, UTF32* t, UTF32* tEnd) {
  UTF32* const start = t;
  while (s < end) {
    UTF32 c;
    const size_t n = RefDecodeUtf8(s, end, &c);
    if (n == 0 || t >= tEnd) return SIZE_MAX;
    s += n;
    *t++ = c;
  }
  return size_t(t - start);
}

size_t RefUtf16ToUtf8(const UTF16* s, const UTF16* end, UTF8* t, UTF8* tEnd) {
  UTF8* const start = t;
  while (s < end) {
    UTF32 c = *s++;
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (s >= end || *s < 0xDC00 || *s > 0xDFFF) return SIZE_MAX;
      c = ((c - 0xD800) << 10) + (*s++ - 0xDC00) + 0x10000;
    } else if (c >= 0xDC00 && c <= 0xDFFF) {
      return SIZE_MAX;
    }
    if (c < 0x80) {
      if (t >= tEnd) return SIZE_MAX;
      *t++ = UTF8(c);
    } else if (c < 0x800) {
      if (tEnd - t < 2) return SIZE_MAX;
      *t++ = UTF8(0xC0 | (c >> 6));
      *t++ = UTF8(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      if (tEnd - t < 3) return SIZE_MAX;
      *t++ = UTF8(0xE0 | (c >> 12));
      *t++ = UTF8(0x80 | ((c >> 6) & 0x3F));
      *t++ = UTF8(0x80 | (c & 0x3F));
    } else {
      if (tEnd - t < 4) return SIZE_MAX;
      *t++ = UTF8(0xF0 | (c >> 18));
      *t++ = UTF8(0x80 | ((c >> 12) & 0x3F));
      *t++ = UTF8(0x80 | ((c >> 6) & 0x3F));
      *t++ = UTF8(0x80 | (c & 0x3F));
    }
  }
  return size_t(t - start);
}

size_t RefUtf32ToUtf8(const UTF32* s, const UTF32* end, UTF8* t, UTF8* tEnd) {
  UTF8* const start = t;
  while (s < end) {
    const UTF32 c = *s++;
    if (c < 0x80) {
      if (t >= tEnd) return SIZE_MAX;
      *t++ = UTF8(c);
    } else if (c < 0x800) {
      if (tEnd - t < 2) return SIZE_MAX;
      *t++ = UTF8(0xC0 | (c >> 6));
      *t++ = UTF8(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      if ((c >= 0xD800 && c <= 0xDFFF) || tEnd - t < 3) return SIZE_MAX;
      *t++ = UTF8(0xE0 | (c >> 12));
      *t++ = UTF8(0x80 | ((c >> 6) & 0x3F));
      *t++ = UTF8(0x80 | (c & 0x3F));
    } else {
      if (c > 0x10FFFF || tEnd - t < 4) return SIZE_MAX;
      *t++ = UTF8(0xF0 | (c >> 18));
      *t++ = UTF8(0x80 | ((c >> 12) & 0x3F));
      *t++ = UTF8(0x80 | ((c >> 6) & 0x3F));
      *t++ = UTF8(0x80 | (c & 0x3F));
    }
  }
  return size_t(t - start);
}

size_t RefUtf16ToUtf32(const UTF16* s, const UTF16* end, UTF32* t, UTF32* tEnd) {
  UTF32* const start = t;
  while (s < end) {
    UTF32 c = *s++;
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (s >= end || *s < 0xDC00 || *s > 0xDFFF) return SIZE_MAX;
      c = ((c - 0xD800) << 10) + (*s++ - 0xDC00) + 0x10000;
    } else if (c >= 0xDC00 && c <= 0xDFFF) {
      return SIZE_MAX;
    }
    if (t >= tEnd) return SIZE_MAX;
    *t++ = c;
  }
  return size_t(t - start);
}

size_t RefUtf32ToUtf16(const UTF32* s, const UTF32* end, UTF16* t, UTF16* tEnd) {
  UTF16* const start = t;
  while (s < end) {
    UTF32 c = *s++;
    if (c < 0x10000) {
      if ((c >= 0xD800 && c <= 0xDFFF) || t >= tEnd) return SIZE_MAX;
      *t++ = UTF16(c);
    } else {
      if (c > 0x10FFFF || tEnd - t < 2) return SIZE_MAX;
      c -= 0x10000;
      *t++ = UTF16(0xD800 + (c >> 10));
      *t++ = UTF16(0xDC00 + (c & 0x3FF));
    }
  }
  return size_t(t - start);
}

// --- The three contenders, one signature --------------------------------------------

enum class Impl { kAmbit, kReference, kIconv };
const char* ImplName(Impl i) {
  return i == Impl::kAmbit ? "ambit" : i == Impl::kReference ? "reference" : "iconv";
}

// Runs glibc iconv over the whole input; returns bytes written or SIZE_MAX.
size_t RunIconv(iconv_t cd, const void* in, size_t inBytes, void* out, size_t outBytes) {
  iconv(cd, nullptr, nullptr, nullptr, nullptr);  // reset the shift state
  char* ip = const_cast<char*>(static_cast<const char*>(in));
  char* op = static_cast<char*>(out);
  size_t left = outBytes;
  if (iconv(cd, &ip, &inBytes, &op, &left) == size_t(-1) || inBytes != 0) return SIZE_MAX;
  return outBytes - left;
}

// One direction: S source units to T target units.
template <typename S, typename T>
struct Direction {
  const char* name;
  const char* iconvTo;
  const char* iconvFrom;
  const std::vector<S>& (*source)(const Corpus&);
  ConversionResult (*ambit)(const S**, const S*, T**, T*, ConversionFlags);
  size_t (*reference)(const S*, const S*, T*, T*);
};

// Converts once with `impl`; returns the units written or SIZE_MAX.
template <typename S, typename T>
size_t ConvertOnce(const Direction<S, T>& d, Impl impl, iconv_t cd, const std::vector<S>& in,
                   std::vector<T>* out) {
  const S* s = in.data();
  const S* end = s + in.size();
  T* t = out->data();
  T* tEnd = t + out->size();
  switch (impl) {
    case Impl::kAmbit:
      if (d.ambit(&s, end, &t, tEnd, strictConversion) != conversionOK || s != end)
        return SIZE_MAX;
      return size_t(t - out->data());
    case Impl::kReference:
      return d.reference(s, end, t, tEnd);
    case Impl::kIconv: {
      const size_t n = RunIconv(cd, s, in.size() * sizeof(S), t, out->size() * sizeof(T));
      return n == SIZE_MAX ? n : n / sizeof(T);
    }
  }
  return SIZE_MAX;
}

template <typename S, typename T>
void BM_Convert(benchmark::State& state, Direction<S, T> d, Impl impl, size_t corpus) {
  const Corpus& c = Corpora()[corpus];
  const std::vector<S>& in = d.source(c);
  std::vector<T> out(in.size() * 4 + 16), check(in.size() * 4 + 16);
  iconv_t cd = iconv_open(d.iconvTo, d.iconvFrom);
  if (cd == iconv_t(-1)) {
    state.SkipWithError("iconv_open failed");
    return;
  }
  // Every contender must give exactly what the reference loop gives.
  const size_t want = ConvertOnce(d, Impl::kReference, cd, in, &check);
  const size_t got = ConvertOnce(d, impl, cd, in, &out);
  if (want == SIZE_MAX || got != want || std::memcmp(out.data(), check.data(), want * sizeof(T))) {
    state.SkipWithError("output differs from the reference loop");
    iconv_close(cd);
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(ConvertOnce(d, impl, cd, in, &out));
    benchmark::ClobberMemory();
  }
  iconv_close(cd);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(in.size() * sizeof(S)));
}

const std::vector<UTF8>& Utf8Of(const Corpus& c) { return c.u8; }
const std::vector<UTF16>& Utf16Of(const Corpus& c) { return c.u16; }
const std::vector<UTF32>& Utf32Of(const Corpus& c) { return c.u32; }

template <typename S, typename T>
void RegisterDirection(const Direction<S, T>& d) {
  for (size_t corpus = 0; corpus < Corpora().size(); ++corpus)
    for (Impl impl : {Impl::kAmbit, Impl::kReference, Impl::kIconv}) {
      const std::string name = std::string(d.name) + "/" + Corpora()[corpus].name + "/" +
                               ImplName(impl);
      benchmark::RegisterBenchmark(name.c_str(), BM_Convert<S, T>, d, impl, corpus);
    }
  // Registering copies the names: the registrars need not outlive this.
  for (size_t corpus = 0; corpus < Corpora().size(); ++corpus) {
    const std::string base = std::string(d.name) + "/" + Corpora()[corpus].name + "/";
    ambit_bench::RatioRegistrar((base + " ambit / reference loop").c_str(),
                                (base + "ambit").c_str(), (base + "reference").c_str());
    ambit_bench::RatioRegistrar((base + " ambit / iconv").c_str(), (base + "ambit").c_str(),
                                (base + "iconv").c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  RegisterDirection(Direction<UTF8, UTF16>{"Utf8ToUtf16", "UTF-16LE", "UTF-8", Utf8Of,
                                           ConvertUTF8toUTF16, RefUtf8ToUtf16});
  RegisterDirection(Direction<UTF16, UTF8>{"Utf16ToUtf8", "UTF-8", "UTF-16LE", Utf16Of,
                                           ConvertUTF16toUTF8, RefUtf16ToUtf8});
  RegisterDirection(Direction<UTF8, UTF32>{"Utf8ToUtf32", "UTF-32LE", "UTF-8", Utf8Of,
                                           ConvertUTF8toUTF32, RefUtf8ToUtf32});
  RegisterDirection(Direction<UTF32, UTF8>{"Utf32ToUtf8", "UTF-8", "UTF-32LE", Utf32Of,
                                           ConvertUTF32toUTF8, RefUtf32ToUtf8});
  RegisterDirection(Direction<UTF16, UTF32>{"Utf16ToUtf32", "UTF-32LE", "UTF-16LE", Utf16Of,
                                            ConvertUTF16toUTF32, RefUtf16ToUtf32});
  RegisterDirection(Direction<UTF32, UTF16>{"Utf32ToUtf16", "UTF-16LE", "UTF-32LE", Utf32Of,
                                            ConvertUTF32toUTF16, RefUtf32ToUtf16});
  return ambit_bench::RunWithRatios(argc, argv);
}
