#pragma once

#include <pthread.h>

namespace weir {

// Every worker thread calls this at its start. It sets nice 30, which the kernel clamps to
// 19, on the process id. On Linux that is the main thread's own value, which threads
// started later inherit: the first connection's threads keep their normal priority.
// Deliberate: value and id, because operators expect weir to yield to all else.
void lower_priority();

using ThreadEntry = void* (*)(void*);

// Starts a thread that nobody joins. False when the system refuses one; entry is then not
// called.
[[nodiscard]] bool start_detached(ThreadEntry entry, void* argument);

// A thread that its owner joins.
//
// Threads: the owner's alone, who joins it before destroying it.
class WorkerThread {
 public:
  WorkerThread() = default;
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Runs entry(argument); the previous one must have been joined. False when the system
  // refuses a thread; there is then nothing to join.
  [[nodiscard]] bool start(ThreadEntry entry, void* argument);

  // Waits for the end of the thread, if there is one.
  void join();

 private:
  pthread_t thread_{};
  bool started_ = false;
};

}  // namespace weir
