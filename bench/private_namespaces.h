#ifndef AMBIT_BENCH_PRIVATE_NAMESPACES_H_
#define AMBIT_BENCH_PRIVATE_NAMESPACES_H_

#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>
#include <cstring>

namespace ambit_bench {

// Moves the process into a private IPC and mount namespace with fresh tmpfs
// on /tmp and /dev/shm, so that benchmarks of named objects get registries
// of their own and never touch the machine's. Call it before any thread
// starts (from a static initialiser); a re-executed peer inherits the
// namespaces. True when the process is isolated (also when it already was).
inline bool EnterPrivateNamespaces() {
  const char* already = std::getenv("AMBIT_ISOLATED");
  if (already != nullptr && std::strcmp(already, "1") == 0) return true;
  if (::unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0) return false;
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  if (::mount("ambit-tmp", "/tmp", "tmpfs", 0, "mode=1777") != 0) return false;
  ::mount("ambit-shm", "/dev/shm", "tmpfs", 0, "mode=1777");
  ::setenv("AMBIT_ISOLATED", "1", 1);
  return true;
}

}  // namespace ambit_bench

#endif  // AMBIT_BENCH_PRIVATE_NAMESPACES_H_
