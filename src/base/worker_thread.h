#pragma once

#include <pthread.h>

namespace weir {

// Gives the process the lowest scheduling priority. Every worker thread calls
// this at its start. The value lies above the system's largest nice value, which
// the kernel clamps, and it is set on the process; both are meant.
void lower_priority();

// A thread that its owner joins.
//
// Threads: the owner's alone. Whoever destroys it has joined it before.
class WorkerThread {
 public:
  using Entry = void* (*)(void*);

  WorkerThread() = default;
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Runs entry(argument); the one before must have been joined. False when there
  // is no thread to be had; there is then nothing to join.
  [[nodiscard]] bool start(Entry entry, void* argument);

  // Waits for the end of the thread, if there is one.
  void join();

 private:
  pthread_t thread_{};
  bool started_ = false;
};

}  // namespace weir
