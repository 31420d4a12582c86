// TZif and POSIX TZ rule parsing. The data comes from files that anybody
// with write access to the zoneinfo tree could have damaged, so sizes are
// computed in 64 bits and checked against what is there before any read.
#include "timezone/tzif_reader.h"

#include <cstring>

namespace {

constexpr size_t kHeaderSize = 44;  // "TZif", version, 15 unused, 6 counts

uint32_t ReadBe32(const unsigned char* p) {
  return (static_cast<uint32_t>(p[0]) << 24) |
         (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

int64_t ReadBe64(const unsigned char* p) {
  const uint64_t v = (static_cast<uint64_t>(ReadBe32(p)) << 32) | ReadBe32(p + 4);
  return static_cast<int64_t>(v);
}

struct SHeader {
  char version;  // 0, '2', '3' or '4'
  uint32_t isutcnt, isstdcnt, leapcnt, timecnt, typecnt, charcnt;
};

bool ReadHeader(const unsigned char* data, size_t size, size_t pos,
                SHeader* h, std::string* error) {
  if (size < pos || size - pos < kHeaderSize) {
    *error = "truncated header";
    return false;
  }
  const unsigned char* p = data + pos;
  if (std::memcmp(p, "TZif", 4) != 0) {
    *error = "bad magic";
    return false;
  }
  h->version = static_cast<char>(p[4]);
  if (h->version != 0 && (h->version < '2' || h->version > '4')) {
    *error = "unknown version";
    return false;
  }
  h->isutcnt = ReadBe32(p + 20);
  h->isstdcnt = ReadBe32(p + 24);
  h->leapcnt = ReadBe32(p + 28);
  h->timecnt = ReadBe32(p + 32);
  h->typecnt = ReadBe32(p + 36);
  h->charcnt = ReadBe32(p + 40);
  if (h->typecnt == 0 || h->typecnt > 256 || h->charcnt == 0 ||
      (h->isutcnt != 0 && h->isutcnt != h->typecnt) ||
      (h->isstdcnt != 0 && h->isstdcnt != h->typecnt)) {
    *error = "inconsistent counts";
    return false;
  }
  return true;
}

// Bytes of the data block that follows a header, for times of timeSize bytes.
uint64_t DataBlockSize(const SHeader& h, unsigned timeSize) {
  return static_cast<uint64_t>(h.timecnt) * timeSize + h.timecnt +
         static_cast<uint64_t>(h.typecnt) * 6 + h.charcnt +
         static_cast<uint64_t>(h.leapcnt) * (timeSize + 4) + h.isstdcnt +
         h.isutcnt;
}

bool ReadDataBlock(const unsigned char* data, size_t size, size_t pos,
                   const SHeader& h, unsigned timeSize, SParsedZone* out,
                   std::string* error) {
  if (DataBlockSize(h, timeSize) > size - pos) {
    *error = "truncated data block";
    return false;
  }
  const unsigned char* p = data + pos;
  out->transitions.resize(h.timecnt);
  for (uint32_t i = 0; i < h.timecnt; ++i, p += timeSize) {
    out->transitions[i] =
        timeSize == 8 ? ReadBe64(p) : static_cast<int32_t>(ReadBe32(p));
    if (i > 0 && out->transitions[i] <= out->transitions[i - 1]) {
      *error = "transitions out of order";
      return false;
    }
  }
  out->transitionTypes.assign(p, p + h.timecnt);
  for (uint8_t t : out->transitionTypes) {
    if (t >= h.typecnt) {
      *error = "transition type out of range";
      return false;
    }
  }
  p += h.timecnt;
  out->types.resize(h.typecnt);
  for (uint32_t i = 0; i < h.typecnt; ++i, p += 6) {
    STzLocalType& type = out->types[i];
    const int32_t offset = static_cast<int32_t>(ReadBe32(p));
    if (offset == INT32_MIN || p[4] > 1 || p[5] >= h.charcnt) {
      *error = "bad local time type";
      return false;
    }
    type.utcOffset = offset;
    type.isDst = p[4] != 0;
    type.abbrIndex = p[5];
  }
  out->abbreviations.assign(reinterpret_cast<const char*>(p), h.charcnt);
  if (out->abbreviations.back() != '\0') {
    *error = "abbreviations not terminated";
    return false;
  }
  // Leap-second records and the standard/UT indicators are not needed for
  // local time and are skipped.
  return true;
}

// --- POSIX TZ rule --------------------------------------------------------

class CRuleParser {
 public:
  explicit CRuleParser(const std::string& text) : m_p(text.c_str()) {}

  bool Parse(STzPosixRule* out) {
    if (!ParseName(&out->stdName) || !ParseOffset(&out->stdOffset)) return false;
    if (*m_p == '\0') {
      out->hasDst = false;
      out->dstName = out->stdName;
      out->dstOffset = out->stdOffset;
      return true;
    }
    out->hasDst = true;
    if (!ParseName(&out->dstName)) return false;
    out->dstOffset = out->stdOffset + 3600;
    if (*m_p != ',' && *m_p != '\0' && !ParseOffset(&out->dstOffset))
      return false;
    if (*m_p == '\0') {
      // No dates: the rule in force in the United States since 2007.
      out->start = UsDate(3, 2);
      out->end = UsDate(11, 1);
      return true;
    }
    if (*m_p++ != ',' || !ParseDate(&out->start)) return false;
    if (*m_p++ != ',' || !ParseDate(&out->end)) return false;
    return *m_p == '\0';
  }

 private:
  static STzRuleDate UsDate(int month, int week) {
    STzRuleDate d;
    d.kind = STzRuleDate::MONTH_WEEK_DAY;
    d.month = month;
    d.week = week;
    d.day = 0;
    return d;
  }

  bool ParseName(std::string* name) {
    const char* begin = m_p;
    if (*m_p == '<') {
      begin = ++m_p;
      while (IsAlnum(*m_p) || *m_p == '+' || *m_p == '-') ++m_p;
      if (*m_p != '>') return false;
      name->assign(begin, m_p);
      ++m_p;
    } else {
      while (IsAlpha(*m_p)) ++m_p;
      name->assign(begin, m_p);
    }
    return name->size() >= 3;
  }

  // [+-]hh[:mm[:ss]] with hh up to maxHours; the value is seconds.
  bool ParseTime(int maxHours, int32_t* seconds) {
    int sign = 1;
    if (*m_p == '+' || *m_p == '-') sign = *m_p++ == '-' ? -1 : 1;
    int hh, mm = 0, ss = 0;
    if (!ParseNumber(0, maxHours, &hh)) return false;
    if (*m_p == ':') {
      ++m_p;
      if (!ParseNumber(0, 59, &mm)) return false;
      if (*m_p == ':') {
        ++m_p;
        if (!ParseNumber(0, 59, &ss)) return false;
      }
    }
    *seconds = sign * (hh * 3600 + mm * 60 + ss);
    return true;
  }

  // The text counts hours west of Greenwich; the result is seconds east.
  bool ParseOffset(int32_t* offset) {
    int32_t west;
    if (!ParseTime(24, &west)) return false;
    *offset = -west;
    return true;
  }

  bool ParseDate(STzRuleDate* d) {
    if (*m_p == 'J') {
      ++m_p;
      d->kind = STzRuleDate::JULIAN1;
      if (!ParseNumber(1, 365, &d->day)) return false;
    } else if (*m_p == 'M') {
      ++m_p;
      d->kind = STzRuleDate::MONTH_WEEK_DAY;
      if (!ParseNumber(1, 12, &d->month) || *m_p++ != '.' ||
          !ParseNumber(1, 5, &d->week) || *m_p++ != '.' ||
          !ParseNumber(0, 6, &d->day))
        return false;
    } else {
      d->kind = STzRuleDate::JULIAN0;
      if (!ParseNumber(0, 365, &d->day)) return false;
    }
    d->secs = 7200;
    if (*m_p == '/') {
      ++m_p;
      if (!ParseTime(167, &d->secs)) return false;
    }
    return true;
  }

  bool ParseNumber(int lo, int hi, int* value) {
    if (*m_p < '0' || *m_p > '9') return false;
    long v = 0;
    while (*m_p >= '0' && *m_p <= '9') {
      v = v * 10 + (*m_p++ - '0');
      if (v > hi) return false;
    }
    if (v < lo) return false;
    *value = static_cast<int>(v);
    return true;
  }

  static bool IsAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  }
  static bool IsAlnum(char c) { return IsAlpha(c) || (c >= '0' && c <= '9'); }

  const char* m_p;
};

}  // namespace

bool ParsePosixRule(const std::string& text, STzPosixRule* out) {
  if (text.find('\0') != std::string::npos) return false;
  return CRuleParser(text).Parse(out);
}

bool ParseTzif(const unsigned char* data, size_t size, SParsedZone* out,
               std::string* error) {
  SHeader h;
  if (!ReadHeader(data, size, 0, &h, error)) return false;
  if (h.version == 0)
    return ReadDataBlock(data, size, kHeaderSize, h, 4, out, error);

  // Version 2 and later: skip the 32-bit block, read the 64-bit one.
  const uint64_t skip = kHeaderSize + DataBlockSize(h, 4);
  if (skip > size) {
    *error = "truncated first data block";
    return false;
  }
  size_t pos = static_cast<size_t>(skip);
  if (!ReadHeader(data, size, pos, &h, error)) return false;
  if (h.version == 0) {
    *error = "second header without version";
    return false;
  }
  pos += kHeaderSize;
  if (!ReadDataBlock(data, size, pos, h, 8, out, error)) return false;
  pos += static_cast<size_t>(DataBlockSize(h, 8));

  // Footer: "\n" rule "\n"; an empty rule means none.
  if (pos >= size || data[pos] != '\n') {
    *error = "missing footer";
    return false;
  }
  const unsigned char* begin = data + pos + 1;
  const unsigned char* nl = static_cast<const unsigned char*>(
      std::memchr(begin, '\n', size - pos - 1));
  if (nl == nullptr) {
    *error = "unterminated footer";
    return false;
  }
  const std::string text(reinterpret_cast<const char*>(begin),
                         static_cast<size_t>(nl - begin));
  out->hasRule = !text.empty();
  if (out->hasRule && !ParsePosixRule(text, &out->rule)) {
    *error = "bad footer rule \"" + text + "\"";
    return false;
  }
  return true;
}
