#ifndef AMBIT_PORTABLE_SHARED_FILE_H_
#define AMBIT_PORTABLE_SHARED_FILE_H_

#include <sys/types.h>

// Opens a file of the library's in a directory that other users can write
// (/tmp, a shared log directory), so that nothing planted at the path can
// turn the open against another file or hang it:
// - a symlink at the path is never followed (the open fails with ELOOP);
// - a FIFO never blocks the open (O_NONBLOCK; a write-only open of one
//   without a reader fails with ENXIO), and anything that is not a regular
//   file is refused (EISDIR for a directory, EINVAL otherwise);
// - with O_CREAT in `access`, the file is created with `createMode` (less
//   the umask) when missing; it is never truncated here;
// - the descriptor is not inherited by programs this process starts.
// `access` is O_RDONLY, O_WRONLY or O_RDWR, optionally with O_APPEND and
// O_CREAT.
// Returns the descriptor, or -1 with errno set. A mode that must hold
// whatever the umask is given with fchmod on the descriptor by the caller.
int OpenSharedFile(const char* path, int access, mode_t createMode);

#endif  // AMBIT_PORTABLE_SHARED_FILE_H_
