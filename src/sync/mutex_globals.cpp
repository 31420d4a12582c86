#include "sync/mutex_globals.h"

pthread_mutex_t g_mutexGlobals = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
