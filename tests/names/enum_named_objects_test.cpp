// Listing the named objects by prefix and kind, and dumping both registries
// to the log. Every test runs in its own IPC and mount namespace, so the
// name map starts empty and only the test's own objects are listed.
#include "ambit/enumnamedobjects.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ambit/event.h"
#include "ambit/semaphore.h"
#include "ambit/trace.h"
#include "gtest/gtest.h"
#include "names/name_map.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/log_capture.h"

namespace {

using Listed = std::vector<std::pair<std::string, CPEnumNamedObjects::NOTYPE>>;

// Everything the enumerator holds, in its order; checks that the index
// after the last one gives false and leaves the outputs alone.
Listed List(const std::string& prefix, CPEnumNamedObjects::NOTYPE type) {
  CPEnumNamedObjects objects(prefix, type);
  Listed listed;
  std::string name;
  CPEnumNamedObjects::NOTYPE kind;
  unsigned long i = 0;
  for (; i < 1000 && objects.enumNamedObject(i, &name, &kind); ++i) listed.push_back({name, kind});
  name = "untouched";
  kind = CPEnumNamedObjects::Mutex;
  EXPECT_FALSE(objects.enumNamedObject(i, &name, &kind));
  EXPECT_EQ("untouched", name);
  EXPECT_EQ(CPEnumNamedObjects::Mutex, kind);
  return listed;
}

// A named mutex entry straight in the name map (the mutex class lives
// elsewhere); closed by the destructor.
class NamedMutexEntry {
 public:
  explicit NamedMutexEntry(const std::string& name) {
    int created = 0;
    m_entry = get_nameMap()->createNamedObject(name, CNameMap::CreateOrOpen, CNameMap::Mutex,
                                               &created, 0);
  }
  ~NamedMutexEntry() {
    if (m_entry != nullptr) get_nameMap()->destroyNamedObject(m_entry);
  }
  bool Ok() const { return m_entry != nullptr; }

