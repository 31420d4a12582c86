#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ambit/portable.h"
#include "ambit/trace.h"
#include "gtest/gtest.h"
#include "portable/process_facts.h"
#include "support/child_process.h"
#include "support/forked_child.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

constexpr unsigned long long kEpochOffset = 116444736000000000ULL;

unsigned long long FileTimeOfSeconds(unsigned long long seconds) {
  return seconds * 10000000ULL + kEpochOffset;
}

// Field 22 of /proc/<pid>/stat, read the robust way (after the last ')').
long long StartTicksOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::istringstream rest(text.substr(text.rfind(')') + 2));
  std::string field;
  for (int i = 3; i <= 22; ++i) rest >> field;
  return std::stoll(field);
}

TEST(ProcessStartTimeTest, SameProcessGivesTheSameValueBetweenBootAndNow) {
  const unsigned long long first = CPortable::GetProcessStartTime(getpid());
  const unsigned long long second = CPortable::GetProcessStartTime(getpid());
  EXPECT_EQ(first, second);
  unsigned long long now = 0;
  CPortable::GetCurrentULLFileTimeUTC(&now);
  ASSERT_NE(0u, g_dwBootTime);
  EXPECT_GE(first, FileTimeOfSeconds(g_dwBootTime));
  EXPECT_LE(first, now);
  EXPECT_EQ(0u, first % 10000000ULL);  // whole seconds
}

TEST(ProcessStartTimeTest, ValueIsBootTimePlusStartTicksOverTheTickRate) {
  const long long ticks = StartTicksOf(getpid());
  EXPECT_EQ(FileTimeOfSeconds(g_dwBootTime + static_cast<unsigned long>(ticks / g_ullHertz)),
            CPortable::GetProcessStartTime(getpid()));
}

TEST(ProcessStartTimeTest, WithoutAClockTickEntryTicksCountAt42PerSecond) {
  const unsigned long long saved = g_ullHertz;
  const unsigned long auxv[] = {6, 4096, 25, 1234, 0, 0};  // no type 17
  g_ullHertz = ClockTicksPerSecond(auxv);
  const long long ticks = StartTicksOf(getpid());
  const unsigned long long value = CPortable::GetProcessStartTime(getpid());
  g_ullHertz = saved;
  EXPECT_EQ(42u, ClockTicksPerSecond(auxv));
  EXPECT_EQ(FileTimeOfSeconds(g_dwBootTime + static_cast<unsigned long>(ticks / 42)), value);
}

TEST(ProcessStartTimeTest, ProcessStartedLaterHasALaterOrEqualStartTime) {
  const unsigned long long mine = CPortable::GetProcessStartTime(getpid());
  ForkedChild child([] {
    ::sleep(2);
    return 0;
  });
  ASSERT_TRUE(child.Started());
  EXPECT_GE(CPortable::GetProcessStartTime(child.Pid()), mine);
  child.Kill();
  child.Join(5000);
}

TEST(ProcessStartTimeTest, MissingProcessGivesTheBootTimeAndOneErrorLine) {
  LogCapture log;
  const unsigned long missing = 0x7FFFFFF0;  // above any pid_max
  EXPECT_EQ(FileTimeOfSeconds(g_dwBootTime), CPortable::GetProcessStartTime(missing));
  EXPECT_EQ(std::vector<std::string>{
                "(Error) CPortable::GetProcessStartTime, can't open /proc/2147483632/stat"},
            log.Lines());
}

// The boot time is unsigned 32-bit seconds and so reaches 2106; the start
// time built on it must not wrap at 2038 to 1901 or 1970.
TEST(ProcessStartTimeTest, StartTimesAfter2038AreNotWrapped) {
  const unsigned long saved = g_dwBootTime;
  const unsigned long missing = 0x7FFFFFF0;  // above any pid_max: 0 ticks
  std::vector<unsigned long long> got;
  for (unsigned long boot : {2147483647UL, 2147483648UL, 2200000000UL, 4000000000UL}) {
    g_dwBootTime = boot;
    got.push_back(CPortable::GetProcessStartTime(missing));
  }
  g_dwBootTime = saved;
  EXPECT_EQ(FileTimeOfSeconds(2147483647ULL), got[0]);
  EXPECT_EQ(FileTimeOfSeconds(2147483648ULL), got[1]);  // 2038-01-19 03:14:08
  EXPECT_EQ(FileTimeOfSeconds(2200000000ULL), got[2]);  // 2039-09-18
  EXPECT_EQ(FileTimeOfSeconds(4000000000ULL), got[3]);  // 2096-10-02
}

TEST(ClockTickTest, AuxiliaryVectorEntry17GivesTheRate) {
  const unsigned long auxv[] = {33, 0xdead, 17, 250, 6, 4096, 0, 0};
  EXPECT_EQ(250u, ClockTicksPerSecond(auxv));
  const unsigned long empty[] = {0, 0};
  EXPECT_EQ(42u, ClockTicksPerSecond(empty));
}

TEST(ClockTickTest, VectorAfterTheEnvironmentIsFoundByTheWalk) {
  // A synthetic block as the kernel lays it out: environment, null, pairs.
  static char a[] = "A=1", b[] = "B=2";
  unsigned long block[16] = {};
  char** env = reinterpret_cast<char**>(block);
  env[0] = a;
  env[1] = b;
  env[2] = nullptr;
  unsigned long* pairs = block + 3;
  pairs[0] = 17;
  pairs[1] = 1000;
  pairs[2] = 0;
  EXPECT_EQ(pairs, AuxiliaryVectorAfter(env));
  EXPECT_EQ(1000u, ClockTicksPerSecond(AuxiliaryVectorAfter(env)));
}

