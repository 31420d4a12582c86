// The inspector, ambit-ipcs, run as a program against registries that the
// tests build with real processes and then damage on purpose.
#include <pwd.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ambit/ambit.h"
#include "gtest/gtest.h"
#include "names/name_map.h"
#include "shm/share_mem_map.h"
#include "shm/registry_view.h"
#include "support/child_process.h"
#include "support/forked_child.h"
#include "support/handshake.h"

namespace {

using shm_test::RegistryView;

constexpr char kNameMapSegment[] = "B1A1F31A-F8EB-4cbb-94F5-9328E259A28D";
// The table of named objects, by byte offset (as another program reads it).
constexpr size_t kMapBusyPid = 4;
constexpr size_t kMapHighestEntry = 12;
constexpr size_t kMapEntriesAt = 16;
constexpr size_t kMapEntryBytes = 1116;
constexpr size_t kMapNameType = 256;
constexpr size_t kMapUseCount = 260;
constexpr size_t kMapPids = 272;  // 64 slots of pid, uses, waits
constexpr int kMapEntries = 512;

// --- A minimal JSON reader: enough to walk the inspector's output ---------

struct JsonValue {
  enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<JsonValue> items;
  std::vector<std::pair<std::string, JsonValue>> members;

  const JsonValue* Get(const std::string& key) const {
    for (const auto& m : members)
      if (m.first == key) return &m.second;
    return nullptr;
  }
};

class JsonReader {
 public:
  explicit JsonReader(const std::string& text) : m_s(text) {}

  // False on any syntax error or trailing garbage.
  bool Parse(JsonValue* out) {
    if (!Value(out)) return false;
    Space();
    return m_i == m_s.size();
  }

 private:
  void Space() {
    while (m_i < m_s.size() && std::strchr(" \t\r\n", m_s[m_i]) != nullptr) ++m_i;
  }
  bool Eat(char c) {
    Space();
    if (m_i < m_s.size() && m_s[m_i] == c) {
      ++m_i;
      return true;
    }
    return false;
  }
  bool Word(const char* w) {
    const size_t n = std::strlen(w);
    if (m_s.compare(m_i, n, w) != 0) return false;
    m_i += n;
    return true;
  }
  bool Str(std::string* out) {
    if (!Eat('"')) return false;
    while (m_i < m_s.size() && m_s[m_i] != '"') {
      char c = m_s[m_i++];
      if (c == '\\') {
        if (m_i >= m_s.size()) return false;
        c = m_s[m_i++];
        if (c == 'u') {
          if (m_i + 4 > m_s.size()) return false;
          c = static_cast<char>(std::stoi(m_s.substr(m_i, 4), nullptr, 16));
          m_i += 4;
        } else if (c == 'n') {
          c = '\n';
        } else if (c == 't') {
          c = '\t';
        }
      } else if (static_cast<unsigned char>(c) < 0x20) {
        return false;
      }
      *out += c;
    }
    return Eat('"');
  }
  bool Value(JsonValue* v) {
    Space();
    if (m_i >= m_s.size()) return false;
    const char c = m_s[m_i];
    if (c == '{') {
      v->kind = JsonValue::Object;
      ++m_i;
      if (Eat('}')) return true;
      do {
        std::string key;
        JsonValue member;
        if (!Str(&key) || !Eat(':') || !Value(&member)) return false;
        v->members.emplace_back(key, member);
      } while (Eat(','));
      return Eat('}');
    }
    if (c == '[') {
      v->kind = JsonValue::Array;
      ++m_i;
      if (Eat(']')) return true;
      do {
        JsonValue item;
        if (!Value(&item)) return false;
        v->items.push_back(item);
      } while (Eat(','));
      return Eat(']');
    }
    if (c == '"') {
      v->kind = JsonValue::String;
      return Str(&v->text);
    }
    if (Word("true")) {
      v->kind = JsonValue::Bool;
      v->boolean = true;
      return true;
    }
    if (Word("false")) {
      v->kind = JsonValue::Bool;
      return true;
    }
    if (Word("null")) return true;
    const size_t start = m_i;
    while (m_i < m_s.size() && std::strchr("+-0123456789.eE", m_s[m_i]) != nullptr) ++m_i;
    if (m_i == start) return false;
    v->kind = JsonValue::Number;
    v->number = std::stod(m_s.substr(start, m_i - start));
    return true;
  }

