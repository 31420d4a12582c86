#include "ambit/trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <sys/stat.h>

#include <climits>
#include <optional>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "support/child_process.h"
#include "support/recording_hook.h"
#include "support/temp_dir.h"
#include "trace/trace_clock.h"
#include "trace/trace_file.h"
#include "trace/trace_impl.h"

namespace {

// A wall clock the tests set by hand.
int64_t g_fakeSeconds = 0;
int32_t g_fakeMicroseconds = 0;
int64_t FakeSeconds() { return g_fakeSeconds; }
int32_t FakeMicroseconds() { return g_fakeMicroseconds; }

// Unix seconds of a UTC date and time.
int64_t UtcSeconds(int year, int month, int day, int hour, int minute,
                   int second) {
  tm t = {};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  return static_cast<int64_t>(timegm(&t));
}

std::string Prefix(const char* time) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%s (%5d:%5d) ", time,
                static_cast<int>(getpid()),
                static_cast<int>(CPortable::GetCurrentThreadId()));
  return buffer;
}

// Points the library's log object at a fresh directory, runs on a fake
// clock in UTC, and puts everything back afterwards.
class TraceLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    m_hadTz = tz != nullptr;
    if (m_hadTz) m_savedTz = tz;
    setenv("TZ", "UTC0", 1);
    tzset();

    ASSERT_NE(nullptr, g_pAmbitTrace);
    ASSERT_FALSE(m_dir.Path().empty());
    m_savedLevel = AmbitTrace::m_level;
    m_savedHook = g_pambittracing;
    std::memcpy(m_savedDir, g_AmbitTrace.dir, sizeof m_savedDir);
    CloseLog();
    std::snprintf(g_AmbitTrace.dir, sizeof g_AmbitTrace.dir, "%s",
                  m_dir.Path().c_str());
    AmbitTrace::m_level = 2;
    g_pambittracing = nullptr;
    g_traceClock = {&FakeSeconds, &FakeMicroseconds};
    SetClock(UtcSeconds(2026, 11, 15, 13, 2, 41), 7000);
  }

  void TearDown() override {
    CloseLog();
    g_traceClock = kSystemWallClock;
    std::memcpy(g_AmbitTrace.dir, m_savedDir, sizeof m_savedDir);
    AmbitTrace::m_level = m_savedLevel;
    g_pambittracing = m_savedHook;
    if (m_hadTz)
      setenv("TZ", m_savedTz.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

  static void SetClock(int64_t seconds, int32_t microseconds) {
    g_fakeSeconds = seconds;
    g_fakeMicroseconds = microseconds;
  }

  static void CloseLog() {
    if (g_AmbitTrace.file != nullptr) std::fclose(g_AmbitTrace.file);
    g_AmbitTrace.file = nullptr;
    g_AmbitTrace.day = 0;
    g_AmbitTrace.minute = 0;
  }

  std::string Log(const char* name) const {
    return ReadFile(m_dir.Path() + "/" + name);
  }

  TempDir m_dir;

 private:
  unsigned long m_savedLevel = 0;
  AmbitTracing* m_savedHook = nullptr;
  char m_savedDir[sizeof g_AmbitTrace.dir];
  bool m_hadTz = false;
  std::string m_savedTz;
};

// Captures what the process writes to standard output meanwhile.
class StdoutCapture {
 public:
  explicit StdoutCapture(const std::string& path) : m_path(path) {
    std::fflush(stdout);
    m_saved = dup(1);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 1);
    close(fd);
  }
  std::string Finish() {
    std::fflush(stdout);
    dup2(m_saved, 1);
    close(m_saved);
    return ReadFile(m_path);
  }

 private:
  std::string m_path;
  int m_saved;
};

TEST_F(TraceLogTest, LineGoesToTheFileOfTheDayWithTheDesignedPrefix) {
  g_pAmbitTrace->trace("hello %d\n", 5);
  EXPECT_EQ(std::vector<std::string>{"AmbitTrace-261115.Log"}, m_dir.List());
  EXPECT_EQ(Prefix("13:02:41.007") + "hello 5\n", Log("AmbitTrace-261115.Log"));
}

TEST_F(TraceLogTest, PrefixPadsIdsToFiveColumnsAndEndsInOneBlank) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "(%5d:%5d) ", 4711, 4713);
  EXPECT_STREQ("( 4711: 4713) ", buffer);  // the format the log uses
  g_pAmbitTrace->trace("x");
  const std::string log = Log("AmbitTrace-261115.Log");
  ASSERT_GE(log.size(), 28u);
  EXPECT_EQ("13:02:41.007 (", log.substr(0, 14));
  EXPECT_EQ(") x", log.substr(log.size() - 3));
}

