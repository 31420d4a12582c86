// QKException, throwQKException and its log line, and the small error
// utilities of CPortable.
#include "ambit/exception.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <regex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "ambit/portable.h"
#include "ambit/trace.h"
#include "gtest/gtest.h"
#include "support/child_process.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/temp_dir.h"

namespace {

// ---------------------------------------------------------------------------
// The exception object itself.

struct WhereCase {
  std::string file;  // file name given to the constructor
  long line;
  std::string where;  // the expected text of `where`
};

::testing::AssertionResult WhereIs(const WhereCase& c) {
  const QKException e(QK_E_NAME_MAP, c.file.c_str(), c.line);
  if (e.code != QK_E_NAME_MAP)
    return ::testing::AssertionFailure()
           << "file of " << c.file.size() << " chars: code " << std::hex
           << e.code << ", expected " << QK_E_NAME_MAP;
  // where must be NUL-terminated inside its 272 bytes.
  const void* nul = std::memchr(e.where, '\0', sizeof e.where);
  if (nul == nullptr)
    return ::testing::AssertionFailure()
           << "file of " << c.file.size() << " chars: where has no NUL";
  const std::string actual(e.where);
  if (actual != c.where)
    return ::testing::AssertionFailure()
           << "file of " << c.file.size() << " chars, line " << c.line
           << ":\n  expected where (" << c.where.size() << ") \"" << c.where
           << "\"\n  actual where   (" << actual.size() << ") \"" << actual
           << "\"";
  return ::testing::AssertionSuccess();
}

TEST(QKExceptionTest, WhereJoinsFileAndLineWithADot) {
  const std::vector<WhereCase> cases = {
      {"x", 5, "x.5"},
      {"src/names/name_map.cpp", 1234, "src/names/name_map.cpp.1234"},
      {"a.cpp", 0, "a.cpp.0"},
      {"a.cpp", 2147483647, "a.cpp.2147483647"},
      {"", 7, ".7"},
  };
  for (const auto& c : cases) EXPECT_TRUE(WhereIs(c));
}

TEST(QKExceptionTest, LongFileNamesAreCutTo269Characters) {
  const std::string f267(267, 'f');
  const std::string f268(268, 'g');
  const std::string f269(269, 'h');
  const std::string f300(300, 'i');
  const std::vector<WhereCase> cases = {
      // 267 + ".5" is exactly 269: everything fits.
      {f267, 5, f267 + ".5"},
      // One more character and the line number is the first to go.
      {f268, 5, f268 + "."},
      {f269, 5, f269},
      {f300, 5, f300.substr(0, 269)},
      {f300, 123456, f300.substr(0, 269)},
  };
  for (const auto& c : cases) EXPECT_TRUE(WhereIs(c));
}

TEST(QKExceptionTest, A300CharacterFileNameLeavesA269CharacterPrefixAndANul) {
  std::string file;
  for (int i = 0; i < 300; ++i) file += static_cast<char>('a' + i % 26);
  const QKException e(QK_E_SHARED_MEMORY, file.c_str(), 42);
  EXPECT_EQ(0, std::memcmp(e.where, file.data(), 269))
      << "where does not start with the first 269 characters";
  EXPECT_EQ('\0', e.where[269]);
  EXPECT_EQ(269u, std::strlen(e.where));
  EXPECT_EQ(QK_E_SHARED_MEMORY, e.code);
}

TEST(QKExceptionTest, NullFileGivesEmptyWhereAndKeepsTheCode) {
  const long codes[] = {QK_E_OUT_OF_MEMORY, QK_E_QOS_SETSOCKOPT, 0, -1, 17};
  for (long code : codes) {
    const QKException e(code, nullptr, 99);
    EXPECT_EQ(code, e.code);
    EXPECT_STREQ("", e.where) << "code " << std::hex << code;
  }
}

TEST(QKExceptionTest, IsARootClassWithAVirtualDestructorAndTwoPublicFields) {
  static_assert(std::has_virtual_destructor<QKException>::value,
                "the destructor is the one virtual operation");
  static_assert(!std::is_base_of<std::exception, QKException>::value,
                "QKException has no base class");
  static_assert(sizeof(QKException::code) == 4, "the code is 32 bits");
  // i386 layout: vtable pointer, the 32-bit code, then where[272].
  EXPECT_EQ(4u + 4u + 272u, sizeof(QKException));
  const QKException e(1, "f", 1);
  const char* base = reinterpret_cast<const char*>(&e);
  EXPECT_EQ(4, reinterpret_cast<const char*>(&e.code) - base);
  EXPECT_EQ(8, reinterpret_cast<const char*>(e.where) - base);
  EXPECT_EQ(272u, sizeof e.where);
}

// The codes are fixed numbers shared with the other platform's callers.
struct CodeCase {
  const char* name;
  long actual;
  unsigned long expected;
};

::testing::AssertionResult CodeIs(const CodeCase& c) {
  if (static_cast<unsigned long>(c.actual) == c.expected)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << c.name << ": expected 0x" << std::hex << c.expected << ", actual 0x"
         << static_cast<unsigned long>(c.actual);
}

TEST(QKExceptionTest, ErrorCodesHaveTheirFixedValues) {
  const CodeCase cases[] = {
      {"QK_E_OUT_OF_MEMORY", QK_E_OUT_OF_MEMORY, 0xC1210E10UL},
      {"QK_E_CREATE_NAMED_OBJECT", QK_E_CREATE_NAMED_OBJECT, 0xC1210E13UL},
      {"QK_E_OPEN_NAMED_OBJECT", QK_E_OPEN_NAMED_OBJECT, 0xC1210E14UL},
      {"QK_E_THREAD_START", QK_E_THREAD_START, 0xC1210E15UL},
      {"QK_E_CREATE_EVENT", QK_E_CREATE_EVENT, 0xC1210E16UL},
      {"QK_E_OPEN_EVENT", QK_E_OPEN_EVENT, 0xC1210E17UL},
      {"QK_E_NAME_MAP", QK_E_NAME_MAP, 0xC1210E19UL},
      {"QK_E_SHARED_MEMORY", QK_E_SHARED_MEMORY, 0xC1210E1CUL},
      {"QK_E_HOST_NOT_FOUND", QK_E_HOST_NOT_FOUND, 0xC1210E1EUL},
      {"QK_E_MUTEX_NOT_OWNER", QK_E_MUTEX_NOT_OWNER, 0xC1210E20UL},
      {"QK_E_QOS_NO_IMPL", QK_E_QOS_NO_IMPL, 0xC1210E21UL},
      {"QK_E_QOS_SETSOCKOPT", QK_E_QOS_SETSOCKOPT, 0xC1210E29UL},
      {"QK_WAIT_SIGNALLED", static_cast<long>(QK_WAIT_SIGNALLED), 0x0UL},
      {"QK_WAIT_MULTI_UNKNOWN", static_cast<long>(QK_WAIT_MULTI_UNKNOWN),
       0xA0000000UL},
      {"QK_WAIT_ABANDONED", static_cast<long>(QK_WAIT_ABANDONED), 0xC0000000UL},
      {"QK_WAIT_FAILED", static_cast<long>(QK_WAIT_FAILED), 0xD0000000UL},
      {"QK_WAIT_TIMEOUT", static_cast<long>(QK_WAIT_TIMEOUT), 0xE0000000UL},
      {"QK_EVENT_RESET", static_cast<long>(QK_EVENT_RESET), 0xF0000000UL},
      {"QK_INFINITE", static_cast<long>(QK_INFINITE), 0xFFFFFFFFUL},
  };
  for (const auto& c : cases) EXPECT_TRUE(CodeIs(c));
  // The error codes are stored in a signed 32-bit field, so they are negative.
  EXPECT_LT(QK_E_OUT_OF_MEMORY, 0);
}

// ---------------------------------------------------------------------------
// throwQKException and the line it writes to the log.

// Points the library's log object at a fresh directory for one test and
// puts everything back afterwards.
class ThrowLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(m_dir.Path().empty()) << "no temporary directory";
    m_savedLevel = AmbitTrace::m_level;
    m_savedTrace = g_pAmbitTrace;
    std::memcpy(m_savedDir, g_AmbitTrace.dir, sizeof m_savedDir);
    Detach();
    ASSERT_LT(m_dir.Path().size(), sizeof g_AmbitTrace.dir);
    std::strcpy(g_AmbitTrace.dir, m_dir.Path().c_str());
    g_pAmbitTrace = &g_AmbitTrace;
  }

  void TearDown() override {
    Detach();
    std::memcpy(g_AmbitTrace.dir, m_savedDir, sizeof m_savedDir);
    AmbitTrace::m_level = m_savedLevel;
    g_pAmbitTrace = m_savedTrace;
  }

  // Closes the log file so that the next line opens one in `dir`.
  static void Detach() {
    if (g_AmbitTrace.file != nullptr) std::fclose(g_AmbitTrace.file);
    g_AmbitTrace.file = nullptr;
    g_AmbitTrace.day = 0;
    g_AmbitTrace.minute = 0;
  }

  // The lines of every file in the directory, each with its "\n".
  std::vector<std::string> LogLines() {
    if (g_AmbitTrace.file != nullptr) std::fflush(g_AmbitTrace.file);
    std::vector<std::string> lines;
    for (const auto& name : m_dir.List()) {
      const std::string text = ReadFile(m_dir.Path() + "/" + name);
      size_t start = 0;
      while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, end - start));
        start = end;
      }
    }
    return lines;
  }

  TempDir m_dir;

 private:
  unsigned long m_savedLevel = 0;
  AmbitTrace* m_savedTrace = nullptr;
  char m_savedDir[sizeof g_AmbitTrace.dir] = {};
};

