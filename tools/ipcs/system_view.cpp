#include "ipcs/system_view.h"

#include <pwd.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#ifndef SHM_STAT_ANY
#define SHM_STAT_ANY 15  // Linux 4.17: SHM_STAT without the read permission check
#endif

namespace {

std::string OwnerName(uid_t uid) {
  passwd pw;
  passwd* found = nullptr;
  char buf[1024];
  if (::getpwuid_r(uid, &pw, buf, sizeof buf, &found) == 0 && found != nullptr)
    return found->pw_name;
  return std::to_string(uid);
}

}  // namespace

std::vector<SystemSegment> ListSystemSegments(int32_t firstKey, int32_t lastKey) {
  std::vector<SystemSegment> out;
  shm_info info;
  const int highest = ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info));
  for (int index = 0; index <= highest; ++index) {
    shmid_ds ds;
    int id = ::shmctl(index, SHM_STAT, &ds);
    if (id < 0 && errno == EACCES) id = ::shmctl(index, SHM_STAT_ANY, &ds);
    if (id < 0) continue;
    const int32_t key = static_cast<int32_t>(ds.shm_perm.__key);
    if (key < firstKey || key > lastKey) continue;
    SystemSegment s;
    s.key = key;
    s.shmid = id;
    s.uid = ds.shm_perm.uid;
    s.owner = OwnerName(ds.shm_perm.uid);
    s.mode = ds.shm_perm.mode & 0777;
    s.nattch = static_cast<uint32_t>(ds.shm_nattch);
    s.size = static_cast<uint32_t>(ds.shm_segsz);
    s.ctime = static_cast<int64_t>(ds.shm_ctime);
    s.creatorPid = ds.shm_cpid;
    out.push_back(s);
  }
  std::sort(out.begin(), out.end(),
            [](const SystemSegment& a, const SystemSegment& b) { return a.key < b.key; });
  return out;
}

const SystemSegment* FindSegment(const std::vector<SystemSegment>& segments, int32_t key) {
  for (const SystemSegment& s : segments)
    if (s.key == key) return &s;
  return nullptr;
}

std::string UtcText(int64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  tm parts;
  char buf[32];
  if (::gmtime_r(&t, &parts) == nullptr ||
      std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &parts) == 0)
    return "?";
  return buf;
}
