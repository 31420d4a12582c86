// Differential fuzz target for the UTF converters. From each input it takes
// a flags byte and a target-size byte, then reads the rest as UTF-8, UTF-16
// and UTF-32 text, and checks that:
//   - every converter and counter stays inside its buffers (each buffer is
//     a heap block of exactly its size, watched by AddressSanitizer);
//   - each counter agrees with its converter given ample room: same result,
//     same stop position, count equal to the units written;
//   - the fast engines agree with the plain ones, with any target size;
//   - valid output converts back to the input that produced it;
//   - isLegalUTF8Sequence agrees with what the UTF-8 readers accept.
// Every input is checked with the SSE2 kernels and again without them.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "ambit/convertutf.h"
#include "unicode/convert_utf_impl.h"
#include "unicode/utf_vector_switch.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

template <typename U>
std::unique_ptr<U[]> Copy(const uint8_t* data, size_t units) {
  std::unique_ptr<U[]> p(new U[units]);
  if (units) std::memcpy(p.get(), data, units * sizeof(U));
  return p;
}

struct Run {
  ConversionResult result;
  size_t consumed;
  std::vector<unsigned char> written;
};

// Runs an engine form into an exact target of `room` units.
template <typename S, typename T, typename Engine>
Run RunEngine(Engine engine, const S* src, size_t n, size_t room, ConversionFlags flags) {
  std::unique_ptr<T[]> dst(new T[room]);
  const S* s = src;
  ambit_utf::BufferSink<T> sink(dst.get(), dst.get() + room);
  Run r;
  r.result = engine(&s, src + n, sink, flags);
  r.consumed = size_t(s - src);
  const unsigned char* b = reinterpret_cast<const unsigned char*>(dst.get());
  r.written.assign(b, b + (sink.Position() - dst.get()) * sizeof(T));
  return r;
}

template <typename S, typename T, typename Plain, typename Fast>
void Differential(Plain plain, Fast fast, const S* src, size_t n, size_t room,
                  ConversionFlags flags,
                  ConversionResult (*convert)(const S**, const S*, T**, T*, ConversionFlags),
                  ConversionResult (*count)(const S**, const S*, ConversionFlags, unsigned*)) {
  // Fast against plain with a small target.
  const Run p = RunEngine<S, T>(plain, src, n, room, flags);
  const Run f = RunEngine<S, T>(fast, src, n, room, flags);
  Check(p.result == f.result && p.consumed == f.consumed && p.written == f.written);

  // Public converter with ample room against the public counter.
  const size_t ample = n * 4 + 4;  // at most four units out per unit in
  std::unique_ptr<T[]> dst(new T[ample]);
  const S* s = src;
  T* t = dst.get();
  const ConversionResult cr = convert(&s, src + n, &t, dst.get() + ample, flags);
  Check(cr != targetExhausted);
  const S* cs = src;
  unsigned units = 0;
  const ConversionResult nr = count(&cs, src + n, flags, &units);
  Check(nr == cr && cs == s && units == size_t(t - dst.get()));
}

template <bool kFast, bool kTo32>
struct Utf8Engine {
  template <typename Sink>
  ConversionResult operator()(const UTF8** s, const UTF8* e, Sink& k, ConversionFlags f) const {
    return ambit_utf::Utf8ToWide<kFast, kTo32>(s, e, k, f);
  }
};
template <bool kFast>
struct Utf16Engine {
  template <typename Sink>
  ConversionResult operator()(const UTF16** s, const UTF16* e, Sink& k, ConversionFlags f) const {
    return ambit_utf::Utf16ToUtf8<kFast>(s, e, k, f);
  }
};
template <bool kFast>
struct Utf32Engine {
  template <typename Sink>
  ConversionResult operator()(const UTF32** s, const UTF32* e, Sink& k, ConversionFlags f) const {
    return ambit_utf::Utf32ToUtf8<kFast>(s, e, k, f);
  }
};

// True when the accepted bytes hold a sequence that the legality check
// admits although it is not well-formed: 0xED or 0xF4 followed by a byte
// below 0x80 (only the upper bound of that byte is checked). Such a
// sequence decodes to a character whose encoding is different bytes.
bool HasLooseSequence(const UTF8* p, size_t n) {
  for (size_t i = 0; i < n;) {
    const UTF8 lead = p[i];
    if ((lead == 0xED || lead == 0xF4) && p[i + 1] < 0x80) return true;
    i += lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  }
  return false;
}

