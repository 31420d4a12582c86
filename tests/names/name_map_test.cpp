// The name map's table: names, create modes, slots, growth, the bytes
// another process sees, enumeration and the dump.
#include "names/name_map.h"

#include <dirent.h>
#include <semaphore.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ambit/event.h"
#include "ambit/exception.h"
#include "gtest/gtest.h"
#include "names/names_support.h"
#include "names/table_reader.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/recording_hook.h"

namespace names_test {
namespace {

using NameMapTableTest = NameMapTest;

TEST_F(NameMapTableTest, NamesThatDifferOnlyInPunctuationNameOneObject) {
  Handshake go;
  auto other = Spawn([&] {
    if (!go.WaitFor(10000)) return 2;
    CNameMap::SNAMEINFO* e = Named("dir\\obj", CNameMap::Condvar, CNameMap::OpenOnly);
    if (e == nullptr) return 3;
    return IndexOf(e) == 0 && std::strcmp(e->szName, "dir-obj") == 0 ? 0 : 4;
  });
  ASSERT_TRUE(other->Started());

  int created = 0;
  CNameMap::SNAMEINFO* slash = Named("dir/obj", CNameMap::Condvar, CNameMap::CreateOrOpen, &created);
  ASSERT_NE(nullptr, slash);
  EXPECT_EQ(1, created);
  EXPECT_STREQ("dir-obj", slash->szName);

  CNameMap::SNAMEINFO* dash = Named("dir-obj", CNameMap::Condvar, CNameMap::CreateOrOpen, &created);
  EXPECT_EQ(slash, dash);
  EXPECT_EQ(0, created);
  EXPECT_EQ(slash, Named("dir obj", CNameMap::Condvar, CNameMap::OpenOnly));
  // Letters keep their case: this is another name.
  EXPECT_EQ(nullptr, Named("Dir/obj", CNameMap::Condvar, CNameMap::OpenOnly));
  EXPECT_EQ(3u, slash->dwUseCount);

  go.Signal();
  EXPECT_EQ(0, other->Join(10000)) << "the other process did not find \"dir-obj\" as \"dir\\obj\"";
  EXPECT_EQ(4u, slash->dwUseCount);
  EXPECT_EQ(0u, Map()->table()->dwHighestEntry);
}

TEST_F(NameMapTableTest, OpeningTwiceFromOneProcessUsesOneSlotWithCountTwoAndNeedsTwoDestroys) {
  const uint32_t me = static_cast<uint32_t>(::getpid());
  CNameMap::SNAMEINFO* first = Named("twice", CNameMap::Mutex);
  CNameMap::SNAMEINFO* second = Named("twice", CNameMap::Mutex);
  ASSERT_NE(nullptr, first);
  ASSERT_EQ(first, second);
  EXPECT_EQ(me, first->pids[0].dwPid);
  EXPECT_EQ(2u, first->pids[0].dwCount);
  EXPECT_EQ(1, UsedSlots(first));
  EXPECT_EQ(2u, first->dwUseCount);

  Map()->destroyNamedObject(first);
  EXPECT_STREQ("twice", first->szName) << "one destroy must not free a twice-opened entry";
  EXPECT_EQ(me, first->pids[0].dwPid);
  EXPECT_EQ(1u, first->pids[0].dwCount);
  EXPECT_EQ(1u, first->dwUseCount);
  EXPECT_EQ(0u, Map()->table()->dwBusyPid);

  Map()->destroyNamedObject(first);
  EXPECT_EQ('\0', first->szName[0]);
  EXPECT_EQ(0u, first->pids[0].dwPid);
  EXPECT_EQ(0u, first->dwUseCount);
  EXPECT_EQ(0u, Map()->table()->dwBusyPid);
  EXPECT_EQ(nullptr, Named("twice", CNameMap::Mutex, CNameMap::OpenOnly));
}

TEST_F(NameMapTableTest, TableGrowsOneIndexAtATimeAnd512ObjectsFitButNot513) {
  CNameMap::SNAMEMAP* table = Map()->table();
  ASSERT_EQ(512u, table->dwMaxEntries);
  std::vector<CNameMap::SNAMEINFO*> entries;
  for (int i = 0; i < 512; ++i) {
    CNameMap::SNAMEINFO* e = Named("obj" + std::to_string(i), CNameMap::Mutex);
    ASSERT_NE(nullptr, e) << "object " << i << " did not fit";
    ASSERT_EQ(i, IndexOf(e));
    ASSERT_EQ(static_cast<uint32_t>(i), table->dwHighestEntry);
    entries.push_back(e);
  }
  int created = 1;
  EXPECT_EQ(nullptr, Named("obj512", CNameMap::Mutex, CNameMap::CreateOrOpen, &created));
  EXPECT_EQ(0, created);
  EXPECT_EQ(nullptr, Named("obj512", CNameMap::Semaphore));
  EXPECT_EQ(511u, table->dwHighestEntry);
  EXPECT_EQ(0u, table->dwBusyPid);
  // Everything that exists can still be opened in a full table.
  EXPECT_EQ(entries[511], Named("obj511", CNameMap::Mutex, CNameMap::OpenOnly));
  Map()->destroyNamedObject(entries[511]);

  // The lowest free index wins; a destroy does not lower the highest index.
  Map()->destroyNamedObject(entries[511]);
  Map()->destroyNamedObject(entries[300]);
  Map()->destroyNamedObject(entries[200]);
  EXPECT_EQ(511u, table->dwHighestEntry);
  EXPECT_EQ(200, IndexOf(Named("again-a", CNameMap::Mutex)));
  EXPECT_EQ(300, IndexOf(Named("again-b", CNameMap::Mutex)));
  EXPECT_EQ(511, IndexOf(Named("again-c", CNameMap::Mutex)));
  EXPECT_EQ(nullptr, Named("again-d", CNameMap::Mutex));
}

TEST_F(NameMapTableTest, DestroyKeepsTheHighestIndexAndTheNextPassLowersIt) {
  CNameMap::SNAMEMAP* table = Map()->table();
  CNameMap::SNAMEINFO* a = Named("a", CNameMap::Condvar);
  CNameMap::SNAMEINFO* b = Named("b", CNameMap::Mutex);
  CNameMap::SNAMEINFO* c = Named("c", CNameMap::Semaphore);
  ASSERT_EQ(2, IndexOf(c));
  Map()->destroyNamedObject(c);
  Map()->destroyNamedObject(b);
  EXPECT_EQ(2u, table->dwHighestEntry);
  // Any create or open runs the pass; an open of a missing name changes
  // nothing else.
  EXPECT_EQ(nullptr, Named("missing", CNameMap::Condvar, CNameMap::OpenOnly));
  EXPECT_EQ(0u, table->dwHighestEntry);
  EXPECT_EQ(0u, table->dwBusyPid);
  Map()->destroyNamedObject(a);
  RunRecoveryPass();
  EXPECT_EQ(0u, table->dwHighestEntry);
  EXPECT_EQ(0, IndexOf(Named("fresh", CNameMap::Mutex)));
}

TEST_F(NameMapTableTest, FoundEntryOfAnotherTypeGivesNullAndChangesNothing) {
  CNameMap::SNAMEINFO* m = Named("typed", CNameMap::Mutex);
  CNameMap::SNAMEINFO* gap = Named("gap", CNameMap::Semaphore);
  Named("top", CNameMap::Condvar);
  ASSERT_EQ(0, IndexOf(m));
  // A free entry after the found one must not be handed out instead.
  Map()->destroyNamedObject(gap);

  std::unique_ptr<CNameMap::SNAMEMAP> before(new CNameMap::SNAMEMAP);
  std::memcpy(before.get(), Map()->table(), sizeof *before);
  for (CNameMap::NAMETYPE other : {CNameMap::Condvar, CNameMap::Semaphore}) {
    for (CNameMap::CREATETYPE mode : {CNameMap::CreateOrOpen, CNameMap::OpenOnly}) {
      int created = 1;
      EXPECT_EQ(nullptr, Named("typed", other, mode, &created)) << "type " << other << ", mode " << mode;
      EXPECT_EQ(0, created);
      EXPECT_EQ(0, std::memcmp(before.get(), Map()->table(), sizeof *before))
          << "the table changed (type " << other << ", mode " << mode << ")";
    }
  }
  EXPECT_EQ(m, Named("typed", CNameMap::Mutex, CNameMap::OpenOnly));
}

TEST_F(NameMapTableTest, CreateOnlyOnAnExistingNameGivesNull) {
  int created = 0;
  CNameMap::SNAMEINFO* e = Named("once", CNameMap::Semaphore, CNameMap::CreateOnly, &created, 2);
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(1, created);
  EXPECT_EQ(nullptr, Named("once", CNameMap::Semaphore, CNameMap::CreateOnly, &created));
  EXPECT_EQ(0, created);
  EXPECT_EQ(1u, e->dwUseCount);
  EXPECT_EQ(0u, Map()->table()->dwHighestEntry);
}

TEST_F(NameMapTableTest, OpenOnlyOnAMissingNameGivesNullAndCreatesNothing) {
  int created = 1;
  EXPECT_EQ(nullptr, Named("nobody", CNameMap::Condvar, CNameMap::OpenOnly, &created));
  EXPECT_EQ(0, created);
  EXPECT_EQ('\0', Map()->table()->entries[0].szName[0]);
  EXPECT_EQ(0u, Map()->table()->dwHighestEntry);
  EXPECT_EQ(0u, Map()->table()->dwBusyPid);
}

TEST_F(NameMapTableTest, ModesOtherThanCreateOnlyAndOpenOnlyCreateOrOpen) {
  int created = 0;
  CNameMap::SNAMEINFO* e = Named("either", CNameMap::Mutex, static_cast<CNameMap::CREATETYPE>(0), &created);
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(1, created);
  EXPECT_EQ(e, Named("either", CNameMap::Mutex, static_cast<CNameMap::CREATETYPE>(7), &created));
  EXPECT_EQ(0, created);
  EXPECT_EQ(e, Named("either", CNameMap::Mutex, CNameMap::CreateOrOpen, &created));
  EXPECT_EQ(3u, e->dwUseCount);
}

TEST_F(NameMapTableTest, NamesUpTo255CharactersWorkAndLongerOnesGiveNull) {
  const std::string longest(255, 'n');
  CNameMap::SNAMEINFO* e = Named(longest, CNameMap::Condvar);
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(longest, std::string(e->szName));
  int created = 1;
  EXPECT_EQ(nullptr, Named(longest + "n", CNameMap::Condvar, CNameMap::CreateOrOpen, &created));
  EXPECT_EQ(0, created);
  EXPECT_EQ(nullptr, Named(std::string(1000, 'x'), CNameMap::Mutex));
  EXPECT_EQ(0u, Map()->table()->dwHighestEntry);
}

TEST_F(NameMapTableTest, AnEmptyNameGivesNullAndClaimsNoEntry) {
  int created = 1;
  EXPECT_EQ(nullptr, Named("", CNameMap::Mutex, CNameMap::CreateOrOpen, &created));
  EXPECT_EQ(0, created);
  ASSERT_NE(nullptr, Named("after", CNameMap::Mutex));
  EXPECT_STREQ("after", Map()->table()->entries[0].szName);
  EXPECT_EQ(0u, Map()->table()->dwHighestEntry);
}

TEST_F(NameMapTableTest, TypeZeroGivesNull) {
  int created = 1;
  EXPECT_EQ(nullptr, Named("untyped", CNameMap::NameTypeInvalid, CNameMap::CreateOrOpen, &created));
  EXPECT_EQ(0, created);
  EXPECT_EQ('\0', Map()->table()->entries[0].szName[0]);
}

TEST_F(NameMapTableTest, ANewEntryIsZeroedAndHoldsAReadyObjectOfItsType) {
  const int32_t me = static_cast<int32_t>(::getpid());
  int created = 0;
  CNameMap::SNAMEINFO* sem = Named("sem", CNameMap::Semaphore, CNameMap::CreateOrOpen, &created, 3);
  ASSERT_NE(nullptr, sem);
  int value = -1;
  ASSERT_EQ(0, sem_getvalue(&sem->object.semaphore, &value));
  EXPECT_EQ(3, value);
  EXPECT_EQ(CNameMap::Semaphore, sem->nameType);
  EXPECT_EQ(static_cast<uint32_t>(me), sem->dwCreatorPid);
  EXPECT_EQ(0, sem->dwHolderPid);

  CNameMap::SNAMEINFO* mutex = Named("mutex", CNameMap::Mutex);
  ASSERT_NE(nullptr, mutex);
  ASSERT_EQ(0, pthread_mutex_trylock(&mutex->object.mutex));
  EXPECT_NE(0, pthread_mutex_trylock(&mutex->object.mutex)) << "the entry's mutex must not be recursive";
  EXPECT_EQ(0, pthread_mutex_unlock(&mutex->object.mutex));

  CNameMap::SNAMEINFO* event = Named("event", CNameMap::Condvar);
  ASSERT_NE(nullptr, event);
  EXPECT_EQ(0xF0000000u, event->object.condvar.s_lVal);
  ASSERT_EQ(0, pthread_mutex_trylock(&event->object.condvar.mutex));
  EXPECT_EQ(0, pthread_mutex_trylock(&event->object.condvar.mutex)) << "the event's mutex is recursive";
  pthread_mutex_unlock(&event->object.condvar.mutex);
  pthread_mutex_unlock(&event->object.condvar.mutex);

  // Leftovers of a freed entry do not reach the next object made there.
  const int index = static_cast<int>(IndexOf(event));
  UnderMapLock([&] {
    event->pids[0].dwWaitCount = 7;
    event->dwHolderPid = 4242;
  });
  event->object.condvar.s_lVal = 0x12;
  Map()->destroyNamedObject(event);
  CNameMap::SNAMEINFO* reused = Named("event2", CNameMap::Condvar, CNameMap::CreateOrOpen, &created);
  ASSERT_EQ(index, IndexOf(reused));
  EXPECT_EQ(1, created);
  EXPECT_EQ(0u, reused->pids[0].dwWaitCount);
  EXPECT_EQ(0, reused->dwHolderPid);
  EXPECT_EQ(0xF0000000u, reused->object.condvar.s_lVal);
}

TEST_F(NameMapTableTest, AnotherProcessSeesTheTableFieldsAtTheirOffsets) {
  TableReader reader;
  Handshake openGo, opened;
  auto opener = Spawn([&] {
    if (!openGo.WaitFor(10000)) return 2;
    const bool ok = Named("ev", CNameMap::Condvar, CNameMap::OpenOnly) != nullptr;
    opened.Signal();
    return ok ? 0 : 3;
  });
  ASSERT_TRUE(opener->Started());
  const uint32_t me = static_cast<uint32_t>(::getpid());

  CPEvent evA(1, "ev", 1);
  CPEvent evB(1, "ev", 1);
  CNameMap::SNAMEINFO* mx = Named("mx", CNameMap::Mutex);
  ASSERT_NE(nullptr, Named("sm", CNameMap::Semaphore, CNameMap::CreateOrOpen, nullptr, 3));

  std::vector<unsigned char> t = reader.Snapshot();
  ASSERT_EQ(CNameMap::kSegmentSize, t.size()) << "the reader could not attach the table";
  EXPECT_EQ(0u, U32(t, 4)) << "dwBusyPid";
  EXPECT_EQ(512u, U32(t, 8)) << "dwMaxEntries";
  EXPECT_EQ(2u, U32(t, 12)) << "dwHighestEntry";
  const size_t ev = EntryAt(0), m = EntryAt(1), s = EntryAt(2);
  EXPECT_EQ("ev", CString(t, ev));
  EXPECT_EQ(1u, U32(t, ev + 256)) << "type Condvar";
  EXPECT_EQ(2u, U32(t, ev + 260)) << "dwUseCount";
  EXPECT_EQ(me, U32(t, ev + 264)) << "dwCreatorPid";
  EXPECT_EQ(0u, U32(t, ev + 268)) << "dwHolderPid";
  EXPECT_EQ(me, U32(t, SlotAt(ev, 0)));
  EXPECT_EQ(2u, U32(t, SlotAt(ev, 0) + 4));
  EXPECT_EQ(0u, U32(t, SlotAt(ev, 0) + 8));
  EXPECT_EQ(0u, U32(t, SlotAt(ev, 1)));
  EXPECT_EQ(0xF0000000u, U32(t, ev + 1112)) << "s_lVal of a new event";
  EXPECT_EQ("mx", CString(t, m));
  EXPECT_EQ(2u, U32(t, m + 256)) << "type Mutex";
  EXPECT_EQ(1u, U32(t, m + 260));
  EXPECT_EQ(me, U32(t, SlotAt(m, 0)));
  EXPECT_EQ("sm", CString(t, s));
  EXPECT_EQ(3u, U32(t, s + 256)) << "type Semaphore";
  EXPECT_EQ(0u, t[EntryAt(3)]) << "entry 3 is free";
  size_t used = 0;
  for (size_t at = EntryAt(512); at < t.size(); ++at) used += t[at] != 0;
  EXPECT_EQ(0u, used) << "the 3164 bytes after the entries are not used";

  // Another process opens the event: it gets its own slot.
  openGo.Signal();
  ASSERT_TRUE(opened.WaitFor(10000));
  const pid_t openerPid = opener->Pid();
  EXPECT_EQ(0, opener->Join(5000));
  evA.wake(0x3);
  HoldMutexEntry(mx);
  t = reader.Snapshot();
  ASSERT_EQ(CNameMap::kSegmentSize, t.size());
  EXPECT_EQ(0u, U32(t, 4)) << "dwBusyPid after an open";
  EXPECT_EQ(3u, U32(t, ev + 260));
  EXPECT_EQ(me, U32(t, ev + 264)) << "the creator stays the creator";
  EXPECT_EQ(static_cast<uint32_t>(openerPid), U32(t, SlotAt(ev, 1)));
  EXPECT_EQ(1u, U32(t, SlotAt(ev, 1) + 4));
  EXPECT_EQ(3u, U32(t, ev + 1112)) << "s_lVal after wake(0x3)";
  EXPECT_EQ(me, U32(t, m + 268)) << "dwHolderPid of the held mutex";

  pthread_mutex_unlock(&mx->object.mutex);
  Map()->destroyNamedObject(mx);
  t = reader.Snapshot();
  ASSERT_EQ(CNameMap::kSegmentSize, t.size());
  EXPECT_EQ(0u, U32(t, 4)) << "dwBusyPid after a destroy";
  EXPECT_EQ(0u, t[m]) << "the destroyed entry is free";
  EXPECT_EQ(2u, U32(t, 12)) << "a destroy does not lower dwHighestEntry";
}

TEST_F(NameMapTableTest, CreateAndOpenTraceTheirSteps) {
  RecordingHook hook;
  hook.Install();
  Named("a/b", CNameMap::Condvar);
  CNameMap::SNAMEINFO* c = Named("c", CNameMap::Mutex);
  Named("d", CNameMap::Mutex);
  Map()->destroyNamedObject(c);
  ASSERT_EQ(2u, Map()->table()->dwHighestEntry);
  hook.Clear();
  Named("a/b", CNameMap::Condvar);
  const std::vector<std::string> open = {
      "CNameMap::createNamedObject: \"a/b\", nameType 1\n",
      "CNameMap::createNamedObject: map name (0) \"a-b\"\n",
      "CNameMap::createNamedObject: found at 0\n",
      "CNameMap::createNamedObject: map name (1) \"\"\n",
      "CNameMap::createNamedObject: free at 1\n",
      "CNameMap::createNamedObject: map name (2) \"d\"\n",
  };
  EXPECT_EQ(open, hook.Texts());
  for (const RecordingHook::Line& l : hook.Lines()) {
    EXPECT_EQ(8u, l.category) << l.text;
    EXPECT_EQ(2u, l.level) << l.text;
  }
  hook.Clear();
  Named("e", CNameMap::Semaphore);
  EXPECT_EQ(1, CountContaining(hook.Texts(), "CNameMap::createNamedObject: initialize 1\n"))
      << Joined(hook.Texts());
}

TEST_F(NameMapTableTest, ConstructionTracesWhetherTheTableIsNew) {
  RecordingHook hook;
  hook.Install();
  Handshake go;
  auto second = Spawn([&] {
    if (!go.WaitFor(10000)) return 2;
    RecordingHook own;
    own.Install();
    Map();
    return CountContaining(own.Texts(), "CNameMap::CNameMap() - existing\n") == 1 ? 0 : 3;
  });
  ASSERT_TRUE(second->Started());
  Map();
  EXPECT_EQ(1, CountContaining(hook.Texts(), "CNameMap::CNameMap() - created\n"));
  EXPECT_EQ(0, CountContaining(hook.Texts(), "CNameMap::CNameMap() - existing\n"));
  EXPECT_EQ(Map(), get_nameMap());
  go.Signal();
  EXPECT_EQ(0, second->Join(10000)) << "a second process did not find the table existing";
}

// --- Enumeration and dump ---------------------------------------------------

TEST_F(NameMapTableTest, EnumerationListsTheUsedEntriesInTableOrder) {
  Named("a", CNameMap::Condvar);
  CNameMap::SNAMEINFO* b = Named("b", CNameMap::Mutex);
  CNameMap::SNAMEINFO* c = Named("c", CNameMap::Semaphore);
  Named("d", CNameMap::Condvar);
  Map()->destroyNamedObject(b);
  ASSERT_EQ(1, IndexOf(Named("e/x", CNameMap::Mutex)));
  Map()->destroyNamedObject(c);

  struct Seen {
    std::string name;
    CNameMap::NAMETYPE type;
    unsigned long next;
  };
  std::vector<Seen> seen;
  Map()->enumEntriesBegin();
  unsigned long index = 0;
  std::string name;
  CNameMap::NAMETYPE type = CNameMap::NameTypeInvalid;
  while (seen.size() < 10 && Map()->enumEntry(&index, &name, &type)) seen.push_back({name, type, index});
  const unsigned long after = index;
  unsigned long fromTwo = 2;
  const bool any = Map()->enumEntry(&fromTwo, &name, &type);
  Map()->table()->dwBusyPid = 1234;  // end clears it
  Map()->enumEntriesEnd();

  ASSERT_EQ(3u, seen.size());
  EXPECT_EQ("a", seen[0].name);
  EXPECT_EQ(CNameMap::Condvar, seen[0].type);
  EXPECT_EQ(1u, seen[0].next);
  EXPECT_EQ("e-x", seen[1].name);
  EXPECT_EQ(CNameMap::Mutex, seen[1].type);
  EXPECT_EQ(2u, seen[1].next);
  EXPECT_EQ("d", seen[2].name);
  EXPECT_EQ(CNameMap::Condvar, seen[2].type);
  EXPECT_EQ(4u, seen[2].next) << "the free entry 2 is skipped";
  EXPECT_EQ(4u, after) << "the index stays where the last entry left it";
  EXPECT_TRUE(any);
  EXPECT_EQ("d", name) << "enumeration from index 2 starts at the next used entry";
  EXPECT_EQ(4u, fromTwo);
  EXPECT_EQ(0u, Map()->table()->dwBusyPid);
}

TEST_F(NameMapTableTest, EnumerationHoldsTheMapLockUntilItsEnd) {
  Handshake go, done;
  auto other = Spawn([&] {
    if (!go.WaitFor(10000)) return 2;
    const bool ok = Named("late", CNameMap::Condvar) != nullptr;
    done.Signal();
    return ok ? 0 : 3;
  });
  ASSERT_TRUE(other->Started());
  Map()->enumEntriesBegin();
  go.Signal();
  const bool early = done.WaitFor(300);
  Map()->enumEntriesEnd();
  EXPECT_FALSE(early) << "another process changed the table during an enumeration";
  EXPECT_TRUE(early || done.WaitFor(10000)) << "the other process never got the lock";
  EXPECT_EQ(0, other->Join(5000));
}

TEST_F(NameMapTableTest, DumpWritesEveryUsedEntryWithItsPidsToTheLog) {
  Handshake go, opened;
  auto other = Spawn([&] {
    if (!go.WaitFor(10000)) return 2;
    CNameMap::SNAMEINFO* e = Named("ev", CNameMap::Condvar, CNameMap::OpenOnly);
    if (e == nullptr) return 3;
    UnderMapLock([e] { SlotOf(e, ::getpid())->dwWaitCount = 2; });
    opened.Signal();
    return 0;
  });
  ASSERT_TRUE(other->Started());
  const int me = static_cast<int>(::getpid());
  Named("ev", CNameMap::Condvar);
  CNameMap::SNAMEINFO* gone = Named("gone", CNameMap::Condvar);
  CNameMap::SNAMEINFO* mx = Named("mx", CNameMap::Mutex);
  Named("sm", CNameMap::Semaphore, CNameMap::CreateOrOpen, nullptr, 1);
  Map()->destroyNamedObject(gone);
  HoldMutexEntry(mx);
  go.Signal();
  ASSERT_TRUE(opened.WaitFor(10000));
  const int peer = static_cast<int>(other->Pid());
  ASSERT_EQ(0, other->Join(5000));

  std::vector<std::string> lines;
  {
    LogCapture log(2);
    Map()->dump();
    lines = log.Lines();
  }
  auto pidLine = [](int pid, int count, int waits) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "      pid % 5d, use count %d, wait count %d", pid, count, waits);
    return std::string(buf);
  };
  const std::string meText = std::to_string(me);
  const std::vector<std::string> expected = {
      "CNameMap::dump B1A1F31A-F8EB-4cbb-94F5-9328E259A28D",
      "- Entry 0, name \"ev\"",
      "    use count 2, pid creator " + meText + ", pid holder 0",
      "    type: Condvar, s_lVal -268435456",
      pidLine(me, 1, 0),
      pidLine(peer, 1, 2),
      "- Entry 2, name \"mx\"",
      "    use count 1, pid creator " + meText + ", pid holder " + meText,
      "    type: Mutex",
      pidLine(me, 1, 0),
      "- Entry 3, name \"sm\"",
      "    use count 1, pid creator " + meText + ", pid holder 0",
      "    type: Semaphore",
      pidLine(me, 1, 0),
  };
  EXPECT_EQ(expected, lines) << Joined(lines);
  pthread_mutex_unlock(&mx->object.mutex);
}