TEST_F(TraceLogTest, LinesAreAppendedAndFlushedAtOnce) {
  g_pAmbitTrace->trace("one\n");
  EXPECT_EQ(Prefix("13:02:41.007") + "one\n", Log("AmbitTrace-261115.Log"));
  SetClock(UtcSeconds(2026, 11, 15, 13, 2, 42), 999999);
  g_pAmbitTrace->trace("two\n");
  EXPECT_EQ(Prefix("13:02:41.007") + "one\n" + Prefix("13:02:42.999") + "two\n",
            Log("AmbitTrace-261115.Log"));
}

TEST_F(TraceLogTest, LineAtMidnightGoesToTheNextDaysFile) {
  SetClock(UtcSeconds(2026, 12, 31, 23, 59, 59), 999000);
  g_pAmbitTrace->trace("last\n");
  SetClock(UtcSeconds(2027, 1, 1, 0, 0, 0), 0);
  g_pAmbitTrace->trace("first\n");
  EXPECT_EQ((std::vector<std::string>{"AmbitTrace-261231.Log",
                                      "AmbitTrace-270101.Log"}),
            m_dir.List());
  EXPECT_EQ(Prefix("23:59:59.999") + "last\n", Log("AmbitTrace-261231.Log"));
  EXPECT_EQ(Prefix("00:00:00.000") + "first\n", Log("AmbitTrace-270101.Log"));
}

TEST_F(TraceLogTest, SameDayOfTheNextMonthGetsItsOwnFileAfterADayBetween) {
  g_pAmbitTrace->trace("november\n");
  SetClock(UtcSeconds(2026, 11, 16, 9, 0, 0), 0);
  g_pAmbitTrace->trace("next day\n");
  SetClock(UtcSeconds(2026, 12, 15, 13, 2, 41), 0);
  g_pAmbitTrace->trace("december\n");
  EXPECT_EQ((std::vector<std::string>{"AmbitTrace-261115.Log",
                                      "AmbitTrace-261116.Log",
                                      "AmbitTrace-261215.Log"}),
            m_dir.List());
}

TEST_F(TraceLogTest, OnlyTheDayOfTheMonthDecidesTheRollOver) {
  // The open file is kept while the day of the month is unchanged, even a
  // month later when no line was written in between.
  g_pAmbitTrace->trace("november\n");
  SetClock(UtcSeconds(2026, 12, 15, 8, 0, 0), 0);
  g_pAmbitTrace->trace("december\n");
  EXPECT_EQ(std::vector<std::string>{"AmbitTrace-261115.Log"}, m_dir.List());
}

TEST_F(TraceLogTest, FileIsMadeReadableAndWritableByEveryone) {
  g_pAmbitTrace->trace("mode\n");
  struct stat st;
  ASSERT_EQ(0, stat((m_dir.Path() + "/AmbitTrace-261115.Log").c_str(), &st));
  EXPECT_EQ(0666u, st.st_mode & 0777);
}