// Runs throwQKException and reports what it threw; false when it threw
// nothing or something else.
bool ThrowAndCatch(long code, const char* file, unsigned long line,
                   QKException* caught) {
  try {
    CPortable::throwQKException(code, file, line);
  } catch (const QKException& e) {
    *caught = e;
    return true;
  } catch (...) {
    return false;
  }
  return false;
}

// One log line: "HH:MM:SS.mmm (  pid:  tid) " and then `text`, written by
// this process and thread.
::testing::AssertionResult IsLogLine(const std::string& line,
                                     const std::string& text) {
  static const std::regex prefix(
      "^([0-9]{2}):([0-9]{2}):([0-9]{2})\\.[0-9]{3} \\( *([0-9]+): *([0-9]+)\\) ");
  std::smatch m;
  if (!std::regex_search(line, m, prefix))
    return ::testing::AssertionFailure() << "no line prefix in \"" << line << "\"";
  const std::string pid = std::to_string(::getpid());
  const std::string tid = std::to_string(CPortable::GetCurrentThreadId());
  // %5d: numbers shorter than five digits are padded on the left.
  const std::string expectedPrefix =
      line.substr(0, 13) + "(" + std::string(pid.size() < 5 ? 5 - pid.size() : 0, ' ') +
      pid + ":" + std::string(tid.size() < 5 ? 5 - tid.size() : 0, ' ') + tid + ") ";
  const std::string expected = expectedPrefix + text;
  if (line != expected)
    return ::testing::AssertionFailure() << "\n  expected \"" << expected
                                         << "\"\n  actual   \"" << line << "\"";
  if (std::stoi(m[1]) > 23 || std::stoi(m[2]) > 59 || std::stoi(m[3]) > 60)
    return ::testing::AssertionFailure() << "not a time of day: \"" << line << "\"";
  return ::testing::AssertionSuccess();
}