 private:
  CNameMap::SNAMEINFO* m_entry;
};

constexpr auto kAny = CPEnumNamedObjects::Any;
constexpr auto kEvent = CPEnumNamedObjects::Event;
constexpr auto kMutex = CPEnumNamedObjects::Mutex;
constexpr auto kSemaphore = CPEnumNamedObjects::Semaphore;

TEST(EnumNamedObjectsTest, NothingIsListedWhenNoNamedObjectExists) {
  EXPECT_TRUE(List("", kAny).empty());
  CPEvent unnamed(1, "", 0);
  CPSemaphore alsoUnnamed(1, 1, 1, "", 0);
  EXPECT_TRUE(List("", kAny).empty());
}

TEST(EnumNamedObjectsTest, AnEmptyPrefixAndAnyTypeListEveryObjectInTableOrder) {
  CPEvent first(1, "first", 0);
  CPSemaphore second(1, 1, 1, "second", 0);
  NamedMutexEntry third("third");
  ASSERT_TRUE(third.Ok());
  CPEvent fourth(1, "fourth", 0);
  const Listed expected = {
      {"first", kEvent}, {"second", kSemaphore}, {"third", kMutex}, {"fourth", kEvent}};
  EXPECT_EQ(expected, List("", kAny));
}

TEST(EnumNamedObjectsTest, TableOrderIsNotCreationOrderOnceAnEntryIsReused) {
  CPEvent a(1, "a", 0);
  std::unique_ptr<CPEvent> b(new CPEvent(1, "b", 0));
  CPEvent c(1, "c", 0);
  b.reset();
  EXPECT_EQ((Listed{{"a", kEvent}, {"c", kEvent}}), List("", kAny)) << "a freed entry is listed";
  CPSemaphore d(1, 0, 0, "d", 0);  // takes b's place, the lowest free entry
  EXPECT_EQ((Listed{{"a", kEvent}, {"d", kSemaphore}, {"c", kEvent}}), List("", kAny));
}

TEST(EnumNamedObjectsTest, ThePrefixIsComparedExactlyAndCaseSensitively) {
  CPEvent one(1, "Alpha/one", 0);
  CPEvent two(1, "alpha-two", 0);
  CPSemaphore bet(1, 0, 0, "Alphabet", 0);
  CPEvent other(1, "Beta.Alpha", 0);
  EXPECT_EQ((Listed{{"Alpha-one", kEvent}, {"Alphabet", kSemaphore}}), List("Alpha", kAny));
  EXPECT_EQ((Listed{{"alpha-two", kEvent}}), List("alpha", kAny));
  EXPECT_EQ((Listed{{"Alpha-one", kEvent}}), List("Alpha-", kAny));
  EXPECT_EQ((Listed{{"Beta-Alpha", kEvent}}), List("B", kAny));
  EXPECT_TRUE(List("ALPHA", kAny).empty());
  EXPECT_TRUE(List("lpha", kAny).empty()) << "the prefix matched inside a name";
}

TEST(EnumNamedObjectsTest, ThePrefixMeetsTheStoredNameWithPunctuationAsDashes) {
  CPEvent one(1, "dir/sub.obj", 0);
  EXPECT_EQ((Listed{{"dir-sub-obj", kEvent}}), List("dir-sub", kAny));
  // The prefix itself is not converted.
  EXPECT_TRUE(List("dir/sub", kAny).empty());
}

TEST(EnumNamedObjectsTest, APrefixLongerThanANameExcludesIt) {
  CPEvent shortName(1, "abc", 0);
  CPEvent longName(1, "abcdef", 0);
  EXPECT_EQ((Listed{{"abcdef", kEvent}}), List("abcd", kAny));
  EXPECT_EQ((Listed{{"abcdef", kEvent}}), List("abcdef", kAny));
  EXPECT_TRUE(List("abcdefg", kAny).empty());
  EXPECT_EQ((Listed{{"abc", kEvent}, {"abcdef", kEvent}}), List("abc", kAny));
}

TEST(EnumNamedObjectsTest, TheTypeFilterKeepsOneKind) {
  CPEvent ev(1, "kind-event", 0);
  CPSemaphore sem(1, 0, 0, "kind-semaphore", 0);
  NamedMutexEntry mutex("kind-mutex");
  ASSERT_TRUE(mutex.Ok());
  CPSemaphore other(1, 0, 0, "other-semaphore", 0);
  EXPECT_EQ((Listed{{"kind-event", kEvent}}), List("", kEvent));
  EXPECT_EQ((Listed{{"kind-mutex", kMutex}}), List("", kMutex));
  EXPECT_EQ((Listed{{"kind-semaphore", kSemaphore}, {"other-semaphore", kSemaphore}}),
            List("", kSemaphore));
  EXPECT_EQ((Listed{{"kind-semaphore", kSemaphore}}), List("kind", kSemaphore));
  EXPECT_TRUE(List("other", kMutex).empty());
}

TEST(EnumNamedObjectsTest, AnEntryOfAnUnknownKindIsListedAsAnyAndOnlyForAny) {
  CPEvent ev(1, "odd", 0);
  CNameMap::SNAMEINFO& entry = get_nameMap()->table()->entries[0];
  ASSERT_STREQ("odd", entry.szName);
  const CNameMap::NAMETYPE saved = entry.nameType;
  entry.nameType = static_cast<CNameMap::NAMETYPE>(7);
  const Listed any = List("", kAny);
  const Listed events = List("", kEvent);
  entry.nameType = saved;
  EXPECT_EQ((Listed{{"odd", kAny}}), any);
  EXPECT_TRUE(events.empty());
}

TEST(EnumNamedObjectsTest, TheIndexEqualToTheCountGivesFalse) {
  CPEvent a(1, "a", 0);
  CPEvent b(1, "b", 0);
  CPEnumNamedObjects objects("", kAny);
  std::string name;
  CPEnumNamedObjects::NOTYPE type = kAny;
  EXPECT_TRUE(objects.enumNamedObject(1, &name, &type));
  EXPECT_EQ("b", name);
  EXPECT_EQ(kEvent, type);
  EXPECT_FALSE(objects.enumNamedObject(2, &name, &type));
  EXPECT_FALSE(objects.enumNamedObject(0xFFFFFFFFUL, &name, &type));
  EXPECT_TRUE(objects.enumNamedObject(0, &name, &type));
  EXPECT_EQ("a", name);
}

TEST(EnumNamedObjectsTest, TheSnapshotStaysAsItWasWhenObjectsComeAndGo) {
  std::unique_ptr<CPEvent> early(new CPEvent(1, "early", 0));
  CPEnumNamedObjects objects("", kAny);
  CPEvent late(1, "late", 0);
  early.reset();
  std::string name;
  CPEnumNamedObjects::NOTYPE type;
  ASSERT_TRUE(objects.enumNamedObject(0, &name, &type));
  EXPECT_EQ("early", name);
  EXPECT_FALSE(objects.enumNamedObject(1, &name, &type));
  EXPECT_EQ((Listed{{"late", kEvent}}), List("", kAny));
}

TEST(EnumNamedObjectsTest, ObjectsOfAnotherProcessAreListed) {
  Handshake made, listed;
  ForkedChild child([&] {
    CPSemaphore theirs(1, 0, 0, "theirs", 0);
    made.Signal();
    return listed.WaitFor(5000) ? 0 : 2;
  });
  ASSERT_TRUE(child.Started());
  ASSERT_TRUE(made.WaitFor(5000));
  CPEvent ours(1, "ours", 0);
  const Listed all = List("", kAny);
  listed.Signal();
  EXPECT_EQ(0, child.Join(5000));
  EXPECT_EQ((Listed{{"theirs", kSemaphore}, {"ours", kEvent}}), all);
  EXPECT_EQ((Listed{{"ours", kEvent}}), List("", kAny)) << "the child's close was not seen";
}

TEST(EnumNamedObjectsTest, EnumerationLeavesTheTableUnlockedAndNotBusy) {
  CPEvent a(1, "a", 0);
  List("", kAny);
  EXPECT_EQ(0u, get_nameMap()->table()->dwBusyPid);
  // Another process can still change the table.
  ForkedChild child([] {
    CPEvent b(1, "b", 0);
    return 0;
  });
  EXPECT_EQ(0, child.Join(5000));
}

// --- The dump -----------------------------------------------------------------

std::string Format(const char* format, int value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, value);
  return buffer;
}