TEST_F(TraceLogTest, SymlinkNamedLikeTheDaysLogIsNeitherWrittenThroughNorChmodded) {
  // A link planted in a log directory that others can write, under the
  // name of the day's log, to a file outside it; and a dangling one for
  // the next day, whose target must not be created.
  TempDir outside;
  const std::string target = outside.Path() + "/precious";
  const std::string absent = outside.Path() + "/absent";
  {
    const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(9, write(fd, "precious\n", 9));
    close(fd);
  }
  ASSERT_EQ(0, symlink(target.c_str(), (m_dir.Path() + "/AmbitTrace-261115.Log").c_str()));
  ASSERT_EQ(0, symlink(absent.c_str(), (m_dir.Path() + "/AmbitTrace-261116.Log").c_str()));

  g_pAmbitTrace->trace("through the link\n");
  EXPECT_EQ(nullptr, g_AmbitTrace.file) << "the log was opened through the link";
  SetClock(UtcSeconds(2026, 11, 16, 9, 0, 0), 0);
  g_pAmbitTrace->trace("through the dangling link\n");
  EXPECT_EQ(nullptr, g_AmbitTrace.file);

  EXPECT_EQ("precious\n", ReadFile(target));
  struct stat st;
  ASSERT_EQ(0, stat(target.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 07777) << "the target's mode was changed";
  EXPECT_NE(0, access(absent.c_str(), F_OK)) << "the dangling link's target was created";
}

TEST_F(TraceLogTest, FailedOpenDropsLinesAndIsRetriedOnlyInALaterMinute) {
  const std::string missing = m_dir.Path() + "/later";
  std::snprintf(g_AmbitTrace.dir, sizeof g_AmbitTrace.dir, "%s", missing.c_str());
  g_pAmbitTrace->trace("lost\n");
  EXPECT_EQ(nullptr, g_AmbitTrace.file);
  ASSERT_EQ(0, mkdir(missing.c_str(), 0700));
  SetClock(UtcSeconds(2026, 11, 15, 13, 2, 59), 0);  // same minute
  g_pAmbitTrace->trace("still lost\n");
  EXPECT_EQ(nullptr, g_AmbitTrace.file);
  SetClock(UtcSeconds(2026, 11, 15, 13, 3, 0), 0);  // the next minute
  g_pAmbitTrace->trace("kept\n");
  EXPECT_EQ(Prefix("13:03:00.000") + "kept\n",
            ReadFile(missing + "/AmbitTrace-261115.Log"));
}

TEST_F(TraceLogTest, LongTextIsCutToTheLineBufferWithoutANewline) {
  const std::string text(1000, 'y');
  g_pAmbitTrace->trace("%s\n", text.c_str());
  const std::string log = Log("AmbitTrace-261115.Log");
  const std::string prefix = Prefix("13:02:41.007");
  EXPECT_EQ(511u, log.size());
  EXPECT_EQ(prefix + std::string(511 - prefix.size(), 'y'), log);
  EXPECT_NE('\n', log.back());
}

TEST_F(TraceLogTest, EchoCopiesTheLineToTheConsoleWhereItIsFormattedAgain) {
  AmbitTrace::m_level = 3;
  StdoutCapture capture(m_dir.Path() + "/stdout");
  g_pAmbitTrace->trace("rate 100%%%% sure\n");  // the line holds "100%%"
  const std::string console = capture.Finish();
  EXPECT_EQ(Prefix("13:02:41.007") + "rate 100%% sure\n",
            Log("AmbitTrace-261115.Log"));
  EXPECT_EQ(Prefix("13:02:41.007") + "rate 100% sure\n", console);
}

TEST_F(TraceLogTest, NoEchoWithoutBitOne) {
  StdoutCapture capture(m_dir.Path() + "/stdout");
  g_pAmbitTrace->trace("file only\n");
  EXPECT_EQ("", capture.Finish());
  EXPECT_NE("", Log("AmbitTrace-261115.Log"));
}

TEST_F(TraceLogTest, TraceConditionalWritesOnlyCategoriesInTheLevel) {
  AmbitTrace::m_level = 2 | 4;
  AmbitDebug::setTracingHelper(g_pAmbitTrace);
  traceImpl(4, 2, "event %s\n", "line");
  traceImpl(8, 2, "registry line\n");
  traceImpl(16, 64, "(Error) life cycle line\n");
  EXPECT_EQ(Prefix("13:02:41.007") + "event line\n", Log("AmbitTrace-261115.Log"));
}

TEST_F(TraceLogTest, TraceUnconditionalIgnoresTheLevel) {
  AmbitTrace::m_level = 0;
  struct Caller {
    static void Call(const char* format, ...) {
      va_list args;
      va_start(args, format);
      g_pAmbitTrace->traceUnconditional(2, format, args);
      va_end(args);
    }
  };
  Caller::Call("always %d\n", 1);
  EXPECT_EQ(Prefix("13:02:41.007") + "always 1\n", Log("AmbitTrace-261115.Log"));
}

TEST_F(TraceLogTest, ErrorLinesNeedBitTwo) {
  AmbitTrace::m_level = 0;
  AMBIT_TRACE_ERROR("(Error) hidden\n");
  EXPECT_TRUE(m_dir.List().empty());
  AmbitTrace::m_level = 2;
  AMBIT_TRACE_ERROR("(Error) shown %d\n", 1);
  EXPECT_EQ(Prefix("13:02:41.007") + "(Error) shown 1\n",
            Log("AmbitTrace-261115.Log"));
}

TEST_F(TraceLogTest, CurrentTimeFallsBackToTheFixedInstantWhenItCannotBeConverted) {
  SetClock(INT64_MAX, 0);
  tm t;
  AmbitTrace::GetCurTime(&t);
  EXPECT_EQ(101, t.tm_year);  // 2001-09-11 12:48:00 UTC
  EXPECT_EQ(8, t.tm_mon);
  EXPECT_EQ(11, t.tm_mday);
  EXPECT_EQ(12, t.tm_hour);
  EXPECT_EQ(48, t.tm_min);
  EXPECT_EQ(0, t.tm_sec);
  EXPECT_EQ(0, t.tm_gmtoff);
  ASSERT_NE(nullptr, t.tm_zone);
  EXPECT_EQ(1000212480, static_cast<long>(g_timeDayOfInfamy));
}

TEST_F(TraceLogTest, CurrentTimeIsTheLocalTimeOfTheClock) {
  setenv("TZ", "JST-9", 1);
  tzset();
  tm t;
  AmbitTrace::GetCurTime(&t);
  EXPECT_EQ(22, t.tm_hour);  // 13:02 UTC
  EXPECT_EQ(2, t.tm_min);
  EXPECT_EQ(9 * 3600, t.tm_gmtoff);
  EXPECT_STREQ("JST", t.tm_zone);
}

// Level control.

class TraceLevelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_level = AmbitTrace::m_level;
    m_hook = g_pambittracing;
  }
  void TearDown() override {
    AmbitTrace::m_level = m_level;
    g_pambittracing = m_hook;
  }

 private:
  unsigned long m_level;
  AmbitTracing* m_hook;
};