// --- 64 processes -----------------------------------------------------------

// 64 processes, each started before the test touches the library, that open
// one mutex entry in turn and stay until the lifeline is let go. The first
// of them can also fork a further process that shares its attachment.
class SixtyFourUsers {
 public:
  static constexpr int kCount = 64;

  explicit SixtyFourUsers(const std::string& name) : m_name(name) {
    for (int i = 0; i < kCount; ++i) m_go.emplace_back(new Handshake);
    for (int i = 0; i < kCount; ++i) {
      Handshake* go = m_go[i].get();
      const bool first = i == 0;
      m_users.push_back(Spawn([this, go, first] { return User(go, first); }));
    }
  }

  bool AllStarted() const {
    for (const auto& u : m_users)
      if (!u->Started()) return false;
    return true;
  }

  // Lets user i open the entry; true when it reports success.
  ::testing::AssertionResult Open(int i) {
    m_go[i]->Signal();
    unsigned char v = 0;
    if (!m_reports.WaitFor(10000, &v))
      return ::testing::AssertionFailure() << "user " << i + 1 << " did not report";
    if (v != 1) return ::testing::AssertionFailure() << "user " << i + 1 << " could not open";
    return ::testing::AssertionSuccess();
  }

  // The verdict of a process forked by the first user after everybody
  // opened: 0 when it got null and the entry still had 64 users.
  int ForkedExtraVerdict() {
    m_forkExtra.Signal(1);
    unsigned char v = 255;
    return m_verdict.WaitFor(20000, &v) ? v : -1;
  }

