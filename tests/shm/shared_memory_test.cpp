// CPSharedMemory, the public named block of shared memory, between real
// processes. Children that stand for other programs are forked before this
// process first touches the library.
#include "ambit/sharedmemory.h"

#include <unistd.h>

#include <cctype>
#include <cstring>
#include <string>

#include "ambit/exception.h"
#include "gtest/gtest.h"
#include "shm/registry_view.h"
#include "support/forked_child.h"
#include "support/handshake.h"
#include "support/log_capture.h"
#include "support/recording_hook.h"

namespace {

using namespace shm_test;

TEST(SharedMemoryTest, TwoProcessesSeeEachOthersWritesAndOnlyTheFirstIsCreator) {
  Handshake first, second, answered;
  ForkedChild creator([&] {
    CPSharedMemory memory("Board", 4096);
    char* p = static_cast<char*>(memory.getAddress());
    if (p == nullptr || memory.isCreator() != 1) return 2;
    for (int i = 0; i < 4096; ++i)
      if (p[i] != 0) return 3;  // a new block is zero-filled
    std::strcpy(p, "from the creator");
    first.Signal();
    if (!answered.WaitFor(10000)) return 4;
    return std::strcmp(p + 100, "from the opener") == 0 ? 0 : 5;
  });
  ASSERT_TRUE(first.WaitFor(10000));
  ForkedChild opener([&] {
    CPSharedMemory memory("board", 4096);  // names match whatever their case
    char* p = static_cast<char*>(memory.getAddress());
    if (p == nullptr || memory.isCreator() != 0) return 2;
    if (std::strcmp(p, "from the creator") != 0) return 3;
    std::strcpy(p + 100, "from the opener");
    answered.Signal();
    return 0;
  });
  EXPECT_EQ(0, opener.Join(10000));
  EXPECT_EQ(0, creator.Join(10000));
  RegistryView reg;
  EXPECT_EQ(0, reg.InUse()) << "both destroyed their objects: the block is gone";
  EXPECT_EQ(-1, SegmentId(kFirstKey));
}

// The registry keeps the first 254 characters of a name; two processes
// asking for one longer name meet on what it kept, whatever the case, and
// a name that differs only beyond those characters is the same block.
TEST(SharedMemoryTest, TwoProcessesShareABlockWhoseNameIsLongerThanTheRegistryKeeps) {
  std::string name;
  for (int i = 0; name.size() < 300; ++i) name += "LongName" + std::to_string(i);
  name.resize(300);
  std::string other = name;  // same first 254 characters, other case, other tail
  for (char& c : other) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  other.replace(260, 40, std::string(40, 'x'));
  Handshake first, answered;
  ForkedChild creator([&] {
    CPSharedMemory memory(name, 4096);
    char* p = static_cast<char*>(memory.getAddress());
    if (p == nullptr || memory.isCreator() != 1) return 2;
    std::strcpy(p, "from the creator");
    first.Signal();
    if (!answered.WaitFor(10000)) return 4;
    return std::strcmp(p + 100, "from the opener") == 0 ? 0 : 5;
  });
  ASSERT_TRUE(first.WaitFor(10000));
  ForkedChild opener([&] {
    CPSharedMemory memory(other, 4096);
    char* p = static_cast<char*>(memory.getAddress());
    if (p == nullptr) return 2;
    if (memory.isCreator() != 0) return 3;  // a second segment
    if (std::strcmp(p, "from the creator") != 0) return 4;
    std::strcpy(p + 100, "from the opener");
    answered.Signal();
    return 0;
  });
  EXPECT_EQ(0, opener.Join(10000));
  answered.Signal();  // let the creator finish even if the opener failed
  EXPECT_EQ(0, creator.Join(10000));
  RegistryView reg;
  EXPECT_EQ(0, reg.InUse()) << "both destroyed their objects: the block is gone";
}

TEST(SharedMemoryTest, SizeMismatchThrowsC1210E1CWithTheReasonInTheTrace) {
  LogCapture log;  // before the fork, so that the child writes there too
  Handshake go;
  ForkedChild other([&] {
    if (!go.WaitFor(10000)) return 2;
    RecordingHook hook;
    hook.Install();
    try {
      CPSharedMemory memory("Sized", 100);
      return 3;
    } catch (const QKException& e) {
      if (e.code != QK_E_SHARED_MEMORY) return 4;
    }
    if (!HookHas(hook, 16, "CPSharedMemoryImpl::CPSharedMemoryImpl, name \"Sized\", size 100\n"))
      return 5;
    if (!HookHas(hook, 4,
                 "(Error) CShareMemMap::acquireSharedMemory - size mismatch: cur 4096, req 100\n"))
      return 6;
    return 0;
  });
  CPSharedMemory memory("sized", 4096);
  try {
    CPSharedMemory again("sized", 8192);
    ADD_FAILURE() << "no exception in this process either";
  } catch (const QKException& e) {
    EXPECT_EQ(QK_E_SHARED_MEMORY, e.code);
  }
  go.Signal();
  EXPECT_EQ(0, other.Join(10000));
  int throws = 0;
  for (const std::string& l : log.Lines())
    if (l.rfind("(Error) Throwing exception 0xC1210E1C at shared_memory.cpp#", 0) == 0) ++throws;
  EXPECT_EQ(2, throws) << "one line from each process";
  RegistryView reg;
  EXPECT_EQ(std::vector<uint32_t>{static_cast<uint32_t>(::getpid())}, reg.Pids(0));
}

TEST(SharedMemoryTest, ObjectsOfOneNameInOneProcessShareOneAddressUntilTheLastGoes) {
  auto* a = new CPSharedMemory("pair", 256);
  auto* b = new CPSharedMemory("pair", 0);
  EXPECT_EQ(a->getAddress(), b->getAddress());
  EXPECT_EQ(1, a->isCreator());
  EXPECT_EQ(0, b->isCreator());
  const int id = SegmentId(kFirstKey);
  delete a;
  EXPECT_EQ(id, SegmentId(kFirstKey)) << "still held by the second object";
  static_cast<char*>(b->getAddress())[255] = 1;
  delete b;
  EXPECT_EQ(-1, SegmentId(kFirstKey));
}

TEST(SharedMemoryTest, FirstObjectAfterEveryUserLetGoIsCreatorAgainWithZeroedMemory) {
  ForkedChild writer([] {
    CPSharedMemory memory("again", 512);
    std::memset(memory.getAddress(), 0x77, 512);
    return memory.isCreator() == 1 ? 0 : 2;
  });
  ASSERT_EQ(0, writer.Join(10000));
  CPSharedMemory memory("again", 512);
  EXPECT_EQ(1, memory.isCreator());
  const char* p = static_cast<const char*>(memory.getAddress());
  for (int i = 0; i < 512; ++i) ASSERT_EQ(0, p[i]) << i;
}

TEST(SharedMemoryTest, SizeZeroOpensAnExistingBlockAndFailsForAnUnknownName) {
  Handshake made;
  ForkedChild maker([&] {
    CPSharedMemory memory("existing", 3000);
    static_cast<char*>(memory.getAddress())[2999] = 'z';
    made.Signal();
    for (;;) ::pause();
    return 0;
  });
  ASSERT_TRUE(made.WaitFor(10000));
  {
    CPSharedMemory memory("existing", 0);
    EXPECT_EQ(0, memory.isCreator());
    EXPECT_EQ('z', static_cast<const char*>(memory.getAddress())[2999]);
  }
  try {
    CPSharedMemory memory("unknown", 0);
    ADD_FAILURE() << "an unknown name cannot be opened with size 0";
  } catch (const QKException& e) {
    EXPECT_EQ(QK_E_SHARED_MEMORY, e.code);
  }
  maker.Kill();
  EXPECT_EQ(128 + SIGKILL, maker.Join(5000));
}

}  // namespace
