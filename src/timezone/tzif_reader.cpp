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
  char version;  // 0: 32-bit data only; anything else: version 2 or later
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
  // Any version byte other than 0 means "64-bit data follows", as glibc
  // reads it: a later or damaged version byte does not cost the data.
  h->version = static_cast<char>(p[4]);
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

// Reads a rule the way glibc's TZ parser does, keeping what it had read when
// it stopped: the fields it fills in order (standard name and offset,
// daylight name and offset, start date and time, end date and time) keep
// the values read so far, numbers included, and the rest stay zero. Numbers
// are read as scanf's %hu reads them.
class CGlibcRuleParser {
 public:
  explicit CGlibcRuleParser(const char* text) : m_p(text) {}

  void Parse(STzPosixRule* out) {
    *out = STzPosixRule();
    out->start = ZeroDate();
    out->end = ZeroDate();
    if (!ParseName(&out->stdName)) {
      out->dstName.clear();
      return;  // UTC, unnamed
    }
    if (!ParseOffset(true, 0, &out->stdOffset)) {
      out->stdOffset = 0;
      out->dstName.clear();
      return;  // named, offset 0, daylight part unnamed and never in force
    }
    if (!ParseName(&out->dstName)) {
      // No daylight part.
      out->dstName = out->stdName;
      out->dstOffset = out->stdOffset;
      return;
    }
    out->hasDst = true;
    ParseOffset(false, out->stdOffset, &out->dstOffset);
    if (ParseDate(&out->start, true)) ParseDate(&out->end, false);
  }

 private:
  static STzRuleDate ZeroDate() {
    STzRuleDate d;
    d.kind = STzRuleDate::JULIAN0;
    d.day = 0;
    d.secs = 0;
    return d;
  }
  static bool IsAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
  static bool IsDigit(char c) { return c >= '0' && c <= '9'; }
  static bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

  // scanf's %hu at p: blanks, a sign, digits read as an unsigned long
  // (saturating; a minus negates), stored in 16 bits. Advances p past them.
  static bool ScanUShort(const char** p, unsigned* value) {
    const char* q = *p;
    while (IsSpace(*q)) ++q;
    bool negative = false;
    if (*q == '+' || *q == '-') negative = *q++ == '-';
    if (!IsDigit(*q)) return false;
    uint64_t v = 0;
    bool overflow = false;
    for (; IsDigit(*q); ++q) {
      v = v * 10 + static_cast<unsigned>(*q - '0');
      if (v > 0xFFFFFFFFull) {
        overflow = true;
        v = 0xFFFFFFFFull;
      }
    }
    uint32_t u = overflow ? 0xFFFFFFFFu : static_cast<uint32_t>(v);
    if (negative && !overflow) u = 0u - u;
    *value = u & 0xFFFFu;
    *p = q;
    return true;
  }

  // "%hu%n:%hu%n:%hu%n": up to three numbers; how many were read, and the
  // position after the last one read.
  static int ScanClock(const char* p, unsigned v[3], const char** end) {
    *end = p;
    int n = 0;
    const char* q = p;
    for (; n < 3; ++n) {
      if (n > 0) {
        if (*q != ':') break;
        ++q;
      }
      if (!ScanUShort(&q, &v[n])) break;
      *end = q;
    }
    return n;
  }

  bool ParseName(std::string* name) {
    const char* p = m_p;
    while (IsAlpha(*p)) ++p;
    if (p - m_p >= 3) {
      name->assign(m_p, p);
      m_p = p;
      return true;
    }
    p = m_p;
    if (*p++ != '<') return false;
    const char* begin = p;
    while (IsAlpha(*p) || IsDigit(*p) || *p == '+' || *p == '-') ++p;
    if (*p != '>' || p - begin < 3) return false;
    name->assign(begin, p);
    m_p = p + 1;
    return true;
  }

  // The text counts west of Greenwich, hours capped at 24, minutes and
  // seconds at 59; the result is seconds east. Without digits the standard
  // offset fails (as 0) and the daylight one is an hour ahead of standard.
  bool ParseOffset(bool standard, int32_t stdOffset, int32_t* offset) {
    const char* p = m_p;
    if (standard && *p != '+' && *p != '-' && !IsDigit(*p)) return false;
    int32_t sign = -1;
    if (*p == '+' || *p == '-') sign = *p++ == '-' ? 1 : -1;
    unsigned v[3] = {0, 0, 0};
    const char* end;
    if (ScanClock(p, v, &end) > 0) {
      const int32_t hh = static_cast<int32_t>(v[0] < 24 ? v[0] : 24);
      const int32_t mm = static_cast<int32_t>(v[1] < 59 ? v[1] : 59);
      const int32_t ss = static_cast<int32_t>(v[2] < 59 ? v[2] : 59);
      *offset = sign * (hh * 3600 + mm * 60 + ss);
    } else if (standard) {
      *offset = 0;
      return false;
    } else {
      *offset = stdOffset + 3600;
    }
    m_p = end;
    return true;
  }

