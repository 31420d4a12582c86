#ifndef AMBIT_TESTS_SHM_REGISTRY_VIEW_H_
#define AMBIT_TESTS_SHM_REGISTRY_VIEW_H_

// Test helpers for the shared-memory registry: a view of the registry
// segment that reads it the way another program would (by key and by byte
// offset, without the library's structs), raw System V probes, and line
// searches in the log and in a recording hook.

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/recording_hook.h"

namespace shm_test {

constexpr key_t kRegistryKey = 46065;
constexpr size_t kRegistryBytes = 536632;
constexpr key_t kFirstKey = 46066;
constexpr size_t kEntriesAt = 56;
constexpr size_t kEntryBytes = 524;
constexpr int kEntries = 1024;
constexpr int kSlots = 64;
constexpr char kParked[] = "$$$NOT-USED-BUT-NOT-RELEASED$$$";
constexpr char kTimeFile[] = "/tmp/ShareMemCreateTime-16AC6AB6-4CA6-4813-A086-53E43B469FF8";
constexpr char kLockFile[] = "/tmp/Ambit-ipclock-CShareMemMap";

// The registry segment attached by key. Writable views are for tests that
// damage the registry on purpose.
class RegistryView {
 public:
  explicit RegistryView(bool writable = false) {
    m_id = ::shmget(kRegistryKey, 0, 0);
    if (m_id < 0) return;
    void* p = ::shmat(m_id, nullptr, writable ? 0 : SHM_RDONLY);
    if (p != reinterpret_cast<void*>(-1)) m_p = static_cast<unsigned char*>(p);
  }
  ~RegistryView() {
    if (m_p != nullptr) ::shmdt(m_p);
  }
  RegistryView(const RegistryView&) = delete;
  RegistryView& operator=(const RegistryView&) = delete;

  bool Attached() const { return m_p != nullptr; }
  int Id() const { return m_id; }
  unsigned char* Bytes() const { return m_p; }

  uint32_t U32(size_t offset) const {
    uint32_t v;
    std::memcpy(&v, m_p + offset, sizeof v);
    return v;
  }
  uint64_t U64(size_t offset) const {
    uint64_t v;
    std::memcpy(&v, m_p + offset, sizeof v);
    return v;
  }
  std::string Text(size_t offset, size_t room) const {
    const char* s = reinterpret_cast<const char*>(m_p + offset);
    return std::string(s, ::strnlen(s, room));
  }

  uint32_t Initialized() const { return U32(0); }
  uint32_t BusyPid() const { return U32(4); }
  std::string CreatorProgram() const { return Text(8, 16); }
  std::string CreateTime() const { return Text(24, 24); }
  uint64_t LatestAccessTick() const { return U64(48); }

  static size_t EntryAt(int i) { return kEntriesAt + kEntryBytes * static_cast<size_t>(i); }
  std::string Name(int i) const { return Text(EntryAt(i), 255); }
  uint32_t Size(int i) const { return U32(EntryAt(i) + 256); }
  int32_t Shmid(int i) const { return static_cast<int32_t>(U32(EntryAt(i) + 260)); }
  uint32_t CreatorPid(int i) const { return U32(EntryAt(i) + 264); }
  uint32_t Pid(int i, int slot) const { return U32(EntryAt(i) + 268 + 4 * static_cast<size_t>(slot)); }
  std::vector<uint32_t> Pids(int i) const {
    std::vector<uint32_t> pids;
    for (int s = 0; s < kSlots; ++s)
      if (Pid(i, s) != 0) pids.push_back(Pid(i, s));
    return pids;
  }
  bool Free(int i) const { return m_p[EntryAt(i)] == 0; }
  // The first entry carrying exactly this name, or -1.
  int Find(const std::string& name) const {
    for (int i = 0; i < kEntries; ++i)
      if (!Free(i) && Name(i) == name) return i;
    return -1;
  }
  int InUse() const {
    int n = 0;
    for (int i = 0; i < kEntries; ++i)
      if (!Free(i)) ++n;
    return n;
  }

 private:
  int m_id = -1;
  unsigned char* m_p = nullptr;
};

// The id of the segment with this key, or -1 (errno kept).
inline int SegmentId(key_t key) { return ::shmget(key, 0, 0); }

// The size of the segment with this key, or 0 when there is none.
inline size_t SegmentSize(key_t key) {
  const int id = SegmentId(key);
  shmid_ds ds;
  if (id < 0 || ::shmctl(id, IPC_STAT, &ds) != 0) return 0;
  return ds.shm_segsz;
}

inline bool HasLine(const std::vector<std::string>& lines, const std::string& text) {
  for (const std::string& l : lines)
    if (l == text) return true;
  return false;
}

inline bool HasLineStartingWith(const std::vector<std::string>& lines,
                                const std::string& start) {
  for (const std::string& l : lines)
    if (l.compare(0, start.size(), start) == 0) return true;
  return false;
}

inline int CountLines(const std::vector<std::string>& lines, const std::string& text) {
  int n = 0;
  for (const std::string& l : lines)
    if (l == text) ++n;
  return n;
}

// A hook line with this category and text (the text with its newline).
inline bool HookHas(const RecordingHook& hook, unsigned long category,
                    const std::string& text) {
  for (const RecordingHook::Line& l : hook.Lines())
    if (l.category == category && l.text == text) return true;
  return false;
}

inline bool HookHasText(const RecordingHook& hook, const std::string& text) {
  for (const RecordingHook::Line& l : hook.Lines())
    if (l.text == text) return true;
  return false;
}

}  // namespace shm_test

#endif  // AMBIT_TESTS_SHM_REGISTRY_VIEW_H_
