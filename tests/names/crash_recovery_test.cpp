// Taking back what killed processes held in the name map, at the next
// create or open and on the pid watcher.
#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "names/name_map.h"
#include "names/names_support.h"
#include "support/log_capture.h"
#include "support/recording_hook.h"

namespace names_test {
namespace {

using CrashRecoveryTest = NameMapTest;

constexpr int kKilled = 128 + SIGKILL;

std::string DoesNotExist(const char* where, pid_t pid) {
  return std::string("CNameMap::") + where + ", pid " + std::to_string(pid) + " does not exist\n";
}

std::string Unlocking(int which, pid_t pid, const std::string& name) {
  return "CNameMap::checkForObsoleteEntries." + std::to_string(which) + ", obsolete pid " +
         std::to_string(pid) + ", unlocking mutex for \"" + name + "\"";
}

bool FileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// Nobody waits for the mutex when its holder is killed: the next open in
// another process runs the pass, which frees it, and a later lock takes a
// released mutex, not an abandoned one.
TEST_F(CrashRecoveryTest, KilledHolderOfAMutexWithNoWaiterIsFreedByTheNextOpenElsewhere) {
  LogCapture log(2);
  RecordingHook hook;
  hook.Install();
  Handshake holderReady, openerGo, openerReady, lockGo;
  Lifeline lifeline;
  auto holder = Spawn([&] {
    CNameMap::SNAMEINFO* e = Named("held", CNameMap::Mutex);
    if (e == nullptr) return 2;
    HoldMutexEntry(e);
    holderReady.Signal();
    lifeline.WaitForRelease(30000);
    return 0;
  });
  auto locker = Spawn([&] {
    if (!openerGo.WaitFor(10000)) return 2;
    CNameMap::SNAMEINFO* e = Named("held", CNameMap::Mutex, CNameMap::OpenOnly);
    if (e == nullptr) return 3;
    openerReady.Signal();
    if (!lockGo.WaitFor(10000)) return 4;
    timespec deadline;
    ::clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 5;
    const int r = pthread_mutex_timedlock(&e->object.mutex, &deadline);
    if (r != 0) return r == EOWNERDEAD ? 5 : 6;
    pthread_mutex_unlock(&e->object.mutex);
    return 0;
  });
  ASSERT_TRUE(holder->Started());
  ASSERT_TRUE(locker->Started());
  ASSERT_TRUE(holderReady.WaitFor(10000));
  openerGo.Signal();
  ASSERT_TRUE(openerReady.WaitFor(10000));

  CNameMap::SNAMEINFO* e = Named("held", CNameMap::Mutex, CNameMap::OpenOnly);
  ASSERT_NE(nullptr, e);
  const pid_t dead = holder->Pid();
  ASSERT_EQ(dead, e->dwHolderPid);
  EXPECT_FALSE(MutexIsFree(e));
  EXPECT_EQ(3u, e->dwUseCount);

  holder->Kill();
  ASSERT_EQ(kKilled, holder->Join(5000));
  ASSERT_NE(nullptr, SlotOf(e, dead)) << "nothing may change before a create, open or watcher pass";
  hook.Clear();
  // Any create or open runs the pass, here the open of a missing name.
  EXPECT_EQ(nullptr, Named("unrelated", CNameMap::Condvar, CNameMap::OpenOnly));
  EXPECT_EQ(nullptr, SlotOf(e, dead)) << "the dead process's slot is still there";
  EXPECT_EQ(2u, e->dwUseCount);
  EXPECT_EQ(0, e->dwHolderPid);
  EXPECT_EQ(0u, Map()->table()->dwBusyPid);
  lockGo.Signal();
  EXPECT_EQ(0, locker->Join(10000)) << "5: the pass left the mutex abandoned, 6: still locked";
  EXPECT_EQ(1, CountContaining(hook.Texts(), DoesNotExist("checkForObsoleteEntries", dead)))
      << Joined(hook.Texts());
  EXPECT_EQ(1, CountContaining(log.Lines(), Unlocking(2, dead, "held"))) << Joined(log.Lines());
}

TEST_F(CrashRecoveryTest, DeadWaiterOfAMutexWithNoHolderGetsItUnlocked) {
  LogCapture log(2);
  Handshake ready;
  Lifeline lifeline;
  auto dying = Spawn([&] {
    // It took the mutex inside a wait and died before recording itself as
    // the owner: its wait is still counted and there is no holder.
    CNameMap::SNAMEINFO* e = Named("awaited", CNameMap::Mutex);
    if (e == nullptr) return 2;
    CNameMap::SPIDINFO* mine = SlotOf(e, ::getpid());
    UnderMapLock([mine] { mine->dwWaitCount = 1; });
    pthread_mutex_lock(&e->object.mutex);
    ready.Signal();
    lifeline.WaitForRelease(30000);
    return 0;
  });
  ASSERT_TRUE(dying->Started());
  ASSERT_TRUE(ready.WaitFor(10000));
  CNameMap::SNAMEINFO* e = Named("awaited", CNameMap::Mutex, CNameMap::OpenOnly);
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(0, e->dwHolderPid);
  EXPECT_FALSE(MutexIsFree(e));

  const pid_t dead = dying->Pid();
  dying->Kill();
  ASSERT_EQ(kKilled, dying->Join(5000));
  EXPECT_EQ(nullptr, Named("unrelated", CNameMap::Condvar, CNameMap::OpenOnly));
  EXPECT_TRUE(MutexIsFree(e)) << "the dead waiter's mutex is still locked";
  EXPECT_EQ(nullptr, SlotOf(e, dead));
  EXPECT_EQ(1u, e->dwUseCount);
  EXPECT_EQ(1, CountContaining(log.Lines(), Unlocking(3, dead, "awaited"))) << Joined(log.Lines());
}

TEST_F(CrashRecoveryTest, DeadUserThatNeitherHeldNorAwaitedTheMutexLeavesItAlone) {
  LogCapture log(2);
  Handshake go, ready;
  Lifeline lifeline;
  auto bystander = Spawn([&] {
    if (!go.WaitFor(10000)) return 2;
    if (Named("owned", CNameMap::Mutex, CNameMap::OpenOnly) == nullptr) return 3;
    ready.Signal();
    lifeline.WaitForRelease(30000);
    return 0;
  });
  ASSERT_TRUE(bystander->Started());
  CNameMap::SNAMEINFO* e = Named("owned", CNameMap::Mutex);
  ASSERT_NE(nullptr, e);
  HoldMutexEntry(e);
  go.Signal();
  ASSERT_TRUE(ready.WaitFor(10000));
  bystander->Kill();
  ASSERT_EQ(kKilled, bystander->Join(5000));
  RunRecoveryPass();
  EXPECT_EQ(1u, e->dwUseCount);
  EXPECT_EQ(::getpid(), e->dwHolderPid);
  EXPECT_EQ(EBUSY, pthread_mutex_trylock(&e->object.mutex)) << "this process's lock was undone";
  EXPECT_EQ(0, CountContaining(log.Lines(), "unlocking mutex")) << Joined(log.Lines());
  pthread_mutex_unlock(&e->object.mutex);
}

// An object named like one of the registries' own lock files: when its
// last user dies, the entry is freed but the registry's lock file stays.
TEST_F(CrashRecoveryTest, AnObjectNamedLikeARegistryLockLeavesThatLockFileInPlace) {
  Handshake go, ready;
  Lifeline lifeline;
  auto last = Spawn([&] {
    if (!go.WaitFor(10000)) return 2;
    if (Named("CNameMap", CNameMap::Condvar) == nullptr) return 3;
    if (Named("CShareMemMap", CNameMap::Mutex) == nullptr) return 4;
    ready.Signal();
    lifeline.WaitForRelease(30000);
    return 0;
  });
  ASSERT_TRUE(last->Started());
  ASSERT_NE(nullptr, Named("keep", CNameMap::Condvar));
  go.Signal();
  ASSERT_TRUE(ready.WaitFor(10000));
  ASSERT_TRUE(FileExists("/tmp/Ambit-ipclock-CNameMap"));
  ASSERT_TRUE(FileExists("/tmp/Ambit-ipclock-CShareMemMap"));
  last->Kill();
  ASSERT_EQ(kKilled, last->Join(5000));
  RunRecoveryPass();
  EXPECT_EQ(nullptr, Named("CNameMap", CNameMap::Condvar, CNameMap::OpenOnly));
  EXPECT_EQ(nullptr, Named("CShareMemMap", CNameMap::Mutex, CNameMap::OpenOnly));
  EXPECT_TRUE(FileExists("/tmp/Ambit-ipclock-CNameMap"));
  EXPECT_TRUE(FileExists("/tmp/Ambit-ipclock-CShareMemMap"));
}

TEST_F(CrashRecoveryTest, LastUsersDeathFreesItsEntriesRemovesTheirLockFilesAndShrinksTheTable) {
  LogCapture log(2);
  RecordingHook hook;
  hook.Install();
  Handshake go, ready;
  Lifeline lifeline;
  auto last = Spawn([&] {
    if (!go.WaitFor(10000)) return 2;
    CNameMap::SNAMEINFO* b = Named("b", CNameMap::Condvar);
    CNameMap::SNAMEINFO* c = Named("c", CNameMap::Mutex);
    CNameMap::SNAMEINFO* d = Named("d", CNameMap::Semaphore, CNameMap::CreateOrOpen, nullptr, 1);
    if (b == nullptr || c == nullptr || d == nullptr) return 3;
    HoldMutexEntry(c);
    if (sem_wait(&d->object.semaphore) != 0) return 4;
    UnderMapLock([&] {
      d->dwHolderPid = static_cast<int32_t>(::getpid());
      b->dwHolderPid = static_cast<int32_t>(::getpid());
    });
    // The per-name lock files that the object classes keep.
    for (const char* name : {"/tmp/Ambit-ipclock-b", "/tmp/Ambit-ipclock-c"}) {
      const int fd = ::open(name, O_WRONLY | O_CREAT, 0777);
      if (fd < 0) return 5;
      ::close(fd);
    }
    ready.Signal();
    lifeline.WaitForRelease(30000);
    return 0;
  });
  ASSERT_TRUE(last->Started());
  ASSERT_EQ(0, IndexOf(Named("keep", CNameMap::Condvar)));
  go.Signal();
  ASSERT_TRUE(ready.WaitFor(10000));
  CNameMap::SNAMEMAP* table = Map()->table();
  ASSERT_EQ(3u, table->dwHighestEntry);
  ASSERT_TRUE(FileExists("/tmp/Ambit-ipclock-b"));
  ASSERT_TRUE(FileExists("/tmp/Ambit-ipclock-c"));

  const pid_t dead = last->Pid();
  last->Kill();
  ASSERT_EQ(kKilled, last->Join(5000));
  hook.Clear();
  // The pass runs before the lookup, so the dead process's event is gone.
  EXPECT_EQ(nullptr, Named("b", CNameMap::Condvar, CNameMap::OpenOnly));
  EXPECT_EQ(0u, table->dwHighestEntry) << "the table did not shrink to its highest used entry";
  EXPECT_EQ(0u, table->dwBusyPid);
  for (int i = 1; i <= 3; ++i) EXPECT_EQ('\0', table->entries[i].szName[0]) << "entry " << i;
  EXPECT_FALSE(FileExists("/tmp/Ambit-ipclock-b"));
  EXPECT_FALSE(FileExists("/tmp/Ambit-ipclock-c"));
  EXPECT_STREQ("keep", table->entries[0].szName);

  const std::vector<RecordingHook::Line> lines = hook.Lines();
  for (const char* name : {"b", "c", "d"}) {
    const std::string text =
        std::string("CNameMap::checkForObsoleteEntries, no more users of object \"") + name + "\"\n";
    int found = 0;
    for (const RecordingHook::Line& l : lines) {
      if (l.text != text) continue;
      ++found;
      EXPECT_EQ(4u, l.category);
      EXPECT_EQ(2u, l.level);
    }
    EXPECT_EQ(1, found) << text << Joined(hook.Texts());
  }
  EXPECT_EQ(3, CountContaining(hook.Texts(), DoesNotExist("checkForObsoleteEntries", dead)));
  EXPECT_EQ(1, CountContaining(log.Lines(), Unlocking(1, dead, "c"))) << Joined(log.Lines());
  EXPECT_EQ(1, IndexOf(Named("next", CNameMap::Mutex)));
}

TEST_F(CrashRecoveryTest, DeadPidInManyEntriesIsProbedOncePerPass) {
  RecordingHook hook;
  hook.Install();
  Handshake deadGo, deadReady, aliveGo, aliveReady;
  Lifeline lifeline;
  const int kEntries = 5;
  auto user = [&](Handshake* go, Handshake* ready) {
    if (!go->WaitFor(10000)) return 2;
    for (int i = 0; i < kEntries; ++i)
      if (Named("many" + std::to_string(i), CNameMap::Condvar, CNameMap::OpenOnly) == nullptr) return 3;
    ready->Signal();
    lifeline.WaitForRelease(30000);
    return 0;
  };
  auto dying = Spawn([&] { return user(&deadGo, &deadReady); });
  auto living = Spawn([&] { return user(&aliveGo, &aliveReady); });
  ASSERT_TRUE(dying->Started());
  ASSERT_TRUE(living->Started());
  std::vector<CNameMap::SNAMEINFO*> entries;
  for (int i = 0; i < kEntries; ++i) entries.push_back(Named("many" + std::to_string(i), CNameMap::Condvar));
  deadGo.Signal();
  aliveGo.Signal();
  ASSERT_TRUE(deadReady.WaitFor(10000));
  ASSERT_TRUE(aliveReady.WaitFor(10000));

  const pid_t dead = dying->Pid(), alive = living->Pid();
  dying->Kill();
  ASSERT_EQ(kKilled, dying->Join(5000));
  hook.Clear();
  CountProbesOf({dead, alive});
  RunRecoveryPass();
  const int deadProbes = ProbesOf(dead), aliveProbes = ProbesOf(alive);
  CountProbesOf({dead, alive});
  RunRecoveryPass();
  const int aliveProbesNextPass = ProbesOf(alive);
  StopCountingProbes();

  EXPECT_EQ(1, deadProbes) << "the dead pid was in " << kEntries << " entries";
  EXPECT_EQ(1, aliveProbes) << "the live pid was in " << kEntries << " entries";
  EXPECT_EQ(1, aliveProbesNextPass) << "each pass probes afresh";
  EXPECT_EQ(kEntries, CountContaining(hook.Texts(), DoesNotExist("checkForObsoleteEntries", dead)))
      << Joined(hook.Texts());
  for (CNameMap::SNAMEINFO* e : entries) {
    EXPECT_EQ(nullptr, SlotOf(e, dead)) << e->szName;
    EXPECT_NE(nullptr, SlotOf(e, alive)) << e->szName;
    EXPECT_EQ(2u, e->dwUseCount) << e->szName;
  }
}

TEST_F(CrashRecoveryTest, LiveProcessOfAnotherUserCountsAsAlive) {
  Handshake ownerReady, go;
  Lifeline lifeline;
  auto owner = Spawn([&] {
    CNameMap::SNAMEINFO* e = Named("across-users", CNameMap::Mutex);
    if (e == nullptr) return 2;
    HoldMutexEntry(e);
    ownerReady.Signal();
    lifeline.WaitForRelease(30000);
    return 0;
  });
  ASSERT_TRUE(owner->Started());
  const pid_t ownerPid = owner->Pid();
  constexpr int kCannotDrop = 50, kNoPermissionCheck = 51;
  auto other = Spawn([&, ownerPid] {
    if (!go.WaitFor(10000)) return 2;
    if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) return kCannotDrop;
    // The probe of the owner now fails, but not with ESRCH.
    if (::kill(ownerPid, 0) == 0 || errno != EPERM) return kNoPermissionCheck;
    CNameMap::SNAMEINFO* e = Named("across-users", CNameMap::Mutex, CNameMap::OpenOnly);
    if (e == nullptr) return 3;
    RunRecoveryPass();
    if (SlotOf(e, ownerPid) == nullptr) return 4;
    if (e->dwHolderPid != ownerPid) return 5;
    if (e->dwUseCount != 2) return 6;
    if (pthread_mutex_trylock(&e->object.mutex) != EBUSY) return 7;
    return 0;
  });
  ASSERT_TRUE(other->Started());
  ASSERT_TRUE(ownerReady.WaitFor(10000));
  go.Signal();
  const int r = other->Join(15000);
  if (r == kCannotDrop) GTEST_SKIP() << "cannot switch to uid 65534 here";
  ASSERT_NE(kNoPermissionCheck, r) << "a probe of another user's process did not fail with EPERM";
  EXPECT_EQ(0, r) << "2-3: no open; 4: slot taken back; 5: holder cleared; 6: use count; 7: unlocked";
}

TEST_F(CrashRecoveryTest, ConstructorReportsAndClearsATableLeftBusyByAProcessThatDied) {
  Handshake keeperReady, crashGo;
  Lifeline lifeline;
  auto keeper = Spawn([&] {  // keeps the table segment alive
    Map();
    keeperReady.Signal();
    lifeline.WaitForRelease(30000);
    return 0;
  });
  auto crasher = Spawn([&] {
    if (!crashGo.WaitFor(10000)) return 2;
    Map()->lock();
    Map()->table()->dwBusyPid = static_cast<uint32_t>(::getpid());
    ::raise(SIGKILL);  // dies in the middle of a change
    return 3;
  });
  ASSERT_TRUE(keeper->Started());
  ASSERT_TRUE(crasher->Started());
  ASSERT_TRUE(keeperReady.WaitFor(10000));
  crashGo.Signal();
  const pid_t crashed = crasher->Pid();
  ASSERT_EQ(kKilled, crasher->Join(10000));

  LogCapture log(2);
  RecordingHook hook;
  hook.Install();
  CNameMap* map = Map();
  EXPECT_EQ(1, CountContaining(hook.Texts(), "CNameMap::CNameMap() - existing\n")) << Joined(hook.Texts());
  EXPECT_EQ(1, CountContaining(log.Lines(), "(Error) CNameMap::CNameMap() - process " +
                                                std::to_string(crashed) + " crashed while modifying"))
      << Joined(log.Lines());
  EXPECT_EQ(0u, map->table()->dwBusyPid);
  EXPECT_NE(nullptr, Named("after", CNameMap::Condvar)) << "the table is usable afterwards";
}

TEST_F(CrashRecoveryTest, PidWatcherStartsNamedAndStopsWithTheMap) {
  RecordingHook hook;
  hook.Install();
  std::string mainName = ReadFile("/proc/self/comm");
  if (!mainName.empty() && mainName.back() == '\n') mainName.pop_back();
  const std::string expected = mainName.substr(0, mainName.find('.')).substr(0, 3) + ".NameMapPidW";

  CNameMap* map = Map();
  // Marked running from the start; the thread names itself, then traces.
  EXPECT_TRUE(map->watcherRunning());
  ASSERT_TRUE(WaitUntil(
      [&hook] { return CountContaining(hook.Texts(), "CNameMap::pidWatcherThread - starting\n") > 0; },
      5000));
  EXPECT_EQ(1, CountContaining(hook.Texts(), "CNameMap::pidWatcherThread - starting\n"));
  for (const RecordingHook::Line& l : hook.Lines()) {
    if (l.text.find("pidWatcherThread") != std::string::npos) {
      EXPECT_EQ(8u, l.category);
    }
  }
  auto named = [&expected] {
    int n = 0;
    for (const std::string& t : ThreadNames()) n += t == expected;
    return n;
  };
  EXPECT_EQ(1, named()) << "no thread named " << expected;

  // A child forked now shares this process's map but has no watcher.
  auto child = Spawn([] {
    for (const std::string& t : ThreadNames())
      if (t.find("NameMapPidW") != std::string::npos) return 1;
    return g_pnameMap != nullptr ? 0 : 2;
  });
  EXPECT_EQ(0, child->Join(5000)) << "1: a forked child has a watcher";

  EXPECT_EQ(0, CountContaining(hook.Texts(), "CNameMap::pidWatcherThread - stopping\n"));
  delete map;  // signals the watcher and waits for it
  g_pnameMap = nullptr;
  EXPECT_EQ(1, CountContaining(hook.Texts(), "CNameMap::pidWatcherThread - stopping\n"));
  EXPECT_TRUE(WaitUntil([&named] { return named() == 0; }, 5000)) << "the watcher thread is still there";
}

// The one slow test: without any create or open, the watcher's 20 s pass
// takes back a killed holder's mutex.
TEST_F(CrashRecoveryTest, PidWatcherAloneUnlocksAKilledHoldersMutexWithin25Seconds) {
  LogCapture log(2);
  RecordingHook hook;
  hook.Install();
  Handshake ready;
  Lifeline lifeline;
  auto holder = Spawn([&] {
    CNameMap::SNAMEINFO* e = Named("held", CNameMap::Mutex);
    if (e == nullptr) return 2;
    HoldMutexEntry(e);
    ready.Signal();
    lifeline.WaitForRelease(60000);
    return 0;
  });
  ASSERT_TRUE(holder->Started());
  ASSERT_TRUE(ready.WaitFor(10000));
  // This process's map and watcher start here; the first pass is 20 s on.
  CNameMap::SNAMEINFO* e = Named("held", CNameMap::Mutex, CNameMap::OpenOnly);
  ASSERT_NE(nullptr, e);
  ASSERT_TRUE(WaitUntil([] { return Map()->watcherRunning(); }, 5000));
  const pid_t dead = holder->Pid();
  holder->Kill();
  ASSERT_EQ(kKilled, holder->Join(5000));
  EXPECT_EQ(dead, e->dwHolderPid);

  const auto start = std::chrono::steady_clock::now();
  const bool recovered = WaitUntil([e, dead] { return SlotOf(e, dead) == nullptr; }, 25000);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::steady_clock::now() - start).count();
  ASSERT_TRUE(recovered) << "no watcher pass took the killed holder back within 25 s";
  EXPECT_GE(seconds, 10) << "recovered before the watcher's period: something else ran a pass";
  EXPECT_TRUE(WaitUntil([] { return Map()->table()->dwBusyPid == 0; }, 2000));
  EXPECT_EQ(0, e->dwHolderPid);
  EXPECT_EQ(1u, e->dwUseCount);
  EXPECT_TRUE(MutexIsFree(e)) << "the killed holder's mutex is still locked";
  EXPECT_EQ(1, CountContaining(hook.Texts(), DoesNotExist("checkForObsoleteEntries", dead)));
  EXPECT_EQ(1, CountContaining(log.Lines(), Unlocking(2, dead, "held"))) << Joined(log.Lines());
}

}  // namespace
}  // namespace names_test

namespace {

// A map destroyed right after it was made still waits for its watcher to
// let go of it (the sanitizer build sees any use after the delete).
TEST(NameMapLifetimeTest, AMapDestroyedAtOnceWaitsForItsWatcher) {
  for (int i = 0; i < 10; ++i) {
    CNameMap* map = new CNameMap;
    EXPECT_TRUE(map->watcherRunning());
    delete map;
  }
}

}  // namespace