  bool ParseDate(STzRuleDate* d, bool start) {
    const char* p = m_p;
    if (*p == ',') ++p;
    if (*p == 'J' || IsDigit(*p)) {
      const bool julian1 = *p == 'J';
      d->kind = julian1 ? STzRuleDate::JULIAN1 : STzRuleDate::JULIAN0;
      if (julian1 && !IsDigit(*++p)) return false;
      uint64_t v = 0;
      for (; IsDigit(*p); ++p) v = v < 1000 ? v * 10 + static_cast<unsigned>(*p - '0') : v;
      if (v > 365 || (julian1 && v == 0)) return false;
      d->day = static_cast<int>(v);
    } else if (*p == 'M') {
      d->kind = STzRuleDate::MONTH_WEEK_DAY;
      d->month = 1;  // see below
      ++p;
      unsigned v[3] = {0, 0, 0};
      int n = 0;
      for (; n < 3; ++n) {
        if (n > 0) {
          if (*p != '.') break;
          ++p;
        }
        if (!ScanUShort(&p, &v[n])) break;
      }
      // Month, week and day as far as they were read. glibc reads its month
      // table outside the year for a month out of range or not read; the
      // nearest month stands in for it here.
      if (n >= 1) d->month = v[0] < 1 ? 1 : v[0] > 12 ? 12 : static_cast<int>(v[0]);
      if (n >= 2) d->week = static_cast<int>(v[1]);
      if (n >= 3) d->day = static_cast<int>(v[2]);
      if (n < 3 || v[0] < 1 || v[0] > 12 || v[1] < 1 || v[1] > 5 || v[2] > 6) return false;
    } else if (*p == '\0') {
      // No date: the United States rule.
      d->kind = STzRuleDate::MONTH_WEEK_DAY;
      d->month = start ? 3 : 11;
      d->week = start ? 2 : 1;
      d->day = 0;
    } else {
      return false;
    }
    if (*p != '\0' && *p != '/' && *p != ',') return false;
    if (*p == '/') {
      ++p;
      if (*p == '\0') return false;
      const bool negative = *p == '-';
      p += negative;
      unsigned v[3] = {2, 0, 0};  // 02:00 when no hour can be read
      const char* end;
      ScanClock(p, v, &end);
      p = end;
      const int32_t secs = static_cast<int32_t>(v[0] * 3600 + v[1] * 60 + v[2]);
      d->secs = negative ? -secs : secs;
    } else {
      d->secs = 7200;
    }
    m_p = p;
    return true;
  }

  const char* m_p;
};

}  // namespace

void ParsePosixRuleAsGlibc(const std::string& text, STzPosixRule* out) {
  CGlibcRuleParser(text.c_str()).Parse(out);
}

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
  // The second header's version byte is not looked at, as glibc does not.
  if (!ReadHeader(data, size, pos, &h, error)) return false;
  pos += kHeaderSize;
  if (!ReadDataBlock(data, size, pos, h, 8, out, error)) return false;
  pos += static_cast<size_t>(DataBlockSize(h, 8));

  // The footer, framed as glibc frames it: at least two bytes must follow
  // the data, or the file is rejected; the rule is what lies between a
  // leading newline and the last byte (which should be a newline, but is
  // dropped whatever it is), up to any zero byte. Without the leading
  // newline, or with an empty rule, the last type stays in force.
  if (size - pos < 2) {
    *error = "missing footer";
    return false;
  }
  out->hasRule = false;
  if (data[pos] != '\n') return true;
  const char* begin = reinterpret_cast<const char*>(data + pos + 1);
  const std::string text(begin, ::strnlen(begin, size - pos - 2));
  if (text.empty()) return true;
  out->hasRule = true;
  // A rule that does not parse is used as far as glibc gets with it.
  if (!ParsePosixRule(text, &out->rule)) ParsePosixRuleAsGlibc(text, &out->rule);
  return true;
}
