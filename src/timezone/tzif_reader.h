#ifndef AMBIT_TIMEZONE_TZIF_READER_H_
#define AMBIT_TIMEZONE_TZIF_READER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Parsing of compiled tz database files (TZif) and of the POSIX TZ rule a
// version 2+ file carries in its footer. Damage is judged as glibc judges
// it, so that a file reads the same here as through localtime_r: a version
// byte other than 0 means version 2 or later whatever its value, and a
// footer whose rule does not parse keeps the file's transitions. Pure functions over
// bytes: no file access, no global state, so they are safe from any thread
// and can be fed arbitrary (corrupt, truncated) input. Every count and index
// read from the data is checked before use.

// One way of telling the date of a rule's change (J, plain day number, or
// M month.week.day), with the local time of day of the change in seconds.
struct STzRuleDate {
  enum KIND { JULIAN1, JULIAN0, MONTH_WEEK_DAY };
  KIND kind = JULIAN0;
  int day = 0;    // J: 1..365; plain: 0..365; M: weekday 0..6 (0 is Sunday)
  int week = 0;   // M only: 1..5, 5 is "last"
  int month = 0;  // M only: 1..12
  int32_t secs = 7200;  // local time of day, -167 h..167 h
};

// A POSIX TZ rule such as "CET-1CEST,M3.5.0,M10.5.0/3". Offsets are seconds
// east of UTC (the text's sign inverted). Without a daylight part both
// halves name the standard time and the rule never changes.
struct STzPosixRule {
  std::string stdName;
  int32_t stdOffset = 0;
  std::string dstName;
  int32_t dstOffset = 0;
  bool hasDst = false;
  STzRuleDate start;  // standard to daylight, in standard local time
  STzRuleDate end;    // daylight to standard, in daylight local time
};

// A local time type of a zone: its UTC offset, whether it is daylight time,
// and the index of its abbreviation in SParsedZone::abbreviations.
struct STzLocalType {
  int32_t utcOffset = 0;
  bool isDst = false;
  uint32_t abbrIndex = 0;
};

// The content of one TZif file that local time conversion needs.
struct SParsedZone {
  std::vector<int64_t> transitions;    // strictly ascending UTC seconds
  std::vector<uint8_t> transitionTypes;  // index into types, per transition
  std::vector<STzLocalType> types;     // at least one
  std::string abbreviations;           // zero-terminated names, back to back
  bool hasRule = false;                // a non-empty footer rule was given
  STzPosixRule rule;
};

// Parses a whole TZif file. Version 1 files use their 32-bit block, later
// versions their 64-bit block and footer. Leap-second records are skipped
// (the zones of the Windows table have none). A version 2+ file needs at
// least two bytes after its data; its rule is the text between a leading
// newline and the last byte, read with ParsePosixRule or, when that fails,
// ParsePosixRuleAsGlibc. No leading newline or an empty text: no rule. On
// failure returns false and sets *error to a short reason; *out is then
// unspecified.
bool ParseTzif(const unsigned char* data, size_t size, SParsedZone* out,
               std::string* error);

// Parses a POSIX TZ rule text, including the quoted "<+03>" names and the
// hour range -167..167 of later TZif versions. A daylight part without
// change dates takes the United States rule (M3.2.0, M11.1.0) as glibc does.
bool ParsePosixRule(const std::string& text, STzPosixRule* out);

// Reads a rule that ParsePosixRule refuses the way glibc's TZ parser does:
// what was read before the first error is kept, numbers and all, and the
// rest is zero (a change date of day 0 at 00:00). Without a standard name
// the rule is unnamed UTC; without a standard offset it is the standard
// name at offset 0; without a daylight name there is no daylight time.
void ParsePosixRuleAsGlibc(const std::string& text, STzPosixRule* out);

#endif  // AMBIT_TIMEZONE_TZIF_READER_H_