TEST(ClockTickTest, LoadTimeRateIsTheKernelsRate) {
  EXPECT_EQ(static_cast<unsigned long long>(sysconf(_SC_CLK_TCK)), g_ullHertz);
}

TEST(BootTimeTest, LoadTimeBootTimeIsTheKernelsBtime) {
  std::ifstream in("/proc/stat");
  std::string word;
  unsigned long btime = 0;
  while (in >> word)
    if (word == "btime") in >> btime;
  ASSERT_NE(0u, btime);
  EXPECT_EQ(btime, g_dwBootTime);
  EXPECT_EQ(btime, getBootTime());
}

TEST(BootTimeTest, UnreadableFileGivesZeroAndTwoErrorLines) {
  LogCapture log;
  EXPECT_EQ(0u, BootTimeFromStatFile((log.Dir() + "/missing").c_str()));
  EXPECT_EQ((std::vector<std::string>{"(Error) getBootTime, can't open /proc/stat",
                                      "(Error) getBootTime failed"}),
            log.Lines());
}

TEST(BootTimeTest, OnlyTheFirst2048BytesAreSearched) {
  TempDir dir;
  const std::string near = dir.Path() + "/near", far = dir.Path() + "/far";
  std::ofstream(near) << "cpu 1 2 3\nbtime 1700000000\nprocesses 5\n";
  std::ofstream(far) << std::string(2048, 'x') << "\nbtime 1700000000\n";
  EXPECT_EQ(1700000000u, BootTimeFromStatFile(near.c_str()));
  LogCapture log;
  EXPECT_EQ(0u, BootTimeFromStatFile(far.c_str()));
  EXPECT_EQ(std::vector<std::string>{"(Error) getBootTime failed"}, log.Lines());
}

TEST(BootTimeTest, ABootTimeAfter2038IsReadWhole) {
  TempDir dir;
  const std::string late = dir.Path() + "/late", last = dir.Path() + "/last";
  std::ofstream(late) << "cpu 1 2 3\nbtime 2200000000\nprocesses 5\n";
  std::ofstream(last) << "btime 4294967295\n";
  EXPECT_EQ(2200000000u, BootTimeFromStatFile(late.c_str()));
  EXPECT_EQ(4294967295u, BootTimeFromStatFile(last.c_str()));
}

TEST(BootTimeTest, ValueWithoutANewlineIsNotRead) {
  TempDir dir;
  const std::string path = dir.Path() + "/stat";
  std::ofstream(path) << "btime 1700000000";
  LogCapture log;
  EXPECT_EQ(0u, BootTimeFromStatFile(path.c_str()));
}

TEST(ExeNameTest, IsTheBaseNameOfTheExecutable) {
  char link[4096] = {};
  ASSERT_GT(readlink("/proc/self/exe", link, sizeof link - 1), 0);
  const std::string full = link;
  EXPECT_EQ(full.substr(full.rfind('/') + 1), CPortable::getExeName());
  EXPECT_EQ(CPortable::getExeName(), CPortable::getExeName());
}

TEST(ProgramNameTest, CurrentProcessIsNamedAsPsNamesIt) {
  std::ifstream in("/proc/self/comm");
  std::string comm;
  std::getline(in, comm);
  EXPECT_EQ(comm, getProgramName(getpid()));
}

TEST(ProgramNameTest, MissingProcessGivesAnEmptyName) {
  EXPECT_EQ("", getProgramName(0x7FFFFFF0));
}

TEST(RunSystemCommandTest, GrowingOutputRunsTheCommandUntilItFits) {
  // 300 bytes of output from 128 bytes: buffers of 128, 192, 288 and 432,
  // so the command runs four times.
  TempDir dir;
  const std::string count = dir.Path() + "/runs";
  const std::string command =
      "echo run >> " + count + "; head -c 300 /dev/zero | tr '\\0' 'z'";
  char* output = runSystemCommand(command, 128);
  ASSERT_NE(nullptr, output);
  EXPECT_EQ(std::string(300, 'z'), std::string(output));
  delete[] output;
  EXPECT_EQ("run\nrun\nrun\nrun\n", ReadFile(count));
}

TEST(RunSystemCommandTest, OutputOneShortOfTheBufferFitsAtOnce) {
  char* output = runSystemCommand("printf abc", 4);  // 3 bytes in a 4-byte buffer
  ASSERT_NE(nullptr, output);
  EXPECT_STREQ("abc", output);
  delete[] output;
}

TEST(RunSystemCommandTest, OutputThatNeverFitsGivesUpAfterTenRuns) {
  TempDir dir;
  const std::string count = dir.Path() + "/runs";
  char* output = runSystemCommand(
      "echo run >> " + count + "; head -c 100000 /dev/zero", 2);
  EXPECT_EQ(nullptr, output);
  const std::string runs = ReadFile(count);
  EXPECT_EQ(10u, static_cast<size_t>(std::count(runs.begin(), runs.end(), '\n')));
}

TEST(RunSystemCommandTest, EmptyOutputIsAnEmptyText) {
  char* output = runSystemCommand("true", 16);
  ASSERT_NE(nullptr, output);
  EXPECT_STREQ("", output);
  delete[] output;
}

}  // namespace
