// The machine-wide registry of named segments: its bytes as other programs
// read them, initialisation and the creation-time file, acquire and
// release with their trace lines, crash cleanup, parked entries, the
// limits, and the faults a registry must survive. Every test runs in a
// private IPC namespace with an empty /tmp, so it starts without a
// registry; children that stand for "another process" are forked before
// the test process touches the library.
#include "shm/share_mem_map.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "ambit/exception.h"
#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "shm/planted_file.h"
#include "shm/registry_view.h"
#include "support/child_process.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/log_capture.h"
#include "support/recording_hook.h"

namespace {

using namespace shm_test;

constexpr unsigned long kRegistryCategory = 8;
constexpr unsigned long kErrorCategory = 4;
constexpr int kSkipped = 77;  // a child that could not drop its privileges

std::string OwnComm() {
  std::string comm = ReadFile("/proc/self/comm");
  if (!comm.empty() && comm.back() == '\n') comm.pop_back();
  return comm;
}

std::string Fmt(const char* format, long a, long b = 0, long c = 0) {
  char buffer[512];
  std::snprintf(buffer, sizeof buffer, format, a, b, c);
  return buffer;
}

void* Acquire(const std::string& name, unsigned long size, int* created = nullptr) {
  int dummy = 0;
  return get_shareMemMap()->acquireSharedMemory(name, size, created ? created : &dummy);
}

void Release(const std::string& name) { get_shareMemMap()->releaseSharedMemory(name); }

// Drops this (child) process to the "nobody" user.
bool BecomeNobody() {
  return ::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0;
}

bool MarkedForRemoval(int id) {
  shmid_ds ds;
  if (::shmctl(id, IPC_STAT, &ds) != 0) return true;
  return (ds.shm_perm.mode & SHM_DEST) != 0;
}

// --- The registry's bytes -------------------------------------------------------

TEST(RegistryLayoutTest, AnotherProcessReadsTheHeaderAndEntriesAtTheirOffsets) {
  Handshake ready, done;
  ForkedChild user([&] {
    int created = 0;
    if (Acquire("Alpha", 1000, &created) == nullptr || created != 1) return 2;
    if (Acquire("beta", 8192, &created) == nullptr || created != 1) return 3;
    ready.Signal();
    return done.WaitFor(10000) ? 0 : 4;
  });
  ASSERT_TRUE(user.Started());
  ASSERT_TRUE(ready.WaitFor(10000));
  const uint32_t pid = static_cast<uint32_t>(user.Pid());

  RegistryView reg;
  ASSERT_TRUE(reg.Attached());
  shmid_ds ds;
  ASSERT_EQ(0, ::shmctl(reg.Id(), IPC_STAT, &ds));
  EXPECT_EQ(kRegistryBytes, ds.shm_segsz);
  EXPECT_EQ(0666u, ds.shm_perm.mode & 0777u);

  EXPECT_EQ(1u, reg.Initialized());
  EXPECT_EQ(0u, reg.BusyPid());
  EXPECT_EQ(OwnComm().substr(0, 15), reg.CreatorProgram());
  EXPECT_EQ(0, reg.Bytes()[23]) << "the program name is cut to 15 characters";
  EXPECT_TRUE(std::regex_match(reg.CreateTime(),
                               std::regex(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3})")))
      << reg.CreateTime();
  EXPECT_EQ(0, reg.Bytes()[47]);
  const std::string file = ReadFile(kTimeFile);
  ASSERT_EQ(24u, file.size()) << "the creation-time file holds the 24 bytes";
  EXPECT_EQ(0, std::memcmp(file.data(), reg.Bytes() + 24, 24));
  EXPECT_NE(0u, reg.LatestAccessTick());
  EXPECT_LE(reg.LatestAccessTick(), CPortable::GetTickCountULL());

  const char* names[] = {"Alpha", "beta"};
  const uint32_t sizes[] = {1000, 8192};
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(names[i]);
    EXPECT_EQ(names[i], reg.Name(i));
    EXPECT_EQ(sizes[i], reg.Size(i));
    EXPECT_EQ(SegmentId(kFirstKey + i), reg.Shmid(i)) << "entry i has key 46066 + i";
    EXPECT_EQ(sizes[i], SegmentSize(kFirstKey + i));
    shmid_ds seg;
    ASSERT_EQ(0, ::shmctl(reg.Shmid(i), IPC_STAT, &seg));
    EXPECT_EQ(kFirstKey + i, seg.shm_perm.__key);
    EXPECT_EQ(0666u, seg.shm_perm.mode & 0777u);
    EXPECT_EQ(1u, seg.shm_nattch);
    EXPECT_EQ(pid, reg.CreatorPid(i));
    EXPECT_EQ(pid, reg.Pid(i, 0));
    EXPECT_EQ(std::vector<uint32_t>{pid}, reg.Pids(i)) << "the other slots are 0";
  }
  EXPECT_EQ(2, reg.InUse());
  // Everything behind the two entries is zero.
  const unsigned char* rest = reg.Bytes() + RegistryView::EntryAt(2);
  const size_t restBytes = kRegistryBytes - RegistryView::EntryAt(2);
  EXPECT_EQ(restBytes, static_cast<size_t>(std::count(rest, rest + restBytes, 0)));

  done.Signal();
  EXPECT_EQ(0, user.Join(5000));
}

TEST(RegistryLayoutTest, SecondProcessFindsTheRegistryAndChangesNothingInTheHeader) {
  LogCapture log;
  ForkedChild first([] {
    get_shareMemMap();
    return 0;
  });
  ASSERT_EQ(0, first.Join(10000));
  RegistryView reg;
  ASSERT_TRUE(reg.Attached());
  const std::string header(reinterpret_cast<const char*>(reg.Bytes()), 56);
  const std::string file = ReadFile(kTimeFile);
  const std::string stamp = reg.CreateTime();

  ForkedChild second([&] {
    RecordingHook hook;
    hook.Install();
    get_shareMemMap();
    if (!HookHas(hook, kRegistryCategory, "CShareMemMap::CShareMemMap - check guid file\n"))
      return 2;
    const std::string check = "CShareMemMap::CShareMemMap - create time check, file \"" +
                              stamp + "\", mem \"" + stamp + "\" \n";
    if (!HookHas(hook, kRegistryCategory, check)) return 3;
    return 0;
  });
  EXPECT_EQ(0, second.Join(10000));
  EXPECT_EQ(header, std::string(reinterpret_cast<const char*>(reg.Bytes()), 56));
  EXPECT_EQ(file, ReadFile(kTimeFile));
  const std::vector<std::string> lines = log.Lines();
  EXPECT_EQ(1, CountLines(lines,
                          "CShareMemMap::CShareMemMap - initializing m_pmemMapInfo, created by "
                          "program " + reg.CreatorProgram()));
  EXPECT_EQ(1, CountLines(lines,
                          "CShareMemMap::CShareMemMap - initializing m_pmemMapInfo, create time "
                          "utc \"" + stamp + "\""));
}

TEST(RegistryLayoutTest, MissingCreationTimeFileIsReportedAndTheRegistryAccepted) {
  LogCapture log;
  ForkedChild first([] {
    get_shareMemMap();
    return 0;
  });
  ASSERT_EQ(0, first.Join(10000));
  ASSERT_EQ(0, ::unlink(kTimeFile));
  RegistryView reg;
  const std::string header(reinterpret_cast<const char*>(reg.Bytes()), 56);

  ForkedChild second([] { return Acquire("after", 64) != nullptr ? 0 : 2; });
  EXPECT_EQ(0, second.Join(10000));
  EXPECT_EQ(0, std::memcmp(header.data(), reg.Bytes(), 48)) << "not initialised again";
  EXPECT_TRUE(HasLine(log.Lines(), std::string("(Error) CShareMemMap::CShareMemMap - open create "
                                               "time file \"") +
                                       kTimeFile + "\" for reading failed 2"));
  EXPECT_NE(0, ::access(kTimeFile, F_OK)) << "the file is not written again";
}

TEST(RegistryLayoutTest, SymlinkAtTheCreationTimeFileIsNotWrittenThroughAndTheRegistryIsMade) {
  PlantedTarget target("someone else's file\n", 0644);
  ASSERT_TRUE(target.LinkFrom(kTimeFile));
  LogCapture log;
  ForkedChild first([] { return Acquire("first", 64) != nullptr ? 0 : 2; });
  EXPECT_EQ(0, first.Join(10000));
  EXPECT_EQ("", target.Damage());
  EXPECT_TRUE(HasLine(log.Lines(), Fmt("(Error) CShareMemMap::CShareMemMap - open create time "
                                       "file for writing failed %d",
                                       ELOOP)));
  RegistryView reg;
  ASSERT_TRUE(reg.Attached());
  EXPECT_EQ(1u, reg.Initialized()) << "initialisation went on";
}

TEST(RegistryLayoutTest, UnreadableCreationTimeFileIsReportedAndTheRegistryAccepted) {
  ForkedChild first([] { return get_shareMemMap() != nullptr ? 0 : 2; });
  ASSERT_EQ(0, first.Join(10000));
  RegistryView reg;
  ASSERT_TRUE(reg.Attached());
  const std::string header(reinterpret_cast<const char*>(reg.Bytes()), 56);
  const std::string stamp = reg.CreateTime();
  // A link to a file that holds another stamp, a directory, and a file
  // shorter than the 24 bytes of a stamp: none of them can be read as the
  // registry's stamp, so none is a mismatch (which would end the process).
  PlantedTarget other("1999/12/31 23:59:59.999", 0644);
  struct Case {
    const char* what;
    std::function<bool()> plant;
    std::string line;
  } cases[] = {
      {"symlink", [&] { return other.LinkFrom(kTimeFile); },
       std::string("(Error) CShareMemMap::CShareMemMap - open create time file \"") + kTimeFile +
           "\" for reading failed " + std::to_string(ELOOP)},
      {"directory", [] { return ::mkdir(kTimeFile, 0755) == 0; },
       std::string("(Error) CShareMemMap::CShareMemMap - open create time file \"") + kTimeFile +
           "\" for reading failed " + std::to_string(EISDIR)},
      {"short file",
       [&] {
         std::ofstream out(kTimeFile, std::ios::binary | std::ios::trunc);
         out.write(stamp.data(), 10);
         return static_cast<bool>(out);
       },
       std::string("(Error) CShareMemMap::CShareMemMap - create time file \"") + kTimeFile +
           "\" is short, 10 bytes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ::unlink(kTimeFile);
    ::rmdir(kTimeFile);
    ASSERT_TRUE(c.plant());
    LogCapture log;
    ForkedChild next([] { return Acquire("after", 64) != nullptr ? 0 : 2; });
    EXPECT_EQ(0, next.Join(10000)) << "the registry was not accepted";
    EXPECT_TRUE(HasLine(log.Lines(), c.line));
    EXPECT_FALSE(HasLineStartingWith(log.Lines(), "CShareMemMap::CShareMemMap - create time mismatch"));
    EXPECT_EQ(0, std::memcmp(header.data(), reg.Bytes(), 48)) << "not initialised again";
  }
  EXPECT_EQ("", other.Damage());
}

TEST(RegistryLayoutTest, InterruptedInitialisationIsRedone) {
  // A registry whose initialiser died half-way: bInitialized 0, with a busy
  // pid, an old time stamp and leftovers in the entries.
  const int id = ::shmget(shm_test::kRegistryKey, kRegistryBytes, IPC_CREAT | IPC_EXCL | 0666);
  ASSERT_GE(id, 0);
  {
    RegistryView reg(true);
    ASSERT_TRUE(reg.Attached());
    unsigned char* p = reg.Bytes();
    std::memset(p, 0x5A, kRegistryBytes);
    const uint32_t zero = 0, busy = 4242;
    std::memcpy(p, &zero, 4);
    std::memcpy(p + 4, &busy, 4);
    std::memcpy(p + 24, "2001/01/01 00:00:00.000", 24);
  }
  {
    std::ofstream out(kTimeFile, std::ios::binary);
    out.write("2001/01/01 00:00:00.000", 24);
  }
  LogCapture log;
  ForkedChild child([] { return get_shareMemMap() != nullptr ? 0 : 2; });
  ASSERT_EQ(0, child.Join(10000));

  RegistryView reg;
  EXPECT_EQ(1u, reg.Initialized());
  EXPECT_EQ(0u, reg.BusyPid());
  EXPECT_EQ(OwnComm().substr(0, 15), reg.CreatorProgram());
  EXPECT_NE("2001/01/01 00:00:00.000", reg.CreateTime());
  const std::string file = ReadFile(kTimeFile);
  ASSERT_EQ(24u, file.size());
  EXPECT_EQ(0, std::memcmp(file.data(), reg.Bytes() + 24, 24)) << "new stamp in the file";
  const unsigned char* entries = reg.Bytes() + kEntriesAt;
  const size_t entryBytes = kRegistryBytes - kEntriesAt;
  EXPECT_EQ(entryBytes, static_cast<size_t>(std::count(entries, entries + entryBytes, 0)))
      << "every entry zeroed";
  const std::vector<std::string> lines = log.Lines();
  EXPECT_TRUE(HasLine(lines,
                      "CShareMemMap::CShareMemMap - process pid 4242 crashed during "
                      "initialization"));
  EXPECT_TRUE(HasLine(lines, "CShareMemMap::CShareMemMap - initializing m_pmemMapInfo, create "
                             "time utc \"" + reg.CreateTime() + "\""));
}

TEST(RegistryLayoutTest, CreationTimeMismatchEndsTheProcessWithSigsegvAfterFiveSeconds) {
  if (IsRerunChild()) {
    get_shareMemMap();  // does not come back
    return;
  }
  ForkedChild first([] {
    get_shareMemMap();
    return 0;
  });
  ASSERT_EQ(0, first.Join(10000));
  const std::string stale = "1999/12/31 23:59:59.999";
  {
    std::ofstream out(kTimeFile, std::ios::binary | std::ios::trunc);
    out.write(stale.c_str(), 24);
  }
  RegistryView reg;
  const std::string stamp = reg.CreateTime();
  LogCapture log;
  ASSERT_EQ(0, ::chmod(log.Dir().c_str(), 0777));

  const auto start = std::chrono::steady_clock::now();
  // The sanitizer must leave the fault to the kernel.
  const ChildResult r = RerunThisTest({{"ASAN_OPTIONS", std::string("handle_segv=0")},
                                       {"QKLogFilePath", log.Dir()},
                                       {"AmbitTrace", std::string("2")}},
                                      20000);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(128 + SIGSEGV, r.exitCode) << r.output;
  EXPECT_GE(elapsed, std::chrono::milliseconds(4900));
  EXPECT_LT(elapsed, std::chrono::seconds(15));
  const std::vector<std::string> lines = log.Lines();
  EXPECT_TRUE(HasLine(lines, "CShareMemMap::CShareMemMap - create time mismatch, file \"" + stale +
                                 "\", mem \"" + stamp + "\" "));
  EXPECT_TRUE(HasLine(lines, "CShareMemMap::CShareMemMap - throwing exception"));
  EXPECT_EQ(stamp, reg.CreateTime()) << "the registry is left as it was";
  EXPECT_EQ(1u, reg.Initialized());
}

TEST(RegistryLayoutTest, RegistryThatCannotBeAttachedThrowsC1210E10) {
  ASSERT_GE(::shmget(shm_test::kRegistryKey, kRegistryBytes, IPC_CREAT | IPC_EXCL | 0600), 0);
  ForkedChild child([] {
    if (!BecomeNobody()) return kSkipped;
    LogCapture log;
    try {
      get_shareMemMap();
      return 2;
    } catch (const QKException& e) {
      if (e.code != QK_E_OUT_OF_MEMORY) return 3;
    }
    if (!HasLine(log.Lines(),
                 "(Error) CShareMemMap::acquireSharedMemoryHelper, shmget.1 failed 13"))
      return 4;
    return 0;
  });
  const int verdict = child.Join(10000);
  if (verdict == kSkipped) GTEST_SKIP() << "cannot change user here";
  EXPECT_EQ(0, verdict);
}

// --- Acquire and release in one process -------------------------------------------

TEST(AcquireReleaseTest, FirstAcquireTracesEachStepOnTheHookAndNothingOnTheLog) {
  LogCapture log;
  RecordingHook hook;
  hook.Install();
  int created = 0;
  void* p = Acquire("traced", 4096, &created);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(1, created);
  const int pid = static_cast<int>(::getpid());
  const int id = SegmentId(kFirstKey);
  char helperEnd[160];
  std::snprintf(helperEnd, sizeof helperEnd,
                "<<<CShareMemMap::acquireSharedMemoryHelper, nshmid %d, bCreated 1, pvmem %p\n",
                id, p);
  const std::string expected[] = {
      "CShareMemMap::acquireSharedMemoryHelper, name CShareMemMap, dwKey 46065, dwSize 536632\n",
      "CShareMemMap::acquireSharedMemory \"traced\"\n",
      "CShareMemMap::acquireSharedMemory - free entry 0\n",
      "CShareMemMap::acquireSharedMemoryHelper, name traced, dwKey 46066, dwSize 4096\n",
      "CShareMemMap::acquireSharedMemoryHelper - new, name traced, wanted 4096, actual 4096\n",
      helperEnd,
      Fmt("CShareMemMap::acquireSharedMemory, adding pid %d at slot 0\n", pid),
  };
  for (const std::string& text : expected)
    EXPECT_TRUE(HookHas(hook, kRegistryCategory, text)) << text;
  for (const RecordingHook::Line& l : hook.Lines()) {
    EXPECT_EQ(kRegistryCategory, l.category) << l.text;
    EXPECT_EQ(2u, l.level) << l.text;
  }
  const std::vector<std::string> lines = log.Lines();
  EXPECT_EQ(2u, lines.size()) << "only the two initialisation lines go to the log";
  EXPECT_TRUE(HasLine(lines, "CShareMemMap::CShareMemMap - initializing m_pmemMapInfo, created "
                             "by program " + OwnComm().substr(0, 15)));
}

TEST(AcquireReleaseTest, AcquiringANameTwiceGivesOneAddressAndOnlyTheLastReleaseDetaches) {
  RecordingHook hook;
  hook.Install();
  int created1 = 0, created2 = 0;
  void* p1 = Acquire("twice", 4096, &created1);
  void* p2 = Acquire("twice", 4096, &created2);
  ASSERT_NE(nullptr, p1);
  EXPECT_EQ(p1, p2);
  EXPECT_EQ(1, created1);
  EXPECT_EQ(0, created2);
  EXPECT_EQ(p1, Acquire("twice", 0)) << "size 0 matches too";
  const int id = SegmentId(kFirstKey);
  shmid_ds ds;
  ASSERT_EQ(0, ::shmctl(id, IPC_STAT, &ds));
  EXPECT_EQ(1u, ds.shm_nattch) << "one attachment for three acquires";

  hook.Clear();
  Release("twice");
  Release("twice");
  EXPECT_EQ(std::vector<std::string>(2, "CShareMemMap::releaseSharedMemory \"twice\"\n"),
            hook.Texts())
      << "releases that are not the last touch nothing";
  ASSERT_EQ(0, ::shmctl(id, IPC_STAT, &ds));
  EXPECT_EQ(1u, ds.shm_nattch);
  static_cast<char*>(p1)[4095] = 7;  // still mapped

  hook.Clear();
  Release("twice");
  const int pid = static_cast<int>(::getpid());
  char detach[96];
  std::snprintf(detach, sizeof detach, "CShareMemMap::releaseSharedMemoryHelper, pvmem %p\n", p1);
  EXPECT_TRUE(HookHas(hook, kRegistryCategory, detach));
  EXPECT_TRUE(HookHas(hook, kRegistryCategory,
                      Fmt("CShareMemMap::removeSharedMemory, removing pid %d at slot 0\n", pid)));
  EXPECT_TRUE(HookHas(hook, kRegistryCategory,
                      "CShareMemMap::releaseSharedMemory, released segment for entry 0\n"));
  EXPECT_EQ(-1, SegmentId(kFirstKey)) << "the last user removed the segment";
  RegistryView reg;
  EXPECT_EQ(0, reg.InUse());
  EXPECT_EQ(0, reg.Shmid(0));

  hook.Clear();
  Release("twice");  // no longer held: nothing happens
  EXPECT_EQ(std::vector<std::string>{"CShareMemMap::releaseSharedMemory \"twice\"\n"},
            hook.Texts());
}

TEST(AcquireReleaseTest, SecondAcquireOfAnAttachedNameTakesNeitherTheFlockNorTheRegistry) {
  void* p = Acquire("hit", 64);
  ASSERT_NE(nullptr, p);
  Handshake held, release;
  ForkedChild holder([&] {
    const int fd = ::open(kLockFile, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ::flock(fd, LOCK_EX) != 0) return 2;
    held.Signal();
    return release.WaitFor(10000) ? 0 : 3;
  });
  ASSERT_TRUE(held.WaitFor(5000));
  RegistryView reg;
  const std::string before(reinterpret_cast<const char*>(reg.Bytes()), kRegistryBytes);
  RecordingHook hook;
  hook.Install();

  std::atomic<void*> again(nullptr);
  std::atomic<bool> done(false);
  std::thread t([&] {
    again = Acquire("hit", 0);
    done = true;
  });
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  while (!done && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const bool finishedWhileHeld = done;
  release.Signal();
  t.join();
  EXPECT_TRUE(finishedWhileHeld) << "waited for the flock another process held";
  EXPECT_EQ(p, again.load());
  EXPECT_EQ(std::vector<std::string>{"CShareMemMap::acquireSharedMemory \"hit\"\n"},
            hook.Texts());
  EXPECT_TRUE(before == std::string(reinterpret_cast<const char*>(reg.Bytes()), kRegistryBytes))
      << "the registry was written";
  EXPECT_EQ(0, holder.Join(5000));
}

TEST(AcquireReleaseTest, SizeMismatchFailsOnTheLogInProcessAndOnTheHookAcrossProcesses) {
  LogCapture log;
  Handshake go;
  ForkedChild other([&] {
    if (!go.WaitFor(10000)) return 2;
    RecordingHook hook;
    hook.Install();
    int created = 0;
    if (Acquire("SIZED", 8192, &created) != nullptr) return 3;
    if (!HookHas(hook, kRegistryCategory, "CShareMemMap::acquireSharedMemory - found entry 0\n"))
      return 4;
    if (!HookHas(hook, kErrorCategory,
                 "(Error) CShareMemMap::acquireSharedMemory - size mismatch: cur 4096, req "
                 "8192\n"))
      return 5;
    return Acquire("sized", 4096) != nullptr ? 0 : 6;  // the right size works
  });
  ASSERT_NE(nullptr, Acquire("sized", 4096));
  EXPECT_EQ(nullptr, Acquire("sized", 8192));
  EXPECT_EQ(1, CountLines(log.Lines(), "(Error) CShareMemMap::acquireSharedMemory - size "
                                       "mismatch: cur 4096, req 8192"));
  go.Signal();
  EXPECT_EQ(0, other.Join(10000));
  EXPECT_EQ(1, CountLines(log.Lines(), "(Error) CShareMemMap::acquireSharedMemory - size "
                                       "mismatch: cur 4096, req 8192"))
      << "the other process's mismatch goes to the hook only";
  RegistryView reg;
  EXPECT_EQ(4096u, reg.Size(0));
  EXPECT_EQ(2u, reg.Pids(0).size()) << "the failed attempt took no slot";
}

TEST(AcquireReleaseTest, SizeZeroAttachesAnExistingSegmentOfAnySizeButMakesNone) {
  LogCapture log;  // before the fork, so that the child writes there too
  Handshake go;
  ForkedChild other([&] {
    if (!go.WaitFor(10000)) return 2;
    int created = 1;
    unsigned char* p = static_cast<unsigned char*>(Acquire("ANY", 0, &created));
    if (p == nullptr || created != 0) return 3;
    if (p[0] != 0xA5 || p[12344] != 0x5A) return 4;
    if (Acquire("unknown", 0, &created) != nullptr) return 5;
    return 0;
  });
  unsigned char* p = static_cast<unsigned char*>(Acquire("any", 12345));
  ASSERT_NE(nullptr, p);
  p[0] = 0xA5;
  p[12344] = 0x5A;
  go.Signal();
  EXPECT_EQ(0, other.Join(10000));
  RegistryView reg;
  EXPECT_EQ(12345u, reg.Size(0)) << "size 0 does not overwrite the recorded size";
  EXPECT_EQ(1, reg.InUse()) << "the failed size-0 claim left no entry behind";
  EXPECT_EQ(-1, SegmentId(kFirstKey + 1));
  EXPECT_TRUE(HasLine(log.Lines(),
                      "(Error) CShareMemMap::acquireSharedMemoryHelper, shmget.2 failed 22"));
}

TEST(AcquireReleaseTest, CaseVariantsShareOneEntryAndReleasingBothNeverRemovesIdZero) {
  CShareMemMap* map = get_shareMemMap();
  ASSERT_NE(nullptr, map);
  RegistryView reg;
  ASSERT_TRUE(reg.Attached());
  // In a fresh namespace the registry is the first segment: System V id 0,
  // the id a freed entry records.
  EXPECT_EQ(0, reg.Id());

  int created1 = 0, created2 = 1;
  char* p1 = static_cast<char*>(Acquire("MixedCase", 4096, &created1));
  char* p2 = static_cast<char*>(Acquire("MIXEDCASE", 4096, &created2));
  ASSERT_NE(nullptr, p1);
  ASSERT_NE(nullptr, p2);
  EXPECT_EQ(1, created1);
  EXPECT_EQ(0, created2);
  EXPECT_NE(p1, p2) << "two attachments in this process";
  p1[100] = 'x';
  EXPECT_EQ('x', p2[100]) << "of one segment";
  EXPECT_EQ(1, reg.InUse());
  EXPECT_EQ("MixedCase", reg.Name(0));
  const uint32_t pid = static_cast<uint32_t>(::getpid());
  EXPECT_EQ((std::vector<uint32_t>{pid, pid}), reg.Pids(0));

  LogCapture log;
  RecordingHook hook;
  hook.Install();
  Release("MixedCase");
  Release("MIXEDCASE");
  int removals = 0;
  for (const std::string& t : hook.Texts())
    if (t.find("released segment") != std::string::npos) ++removals;
  EXPECT_EQ(1, removals);
  EXPECT_FALSE(HasLineStartingWith(log.Lines(), "(Error) CShareMemMap::releaseSharedMemory"));

  EXPECT_EQ(reg.Id(), SegmentId(shm_test::kRegistryKey)) << "the registry segment is still there";
  EXPECT_FALSE(MarkedForRemoval(reg.Id())) << "the registry was removed";
  EXPECT_EQ(-1, SegmentId(kFirstKey));
  EXPECT_EQ(0, reg.InUse());
  EXPECT_NE(nullptr, Acquire("after", 64)) << "the registry still works";
}

// An entry whose recorded id reads 0 (a damaged or half-written entry) must
// not make the last release remove System V id 0, which in a fresh
// namespace is the registry itself.
TEST(AcquireReleaseTest, LastReleaseOfAnEntryRecordingIdZeroLeavesSegmentZeroAlone) {
  ASSERT_NE(nullptr, get_shareMemMap());
  RegistryView reg(true);
  ASSERT_TRUE(reg.Attached());
  ASSERT_EQ(0, reg.Id()) << "the registry holds id 0";
  ASSERT_NE(nullptr, Acquire("zero", 4096));
  ASSERT_EQ("zero", reg.Name(0));
  const int32_t realId = reg.Shmid(0);
  ASSERT_NE(0, realId);
  const int32_t zero = 0;
  std::memcpy(reg.Bytes() + RegistryView::EntryAt(0) + 260, &zero, sizeof zero);

  Release("zero");
  EXPECT_EQ(0, SegmentId(shm_test::kRegistryKey)) << "the registry segment is gone";
  EXPECT_FALSE(MarkedForRemoval(0)) << "segment id 0 was removed";
  EXPECT_NE(nullptr, Acquire("after", 64)) << "the registry still works";
  ::shmctl(realId, IPC_RMID, nullptr);
}

TEST(AcquireReleaseTest, ReleasingACaseVariantLeavesAloneTheNameThatTookItsEntryMeanwhile) {
  void* p1 = Acquire("Variant", 4096);
  void* p2 = Acquire("VARIANT", 4096);
  ASSERT_NE(nullptr, p1);
  ASSERT_NE(nullptr, p2);
  Release("Variant");  // frees the entry, the other attachment still maps it
  char* p3 = static_cast<char*>(Acquire("newcomer", 64));
  ASSERT_NE(nullptr, p3);
  RegistryView reg;
  ASSERT_EQ("newcomer", reg.Name(0)) << "the freed entry went to the new name";
  const int id = reg.Shmid(0);
  std::strcpy(p3, "mine");

  Release("VARIANT");
  EXPECT_EQ("newcomer", reg.Name(0));
  EXPECT_EQ(std::vector<uint32_t>{static_cast<uint32_t>(::getpid())}, reg.Pids(0));
  EXPECT_EQ(id, SegmentId(kFirstKey));
  EXPECT_FALSE(MarkedForRemoval(id));

  ForkedChild other([] {
    // A child sees the parent's attachments: a name it has never acquired
    // must come from the registry.
    g_pshareMemMap = nullptr;
    const char* p = static_cast<const char*>(Acquire("newcomer", 64));
    return p != nullptr && std::strcmp(p, "mine") == 0 ? 0 : 2;
  });
  EXPECT_EQ(0, other.Join(10000));
}

TEST(AcquireReleaseTest, InvalidNamesAreRefusedWithoutTouchingTheRegistry) {
  LogCapture log;
  int created = 1;
  EXPECT_EQ(nullptr, Acquire("", 4096, &created));
  EXPECT_EQ(0, created);
  EXPECT_EQ(nullptr, Acquire(kParked, 4096, &created));
  EXPECT_EQ(nullptr, Acquire("$$$not-used-but-not-released$$$", 4096, &created));
  EXPECT_EQ(-1, SegmentId(kFirstKey));
  RegistryView reg;
  EXPECT_EQ(0, reg.InUse());
  EXPECT_TRUE(HasLine(log.Lines(), "(Error) CShareMemMap::acquireSharedMemory - invalid name \"\""));
  // A name that follows still gets entry 0, alone.
  ASSERT_NE(nullptr, Acquire("real", 64));
  EXPECT_EQ("real", reg.Name(0));
  EXPECT_EQ(1, reg.InUse());
}

TEST(AcquireReleaseTest, LongNameIsCutTo254CharactersWithoutTouchingTheFieldsBehindIt) {
  std::string name = "long-";
  while (name.size() < 300) name += static_cast<char>('a' + name.size() % 26);
  ASSERT_NE(nullptr, Acquire("neighbour", 128));
  int created = 0;
  void* p = Acquire(name, 4096, &created);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(1, created);
  EXPECT_EQ(p, Acquire(name, 4096)) << "the full name finds its attachment in this process";
  RegistryView reg;
  EXPECT_EQ(name.substr(0, 254), reg.Name(1));
  EXPECT_EQ(0, reg.Bytes()[RegistryView::EntryAt(1) + 254]);
  EXPECT_EQ(4096u, reg.Size(1));
  EXPECT_EQ(SegmentId(kFirstKey + 1), reg.Shmid(1));
  EXPECT_EQ(static_cast<uint32_t>(::getpid()), reg.CreatorPid(1));
  EXPECT_EQ("neighbour", reg.Name(0));
  EXPECT_EQ(128u, reg.Size(0));

  // Another process asking for the same long name finds the entry by the
  // characters it keeps and claims no entry of its own.
  ForkedChild other([&] {
    g_pshareMemMap = nullptr;
    int c = 1;
    if (Acquire(name, 4096, &c) == nullptr || c != 0) return 2;
    Release(name);
    return 0;
  });
  EXPECT_EQ(0, other.Join(10000));
  EXPECT_EQ(2, reg.InUse());
  EXPECT_TRUE(reg.Free(2));
  Release(name);
  Release(name);
  EXPECT_EQ(1, reg.InUse());
  EXPECT_EQ(-1, SegmentId(kFirstKey + 1));
  EXPECT_EQ("neighbour", reg.Name(0));
}

TEST(AcquireReleaseTest, DestroyingTheRegistryHandleReleasesEverySegmentOnce) {
  CShareMemMap* map = new CShareMemMap;
  int c = 0;
  ASSERT_NE(nullptr, map->acquireSharedMemory("kept", 64, &c));
  ASSERT_NE(nullptr, map->acquireSharedMemory("kept", 64, &c));
  ASSERT_NE(nullptr, map->acquireSharedMemory("kept", 64, &c));
  ASSERT_NE(nullptr, map->acquireSharedMemory("once", 64, &c));
  RegistryView reg;
  EXPECT_EQ(2, reg.InUse());
  delete map;
  EXPECT_EQ(0, reg.InUse());
  EXPECT_EQ(-1, SegmentId(kFirstKey));
  EXPECT_EQ(-1, SegmentId(kFirstKey + 1));
  EXPECT_FALSE(MarkedForRemoval(reg.Id())) << "the registry itself stays";
}

TEST(AcquireReleaseTest, DumpWritesTheHeaderEachEntryAndItsPidsToTheLog) {
  Handshake go, attached;
  ForkedChild other([&] {
    if (!go.WaitFor(10000) || Acquire("dumped", 0) == nullptr) return 2;
    attached.Signal();
    for (;;) ::pause();
    return 0;
  });
  ASSERT_NE(nullptr, Acquire("dumped", 4096));
  go.Signal();
  ASSERT_TRUE(attached.WaitFor(10000));
  RegistryView reg;

  {
    LogCapture quiet(8);  // no bit 2: nothing is dumped
    get_shareMemMap()->dump();
    EXPECT_TRUE(quiet.Lines().empty());
  }
  LogCapture log;
  get_shareMemMap()->dump();
  const std::vector<std::string> lines = log.Lines();
  ASSERT_EQ(5u, lines.size());
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex("CShareMemMap::dump - created by program " + reg.CreatorProgram() +
                           ", time utc \"" + reg.CreateTime() +
                           "\", latestaccesstick [0-9]+, curtick [0-9]+")))
      << lines[0];
  EXPECT_EQ("- Entry 0, name \"dumped\"", lines[1]);
  EXPECT_EQ(Fmt("    pid creator %d, size 4096, shmid %d", ::getpid(), reg.Shmid(0)), lines[2]);
  EXPECT_EQ(Fmt("      pid %d", ::getpid()), lines[3]);
  EXPECT_EQ(Fmt("      pid %d", other.Pid()), lines[4]);
  other.Kill();
  EXPECT_EQ(128 + SIGKILL, other.Join(5000));
}

// --- Crash cleanup and parked entries ---------------------------------------------

TEST(ObsoleteCleanupTest, KilledHolderIsCleanedAtTheNextAcquireByAnotherProcess) {
  Handshake holding;
  ForkedChild victim([&] {
    if (Acquire("victim", 4096) == nullptr || Acquire("victim2", 100) == nullptr) return 2;
    holding.Signal();
    for (;;) ::pause();
    return 0;
  });
  ASSERT_TRUE(holding.WaitFor(10000));
  const int pid = victim.Pid();
  RegistryView reg;
  ASSERT_EQ("victim", reg.Name(0));
  const int oldId = reg.Shmid(0);
  victim.Kill();
  ASSERT_EQ(128 + SIGKILL, victim.Join(5000));  // reaped: no zombie left

  ForkedChild cleaner([&] {
    RecordingHook hook;
    hook.Install();
    if (Acquire("cleaner", 64) == nullptr) return 2;
    const std::string lines[] = {
        Fmt("CShareMemMap::releaseObsoleteEntries, entry 0 for pid %d\n", pid),
        Fmt("CShareMemMap::releaseObsoleteEntries, removing obsolete entry 0 for pid %d\n", pid),
        "CShareMemMap::releaseObsoleteSegment, key 46066\n",
        Fmt("CShareMemMap::releaseObsoleteEntries, removing obsolete entry 1 for pid %d\n", pid),
        "CShareMemMap::releaseObsoleteSegment, key 46067\n",
    };
    for (const std::string& l : lines)
      if (!HookHas(hook, kRegistryCategory, l)) return 3;
    return 0;
  });
  const uint32_t cleanerPid = static_cast<uint32_t>(cleaner.Pid());
  EXPECT_EQ(0, cleaner.Join(10000));
  EXPECT_TRUE(MarkedForRemoval(oldId)) << "the dead holder's segment is gone";
  EXPECT_EQ("cleaner", reg.Name(0)) << "the freed entry was reused";
  EXPECT_EQ(std::vector<uint32_t>{cleanerPid}, reg.Pids(0));
  EXPECT_TRUE(reg.Free(1));
  EXPECT_EQ(-1, SegmentId(kFirstKey + 1));
  EXPECT_EQ(1, reg.InUse());
}

TEST(ObsoleteCleanupTest, KilledHolderIsCleanedAtTheLastReleaseByAnotherProcess) {
  Handshake holding, attached, release;
  ForkedChild victim([&] {
    if (Acquire("shared", 4096) == nullptr || Acquire("lonely", 128) == nullptr) return 2;
    holding.Signal();
    for (;;) ::pause();
    return 0;
  });
  ASSERT_TRUE(holding.WaitFor(10000));
  const int pid = victim.Pid();
  ForkedChild survivor([&] {
    if (Acquire("shared", 4096) == nullptr) return 2;
    attached.Signal();
    if (!release.WaitFor(10000)) return 3;
    RecordingHook hook;
    hook.Install();
    Release("shared");
    const std::string lines[] = {
        Fmt("CShareMemMap::releaseObsoleteEntries, removing obsolete entry 0 for pid %d\n", pid),
        Fmt("CShareMemMap::releaseObsoleteEntries, removing obsolete entry 1 for pid %d\n", pid),
        "CShareMemMap::releaseObsoleteSegment, key 46067\n",
        Fmt("CShareMemMap::removeSharedMemory, removing pid %d at slot 1\n",
            static_cast<int>(::getpid())),
        "CShareMemMap::releaseSharedMemory, released segment for entry 0\n",
    };
    for (const std::string& l : lines)
      if (!HookHas(hook, kRegistryCategory, l)) return 4;
    return 0;
  });
  ASSERT_TRUE(attached.WaitFor(10000));
  victim.Kill();
  ASSERT_EQ(128 + SIGKILL, victim.Join(5000));
  release.Signal();
  EXPECT_EQ(0, survivor.Join(10000));
  RegistryView reg;
  EXPECT_EQ(0, reg.InUse());
  EXPECT_EQ(-1, SegmentId(kFirstKey));
  EXPECT_EQ(-1, SegmentId(kFirstKey + 1));
}

TEST(ObsoleteCleanupTest, SegmentTooSmallAtAClaimedKeyParksTheEntryWithTheSegmentsSize) {
  // Someone else's small segment sits at the key of entry 0.
  const int foreign = ::shmget(kFirstKey, 100, IPC_CREAT | IPC_EXCL | 0666);
  ASSERT_GE(foreign, 0);
  LogCapture log;
  Handshake ready, next, done;
  ForkedChild user([&] {
    if (Acquire("big", 8192) == nullptr) return 2;
    ready.Signal();
    if (!next.WaitFor(10000)) return 3;
    if (Acquire("next", 64) == nullptr) return 4;
    done.Signal();
    return 0;
  });
  ASSERT_TRUE(ready.WaitFor(10000));
  RegistryView reg;
  EXPECT_EQ(kParked, reg.Name(0));
  EXPECT_EQ(0, reg.Bytes()[RegistryView::EntryAt(0) + 254]);
  EXPECT_EQ(100u, reg.Size(0)) << "the segment's real size";
  EXPECT_EQ(foreign, reg.Shmid(0));
  EXPECT_EQ("big", reg.Name(1));
  EXPECT_EQ(8192u, SegmentSize(kFirstKey + 1));
  shmid_ds ds;
  ASSERT_EQ(0, ::shmctl(foreign, IPC_STAT, &ds));
  EXPECT_EQ(0u, ds.shm_nattch) << "the parked segment is not kept attached";
  const std::vector<std::string> lines = log.Lines();
  EXPECT_TRUE(HasLine(lines, "(Error) CShareMemMap::acquireSharedMemoryHelper, name big, size too "
                             "small: wanted 8192, actual 100"));
  EXPECT_TRUE(HasLine(lines, std::string("CShareMemMap::acquireSharedMemory, setting entry 0, "
                                         "big, creator pid 0, to ") + kParked));

  // A parked entry nobody uses goes at the next lazy pass when its segment
  // can be removed; the entry is then free for the next name.
  next.Signal();
  ASSERT_TRUE(done.WaitFor(10000));
  EXPECT_TRUE(MarkedForRemoval(foreign));
  EXPECT_EQ("next", reg.Name(0));
  EXPECT_EQ(64u, SegmentSize(kFirstKey));
  EXPECT_EQ(0, user.Join(5000));
}

TEST(ObsoleteCleanupTest, SegmentThatCannotBeRemovedIsParkedAndReusedOnlyForItsExactSize) {
  Handshake holding;
  ForkedChild owner([&] {
    char* p = static_cast<char*>(Acquire("root-owned", 4096));
    if (p == nullptr) return 2;
    std::strcpy(p, "left behind");
    holding.Signal();
    for (;;) ::pause();
    return 0;
  });
  ASSERT_TRUE(holding.WaitFor(10000));
  const int ownerPid = owner.Pid();
  const int rootSegment = SegmentId(kFirstKey);
  ASSERT_GE(rootSegment, 0);
  owner.Kill();
  ASSERT_EQ(128 + SIGKILL, owner.Join(5000));

  ForkedChild nobody([&] {
    if (!BecomeNobody()) return kSkipped;
    LogCapture log;  // made by this user, in a directory it can write
    int created = 0;
    if (Acquire("small", 1000, &created) == nullptr) return 2;
    SMEMMAPINFO* reg = get_shareMemMap()->info();
    if (std::strcmp(reg->entries[0].szName, kParked) != 0) return 3;
    if (reg->entries[0].dwSize != 4096 || reg->entries[0].nshmid != rootSegment) return 4;
    if (std::strcmp(reg->entries[1].szName, "small") != 0) return 5;
    const std::vector<std::string> lines = log.Lines();
    if (!HasLine(lines, "(Error) CShareMemMap::releaseObsoleteSegment, shmctl.IPC_RMID failed 1"))
      return 6;
    if (!HasLine(lines, Fmt("CShareMemMap::releaseObsoleteEntries, setting entry 0, root-owned, "
                            "creator pid %d, to ", ownerPid) + kParked))
      return 7;
    if (Acquire("other", 2048) == nullptr) return 8;
    if (std::strcmp(reg->entries[2].szName, "other") != 0) return 9;
    const char* p = static_cast<const char*>(Acquire("exact", 4096, &created));
    if (p == nullptr || created != 1) return 10;
    if (std::strcmp(reg->entries[0].szName, "exact") != 0) return 11;
    if (std::strcmp(p, "left behind") != 0) return 12;  // the same segment
    return 0;
  });
  const int verdict = nobody.Join(10000);
  if (verdict == kSkipped) GTEST_SKIP() << "cannot change user here";
  EXPECT_EQ(0, verdict);
  RegistryView reg;
  EXPECT_EQ("exact", reg.Name(0));
  EXPECT_EQ(rootSegment, reg.Shmid(0));
  EXPECT_EQ(4096u, reg.Size(0));
}

TEST(ObsoleteCleanupTest, FailedAttachOfANewlyClaimedEntryEndsTheProcess) {
  if (IsRerunChild()) {
    ASSERT_TRUE(BecomeNobody());
    Acquire("denied", 4096);  // does not come back
    return;
  }
  ForkedChild first([] { return get_shareMemMap() != nullptr ? 0 : 2; });
  ASSERT_EQ(0, first.Join(10000));
  // A segment at entry 0's key that the next user may not open.
  ASSERT_GE(::shmget(kFirstKey, 4096, IPC_CREAT | IPC_EXCL | 0600), 0);
  LogCapture log;
  ASSERT_EQ(0, ::chmod(log.Dir().c_str(), 0777));
  const ChildResult r = RerunThisTest({{"ASAN_OPTIONS", std::string("handle_segv=0")},
                                       {"QKLogFilePath", log.Dir()},
                                       {"AmbitTrace", std::string("2")}},
                                      20000);
  EXPECT_EQ(128 + SIGSEGV, r.exitCode) << r.output;
  EXPECT_TRUE(HasLine(log.Lines(),
                      "(Error) CShareMemMap::acquireSharedMemoryHelper, shmget.1 failed 13"));
  RegistryView reg;
  EXPECT_EQ(0, reg.InUse()) << "the half-claimed entry was given up";
  // The dead process's flock went with it: the registry is usable.
  ForkedChild next([] { return Acquire("later", 64) != nullptr ? 0 : 2; });
  EXPECT_EQ(0, next.Join(10000));
}

TEST(ObsoleteCleanupTest, NewSegmentThatCannotBeAttachedIsRemovedBeforeTheProcessEnds) {
  ForkedChild first([] { return get_shareMemMap() != nullptr ? 0 : 2; });
  ASSERT_EQ(0, first.Join(10000));
  LogCapture log;
  // 0xF0000000 bytes: shmget makes the segment, shmat finds no room for it
  // in a 32-bit address space, and the process ends as designed.
  ForkedChild huge([] {
    std::signal(SIGSEGV, SIG_DFL);
    Acquire("huge", 0xF0000000ul);
    return 2;
  });
  const int verdict = huge.Join(20000);
  EXPECT_NE(0, verdict);
  EXPECT_NE(2, verdict) << "the failed attach of a new entry came back";
  EXPECT_NE(-1, verdict) << "hung";
  ASSERT_TRUE(HasLine(log.Lines(), Fmt("(Error) CShareMemMap::acquireSharedMemoryHelper, shmmat "
                                       "failed %d",
                                       ENOMEM)))
      << "the huge segment was not made here, so this test shows nothing";
  EXPECT_EQ(-1, SegmentId(kFirstKey)) << "the segment made for the dead request stays";
  RegistryView reg;
  EXPECT_EQ(0, reg.InUse());

  // Later processes claim that entry, and others, for names of their own.
  for (const char* name : {"next", "and-another"}) {
    ForkedChild next([name] {
      std::signal(SIGSEGV, SIG_DFL);
      int created = 0;
      return Acquire(name, 4096, &created) != nullptr && created == 1 ? 0 : 3;
    });
    EXPECT_EQ(0, next.Join(10000)) << name;
  }
}

TEST(ObsoleteCleanupTest, SegmentRemovedBehindTheLibrarysBackIsReportedAtTheLastRelease) {
  LogCapture log;
  ASSERT_NE(nullptr, Acquire("ghost", 4096));
  ASSERT_EQ(0, ::shmctl(SegmentId(kFirstKey), IPC_RMID, nullptr));
  Release("ghost");
  EXPECT_TRUE(HasLine(log.Lines(), "(Error) CShareMemMap::releaseSharedMemory, release segment "
                                   "for entry 0, shmctl.IPC_RMID failed"));
  RegistryView reg;
  EXPECT_EQ(0, reg.InUse());
  EXPECT_EQ(0, reg.Shmid(0));
  int created = 0;
  EXPECT_NE(nullptr, Acquire("ghost", 4096, &created)) << "the name can be had again";
  EXPECT_EQ(1, created);
}

TEST(ObsoleteCleanupTest, SegmentRemovedBehindTheLibrarysBackIsMadeAnewForTheNextProcess) {
  Handshake go, released;
  ForkedChild other([&] {
    if (!go.WaitFor(10000)) return 2;
    int created = 0;
    const unsigned char* p = static_cast<const unsigned char*>(Acquire("ghost", 4096, &created));
    if (p == nullptr) return 3;
    if (created != 1 || p[0] != 0) return 4;  // a new, zero-filled segment
    Release("ghost");
    return 0;
  });
  LogCapture log;
  unsigned char* p = static_cast<unsigned char*>(Acquire("ghost", 4096));
  ASSERT_NE(nullptr, p);
  p[0] = 0x5A;
  const int oldId = SegmentId(kFirstKey);
  ASSERT_EQ(0, ::shmctl(oldId, IPC_RMID, nullptr));
  go.Signal();
  EXPECT_EQ(0, other.Join(10000));
  RegistryView reg;
  EXPECT_EQ("ghost", reg.Name(0));
  EXPECT_EQ(std::vector<uint32_t>{static_cast<uint32_t>(::getpid())}, reg.Pids(0));
  const int newId = reg.Shmid(0);
  EXPECT_NE(oldId, newId);
  EXPECT_EQ(newId, SegmentId(kFirstKey));
  EXPECT_EQ(0x5A, p[0]) << "this process keeps its old mapping";
  Release("ghost");
  EXPECT_EQ(0, reg.InUse());
  EXPECT_EQ(-1, SegmentId(kFirstKey));
  EXPECT_FALSE(HasLineStartingWith(log.Lines(), "(Error) CShareMemMap::releaseSharedMemory"));
}

// --- Limits -----------------------------------------------------------------------

TEST(RegistryLimitsTest, SixtyFifthAttachingProcessFailsOutOfPidSlots) {
  LogCapture log;
  Handshake report;
  std::vector<std::unique_ptr<ForkedChild>> children;
  auto attach = [&](bool last) {
    children.emplace_back(new ForkedChild([&report, last] {
      RecordingHook hook;
      if (last) hook.Install();
      const bool ok = Acquire("crowd", 4096) != nullptr;
      unsigned char verdict = ok ? 1 : 2;
      if (last && !ok &&
          HookHas(hook, kErrorCategory,
                  "(Error) CShareMemMap::acquireSharedMemory - out of pid slots\n"))
        verdict = 3;
      report.Signal(verdict);
      for (;;) ::pause();
      return 0;
    }));
    unsigned char v = 0;
    return report.WaitFor(10000, &v) ? v : 0;
  };
  for (int i = 0; i < kSlots; ++i) ASSERT_EQ(1, attach(false)) << "process " << i + 1;
  EXPECT_EQ(3, attach(true)) << "the 65th process";
  EXPECT_EQ(1, CountLines(log.Lines(),
                          "(Error) CShareMemMap::acquireSharedMemory - out of pid slots"));
  RegistryView reg;
  EXPECT_EQ(static_cast<size_t>(kSlots), reg.Pids(0).size());

  // One of them dies: its slot is reclaimed by the next process that comes.
  children[0]->Kill();
  EXPECT_EQ(128 + SIGKILL, children[0]->Join(5000));
  EXPECT_EQ(1, attach(false)) << "a slot became free";
  for (auto& c : children) c->Kill();
}

TEST(RegistryLimitsTest, TenTwentyFifthNameFailsOutOfEntries) {
  for (int i = 0; i < kEntries; ++i)
    ASSERT_NE(nullptr, Acquire("name-" + std::to_string(i), 1)) << i;
  static_cast<char*>(Acquire("name-7", 0))[0] = 'q';
  LogCapture log;
  RecordingHook hook;
  hook.Install();
  EXPECT_EQ(nullptr, Acquire("one-too-many", 1));
  EXPECT_TRUE(HasLine(log.Lines(), "(Error) CShareMemMap::acquireSharedMemory - out of pid entries"));
  EXPECT_TRUE(HookHas(hook, kErrorCategory,
                      "(Error) CShareMemMap::acquireSharedMemory - out of entries\n"));
  hook.Clear();

  // The full registry still serves the names it holds, to other processes
  // too, and frees room when a name goes.
  ForkedChild other([] {
    g_pshareMemMap = nullptr;  // a registry handle of its own
    int created = 1;
    const char* p = static_cast<const char*>(Acquire("NAME-7", 0, &created));
    if (p == nullptr || created != 0 || p[0] != 'q') return 2;
    if (Acquire("another", 1) != nullptr) return 3;
    return 0;
  });
  EXPECT_EQ(0, other.Join(20000));
  Release("name-3");
  EXPECT_NE(nullptr, Acquire("one-too-many", 1));
  RegistryView reg;
  EXPECT_EQ("one-too-many", reg.Name(3));
  EXPECT_EQ(kEntries, reg.InUse());
}

}  // namespace
