#ifndef AMBIT_PORTABLE_THREAD_OBJECT_IMPL_H_
#define AMBIT_PORTABLE_THREAD_OBJECT_IMPL_H_

#include <atomic>
#include <string>

class CPEvent;

// The state shared by a thread object and the thread it runs. `running` is
// written by the thread and polled by the destroying thread.
struct ThreadObjectState {
  std::string name;
  CPEvent* stopEvent = nullptr;  // the caller's; may be null
  std::atomic<int> running{0};
  unsigned long id = 0;          // kernel thread id; 0 on failure
  void (*function)(void*) = nullptr;
  void* argument = nullptr;
};

// Runs on the new thread: marks it running, calls the function (tracing and
// swallowing what it throws) and marks it stopped.
void RunThreadObject(void* state);

class CPThreadImpl : public ThreadObjectState {
 public:
  // Throws QKException 0xC1210E15 when the thread cannot be started.
  CPThreadImpl(const std::string& name, void (*function)(void*), void* argument,
               CPEvent* stopEvent);
  // Wakes the stop event until the function has returned (no time limit).
  ~CPThreadImpl();
};

class CPThreadImplEx : public ThreadObjectState {
 public:
  // 0, or 0xC1210E15 (all fields cleared) when the thread cannot start.
  unsigned long Initialize(const std::string& name, void (*function)(void*), void* argument,
                           CPEvent* stopEvent);
  // Wakes the stop event once; does not wait. Always 0.
  unsigned long Finalize();
  ~CPThreadImplEx() { Finalize(); }
};

#endif  // AMBIT_PORTABLE_THREAD_OBJECT_IMPL_H_
