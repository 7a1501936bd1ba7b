#pragma once

#include <pthread.h>

namespace weir {

// Asks for the lowest priority, as every worker thread does at its start.
// Deliberate: the value lies above the largest nice value, to which the kernel clamps
// it, and it is set on the process's id. On Linux that is the main thread's own
// priority; threads that start later inherit what the thread that starts them has.
void lower_priority();

using ThreadEntry = void* (*)(void*);

// Starts a thread that nobody joins. False when no thread can be had; entry is then
// not called.
[[nodiscard]] bool start_detached(ThreadEntry entry, void* argument);

// A thread that its owner joins.
//
// Threads: the owner's alone. Whoever destroys it has joined it before.
class WorkerThread {
 public:
  WorkerThread() = default;
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Runs entry(argument); the one before must have been joined. False when no thread
  // can be had; there is then nothing to join.
  [[nodiscard]] bool start(ThreadEntry entry, void* argument);

  // Waits for the end of the thread, if there is one.
  void join();

 private:
  pthread_t thread_{};
  bool started_ = false;
};

}  // namespace weir
