// Named events in the name map: the condition variable of an entry is
// shared between processes, and a waiter killed inside a wait leaves an
// entry that can be closed, freed and used again without anything blocking.
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "gtest/gtest.h"
#include "names/name_map.h"
#include "names/names_support.h"

namespace names_test {
namespace {

using NamedEventEntryTest = NameMapTest;

constexpr int kKilled = 128 + SIGKILL;

// A child's verdict for a wait that should return `bits`.
int WaitVerdict(unsigned long result, unsigned long bits) {
  if (result == bits) return 0;
  if (result == QK_WAIT_TIMEOUT) return 4;
  return 5;
}

TEST_F(NamedEventEntryTest, WakeInOneProcessReachesAWaiterInAnother) {
  Handshake go;
  auto waiter = Spawn([&] {
    if (!go.WaitFor(10000)) return 2;
    CPEvent peer(0, "shared-ev", 1);
    return WaitVerdict(peer.wait(10000, nullptr), 0x5);
  });
  ASSERT_TRUE(waiter->Started());
  CPEvent event(1, "shared-ev", 1);
  CNameMap::SNAMEINFO* e = &Map()->table()->entries[0];
  ASSERT_STREQ("shared-ev", e->szName);
  go.Signal();
  ASSERT_TRUE(WaitUntil([&] { return IsWaitingOnEvent(e, waiter->Pid()); }, 10000))
      << "the other process never started waiting";
  EXPECT_EQ(0xF0000000u, e->object.condvar.s_lVal);
  event.wake(0x5);
  EXPECT_EQ(0, waiter->Join(10000)) << "4: the wake never reached the other process";
  EXPECT_EQ(0, e->dwHolderPid) << "a finished wait leaves no waiter recorded";
  EXPECT_EQ(0xF0000000u, e->object.condvar.s_lVal) << "a successful wait resets the event";
}

TEST_F(NamedEventEntryTest, WaiterKilledInsideWaitThenLastCloseThenReuseOfTheEntryWorks) {
  Handshake victimGo, closerGo, closerOpened, closeNow, closed, nextGo;
  auto victim = Spawn([&] {
    if (!victimGo.WaitFor(10000)) return 2;
    CPEvent event(0, "ev", 1);
    event.wait(30000, nullptr);
    return 3;
  });
  auto closer = Spawn([&] {
    if (!closerGo.WaitFor(10000)) return 2;
    CPEvent* event = new CPEvent(0, "ev", 1);
    closerOpened.Signal();
    if (!closeNow.WaitFor(20000)) return 3;
    delete event;  // the last use of the entry
    closed.Signal();
    return 0;
  });
  auto next = Spawn([&] {
    if (!nextGo.WaitFor(20000)) return 2;
    CPEvent event(0, "ev2", 1);
    return WaitVerdict(event.wait(10000, nullptr), 0x9);
  });
  ASSERT_TRUE(victim->Started());
  ASSERT_TRUE(closer->Started());
  ASSERT_TRUE(next->Started());

  std::unique_ptr<CPEvent> first(new CPEvent(1, "ev", 1));
  CNameMap::SNAMEINFO* e = &Map()->table()->entries[0];
  ASSERT_STREQ("ev", e->szName);
  closerGo.Signal();
  ASSERT_TRUE(closerOpened.WaitFor(10000));
  victimGo.Signal();
  ASSERT_TRUE(WaitUntil([&] { return IsWaitingOnEvent(e, victim->Pid()); }, 10000));
  victim->Kill();
  ASSERT_EQ(kKilled, victim->Join(5000));

  first.reset();
  // The next create or open takes the killed waiter's records back.
  EXPECT_EQ(nullptr, Named("unrelated", CNameMap::Condvar, CNameMap::OpenOnly));
  EXPECT_EQ(1u, e->dwUseCount);
  EXPECT_EQ(0, e->dwHolderPid);
  closeNow.Signal();
  EXPECT_TRUE(closed.WaitFor(5000)) << "closing the last use of the event blocked";
  EXPECT_EQ(0, closer->Join(5000));
  ASSERT_EQ('\0', e->szName[0]) << "the entry was not freed";

  CPEvent reused(1, "ev2", 1);
  EXPECT_STREQ("ev2", e->szName) << "the new event was not made in the freed entry";
  nextGo.Signal();
  ASSERT_TRUE(WaitUntil([&] { return IsWaitingOnEvent(e, next->Pid()); }, 10000));
  reused.wake(0x9);
  EXPECT_EQ(0, next->Join(10000)) << "4: the reused entry's wake did not reach the other process";
  reused.wake(0x2);
  EXPECT_EQ(0x2u, reused.wait(1000, nullptr));
  EXPECT_EQ(QK_WAIT_TIMEOUT, reused.wait(0, nullptr));
}

TEST_F(NamedEventEntryTest, KilledLastWaiterIsCleanedUpWithoutBlockingAndTheEntryWorksAgain) {
  Handshake cleanGo;
  auto victim = Spawn([] {
    CPEvent event(1, "solo", 1);
    event.wait(30000, nullptr);
    return 3;
  });
  auto cleaner = Spawn([&] {
    if (!cleanGo.WaitFor(10000)) return 2;
    // The pass frees the dead process's event before the lookup.
    return Named("solo", CNameMap::Condvar, CNameMap::OpenOnly) == nullptr ? 0 : 3;
  });
  ASSERT_TRUE(victim->Started());
  ASSERT_TRUE(cleaner->Started());
  CNameMap::SNAMEINFO* e = &Map()->table()->entries[0];
  ASSERT_TRUE(WaitUntil([&] { return IsWaitingOnEvent(e, victim->Pid()); }, 10000));
  ASSERT_STREQ("solo", e->szName);
  victim->Kill();
  ASSERT_EQ(kKilled, victim->Join(5000));

  cleanGo.Signal();
  EXPECT_EQ(0, cleaner->Join(5000)) << "-1: the cleanup blocked; 3: the dead event is still there";
  ASSERT_EQ('\0', e->szName[0]);

  CPEvent again(1, "solo2", 1);
  EXPECT_STREQ("solo2", e->szName);
  again.wake(0x4);
  EXPECT_EQ(0x4u, again.wait(1000, nullptr));
}

}  // namespace
}  // namespace names_test