TEST_F(ThrowLogTest, ThrowAtLevelTwoWritesOneLineAndThrowsWithDottedWhere) {
  AmbitTrace::m_level = 2;
  QKException caught(0, nullptr, 0);
  ASSERT_TRUE(ThrowAndCatch(static_cast<long>(0xC1210E10UL), "x", 5, &caught));
  EXPECT_EQ(0xC1210E10UL, static_cast<unsigned long>(caught.code));
  EXPECT_STREQ("x.5", caught.where);

  const std::vector<std::string> lines = LogLines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(IsLogLine(lines[0], "(Error) Throwing exception 0xC1210E10 at x#5\n"));
}

TEST_F(ThrowLogTest, TheLogFileIsNamedByTodaysLocalDate) {
  AmbitTrace::m_level = 2;
  tm before, after;
  AmbitTrace::GetCurTime(&before);
  QKException caught(0, nullptr, 0);
  ASSERT_TRUE(ThrowAndCatch(QK_E_NAME_MAP, "x", 5, &caught));
  AmbitTrace::GetCurTime(&after);
  char name1[32], name2[32];
  std::snprintf(name1, sizeof name1, "AmbitTrace-%02d%02d%02d.Log",
                before.tm_year % 100, before.tm_mon + 1, before.tm_mday);
  std::snprintf(name2, sizeof name2, "AmbitTrace-%02d%02d%02d.Log",
                after.tm_year % 100, after.tm_mon + 1, after.tm_mday);
  const std::vector<std::string> names = m_dir.List();
  ASSERT_EQ(1u, names.size());
  EXPECT_TRUE(names[0] == name1 || names[0] == name2)
      << "file " << names[0] << ", expected " << name1;
}

