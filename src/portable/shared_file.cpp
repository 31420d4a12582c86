#include "portable/shared_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

int OpenRetryingEintr(const char* path, int flags, mode_t mode) {
  int fd;
  do fd = ::open(path, flags, mode);
  while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

int OpenSharedFile(const char* path, int access, mode_t createMode) {
  const bool create = (access & O_CREAT) != 0;
  const int flags = (access & ~O_CREAT) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int fd = -1;
  // Open what is there; create it only when nothing is, exclusively, so
  // that the file opened is always the one found or the one made. Another
  // process may create or remove it in between: try again a few times.
  for (int attempt = 0; attempt < 8 && fd < 0; ++attempt) {
    fd = OpenRetryingEintr(path, flags, 0);
    if (fd >= 0 || errno != ENOENT || !create) break;
    fd = OpenRetryingEintr(path, flags | O_CREAT | O_EXCL, createMode);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) return -1;

  struct stat st;
  int error = 0;
  if (::fstat(fd, &st) != 0)
    error = errno;
  else if (!S_ISREG(st.st_mode))
    error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
  if (error != 0) {
    ::close(fd);
    errno = error;
    return -1;
  }
  // Blocking again for reads and writes of the regular file.
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  return fd;
}