TEST_F(TraceLevelTest, LevelAbove256IsIgnored) {
  AmbitDebug::setAmbitTrace(2);
  AmbitDebug::setAmbitTrace(257);
  EXPECT_EQ(2u, AmbitTrace::m_level);
}

TEST_F(TraceLevelTest, Level256IsStoredAndRemovesTheHook) {
  RecordingHook client;
  AmbitDebug::setAmbitTrace(12);
  AmbitDebug::setTracingHelper(&client);
  AmbitDebug::setAmbitTrace(256);
  EXPECT_EQ(256u, AmbitTrace::m_level);
  EXPECT_EQ(nullptr, AmbitDebug::getTracingHelper());
}

TEST_F(TraceLevelTest, CategoryLevelInstallsTheLogAndALowerOneRemovesIt) {
  AmbitDebug::setAmbitTrace(2);
  AmbitDebug::setAmbitTrace(12);
  EXPECT_EQ(static_cast<AmbitTracing*>(g_pAmbitTrace),
            AmbitDebug::getTracingHelper());
  AmbitDebug::setAmbitTrace(3);
  EXPECT_EQ(3u, AmbitTrace::m_level);
  EXPECT_EQ(nullptr, AmbitDebug::getTracingHelper());
}

TEST_F(TraceLevelTest, NegativeLevelSwitchesEveryBitOn) {
  AmbitDebug::setAmbitTrace(2);
  AmbitDebug::setAmbitTrace(0xFFFFFFFFUL);
  EXPECT_EQ(0xFFFFFFFFUL, AmbitTrace::m_level);
  EXPECT_EQ(static_cast<AmbitTracing*>(g_pAmbitTrace),
            AmbitDebug::getTracingHelper());
}

TEST_F(TraceLevelTest, EachCategoryBitFromFourTo128InstallsTheLog) {
  for (unsigned long bit = 4; bit <= 128; bit <<= 1) {
    AmbitDebug::setAmbitTrace(2);
    AmbitDebug::setAmbitTrace(bit);
    EXPECT_EQ(static_cast<AmbitTracing*>(g_pAmbitTrace),
              AmbitDebug::getTracingHelper())
        << "level " << bit;
  }
  AmbitDebug::setAmbitTrace(2 | 1);
  EXPECT_EQ(nullptr, AmbitDebug::getTracingHelper());
}

TEST_F(TraceLevelTest, UnchangedLevelLeavesAClientHookInPlace) {
  RecordingHook client;
  AmbitDebug::setAmbitTrace(12);
  AmbitDebug::setTracingHelper(&client);
  AmbitDebug::setAmbitTrace(12);
  EXPECT_EQ(&client, AmbitDebug::getTracingHelper());
  AmbitDebug::setAmbitTrace(8);  // a change replaces the client's hook
  EXPECT_EQ(static_cast<AmbitTracing*>(g_pAmbitTrace),
            AmbitDebug::getTracingHelper());
}