struct ThrowCase {
  unsigned long code;
  const char* file;
  unsigned long line;
  const char* logText;  // after the prefix
  const char* where;
};

TEST_F(ThrowLogTest, LogLineUsesHashAndExceptionUsesDot) {
  const ThrowCase cases[] = {
      {0xC1210E10UL, "x", 5,
       "(Error) Throwing exception 0xC1210E10 at x#5\n", "x.5"},
      {0xC1210E29UL, "qos_impl.cpp", 1234,
       "(Error) Throwing exception 0xC1210E29 at qos_impl.cpp#1234\n",
       "qos_impl.cpp.1234"},
      // Eight hex digits, upper case, zero-padded.
      {0x1AUL, "a/b.cpp", 0, "(Error) Throwing exception 0x0000001A at a/b.cpp#0\n",
       "a/b.cpp.0"},
      {0xFFFFFFFFUL, "f.cpp", 2147483647,
       "(Error) Throwing exception 0xFFFFFFFF at f.cpp#2147483647\n",
       "f.cpp.2147483647"},
  };
  AmbitTrace::m_level = 2;
  for (const auto& c : cases) {
    QKException caught(0, nullptr, 0);
    ASSERT_TRUE(ThrowAndCatch(static_cast<long>(c.code), c.file, c.line, &caught))
        << c.logText;
    EXPECT_EQ(c.code, static_cast<unsigned long>(caught.code));
    EXPECT_STREQ(c.where, caught.where);
  }
  const std::vector<std::string> lines = LogLines();
  ASSERT_EQ(sizeof cases / sizeof cases[0], lines.size());
  for (size_t i = 0; i < lines.size(); ++i)
    EXPECT_TRUE(IsLogLine(lines[i], cases[i].logText));
}

TEST_F(ThrowLogTest, OnlyTheErrorBitOfTheLevelWritesTheLine) {
  struct LevelCase {
    unsigned long level;
    bool writes;
  };
  // Bit 1 (echo) is left out where the line would be written, so that
  // nothing is printed to the test's output.
  const LevelCase cases[] = {{0, false},  {4, false},  {0x1FD, false},
                             {1, false},  {2, true},   {6, true},
                             {0xFE, true}, {0x102, true}};
  for (const auto& c : cases) {
    AmbitTrace::m_level = c.level;
    const size_t before = LogLines().size();
    QKException caught(0, nullptr, 0);
    ASSERT_TRUE(ThrowAndCatch(QK_E_OPEN_EVENT, "level.cpp", c.level, &caught))
        << "level " << c.level;
    EXPECT_EQ(QK_E_OPEN_EVENT, caught.code);
    EXPECT_EQ("level.cpp." + std::to_string(c.level), std::string(caught.where));
    EXPECT_EQ(c.writes ? before + 1 : before, LogLines().size())
        << "level 0x" << std::hex << c.level;
  }
}