  const std::string& m_s;
  size_t m_i = 0;
};

// The element of an array of objects whose `key` is the string `value`.
const JsonValue* FindByName(const JsonValue* array, const std::string& value) {
  if (array == nullptr || array->kind != JsonValue::Array) return nullptr;
  for (const JsonValue& item : array->items) {
    const JsonValue* name = item.Get("name");
    if (name != nullptr && name->text == value) return &item;
  }
  return nullptr;
}

// The {"pid": ..., "alive": ...} element of `pid`, or null.
const JsonValue* FindPid(const JsonValue* object, pid_t pid) {
  const JsonValue* pids = object != nullptr ? object->Get("pids") : nullptr;
  if (pids == nullptr) return nullptr;
  for (const JsonValue& p : pids->items) {
    const JsonValue* v = p.Get("pid");
    if (v != nullptr && static_cast<pid_t>(v->number) == pid) return &p;
  }
  return nullptr;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The first line holding every one of `parts`, or "".
std::string LineWith(const std::string& text, const std::vector<std::string>& parts) {
  for (const std::string& line : Lines(text)) {
    bool all = true;
    for (const std::string& p : parts) all = all && line.find(p) != std::string::npos;
    if (all) return line;
  }
  return "";
}

ChildResult Ipcs(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {AMBIT_IPCS_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv, {}, 30000);
}

// The table segment of named objects attached writable by key, for damage.
class NameMapView {
 public:
  NameMapView() {
    RegistryView registry;
    const int entry = registry.Attached() ? registry.Find(kNameMapSegment) : -1;
    if (entry < 0) return;
    const int id = ::shmget(shm_test::kFirstKey + entry, 0, 0);
    void* p = id >= 0 ? ::shmat(id, nullptr, 0) : reinterpret_cast<void*>(-1);
    if (p != reinterpret_cast<void*>(-1)) m_p = static_cast<unsigned char*>(p);
  }
  ~NameMapView() {
    if (m_p != nullptr) ::shmdt(m_p);
  }
  bool Attached() const { return m_p != nullptr; }

  uint32_t* U32(size_t offset) { return reinterpret_cast<uint32_t*>(m_p + offset); }
  unsigned char* Bytes() { return m_p; }
  static size_t EntryAt(int i) { return kMapEntriesAt + kMapEntryBytes * static_cast<size_t>(i); }
  char* Name(int i) { return reinterpret_cast<char*>(m_p + EntryAt(i)); }
  int Find(const std::string& name) {
    for (int i = 0; i < kMapEntries; ++i)
      if (name == Name(i)) return i;
    return -1;
  }
  // The pid-slot record of `pid` in entry `i` (pid, uses, waits), or null.
  uint32_t* Slot(int i, pid_t pid) {
    for (int slot = 0; slot < 64; ++slot) {
      uint32_t* record = U32(EntryAt(i) + kMapPids + 12 * static_cast<size_t>(slot));
      if (record[0] == static_cast<uint32_t>(pid)) return record;
    }
    return nullptr;
  }

 private:
  unsigned char* m_p = nullptr;
};

// Runs fn in a fresh child that dies with the test process.
std::unique_ptr<ForkedChild> Spawn(const std::function<int()>& fn) {
  const pid_t parent = ::getpid();
  return std::unique_ptr<ForkedChild>(new ForkedChild([fn, parent] {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) return 100;
    return fn();
  }));
}

// A registry built by two fresh processes, forked before this process
// touches the library: the keeper creates two segments, an event (woken
// with bits 0x5), a mutex and a semaphore and stays alive; the victim opens
// the first segment and the three named objects, takes the mutex and is
// killed with SIGKILL while holding it. The test process itself never
// attaches anything through the library.
class IpcsTest : public ::testing::Test {
 protected:
  enum Command : unsigned char { kQuit = 0, kTryMutex = 1 };

  void BuildRegistry(bool withVictim) {
    m_keeper = Spawn([this] { return Keeper(); });
    ASSERT_TRUE(m_keeper->Started());
    ASSERT_TRUE(m_keeperReady.WaitFor(10000)) << "the keeper never made its objects";
    if (!withVictim) return;
    m_victim = Spawn([this] { return Victim(); });
    ASSERT_TRUE(m_victim->Started());
    m_victimPid = m_victim->Pid();
    ASSERT_TRUE(m_victimReady.WaitFor(10000)) << "the victim never took the mutex";
    EXPECT_EQ(-1, m_victim->Join(0));  // killed with SIGKILL and reaped
  }

  // Asks the keeper to take and release the mutex within 2 s.
  bool KeeperTakesMutex() {
    m_command.Signal(kTryMutex);
    unsigned char answer = 0;
    return m_answer.WaitFor(10000, &answer) && answer == 1;
  }

  // Lets the keeper end normally, releasing what it holds.
  void StopKeeper() {
    m_command.Signal(kQuit);
    EXPECT_EQ(0, m_keeper->Join(10000));
    m_keeper.reset();
  }

  void TearDown() override {
    if (m_keeper) {
      m_command.Signal(kQuit);
      EXPECT_EQ(0, m_keeper->Join(10000));
    }
  }

  int Keeper() {
    CPSharedMemory a("ipcs-segment-a", 4096);
    CPSharedMemory b("ipcs-segment-b", 100);
    CPEvent event(1, "ipcs-event", 1);
    event.wake(0x5);
    CPMutex mutex(1, 0, "ipcs-mutex", 0, 1);
    CPSemaphore semaphore(1, 2, 10, "ipcs-semaphore", 1);
    m_keeperReady.Signal();
    for (;;) {
      unsigned char command = kQuit;
      if (!m_command.WaitFor(60000, &command)) return 2;
      if (command == kQuit) return 0;
      const bool taken = mutex.wait(2000, nullptr) == 0;
      if (taken) mutex.release();
      m_answer.Signal(taken ? 1 : 0);
    }
  }

  int Victim() {
    CPSharedMemory a("ipcs-segment-a", 4096);
    CPEvent event(1, "ipcs-event", 1);
    CPMutex mutex(1, 0, "ipcs-mutex", 0, 1);
    CPSemaphore semaphore(1, 2, 10, "ipcs-semaphore", 1);
    if (mutex.wait(5000, nullptr) != 0) return 3;
    m_victimReady.Signal();
    ::sleep(60);  // killed long before
    return 4;
  }