// Strictly converted UTF-8 goes back to the same bytes through UTF-16 and
// through UTF-32.
void RoundTrip(const UTF8* src, size_t n) {
  std::unique_ptr<UTF16[]> u16(new UTF16[n + 1]);
  const UTF8* s = src;
  UTF16* t = u16.get();
  if (ConvertUTF8toUTF16(&s, src + n, &t, u16.get() + n + 1, strictConversion) != conversionOK)
    return;
  const size_t consumed = size_t(s - src);
  if (HasLooseSequence(src, consumed)) return;
  const size_t n16 = size_t(t - u16.get());
  std::unique_ptr<UTF8[]> back(new UTF8[consumed + 1]);
  const UTF16* s16 = u16.get();
  UTF8* t8 = back.get();
  Check(ConvertUTF16toUTF8(&s16, u16.get() + n16, &t8, back.get() + consumed + 1,
                           strictConversion) == conversionOK);
  Check(size_t(t8 - back.get()) == consumed && std::memcmp(back.get(), src, consumed) == 0);

  std::unique_ptr<UTF32[]> u32(new UTF32[consumed + 1]);
  s = src;
  UTF32* t32 = u32.get();
  Check(ConvertUTF8toUTF32(&s, src + consumed, &t32, u32.get() + consumed + 1,
                           strictConversion) == conversionOK);
  const size_t n32 = size_t(t32 - u32.get());
  const UTF32* s32 = u32.get();
  t8 = back.get();
  Check(ConvertUTF32toUTF8(&s32, u32.get() + n32, &t8, back.get() + consumed + 1,
                           strictConversion) == conversionOK);
  Check(size_t(t8 - back.get()) == consumed && std::memcmp(back.get(), src, consumed) == 0);
}

// All the checks on one input, with the SSE2 kernels in whatever state the
// switch is.
void CheckInput(const uint8_t* data, size_t size) {
  const ConversionFlags flags = ConversionFlags(data[0] & 3);
  const size_t room = data[1];
  data += 2;
  size -= 2;

  auto u8 = Copy<UTF8>(data, size);
  Differential<UTF8, UTF16>(Utf8Engine<false, false>(), Utf8Engine<true, false>(), u8.get(), size,
                            room, flags, ConvertUTF8toUTF16, SizeOfConvertUTF8toUTF16);
  Differential<UTF8, UTF32>(Utf8Engine<false, true>(), Utf8Engine<true, true>(), u8.get(), size,
                            room, flags, ConvertUTF8toUTF32, SizeOfConvertUTF8toUTF32);
  RoundTrip(u8.get(), size);
  // The readers accept a sequence exactly when isLegalUTF8Sequence does
  // (for a lead that is not a stopping zero).
  if (size > 0 && u8[0] != 0) {
    const UTF8* s = u8.get();
    unsigned n = 0;
    const ConversionResult r = SizeOfConvertUTF8toUTF32(&s, u8.get() + size, flags, &n);
    const bool legal = isLegalUTF8Sequence(u8.get(), u8.get() + size);
    Check(legal == (s != u8.get()));
    Check(legal || r != conversionOK);
  }

  const size_t n16 = size / 2;
  auto u16 = Copy<UTF16>(data, n16);
  Differential<UTF16, UTF8>(Utf16Engine<false>(), Utf16Engine<true>(), u16.get(), n16, room,
                            flags, ConvertUTF16toUTF8, SizeOfConvertUTF16toUTF8);
  {
    std::unique_ptr<UTF32[]> dst(new UTF32[room]);
    const UTF16* s = u16.get();
    UTF32* t = dst.get();
    ConvertUTF16toUTF32(&s, u16.get() + n16, &t, dst.get() + room, flags);
    Check(s >= u16.get() && s <= u16.get() + n16 && t >= dst.get() && t <= dst.get() + room);
  }

  const size_t n32 = size / 4;
  auto u32 = Copy<UTF32>(data, n32);
  Differential<UTF32, UTF8>(Utf32Engine<false>(), Utf32Engine<true>(), u32.get(), n32, room,
                            flags, ConvertUTF32toUTF8, SizeOfConvertUTF32toUTF8);
  {
    std::unique_ptr<UTF16[]> dst(new UTF16[room]);
    const UTF32* s = u32.get();
    UTF16* t = dst.get();
    ConvertUTF32toUTF16(&s, u32.get() + n32, &t, dst.get() + room, flags);
    Check(s >= u32.get() && s <= u32.get() + n32 && t >= dst.get() && t <= dst.get() + room);
  }
}

}  // namespace

// Every input runs with the kernels and again with them switched off.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  ambit_utf::SetVectorPaths(true);
  CheckInput(data, size);
  ambit_utf::SetVectorPaths(false);
  CheckInput(data, size);
  return 0;
}
