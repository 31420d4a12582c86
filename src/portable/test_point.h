#ifndef AMBIT_PORTABLE_TEST_POINT_H_
#define AMBIT_PORTABLE_TEST_POINT_H_

// Named points on the lock, release and recovery paths of the named
// objects, where a crash test can stop a process (and then kill it) at an
// exact step. No hook is installed outside the tests: each point then costs
// one load and a branch that is never taken.
enum class TestPoint {
  MutexLocked,         // a wait has the mutex, its holder mark not yet written
  MutexMarked,         // the holder mark is written, the wait not yet returned
  ReleaseBeforeClear,  // a release, before the holder mark is cleared
  ReleaseAfterClear,   // the mark is cleared, the mutex not yet unlocked
  RecoveryPass,        // crash recovery has found a dead process's record
};

extern void (*g_testPointHook)(TestPoint point);

inline void AtTestPoint(TestPoint point) {
  if (__builtin_expect(g_testPointHook != nullptr, 0)) g_testPointHook(point);
}

#endif  // AMBIT_PORTABLE_TEST_POINT_H_
