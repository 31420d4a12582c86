#ifndef AMBIT_SYNC_MUTEX_GLOBALS_H_
#define AMBIT_SYNC_MUTEX_GLOBALS_H_

#include <pthread.h>

// Guards the lazy creation of the process-wide singletons (the shared-memory
// registry, the name map and the table of recursive-mutex records). It is a
// recursive mutex initialised statically, so it works before any constructor
// of the library has run.
extern pthread_mutex_t g_mutexGlobals;

#endif  // AMBIT_SYNC_MUTEX_GLOBALS_H_