  std::unique_ptr<ForkedChild> m_keeper, m_victim;
  pid_t m_victimPid = 0;
  Handshake m_keeperReady, m_victimReady, m_command, m_answer;
};

void ExpectViolation(const ChildResult& r, const std::string& rule, const std::string& detail) {
  EXPECT_EQ(1, r.exitCode) << r.output;
  EXPECT_NE("", LineWith(r.output, {"violation: " + rule + ": ", detail})) << r.output;
}

TEST_F(IpcsTest, SaysSoWhenThereIsNoRegistry) {
  const ChildResult table = Ipcs({});
  EXPECT_EQ(0, table.exitCode);
  EXPECT_EQ("no registry on this machine\n", table.output);

  const ChildResult json = Ipcs({"--json"});
  EXPECT_EQ(0, json.exitCode);
  JsonValue root;
  ASSERT_TRUE(JsonReader(json.output).Parse(&root)) << json.output;
  ASSERT_NE(nullptr, root.Get("registry"));
  EXPECT_EQ(JsonValue::Null, root.Get("registry")->kind);

  EXPECT_EQ(0, Ipcs({"--check"}).exitCode);
}

TEST_F(IpcsTest, CheckNamesSegmentsInTheKeyRangeWhenThereIsNoRegistry) {
  const int id = ::shmget(shm_test::kFirstKey + 4, 128, IPC_CREAT | IPC_EXCL | 0600);
  ASSERT_GE(id, 0);
  const ChildResult check = Ipcs({"--check"});
  const ChildResult table = Ipcs({});
  ::shmctl(id, IPC_RMID, nullptr);
  ExpectViolation(check, "orphan-segment",
                  "key 46070 has a segment (shmid " + std::to_string(id) +
                      ", 128 bytes) but there is no registry");
  EXPECT_EQ(0, table.exitCode);
  EXPECT_NE("", LineWith(table.output, {"0x0000b3f6", "(46070)", "perms 600", "128 bytes"}))
      << table.output;
}

TEST_F(IpcsTest, TableShowsSegmentsObjectsAndDeadPids) {
  BuildRegistry(true);
  const std::string keeper = std::to_string(m_keeper->Pid());
  const std::string victim = std::to_string(m_victimPid);
  const ChildResult r = Ipcs({});
  ASSERT_EQ(0, r.exitCode) << r.output;

  EXPECT_NE("", LineWith(r.output, {"creator program"})) << r.output;
  EXPECT_NE("", LineWith(r.output, {"busy pid", " 0"})) << r.output;
  EXPECT_NE("", LineWith(r.output, {"initialised", "1"})) << r.output;
  EXPECT_NE("", LineWith(r.output, {"ipcs-segment-a", "4096", keeper + "(alive)",
                                    victim + "(dead)"}))
      << r.output;
  EXPECT_NE("", LineWith(r.output, {"ipcs-segment-b", "100", keeper + "(alive)"})) << r.output;
  EXPECT_NE("", LineWith(r.output, {"ipcs-mutex", "mutex", victim, victim + ":1/0(dead)",
                                    keeper + ":1/0(alive)"}))
      << r.output;
  EXPECT_NE("", LineWith(r.output, {"ipcs-event", "event", "0x00000005"})) << r.output;
  EXPECT_NE("", LineWith(r.output, {"ipcs-semaphore", "semaphore", victim + ":1/0(dead)"}))
      << r.output;
}

TEST_F(IpcsTest, JsonCarriesTheSameRecords) {
  BuildRegistry(true);
  const ChildResult r = Ipcs({"--json"});
  ASSERT_EQ(0, r.exitCode) << r.output;
  JsonValue root;
  ASSERT_TRUE(JsonReader(r.output).Parse(&root)) << r.output;

  const JsonValue* registry = root.Get("registry");
  ASSERT_NE(nullptr, registry);
  EXPECT_EQ(46065, registry->Get("key")->number);
  EXPECT_EQ(0, registry->Get("busyPid")->number);
  EXPECT_EQ(1, registry->Get("initialized")->number);
  const JsonValue* a = FindByName(registry->Get("segments"), "ipcs-segment-a");
  ASSERT_NE(nullptr, a) << r.output;
  EXPECT_EQ(4096, a->Get("size")->number);
  EXPECT_EQ(m_keeper->Pid(), static_cast<pid_t>(a->Get("creatorPid")->number));
  const JsonValue* alive = FindPid(a, m_keeper->Pid());
  const JsonValue* dead = FindPid(a, m_victimPid);
  ASSERT_NE(nullptr, alive);
  ASSERT_NE(nullptr, dead);
  EXPECT_TRUE(alive->Get("alive")->boolean);
  EXPECT_FALSE(dead->Get("alive")->boolean);
  const JsonValue* b = FindByName(registry->Get("segments"), "ipcs-segment-b");
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(nullptr, FindPid(b, m_victimPid));

  const JsonValue* names = root.Get("nameMap");
  ASSERT_NE(nullptr, names);
  ASSERT_EQ(JsonValue::Object, names->kind);
  EXPECT_EQ(512, names->Get("maxEntries")->number);
  const JsonValue* objects = names->Get("objects");
  const JsonValue* mutex = FindByName(objects, "ipcs-mutex");
  ASSERT_NE(nullptr, mutex) << r.output;
  EXPECT_EQ("mutex", mutex->Get("type")->text);
  EXPECT_EQ(2, mutex->Get("useCount")->number);
  EXPECT_EQ(m_victimPid, static_cast<pid_t>(mutex->Get("holderPid")->number));
  ASSERT_NE(nullptr, FindPid(mutex, m_victimPid));
  EXPECT_FALSE(FindPid(mutex, m_victimPid)->Get("alive")->boolean);
  EXPECT_EQ(1, FindPid(mutex, m_victimPid)->Get("useCount")->number);
  EXPECT_EQ(0, FindPid(mutex, m_victimPid)->Get("waitCount")->number);
  const JsonValue* event = FindByName(objects, "ipcs-event");
  ASSERT_NE(nullptr, event);
  EXPECT_EQ("event", event->Get("type")->text);
  ASSERT_NE(nullptr, event->Get("eventValue"));
  EXPECT_EQ(5, event->Get("eventValue")->number);
  const JsonValue* semaphore = FindByName(objects, "ipcs-semaphore");
  ASSERT_NE(nullptr, semaphore);
  EXPECT_EQ("semaphore", semaphore->Get("type")->text);
  EXPECT_EQ(2, semaphore->Get("useCount")->number);
}

TEST_F(IpcsTest, CheckPassesOnAHealthyRegistryWithDeadPidsNotYetCleaned) {
  BuildRegistry(true);
  const ChildResult r = Ipcs({"--check"});
  EXPECT_EQ(0, r.exitCode) << r.output;
  EXPECT_NE("", LineWith(r.output, {"check: 0 violations"})) << r.output;
}

TEST_F(IpcsTest, CleanReclaimsAKilledProcessAndThenCheckPasses) {
  BuildRegistry(true);
  const std::string victim = std::to_string(m_victimPid);
  // Nobody has waited for the killed holder's mutex yet, so it is still
  // marked as his; the cleanup releases it.
  const ChildResult clean = Ipcs({"--clean"});
  EXPECT_EQ(0, clean.exitCode) << clean.output;
  EXPECT_NE("", LineWith(clean.output, {"clean: segment entry", "\"ipcs-segment-a\"",
                                        "removed dead pid " + victim}))
      << clean.output;
  EXPECT_NE("", LineWith(clean.output, {"clean: named mutex \"ipcs-mutex\": removed dead pid " +
                                        victim}))
      << clean.output;
  EXPECT_NE("", LineWith(clean.output, {"clean: named mutex \"ipcs-mutex\": released for dead "
                                        "holder " + victim}))
      << clean.output;
  EXPECT_NE("", LineWith(clean.output, {"clean: named semaphore \"ipcs-semaphore\": removed "
                                        "dead pid " + victim}))
      << clean.output;
  EXPECT_EQ("", LineWith(clean.output, {"ipcs-segment-b"})) << clean.output;
  EXPECT_NE("", LineWith(clean.output, {"items reclaimed"})) << clean.output;

  // Nothing of the victim is left, and its mutex can be had again.
  const ChildResult after = Ipcs({"--clean", "--check"});
  EXPECT_EQ(0, after.exitCode) << after.output;
  EXPECT_NE("", LineWith(after.output, {"clean: 0 items reclaimed"})) << after.output;
  EXPECT_NE("", LineWith(after.output, {"check: 0 violations"})) << after.output;
  EXPECT_EQ("", LineWith(Ipcs({}).output, {victim}));
  EXPECT_TRUE(KeeperTakesMutex());
}

TEST_F(IpcsTest, CheckNamesAUseCountThatDisagreesWithItsPids) {
  BuildRegistry(false);
  NameMapView map;
  ASSERT_TRUE(map.Attached());
  const int entry = map.Find("ipcs-mutex");
  ASSERT_GE(entry, 0);
  *map.U32(NameMapView::EntryAt(entry) + kMapUseCount) = 7;
  ExpectViolation(Ipcs({"--check"}), "use-count",
                  "\"ipcs-mutex\" dwUseCount 7 but its pids count 1");
}

TEST_F(IpcsTest, CheckNamesABusyPidLeftSet) {
  BuildRegistry(false);
  {
    RegistryView registry(true);
    ASSERT_TRUE(registry.Attached());
    reinterpret_cast<uint32_t*>(registry.Bytes())[1] = 4242;
  }
  ExpectViolation(Ipcs({"--check"}), "busy-pid", "registry dwBusyPid is 4242");
  {
    RegistryView registry(true);
    reinterpret_cast<uint32_t*>(registry.Bytes())[1] = 0;
  }
  NameMapView map;
  ASSERT_TRUE(map.Attached());
  *map.U32(kMapBusyPid) = 4343;
  ExpectViolation(Ipcs({"--check"}), "busy-pid", "name map dwBusyPid is 4343");
}

TEST_F(IpcsTest, CheckNamesAUsedEntryAboveTheHighestEntry) {
  BuildRegistry(false);
  NameMapView map;
  ASSERT_TRUE(map.Attached());
  const uint32_t highest = *map.U32(kMapHighestEntry);
  ASSERT_LT(highest, 300u);
  std::strcpy(map.Name(300), "ipcs-stray");
  *map.U32(NameMapView::EntryAt(300) + kMapNameType) = 2;  // a mutex, no users
  ExpectViolation(Ipcs({"--check"}), "above-highest",
                  "name map entry 300 \"ipcs-stray\" is used above dwHighestEntry " +
                      std::to_string(highest));
}

TEST_F(IpcsTest, CheckNamesARegistryEntryWhoseSegmentWasRemoved) {
  BuildRegistry(false);
  RegistryView registry;
  const int entry = registry.Find("ipcs-segment-b");
  ASSERT_GE(entry, 0);
  const key_t key = shm_test::kFirstKey + entry;
  ASSERT_EQ(0, ::shmctl(::shmget(key, 0, 0), IPC_RMID, nullptr));
  ExpectViolation(Ipcs({"--check"}), "missing-segment",
                  "registry entry " + std::to_string(entry) +
                      " \"ipcs-segment-b\" has no segment at key " + std::to_string(key));
}

TEST_F(IpcsTest, CheckNamesASegmentInTheRegistryRangeWithoutAnEntry) {
  BuildRegistry(false);
  RegistryView registry;
  ASSERT_TRUE(registry.Free(1000));
  const int id = ::shmget(shm_test::kFirstKey + 1000, 64, IPC_CREAT | IPC_EXCL | 0666);
  ASSERT_GE(id, 0);
  ExpectViolation(Ipcs({"--check"}), "orphan-segment",
                  "key 47066 has a segment but registry entry 1000 is free");
  ::shmctl(id, IPC_RMID, nullptr);
}

TEST_F(IpcsTest, CheckAfterCleanNamesADeadPidThatCleanupCannotReach) {
  BuildRegistry(true);
  // An entry above the highest index is out of the cleanup's reach: a dead
  // pid recorded there outlives --clean.
  NameMapView map;
  ASSERT_TRUE(map.Attached());
  std::strcpy(map.Name(301), "ipcs-unreached");
  const size_t at = NameMapView::EntryAt(301);
  *map.U32(at + kMapNameType) = 2;
  *map.U32(at + kMapUseCount) = 1;
  *map.U32(at + kMapPids) = static_cast<uint32_t>(m_victimPid);
  *map.U32(at + kMapPids + 4) = 1;

  EXPECT_EQ(1, Ipcs({"--check"}).exitCode) << "above-highest is reported with or without --clean";
  const ChildResult r = Ipcs({"--clean", "--check"});
  ExpectViolation(r, "dead-pid",
                  "name map entry 301 \"ipcs-unreached\" still records dead pid " +
                      std::to_string(m_victimPid));
  ExpectViolation(r, "above-highest", "\"ipcs-unreached\"");
  // Everything else of the victim was reclaimed.
  EXPECT_EQ("", LineWith(r.output, {"violation: dead-pid", "ipcs-mutex"})) << r.output;
}

TEST_F(IpcsTest, CheckNamesEveryViolationAtOnce) {
  BuildRegistry(false);
  NameMapView map;
  ASSERT_TRUE(map.Attached());
  *map.U32(NameMapView::EntryAt(map.Find("ipcs-event")) + kMapUseCount) = 9;
  *map.U32(kMapBusyPid) = 4444;
  RegistryView registry;
  const int entry = registry.Find("ipcs-segment-a");
  ASSERT_GE(entry, 0);
  ASSERT_EQ(0, ::shmctl(::shmget(shm_test::kFirstKey + entry, 0, 0), IPC_RMID, nullptr));
  ASSERT_GE(::shmget(shm_test::kFirstKey + 999, 64, IPC_CREAT | IPC_EXCL | 0666), 0);

  const ChildResult r = Ipcs({"--check"});
  ExpectViolation(r, "use-count", "\"ipcs-event\"");
  ExpectViolation(r, "busy-pid", "4444");
  ExpectViolation(r, "missing-segment", "\"ipcs-segment-a\"");
  ExpectViolation(r, "orphan-segment", "key 47065 ");
  EXPECT_NE("", LineWith(r.output, {"check: 4 violations"})) << r.output;
}

TEST_F(IpcsTest, DamagedTablesAreReportedAsViolationsAndNeverCrashTheInspector) {
  BuildRegistry(false);
  RegistryView registry(true);
  NameMapView map;
  ASSERT_TRUE(registry.Attached());
  ASSERT_TRUE(map.Attached());
  // The keeper still uses both tables: they are put back before it goes.
  const std::string savedRegistry(reinterpret_cast<char*>(registry.Bytes()), shm_test::kRegistryBytes);
  const size_t mapBytes = kMapEntriesAt + kMapEntryBytes * kMapEntries;
  const std::string savedMap(reinterpret_cast<char*>(map.Bytes()), mapBytes);

  // Registry: a creator program and the last entry's name without their
  // terminating 0, pid slots full of junk.
  std::memset(registry.Bytes() + 8, 'P', 16);
  const int last = shm_test::kEntries - 1;
  std::memset(registry.Bytes() + RegistryView::EntryAt(last), 0xEE, 256);
  const int segment = registry.Find("ipcs-segment-b");
  ASSERT_GE(segment, 0);
  for (int slot = 0; slot < shm_test::kSlots; ++slot)
    reinterpret_cast<uint32_t*>(registry.Bytes() + RegistryView::EntryAt(segment) + 268)[slot] =
        0xFFFFFFFFu - static_cast<uint32_t>(slot);
  // Name map: counts and indexes out of range, a name without its 0, a
  // type that does not exist, junk pids.
  *map.U32(8) = 0x7FFFFFFF;                 // dwMaxEntries
  *map.U32(kMapHighestEntry) = 0xFFFFFFF0;  // far beyond 512 entries
  const int event = map.Find("ipcs-event");
  const int semaphore = map.Find("ipcs-semaphore");
  ASSERT_GE(event, 0);
  ASSERT_GE(semaphore, 0);
  std::memset(map.Name(event), 0xAB, 256);
  *map.U32(NameMapView::EntryAt(semaphore) + kMapNameType) = 77;
  *map.U32(NameMapView::EntryAt(semaphore) + kMapPids) = 0x80000000u;

  const ChildResult table = Ipcs({});
  EXPECT_EQ(0, table.exitCode) << table.output;
  const ChildResult json = Ipcs({"--json"});
  EXPECT_EQ(0, json.exitCode) << json.output;
  const ChildResult check = Ipcs({"--check"});
  ExpectViolation(check, "unterminated-text", "registry creator program has no terminating 0");
  ExpectViolation(check, "unterminated-name",
                  "registry entry " + std::to_string(last) + " has a name without a terminating 0");
  ExpectViolation(check, "bad-pid",
                  "registry entry " + std::to_string(segment) + " pid slot 0 holds 0xFFFFFFFF");
  ExpectViolation(check, "bad-header", "name map dwMaxEntries is 2147483647");
  ExpectViolation(check, "index-out-of-range", "name map dwHighestEntry 4294967280");
  ExpectViolation(check, "unterminated-name",
                  "name map entry " + std::to_string(event) + " has a name without a terminating 0: \"\\xAB");
  ExpectViolation(check, "bad-type", "name map entry " + std::to_string(semaphore) + " has type 77");
  ExpectViolation(check, "bad-pid", "name map entry " + std::to_string(semaphore) +
                                        " pid slot 0 holds 0x80000000");
  // The library's cleanup passes trust the tables: they are not run.
  const ChildResult clean = Ipcs({"--clean", "--check"});
  EXPECT_EQ(1, clean.exitCode) << clean.output;
  EXPECT_NE("", LineWith(clean.output, {"clean: refused: the tables are damaged"})) << clean.output;
  EXPECT_NE("", LineWith(clean.output, {"violation: index-out-of-range"})) << clean.output;

  std::memcpy(registry.Bytes(), savedRegistry.data(), savedRegistry.size());
  std::memcpy(map.Bytes(), savedMap.data(), savedMap.size());
  EXPECT_EQ(0, Ipcs({"--check"}).exitCode);
}

// --- Limits leave the tables consistent ---------------------------------------
//
// Each limit is reached by real processes, forked before this process
// touches the library; the designed failure comes back, and the inspector
// then finds both tables consistent, with the processes alive and again
// after they died and --clean reclaimed what they held.

void* AcquireSegment(const std::string& name, unsigned long size) {
  int created = 0;
  return get_shareMemMap()->acquireSharedMemory(name, size, &created);
}

CNameMap::SNAMEINFO* CreateMutex(const std::string& name) {
  int created = 0;
  return get_nameMap()->createNamedObject(name, CNameMap::CreateOrOpen, CNameMap::Mutex,
                                          &created, 0);
}

void ExpectCheckPasses(const std::vector<std::string>& args) {
  const ChildResult r = Ipcs(args);
  EXPECT_EQ(0, r.exitCode) << r.output;
  EXPECT_NE("", LineWith(r.output, {"check: 0 violations"})) << r.output;
}

// A process that does `work`, reports its verdict byte, and stays alive
// until released.
class LimitHolder {
 public:
  explicit LimitHolder(const std::function<unsigned char()>& work)
      : m_child(Spawn([this, work] {
          m_report.Signal(work());
          return m_release.WaitFor(60000) ? 0 : 2;
        })) {}
  unsigned char Verdict(int nTimeoutMs) {
    unsigned char v = 0;
    return m_report.WaitFor(nTimeoutMs, &v) ? v : 0;
  }
  int Finish() {
    m_release.Signal();
    return m_child->Join(10000);
  }