TEST_F(ThrowLogTest, LevelZeroWritesNothingAndStillThrows) {
  AmbitTrace::m_level = 0;
  QKException caught(0, nullptr, 0);
  ASSERT_TRUE(ThrowAndCatch(static_cast<long>(0xC1210E10UL), "x", 5, &caught));
  EXPECT_EQ(0xC1210E10UL, static_cast<unsigned long>(caught.code));
  EXPECT_STREQ("x.5", caught.where);
  EXPECT_TRUE(m_dir.List().empty()) << "a log file was created";
  EXPECT_EQ(nullptr, g_AmbitTrace.file);
}

TEST_F(ThrowLogTest, WithoutATraceObjectNothingIsWrittenAndItStillThrows) {
  AmbitTrace::m_level = 2;
  g_pAmbitTrace = nullptr;  // TearDown puts it back
  QKException caught(0, nullptr, 0);
  ASSERT_TRUE(ThrowAndCatch(static_cast<long>(0xC1210E10UL), "x", 5, &caught));
  EXPECT_EQ(0xC1210E10UL, static_cast<unsigned long>(caught.code));
  EXPECT_STREQ("x.5", caught.where);
  EXPECT_TRUE(m_dir.List().empty()) << "a log file was created";
}

TEST_F(ThrowLogTest, ThrowWithNullFileGivesEmptyWhere) {
  AmbitTrace::m_level = 0;
  QKException caught(0, "not", 1);
  ASSERT_TRUE(ThrowAndCatch(QK_E_THREAD_START, nullptr, 77, &caught));
  EXPECT_EQ(QK_E_THREAD_START, caught.code);
  EXPECT_STREQ("", caught.where);
}

TEST_F(ThrowLogTest, ThrowWithALongFileNameCutsWhereLikeTheConstructor) {
  AmbitTrace::m_level = 0;
  const std::string file(300, 'L');
  QKException caught(0, nullptr, 0);
  ASSERT_TRUE(ThrowAndCatch(QK_E_CREATE_EVENT, file.c_str(), 5, &caught));
  EXPECT_EQ(file.substr(0, 269), std::string(caught.where));
}

// ---------------------------------------------------------------------------
// GetLastError, CPDbgBreak, getBuildVersion.

TEST(GetLastErrorTest, ReturnsErrnoWithoutClearingIt) {
  const int values[] = {0, EPERM, ENOENT, EINTR, EACCES, EEXIST, ETIMEDOUT,
                        EOWNERDEAD};
  for (int v : values) {
    errno = v;
    const long got = CPortable::GetLastError();
    const int after = errno;
    EXPECT_EQ(v, got);
    EXPECT_EQ(v, after) << "errno changed by GetLastError";
  }
}

TEST(GetLastErrorTest, EachThreadSeesItsOwnErrno) {
  errno = EACCES;
  Handshake set, checked;
  long workerValue = -1;
  std::thread worker([&] {
    errno = ENOENT;
    set.Signal();
    checked.WaitFor(5000);
    workerValue = CPortable::GetLastError();
  });
  ASSERT_TRUE(set.WaitFor(5000));
  EXPECT_EQ(EACCES, CPortable::GetLastError());
  checked.Signal();
  worker.join();  // bounded: the worker waits at most 5 s
  EXPECT_EQ(ENOENT, workerValue);
}

TEST(GetLastErrorTest, ReportsTheErrnoOfAFailedCall) {
  errno = 0;
  ASSERT_EQ(-1, ::close(-1));
  EXPECT_EQ(EBADF, CPortable::GetLastError());
}

TEST(CPDbgBreakTest, ReturnsWithoutStoppingTheProcess) {
  // In a child, so that a break that traps shows as an exit code instead of
  // ending the test program.
  ForkedChild child([] {
    errno = ERANGE;
    CPortable::CPDbgBreak();
    return errno == ERANGE ? 0 : 1;
  });
  ASSERT_TRUE(child.Started());
  EXPECT_EQ(0, child.Join(5000));
}

TEST(BuildVersionTest, IsTheFixedDottedText) {
  EXPECT_EQ("19.43.1700.0", CPortable::getBuildVersion());
}

TEST(BuildVersionTest, EachCallReturnsAFreshString) {
  std::string first = CPortable::getBuildVersion();
  first[0] = 'X';
  EXPECT_EQ("19.43.1700.0", CPortable::getBuildVersion());
}

}  // namespace
