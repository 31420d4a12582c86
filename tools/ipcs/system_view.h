#ifndef AMBIT_TOOLS_IPCS_SYSTEM_VIEW_H_
#define AMBIT_TOOLS_IPCS_SYSTEM_VIEW_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// One System V segment as the kernel reports it (what `ipcs -m` prints).
struct SystemSegment {
  int32_t key = 0;
  int shmid = -1;
  uint32_t uid = 0;
  std::string owner;  // user name, or the uid as text
  uint32_t mode = 0;  // permission bits, e.g. 0666
  uint32_t nattch = 0;
  uint32_t size = 0;
  int64_t ctime = 0;  // seconds since 1970: creation (or last IPC_SET)
  int32_t creatorPid = 0;
};

// Every segment whose key lies in [firstKey, lastKey], in key order, read
// with SHM_INFO and SHM_STAT (SHM_STAT_ANY where permissions hide one), so
// that segments with no registry entry are listed too.
std::vector<SystemSegment> ListSystemSegments(int32_t firstKey, int32_t lastKey);

// The segment with `key` in `segments`, or null.
const SystemSegment* FindSegment(const std::vector<SystemSegment>& segments, int32_t key);

// "2026-11-24 02:30:01" in UTC.
std::string UtcText(int64_t seconds);

#endif  // AMBIT_TOOLS_IPCS_SYSTEM_VIEW_H_