  int FinishAll() {
    m_forkExtra.Signal(0);  // the first user need not wait for it any more
    m_lifeline.Release();
    int worst = 0;
    for (auto& u : m_users) {
      const int r = u->Join(10000);
      if (r != 0) worst = r;
    }
    return worst;
  }

 private:
  int User(Handshake* go, bool first) {
    if (!go->WaitFor(30000)) return 2;
    CNameMap::SNAMEINFO* e = Named(m_name, CNameMap::Mutex);
    m_reports.Signal(e != nullptr ? 1 : 2);
    unsigned char fork = 0;
    if (first && m_forkExtra.WaitFor(30000, &fork) && fork == 1) {
      // Forked from a user, the extra process inherits the table
      // attachment: the registry's own limit of 64 attaching processes
      // cannot stop it first.
      ForkedChild extra([this] { return Named(m_name, CNameMap::Mutex) == nullptr ? 0 : 1; });
      const int r = extra.Join(10000);
      unsigned char verdict = 0;
      if (r != 0) verdict = r < 0 ? 10 : static_cast<unsigned char>(r + 10);
      else if (e == nullptr || e->dwUseCount != kCount || UsedSlots(e) != kCount) verdict = 3;
      m_verdict.Signal(verdict);
    }
    return m_lifeline.WaitForRelease(60000) ? 0 : 4;
  }