 private:
  Handshake m_report, m_release;
  std::unique_ptr<ForkedChild> m_child;
};

TEST(IpcsLimitsTest, TheTenTwentyFifthNameFailsAndTheTablesStayConsistent) {
  LimitHolder holder([] {
    for (int i = 0; i < shm_test::kEntries; ++i)
      if (AcquireSegment("limit-" + std::to_string(i), 64) == nullptr) return 2;
    return AcquireSegment("limit-one-too-many", 64) == nullptr ? 1 : 3;
  });
  ASSERT_EQ(1, holder.Verdict(30000)) << "2: a name below the limit failed; 3: the 1025th worked";
  auto other = Spawn([] { return AcquireSegment("from-elsewhere", 64) == nullptr ? 0 : 1; });
  EXPECT_EQ(0, other->Join(20000)) << "another process got a 1025th name";
  ExpectCheckPasses({"--check"});
  EXPECT_EQ(0, holder.Finish());
  ExpectCheckPasses({"--clean", "--check"});
  EXPECT_EQ(0, RegistryView().InUse()) << "every name of the dead holder was reclaimed";
}

TEST(IpcsLimitsTest, TheSixtyFifthProcessOnANameFailsAndTheTablesStayConsistent) {
  // Each of 64 processes attaches one segment and opens one named event;
  // the 65th can have neither (the table of named objects is itself a
  // segment with 64 pid slots).
  std::vector<std::unique_ptr<LimitHolder>> holders;
  auto join = [&holders](bool last) {
    holders.emplace_back(new LimitHolder([last]() -> unsigned char {
      const bool segment = AcquireSegment("crowd", 4096) != nullptr;
      bool event = false;
      try {
        // Left open (leaked on purpose) while the holder waits for release.
        new CPEvent(1, "crowd-event", 1);
        event = true;
      } catch (const QKException&) {
      }
      if (!last) return segment && event ? 1 : 2;
      return !segment && !event ? 1 : 3;
    }));
    return holders.back()->Verdict(20000);
  };
  for (int i = 0; i < 64; ++i) ASSERT_EQ(1, join(false)) << "process " << i + 1;
  EXPECT_EQ(1, join(true)) << "the 65th process got the segment or the event";
  ExpectCheckPasses({"--check"});
  for (auto& h : holders) EXPECT_EQ(0, h->Finish());
  ExpectCheckPasses({"--clean", "--check"});
}

TEST(IpcsLimitsTest, TheFiveHundredThirteenthObjectFailsAndTheTablesStayConsistent) {
  LimitHolder holder([] {
    for (int i = 0; i < static_cast<int>(CNameMap::kMaxEntries); ++i)
      if (CreateMutex("object-" + std::to_string(i)) == nullptr) return 2;
    return CreateMutex("object-one-too-many") == nullptr ? 1 : 3;
  });
  ASSERT_EQ(1, holder.Verdict(30000)) << "2: an object below the limit failed; 3: the 513th worked";
  auto other = Spawn([] { return CreateMutex("from-elsewhere") == nullptr ? 0 : 1; });
  EXPECT_EQ(0, other->Join(20000)) << "another process got a 513th object";
  ExpectCheckPasses({"--check"});
  EXPECT_EQ(0, holder.Finish());
  ExpectCheckPasses({"--clean", "--check"});
}

TEST(IpcsLimitsTest, AName256CharactersLongFailsAndTheTablesStayConsistent) {
  LimitHolder holder([] {
    if (CreateMutex(std::string(255, 'm')) == nullptr) return 2;
    return CreateMutex(std::string(256, 'n')) == nullptr ? 1 : 3;
  });
  ASSERT_EQ(1, holder.Verdict(20000)) << "2: 255 characters failed; 3: 256 worked";
  const ChildResult json = Ipcs({"--json"});
  EXPECT_EQ("", LineWith(json.output, {std::string(255, 'n')})) << "the long name was stored";
  ExpectCheckPasses({"--check"});
  EXPECT_EQ(0, holder.Finish());
  ExpectCheckPasses({"--clean", "--check"});
}

TEST(IpcsHelpTest, HelpSaysHowToRemoveARegistrySafely) {
  const ChildResult r = Ipcs({"--help"});
  EXPECT_EQ(0, r.exitCode) << r.output;
  EXPECT_NE("", LineWith(r.output, {"Removing a registry safely"})) << r.output;
  EXPECT_NE("", LineWith(r.output, {"every pid this listing shows"})) << r.output;
  EXPECT_NE("", LineWith(r.output, {"keys 46066 to 47089"})) << r.output;
  EXPECT_NE("", LineWith(r.output, {"ipcrm -M 46065"})) << r.output;
  EXPECT_NE("", LineWith(r.output, {"/tmp/ShareMemCreateTime-16AC6AB6-4CA6-4813-A086-53E43B469FF8"}))
      << r.output;
}

// --- The system's view of each segment, beside the registry's -------------

std::string Hex8(key_t key) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08x", static_cast<unsigned>(key));
  return buf;
}