TEST_F(TraceLevelTest, TraceImplForwardsToTheClientHookWithCategoryAndLevel) {
  RecordingHook client;
  AmbitDebug::setTracingHelper(&client);
  traceImpl(16, 64, "(Error) %s %d\n", "x", 3);
  AmbitDebug::setTracingHelper(nullptr);
  traceImpl(16, 2, "dropped\n");
  const auto lines = client.Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(16u, lines[0].category);
  EXPECT_EQ(64u, lines[0].level);
  EXPECT_EQ("(Error) x 3\n", lines[0].text);
}

// Construction from the environment, with a log object of the test's own.

class TraceConstructionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_level = AmbitTrace::m_level;
    m_hook = g_pambittracing;
    Save("AmbitTrace", &m_levelVar);
    Save("QKLogFilePath", &m_dirVar);
  }
  void TearDown() override {
    Restore("AmbitTrace", m_levelVar);
    Restore("QKLogFilePath", m_dirVar);
    AmbitTrace::m_level = m_level;
    g_pambittracing = m_hook;
    g_pAmbitTrace = &g_AmbitTrace;
  }

 private:
  static void Save(const char* name, std::optional<std::string>* out) {
    const char* v = std::getenv(name);
    if (v != nullptr) *out = v;
  }
  static void Restore(const char* name, const std::optional<std::string>& v) {
    if (v)
      setenv(name, v->c_str(), 1);
    else
      unsetenv(name);
  }
  unsigned long m_level;
  AmbitTracing* m_hook;
  std::optional<std::string> m_levelVar, m_dirVar;
};

TEST_F(TraceConstructionTest, DefaultsAreLevelTwoAndTheProductLogDirectory) {
  unsetenv("AmbitTrace");
  unsetenv("QKLogFilePath");
  g_pambittracing = nullptr;
  {
    AmbitTrace log;
    EXPECT_EQ(2u, AmbitTrace::m_level);
    EXPECT_STREQ("/cf/quenbydata/Logs/", log.dir);
    EXPECT_EQ(nullptr, log.file);
    EXPECT_EQ(0, log.day);
    EXPECT_EQ(0, log.minute);
    EXPECT_EQ(&log, g_pAmbitTrace);
    EXPECT_EQ(nullptr, g_pambittracing);
  }
  EXPECT_EQ(nullptr, g_pAmbitTrace);
}

TEST_F(TraceConstructionTest, EmptyVariablesCountAsUnset) {
  setenv("AmbitTrace", "", 1);
  setenv("QKLogFilePath", "", 1);
  AmbitTrace log;
  EXPECT_EQ(2u, AmbitTrace::m_level);
  EXPECT_STREQ("/cf/quenbydata/Logs/", log.dir);
}

TEST_F(TraceConstructionTest, LevelFiveInstallsTheHookUntilDestruction) {
  setenv("AmbitTrace", "5", 1);
  g_pambittracing = nullptr;
  {
    AmbitTrace log;
    EXPECT_EQ(5u, AmbitTrace::m_level);
    EXPECT_EQ(&log, g_pambittracing);
  }
  EXPECT_EQ(nullptr, g_pambittracing);
}

TEST_F(TraceConstructionTest, LevelThreeInstallsNoHookAndLeavesAClientHook) {
  setenv("AmbitTrace", "3", 1);
  RecordingHook client;
  AmbitDebug::setTracingHelper(&client);
  {
    AmbitTrace log;
    EXPECT_EQ(&client, g_pambittracing);
  }
  EXPECT_EQ(&client, g_pambittracing);
}

TEST_F(TraceConstructionTest, UnparsableLevelIsZero) {
  setenv("AmbitTrace", "abc", 1);
  AmbitTrace log;
  EXPECT_EQ(0u, AmbitTrace::m_level);
}

TEST_F(TraceConstructionTest, LevelIsParsedInBaseTen) {
  setenv("AmbitTrace", "0x10", 1);
  AmbitTrace log;
  EXPECT_EQ(0u, AmbitTrace::m_level);
}

TEST_F(TraceConstructionTest, LongDirectoryIsCutTo254AndItsPathTo253) {
  const std::string dir(300, 'd');
  setenv("QKLogFilePath", dir.c_str(), 1);
  AmbitTrace log;
  EXPECT_EQ(dir.substr(0, 254), std::string(log.dir));
  tm t = {};
  t.tm_year = 126;
  t.tm_mon = 10;
  t.tm_mday = 15;
  char path[kTracePathSize];
  TraceFilePath(log.dir, t, path);
  EXPECT_EQ(dir.substr(0, 253), std::string(path));
}

