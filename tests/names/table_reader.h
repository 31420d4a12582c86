#ifndef AMBIT_TESTS_NAMES_TABLE_READER_H_
#define AMBIT_TESTS_NAMES_TABLE_READER_H_

#include <poll.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "names/name_map.h"
#include "names/names_support.h"
#include "shm/share_mem_map.h"
#include "support/forked_child.h"
#include "support/handshake.h"

namespace names_test {

// Another process's view of the name map's table: a child, forked when the
// reader is made (so before the test touches the library), that attaches
// the table segment through the shared-memory registry only, without a
// name map of its own, and sends a copy of its bytes on each request.
class TableReader {
 public:
  TableReader() {
    if (::pipe2(m_data, O_CLOEXEC) != 0) m_data[0] = m_data[1] = -1;
    m_child = Spawn([this] { return Serve(); });
    ::close(m_data[1]);
    m_data[1] = -1;
  }
  ~TableReader() {
    m_request.Signal(0);
    m_child->Join(5000);
    if (m_data[0] >= 0) ::close(m_data[0]);
  }
  TableReader(const TableReader&) = delete;
  TableReader& operator=(const TableReader&) = delete;

  // The table's bytes as the reader sees them now; empty when it could not
  // attach or did not answer within 5 s.
  std::vector<unsigned char> Snapshot() {
    std::vector<unsigned char> bytes;
    if (!m_request.Signal(1)) return bytes;
    uint32_t size = 0;
    if (!Read(&size, sizeof size) || size == 0) return bytes;
    bytes.resize(size);
    if (!Read(bytes.data(), size)) bytes.clear();
    return bytes;
  }

 private:
  int Serve() {
    void* table = nullptr;
    for (;;) {
      unsigned char what = 0;
      if (!m_request.WaitFor(30000, &what)) return 2;
      if (what == 0) return 0;
      if (table == nullptr) {
        int created = 0;
        table = get_shareMemMap()->acquireSharedMemory(CNameMap::kSegmentName, 0, &created);
      }
      const uint32_t size = table != nullptr ? CNameMap::kSegmentSize : 0;
      if (!Write(&size, sizeof size)) return 3;
      if (size != 0 && !Write(table, size)) return 4;
    }
  }

  bool Write(const void* p, size_t n) {
    const char* c = static_cast<const char*>(p);
    while (n > 0) {
      const ssize_t w = ::write(m_data[1], c, n);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return false;
      c += w;
      n -= static_cast<size_t>(w);
    }
    return true;
  }

  bool Read(void* p, size_t n) {
    char* c = static_cast<char*>(p);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (n > 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            end - std::chrono::steady_clock::now()).count();
      if (left <= 0) return false;
      pollfd pfd = {m_data[0], POLLIN, 0};
      const int r = ::poll(&pfd, 1, static_cast<int>(left));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;
      const ssize_t got = ::read(m_data[0], c, n);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      c += got;
      n -= static_cast<size_t>(got);
    }
    return true;
  }

  Handshake m_request;
  int m_data[2];
  std::unique_ptr<ForkedChild> m_child;
};

// Little-endian 32-bit word at offset `at` of a table copy.
inline uint32_t U32(const std::vector<unsigned char>& bytes, size_t at) {
  uint32_t v = 0;
  if (at + 4 <= bytes.size()) std::memcpy(&v, bytes.data() + at, 4);
  return v;
}

inline std::string CString(const std::vector<unsigned char>& bytes, size_t at) {
  if (at >= bytes.size()) return std::string();
  const char* s = reinterpret_cast<const char*>(bytes.data() + at);
  return std::string(s, strnlen(s, bytes.size() - at));
}

// Offset of entry `index` in the table.
inline size_t EntryAt(int index) { return 16 + static_cast<size_t>(index) * 1116; }
// Offset of pid slot `slot` of the entry at `entry`.
inline size_t SlotAt(size_t entry, int slot) { return entry + 272 + static_cast<size_t>(slot) * 12; }

}  // namespace names_test

#endif  // AMBIT_TESTS_NAMES_TABLE_READER_H_