std::string UtcSeconds(time_t t) {
  tm parts;
  char buf[32];
  ::gmtime_r(&t, &parts);
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &parts);
  return buf;
}

std::string OwnerOf(uid_t uid) {
  const passwd* pw = ::getpwuid(uid);
  return pw != nullptr ? pw->pw_name : std::to_string(uid);
}

TEST_F(IpcsTest, TableShowsEachSegmentAsTheSystemReportsIt) {
  BuildRegistry(true);
  int entry = -1;
  {
    RegistryView registry;
    entry = registry.Find("ipcs-segment-a");
  }
  ASSERT_GE(entry, 0);
  const key_t key = shm_test::kFirstKey + entry;
  const int id = ::shmget(key, 0, 0);
  shmid_ds ds;
  ASSERT_EQ(0, ::shmctl(id, IPC_STAT, &ds));
  // An orphan segment in the range shows up too.
  const int orphan = ::shmget(shm_test::kFirstKey + 1010, 64, IPC_CREAT | IPC_EXCL | 0640);
  ASSERT_GE(orphan, 0);

  const ChildResult r = Ipcs({});
  ::shmctl(orphan, IPC_RMID, nullptr);
  ASSERT_EQ(0, r.exitCode) << r.output;
  EXPECT_EQ(1u, ds.shm_nattch) << "the keeper is attached; the killed victim is not";
  EXPECT_NE("", LineWith(r.output, {" " + Hex8(key) + " ", " " + std::to_string(key) + " ",
                                    " " + std::to_string(id) + " ", " " + OwnerOf(ds.shm_perm.uid) + " ",
                                    " 666 ", " 1 ", " 4096 ", UtcSeconds(ds.shm_ctime),
                                    " ipcs-segment-a ", std::to_string(m_keeper->Pid()) + "(alive)",
                                    std::to_string(m_victimPid) + "(dead)"}))
      << r.output;
  EXPECT_NE("", LineWith(r.output, {"0x0000b3f1", " 46065 ", " 536632 ", "(the registry itself)"}))
      << r.output;
  EXPECT_NE("", LineWith(r.output, {Hex8(shm_test::kFirstKey + 1010), " 640 ", " 0 ", " 64 ",
                                    "(no registry entry)"}))
      << r.output;
}