TEST(TraceFilePathTest, DefaultDirectoryGivesADoubledSlash) {
  tm t = {};
  t.tm_year = 126;
  t.tm_mon = 10;
  t.tm_mday = 15;
  char path[kTracePathSize];
  TraceFilePath("/cf/quenbydata/Logs/", t, path);
  EXPECT_STREQ("/cf/quenbydata/Logs//AmbitTrace-261115.Log", path);
  t.tm_year = 100;  // 2000
  t.tm_mon = 0;
  t.tm_mday = 2;
  TraceFilePath("/x", t, path);
  EXPECT_STREQ("/x/AmbitTrace-000102.Log", path);
}

// The two variables are read when the library loads: these tests re-run
// themselves in a fresh process with the variables set.

TEST(TraceLoadTimeTest, UnsetLevelWritesErrorLinesOnlyToTheFile) {
  if (IsRerunChild()) {
    EXPECT_EQ(2u, AmbitTrace::m_level);
    EXPECT_EQ(nullptr, g_pambittracing);
    EXPECT_STREQ(std::getenv("QKLogFilePath"), g_AmbitTrace.dir);
    AMBIT_TRACE_ERROR("(Error) error line\n");
    traceImpl(4, 2, "category line\n");
    return;
  }
  TempDir dir;
  const ChildResult r =
      RerunThisTest({{"AmbitTrace", std::nullopt}, {"QKLogFilePath", dir.Path()}});
  ASSERT_EQ(0, r.exitCode) << r.output;
  const auto files = dir.List();
  ASSERT_EQ(1u, files.size());
  const std::string log = ReadFile(dir.Path() + "/" + files[0]);
  EXPECT_NE(std::string::npos, log.find(") (Error) error line\n"));
  EXPECT_EQ(std::string::npos, log.find("category line"));
  EXPECT_EQ(std::string::npos, r.output.find("error line"));  // no echo
}

TEST(TraceLoadTimeTest, LevelFiveTracesEventsWithEchoAndDropsRegistryLines) {
  if (IsRerunChild()) {
    EXPECT_EQ(5u, AmbitTrace::m_level);
    EXPECT_EQ(static_cast<AmbitTracing*>(&g_AmbitTrace), g_pambittracing);
    traceImpl(4, 2, "event category line\n");
    traceImpl(8, 2, "registry category line\n");
    AMBIT_TRACE_ERROR("(Error) not at this level\n");
    return;
  }
  TempDir dir;
  const ChildResult r =
      RerunThisTest({{"AmbitTrace", std::string("5")}, {"QKLogFilePath", dir.Path()}});
  ASSERT_EQ(0, r.exitCode) << r.output;
  const auto files = dir.List();
  ASSERT_EQ(1u, files.size());
  const std::string log = ReadFile(dir.Path() + "/" + files[0]);
  EXPECT_NE(std::string::npos, log.find(") event category line\n"));
  EXPECT_EQ(std::string::npos, log.find("registry category line"));
  EXPECT_EQ(std::string::npos, log.find("not at this level"));
  EXPECT_NE(std::string::npos, r.output.find(") event category line\n"));
}

TEST(TraceLoadTimeTest, UnparsableLevelWritesNothing) {
  if (IsRerunChild()) {
    EXPECT_EQ(0u, AmbitTrace::m_level);
    EXPECT_EQ(nullptr, g_pambittracing);
    AMBIT_TRACE_ERROR("(Error) error line\n");
    return;
  }
  TempDir dir;
  const ChildResult r =
      RerunThisTest({{"AmbitTrace", std::string("abc")}, {"QKLogFilePath", dir.Path()}});
  ASSERT_EQ(0, r.exitCode) << r.output;
  EXPECT_TRUE(dir.List().empty());
}

TEST(TraceLoadTimeTest, UnsetDirectoryIsTheProductLogDirectory) {
  if (IsRerunChild()) {
    EXPECT_STREQ("/cf/quenbydata/Logs/", g_AmbitTrace.dir);
    return;
  }
  const ChildResult r = RerunThisTest({{"QKLogFilePath", std::nullopt}});
  EXPECT_EQ(0, r.exitCode) << r.output;
}

}  // namespace