  std::string m_name;
  std::vector<std::unique_ptr<Handshake>> m_go;
  Handshake m_reports, m_forkExtra, m_verdict;
  Lifeline m_lifeline;
  std::vector<std::unique_ptr<ForkedChild>> m_users;
};

TEST_F(NameMapTableTest, SixtyFourProcessesCanOpenOneObjectAndAnotherGetsTooManyPids) {
  LogCapture log(2);
  SixtyFourUsers users("shared-by-64");
  ASSERT_TRUE(users.AllStarted());
  for (int i = 0; i < SixtyFourUsers::kCount; ++i) ASSERT_TRUE(users.Open(i));
  EXPECT_EQ(0, users.ForkedExtraVerdict())
      << "0: null and 64 users; 3: the entry's counts are wrong; 10+: the extra process's exit code";
  EXPECT_EQ(0, users.FinishAll());
  EXPECT_EQ(1, CountContaining(log.Lines(), "(Error) CNameMap::createNamedObject - too many pids"))
      << Joined(log.Lines());
}

TEST_F(NameMapTableTest, ASixtyFifthSeparateProcessCannotEvenAttachTheTable) {
  LogCapture log(2);
  SixtyFourUsers users("shared-by-64");
  ASSERT_TRUE(users.AllStarted());
  for (int i = 0; i < SixtyFourUsers::kCount; ++i) ASSERT_TRUE(users.Open(i));
  // This process never touched the library: the child is a fresh one.
  auto fresh = Spawn([] {
    try {
      get_nameMap();
      return 1;
    } catch (const QKException& e) {
      return e.code == QK_E_NAME_MAP ? 0 : 2;
    }
  });
  EXPECT_EQ(0, fresh->Join(10000)) << "1: it attached; 2: another exception";
  EXPECT_EQ(0, users.FinishAll());
  EXPECT_EQ(1, CountContaining(log.Lines(), "(Error) CShareMemMap::acquireSharedMemory - out of pid slots"))
      << Joined(log.Lines());
}