TEST_F(IpcsTest, JsonCarriesTheSystemViewOfEachSegment) {
  BuildRegistry(false);
  int entry = -1;
  {
    RegistryView registry;
    entry = registry.Find("ipcs-segment-b");
  }
  ASSERT_GE(entry, 0);
  const key_t key = shm_test::kFirstKey + entry;
  shmid_ds ds;
  const int id = ::shmget(key, 0, 0);
  ASSERT_EQ(0, ::shmctl(id, IPC_STAT, &ds));

  const ChildResult r = Ipcs({"--json"});
  ASSERT_EQ(0, r.exitCode) << r.output;
  JsonValue root;
  ASSERT_TRUE(JsonReader(r.output).Parse(&root)) << r.output;
  const JsonValue* registry = root.Get("registry");
  ASSERT_NE(nullptr, registry);
  const JsonValue* own = registry->Get("system");
  ASSERT_NE(nullptr, own);
  EXPECT_EQ(536632, own->Get("size")->number);
  const JsonValue* b = FindByName(registry->Get("segments"), "ipcs-segment-b");
  ASSERT_NE(nullptr, b) << r.output;
  const JsonValue* sys = b->Get("system");
  ASSERT_NE(nullptr, sys);
  ASSERT_EQ(JsonValue::Object, sys->kind) << r.output;
  EXPECT_EQ(key, sys->Get("key")->number);
  EXPECT_EQ(Hex8(key), sys->Get("keyHex")->text);
  EXPECT_EQ(id, sys->Get("shmid")->number);
  EXPECT_EQ(OwnerOf(ds.shm_perm.uid), sys->Get("owner")->text);
  EXPECT_EQ(ds.shm_perm.uid, sys->Get("uid")->number);
  EXPECT_EQ(0666, sys->Get("perms")->number);
  EXPECT_EQ(ds.shm_nattch, sys->Get("nattch")->number);
  EXPECT_EQ(100, sys->Get("size")->number);
  EXPECT_EQ(ds.shm_ctime, static_cast<time_t>(sys->Get("created")->number));
  EXPECT_EQ(UtcSeconds(ds.shm_ctime), sys->Get("createdUtc")->text);
  EXPECT_EQ(m_keeper->Pid(), static_cast<pid_t>(sys->Get("creatorPid")->number));
  ASSERT_NE(nullptr, registry->Get("unregisteredSegments"));
  EXPECT_EQ(0u, registry->Get("unregisteredSegments")->items.size());
}

