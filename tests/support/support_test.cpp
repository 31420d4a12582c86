// The test-support pieces that later multi-process tests rely on: bounded
// child processes, handshakes, re-runs with environment changes, and the
// private namespaces every test binary marked isolated runs in.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>

#include "gtest/gtest.h"
#include "support/child_process.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/temp_dir.h"
#include "support/unique_name.h"

namespace {

constexpr key_t kRegistryKey = 46065;
constexpr long kTmpfsMagic = 0x01021994;

std::string NamespaceOf(const char* pid, const char* kind) {
  char link[256] = {};
  const std::string path = std::string("/proc/") + pid + "/ns/" + kind;
  if (readlink(path.c_str(), link, sizeof link - 1) < 0) return "";
  return link;
}

TEST(ForkedChildTest, ExitCodeIsTheChildsVerdict) {
  ForkedChild child([] { return 7; });
  ASSERT_TRUE(child.Started());
  EXPECT_EQ(7, child.Join(5000));
}

TEST(ForkedChildTest, HungChildIsKilledWithinTheBound) {
  const auto start = std::chrono::steady_clock::now();
  ForkedChild child([] {
    for (;;) pause();
    return 0;
  });
  ASSERT_TRUE(child.Started());
  EXPECT_EQ(-1, child.Join(100));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(ForkedChildTest, KilledChildReportsTheSignal) {
  Handshake ready;
  ForkedChild child([&] {
    ready.Signal();
    for (;;) pause();
    return 0;
  });
  ASSERT_TRUE(ready.WaitFor(5000));
  child.Kill();
  EXPECT_EQ(128 + SIGKILL, child.Join(5000));
}

TEST(HandshakeTest, CarriesOneValueAcrossProcessesAndTimesOutWhenSilent) {
  Handshake toChild, toParent;
  ForkedChild child([&] {
    unsigned char v = 0;
    if (!toChild.WaitFor(5000, &v)) return 2;
    toParent.Signal(static_cast<unsigned char>(v + 1));
    return 0;
  });
  EXPECT_FALSE(toParent.WaitFor(20));  // nothing sent yet
  toChild.Signal(41);
  unsigned char answer = 0;
  ASSERT_TRUE(toParent.WaitFor(5000, &answer));
  EXPECT_EQ(42, answer);
  EXPECT_EQ(0, child.Join(5000));
}

TEST(RunProgramTest, CollectsOutputAndAppliesEnvironmentChanges) {
  setenv("AMBIT_SUPPORT_REMOVED", "x", 1);
  const ChildResult r = RunProgram(
      {"/bin/sh", "-c", "echo \"$AMBIT_SUPPORT_SET/${AMBIT_SUPPORT_REMOVED-gone}\"; exit 3"},
      {{"AMBIT_SUPPORT_SET", std::string("value")},
       {"AMBIT_SUPPORT_REMOVED", std::nullopt}},
      10000);
  unsetenv("AMBIT_SUPPORT_REMOVED");
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(3, r.exitCode);
  EXPECT_EQ("value/gone\n", r.output);
}

TEST(RunProgramTest, ProgramThatRunsTooLongIsKilled) {
  const auto start = std::chrono::steady_clock::now();
  const ChildResult r = RunProgram({"/bin/sleep", "30"}, {}, 200);
  EXPECT_TRUE(r.timedOut);
  EXPECT_EQ(-1, r.exitCode);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(RerunTest, ReRunSeesTheEnvironmentAndReportsItsVerdict) {
  if (IsRerunChild()) {
    const char* v = std::getenv("AMBIT_SUPPORT_RERUN");
    ASSERT_NE(nullptr, v);
    EXPECT_STREQ("fail", v) << "the re-run fails on purpose";
    return;
  }
  EXPECT_EQ(1, RerunThisTest({{"AMBIT_SUPPORT_RERUN", std::string("pass")}}).exitCode);
  EXPECT_EQ(0, RerunThisTest({{"AMBIT_SUPPORT_RERUN", std::string("fail")}}).exitCode);
}

TEST(UniqueNameTest, NamesCarryThePidAndTheTest) {
  const std::string name = UniqueName("event");
  EXPECT_EQ(0u, name.find("event-" + std::to_string(getpid()) + "-"));
  EXPECT_NE(std::string::npos, name.find("NamesCarryThePidAndTheTest"));
}

TEST(TempDirTest, IsCreatedListedAndRemoved) {
  std::string path;
  {
    TempDir dir;
    path = dir.Path();
    ASSERT_FALSE(path.empty());
    std::ofstream(path + "/b") << "x";
    std::ofstream(path + "/a") << "y";
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), dir.List());
  }
  EXPECT_NE(0, access(path.c_str(), F_OK));
}

// Isolation: this binary runs each test through the namespace wrapper.

bool Isolated() {
  const char* v = std::getenv("AMBIT_ISOLATED");
  return v != nullptr && std::string(v) == "1";
}

TEST(IsolationTest, TestRunsInPrivateIpcAndMountNamespacesWithAFreshTmp) {
  if (!Isolated()) GTEST_SKIP() << "no namespaces here: tests run serially";
  EXPECT_NE(NamespaceOf("1", "ipc"), NamespaceOf("self", "ipc"));
  EXPECT_NE(NamespaceOf("1", "mnt"), NamespaceOf("self", "mnt"));
  struct statfs fs;
  ASSERT_EQ(0, statfs("/tmp", &fs));
  EXPECT_EQ(kTmpfsMagic, static_cast<long>(fs.f_type));
  ASSERT_EQ(0, statfs("/dev/shm", &fs));
  EXPECT_EQ(kTmpfsMagic, static_cast<long>(fs.f_type));
}

TEST(IsolationTest, ANestedRunSeesNoneOfThisTestsKeysOrTmpFiles) {
  if (IsRerunChild()) {
    // In a namespace of its own: neither the segment nor the file exist.
    EXPECT_EQ(-1, shmget(kRegistryKey, 0, 0));
    EXPECT_NE(0, access("/tmp/Ambit-ipclock-CShareMemMap", F_OK));
    EXPECT_EQ("1", std::string(std::getenv("AMBIT_ISOLATED")));
    return;
  }
  if (!Isolated()) GTEST_SKIP() << "no namespaces here: tests run serially";
  const int id = shmget(kRegistryKey, 4096, IPC_CREAT | IPC_EXCL | 0666);
  ASSERT_GE(id, 0) << "the fresh namespace already had key 46065";
  std::ofstream("/tmp/Ambit-ipclock-CShareMemMap") << "";
  char self[4096] = {};
  ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
  const ChildResult r = RunProgram(
      {AMBIT_ISOLATE_WRAPPER, self, "--gtest_filter=IsolationTest.ANestedRunSeesNoneOfThisTestsKeysOrTmpFiles"},
      {{"AMBIT_ISOLATED", std::nullopt}, {"AMBIT_TEST_RERUN", std::string("1")}},
      30000);
  EXPECT_EQ(0, r.exitCode) << r.output;
  // Still here for this test.
  EXPECT_EQ(id, shmget(kRegistryKey, 0, 0));
  shmctl(id, IPC_RMID, nullptr);
}

}  // namespace