// The lines from the one that starts with `first` to the end.
std::vector<std::string> From(const std::vector<std::string>& lines, const std::string& first) {
  for (size_t i = 0; i < lines.size(); ++i)
    if (lines[i].compare(0, first.size(), first) == 0)
      return std::vector<std::string>(lines.begin() + static_cast<long>(i), lines.end());
  return {};
}

TEST(EnumNamedObjectsTest, TheDumpWritesBothRegistriesToTheLog) {
  Handshake opened, dumped;
  Handshake made;
  ForkedChild child([&] {
    if (!made.WaitFor(5000)) return 2;
    CPSemaphore peer(0, 0, 0, "dump/sem", 0);
    opened.Signal();
    return dumped.WaitFor(5000) ? 0 : 3;
  });
  ASSERT_TRUE(child.Started());
  const int self = static_cast<int>(getpid());
  const int other = static_cast<int>(child.Pid());

  CPEvent event(1, "dump-event", 0);
  event.wake(5);
  CPEvent quiet(1, "dump-quiet", 0);
  CPSemaphore sem(1, 2, 2, "dump/sem", 0);
  CPSemaphore semAgain(0, 0, 0, "dump-sem", 0);
  ASSERT_EQ(0UL, sem.wait(0, nullptr));
  NamedMutexEntry mutex("dump-mutex");
  ASSERT_TRUE(mutex.Ok());
  made.Signal();
  ASSERT_TRUE(opened.WaitFor(5000));

  std::vector<std::string> lines;
  {
    LogCapture log(2);
    AmbitDebug::dumpNamedObjectsInfo();
    lines = log.Lines();
  }
  dumped.Signal();
  EXPECT_EQ(0, child.Join(5000));

  ASSERT_FALSE(lines.empty()) << "nothing was written";
  // The shared-memory registry comes first and holds the name map's table.
  EXPECT_EQ(0u, lines[0].find("CShareMemMap::dump - created by program ")) << lines[0];
  bool tableListed = false;
  size_t nameMapAt = lines.size();
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i] == "CNameMap::dump B1A1F31A-F8EB-4cbb-94F5-9328E259A28D") {
      nameMapAt = i;
      break;
    }
    if (lines[i].find("- Entry ") == 0 &&
        lines[i].find(", name \"B1A1F31A-F8EB-4cbb-94F5-9328E259A28D\"") != std::string::npos)
      tableListed = true;
  }
  EXPECT_TRUE(tableListed) << "the name map's segment is missing from the registry dump";
  ASSERT_LT(nameMapAt, lines.size()) << "no name map dump";

  const std::string pidSelf = Format("      pid % 5d", self);
  const std::string pidOther = Format("      pid % 5d", other);
  const std::vector<std::string> expected = {
      "CNameMap::dump B1A1F31A-F8EB-4cbb-94F5-9328E259A28D",
      "- Entry 0, name \"dump-event\"",
      Format("    use count 1, pid creator %d, pid holder 0", self),
      "    type: Condvar, s_lVal 5",
      pidSelf + ", use count 1, wait count 0",
      "- Entry 1, name \"dump-quiet\"",
      Format("    use count 1, pid creator %d, pid holder 0", self),
      "    type: Condvar, s_lVal -268435456",
      pidSelf + ", use count 1, wait count 0",
      "- Entry 2, name \"dump-sem\"",
      Format("    use count 3, pid creator %d, pid holder ", self) + std::to_string(self),
      "    type: Semaphore",
      pidSelf + ", use count 2, wait count 0",
      pidOther + ", use count 1, wait count 0",
      "- Entry 3, name \"dump-mutex\"",
      Format("    use count 1, pid creator %d, pid holder 0", self),
      "    type: Mutex",
      pidSelf + ", use count 1, wait count 0",
  };
  EXPECT_EQ(expected, From(lines, "CNameMap::dump "));
}

TEST(EnumNamedObjectsTest, TheDumpSkipsFreeEntries) {
  std::unique_ptr<CPEvent> gone(new CPEvent(1, "gone", 0));
  CPEvent kept(1, "kept", 0);
  gone.reset();
  std::vector<std::string> lines;
  {
    LogCapture log(2);
    AmbitDebug::dumpNamedObjectsInfo();
    lines = log.Lines();
  }
  const std::vector<std::string> dump = From(lines, "CNameMap::dump ");
  ASSERT_EQ(5u, dump.size());
  EXPECT_EQ("- Entry 1, name \"kept\"", dump[1]);
}

TEST(EnumNamedObjectsTest, TheDumpWritesNothingWithoutTheErrorLineLevel) {
  CPEvent kept(1, "kept", 0);
  std::vector<std::string> lines;
  {
    LogCapture log(0x100);
    AmbitDebug::dumpNamedObjectsInfo();
    lines = log.Lines();
  }
  EXPECT_TRUE(lines.empty()) << lines[0];
}

}  // namespace
