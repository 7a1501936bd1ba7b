#pragma once

#include <pthread.h>

namespace weir {

// Called by every worker thread at its start. Sets nice 30, which the kernel clamps to 19, on
// the process id. On Linux this is the main thread's value, inherited by threads started
// later: the threads of the first connection keep their normal priority.
// Deliberate: both the value and the use of the process id; operators rely on weir running
// at the lowest priority.
void lower_priority();

using ThreadEntry = void* (*)(void*);

// Starts a thread that is never joined. False if the system refuses to create one:
// `entry` is then not called.
[[nodiscard]] bool start_detached(ThreadEntry entry, void* argument);

// A thread that must be joined before this object is destroyed.
//
// Threads: only the owner's.
class WorkerThread {
 public:
  WorkerThread() = default;
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Runs entry(argument). The previous thread must have been joined. False if the system
  // refuses to create a thread; join() then does nothing.
  [[nodiscard]] bool start(ThreadEntry entry, void* argument);

  // Waits until the thread, if any, has ended.
  void join();

 private:
  pthread_t thread_{};
  bool started_ = false;
};

}  // namespace weir