// --- A mutex whose holder died ---------------------------------------------

TEST_F(IpcsTest, ShowsADeadHolderAndWhetherLiveProcessesWaitForIt) {
  BuildRegistry(true);
  const std::string keeper = std::to_string(m_keeper->Pid());
  const std::string victim = std::to_string(m_victimPid);
  // Nobody waits yet: shown, but not a problem.
  ChildResult r = Ipcs({});
  EXPECT_NE("", LineWith(r.output, {"ipcs-mutex", "mutex", victim + "(dead)", " none "})) << r.output;
  EXPECT_EQ(0, Ipcs({"--check"}).exitCode);

  // The keeper's record says one of its threads waits.
  NameMapView map;
  ASSERT_TRUE(map.Attached());
  const int entry = map.Find("ipcs-mutex");
  ASSERT_GE(entry, 0);
  uint32_t* slot = map.Slot(entry, m_keeper->Pid());
  ASSERT_NE(nullptr, slot);
  slot[2] = 1;

  r = Ipcs({});
  EXPECT_NE("", LineWith(r.output, {"ipcs-mutex", victim + "(dead)", " " + keeper + " ",
                                    keeper + ":1/1(alive)"}))
      << r.output;
  const ChildResult json = Ipcs({"--json"});
  JsonValue root;
  ASSERT_TRUE(JsonReader(json.output).Parse(&root)) << json.output;
  const JsonValue* mutex = FindByName(root.Get("nameMap")->Get("objects"), "ipcs-mutex");
  ASSERT_NE(nullptr, mutex);
  ASSERT_NE(nullptr, mutex->Get("holderAlive"));
  EXPECT_FALSE(mutex->Get("holderAlive")->boolean);
  ASSERT_EQ(1u, mutex->Get("liveWaiters")->items.size());
  EXPECT_EQ(m_keeper->Pid(), static_cast<pid_t>(mutex->Get("liveWaiters")->items[0].number));

  const ChildResult check = Ipcs({"--check"});
  ExpectViolation(check, "dead-holder",
                  "named mutex \"ipcs-mutex\" (entry " + std::to_string(entry) +
                      ") is held by dead pid " + victim + " while live pids wait for it: " + keeper);
  EXPECT_NE("", LineWith(check.output, {"check: 1 violation"})) << check.output;
}