// The descriptors this process holds on files whose path contains `part`,
// as "fd -> path" lines of its /proc/self/fd.
std::vector<std::string> OwnDescriptorsOn(const std::string& part) {
  std::vector<std::string> found;
  DIR* dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) return found;
  while (const dirent* d = ::readdir(dir)) {
    char target[512];
    const std::string link = std::string("/proc/self/fd/") + d->d_name;
    const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
    if (n <= 0) continue;
    target[n] = '\0';
    if (std::strstr(target, part.c_str()) != nullptr)
      found.push_back(std::string(d->d_name) + " -> " + target);
  }
  ::closedir(dir);
  return found;
}

// A program the caller starts with exec must not inherit the registries'
// lock files: it would keep their flocks alive after this process let go.
TEST_F(NameMapTableTest, TheRegistriesLockFilesAreNotInheritedByAnExecutedProgram) {
  ASSERT_NE(nullptr, get_nameMap());  // builds both registries
  const std::vector<std::string> mine = OwnDescriptorsOn("/Ambit-ipclock-");
  std::string list;
  for (const std::string& line : mine) list += line + "\n";
  ASSERT_NE(std::string::npos, list.find("/tmp/Ambit-ipclock-CShareMemMap")) << list;
  ASSERT_NE(std::string::npos, list.find("/tmp/Ambit-ipclock-CNameMap")) << list;

  const ChildResult r = RunProgram({"/bin/ls", "-l", "/proc/self/fd/"}, {}, 10000);
  ASSERT_EQ(0, r.exitCode) << r.output;
  ASSERT_NE(std::string::npos, r.output.find("/proc/")) << r.output;  // its own listing
  EXPECT_EQ(std::string::npos, r.output.find("Ambit-ipclock-")) << r.output;
}

}  // namespace
}  // namespace names_test