TEST_F(IpcsTest, CheckIgnoresWaitsOfDeadProcessesAndLiveHolders) {
  BuildRegistry(true);
  NameMapView map;
  ASSERT_TRUE(map.Attached());
  const int entry = map.Find("ipcs-mutex");
  ASSERT_GE(entry, 0);
  // Only the dead victim's record says it waits: nobody alive is stuck.
  uint32_t* victimSlot = map.Slot(entry, m_victimPid);
  ASSERT_NE(nullptr, victimSlot);
  victimSlot[2] = 1;
  ChildResult r = Ipcs({"--check"});
  EXPECT_EQ(0, r.exitCode) << r.output;
  // A live holder with a live waiter is the ordinary case.
  victimSlot[2] = 0;
  map.Slot(entry, m_keeper->Pid())[2] = 1;
  *map.U32(NameMapView::EntryAt(entry) + 268) = static_cast<uint32_t>(::getpid());
  r = Ipcs({"--check"});
  EXPECT_EQ(0, r.exitCode) << r.output;
  EXPECT_NE("", LineWith(Ipcs({}).output, {"ipcs-mutex", std::to_string(::getpid()) + "(alive)"}));
}

// --- Segments left behind ----------------------------------------------------

TEST_F(IpcsTest, CheckNamesSegmentsLeftBehindByProcessesThatAllExited) {
  BuildRegistry(false);
  Handshake made;
  std::unique_ptr<ForkedChild> owner = Spawn([&made] {
    CPSharedMemory left("ipcs-left-behind", 256);
    made.Signal();
    ::sleep(60);  // killed long before
    return 4;
  });
  ASSERT_TRUE(owner->Started());
  const pid_t pid = owner->Pid();
  ASSERT_TRUE(made.WaitFor(10000));
  EXPECT_EQ(0, Ipcs({"--check"}).exitCode) << "its owner still lives";
  ::kill(pid, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, owner->Join(5000));

  int entry = -1;
  {
    RegistryView registry;
    entry = registry.Find("ipcs-left-behind");
  }
  ASSERT_GE(entry, 0);
  const ChildResult r = Ipcs({"--check"});
  ExpectViolation(r, "abandoned-segment",
                  "registry entry " + std::to_string(entry) + " \"ipcs-left-behind\" (key " +
                      std::to_string(shm_test::kFirstKey + entry) +
                      ") is left behind: every process that used it has exited (pids " +
                      std::to_string(pid) + ")");
  EXPECT_NE("", LineWith(r.output, {"check: 1 violation"})) << r.output;

  // The keeper's own segments are fine while it lives; once it has ended
  // normally, only the table it never releases is left.
  StopKeeper();
  const ChildResult later = Ipcs({"--check"});
  ExpectViolation(later, "abandoned-segment", "\"B1A1F31A-F8EB-4cbb-94F5-9328E259A28D\"");
  EXPECT_EQ("", LineWith(later.output, {"abandoned-segment", "ipcs-segment-a"})) << later.output;

  const ChildResult cleaned = Ipcs({"--clean", "--check"});
  EXPECT_EQ(0, cleaned.exitCode) << cleaned.output;
  EXPECT_NE("", LineWith(cleaned.output, {"check: 0 violations"})) << cleaned.output;
}

// --- Codes, help and version ------------------------------------------------

TEST_F(IpcsTest, ExplainsExceptionCodesAndWaitResults) {
  ChildResult r = Ipcs({"--explain", "0xC1210E14"});
  EXPECT_EQ(0, r.exitCode) << r.output;
  EXPECT_NE("", LineWith(r.output, {"0xC1210E14", "QK_E_OPEN_NAMED_OBJECT", "opened"})) << r.output;
  r = Ipcs({"--explain", "0xe0000000"});
  EXPECT_EQ(0, r.exitCode) << r.output;
  EXPECT_NE("", LineWith(r.output, {"0xE0000000", "QK_WAIT_TIMEOUT", "time-out"})) << r.output;
  // QKException::code is signed: the same code as printed with %ld.
  r = Ipcs({"--explain", std::to_string(static_cast<long>(QK_E_SHARED_MEMORY))});
  EXPECT_EQ(0, r.exitCode) << r.output;
  EXPECT_NE("", LineWith(r.output, {"0xC1210E1C", "CPSharedMemory"})) << r.output;
  r = Ipcs({"--explain", "0xC0000000"});
  EXPECT_NE("", LineWith(r.output, {"CTerminateWait"})) << r.output;

  r = Ipcs({"--explain", "0x12345678"});
  EXPECT_EQ(1, r.exitCode) << r.output;
  EXPECT_NE("", LineWith(r.output, {"0x12345678", "not a code of ambit"})) << r.output;
  EXPECT_EQ(2, Ipcs({"--explain", "soon"}).exitCode);
  EXPECT_EQ(2, Ipcs({"--explain"}).exitCode);
  EXPECT_EQ(2, Ipcs({"--explain", "0xE0000000", "--json"}).exitCode);
}

TEST_F(IpcsTest, AnswersHelpAndVersionOnStandardOutput) {
  // Only standard output is kept.
  const ChildResult help =
      RunProgram({"/bin/sh", "-c", std::string(AMBIT_IPCS_PATH) + " --help 2>/dev/null"}, {}, 30000);
  EXPECT_EQ(0, help.exitCode);
  EXPECT_EQ(0u, help.output.find("usage: ambit-ipcs")) << help.output;
  EXPECT_NE(std::string::npos, help.output.find("--explain CODE")) << help.output;
  const ChildResult version = Ipcs({"--version"});
  EXPECT_EQ(0, version.exitCode);
  EXPECT_EQ(std::string("ambit-ipcs (ambit) ") + AMBIT_VERSION_STRING + "\n", version.output);
  const ChildResult wrong =
      RunProgram({"/bin/sh", "-c", std::string(AMBIT_IPCS_PATH) + " --frobnicate 2>&1 >/dev/null"},
                 {}, 30000);
  EXPECT_EQ(2, wrong.exitCode);
  EXPECT_NE(std::string::npos, wrong.output.find("unknown argument --frobnicate")) << wrong.output;
}

}  // namespace
