#include "base/thread.h"

#include <sys/resource.h>
#include <unistd.h>

namespace weir {

void lower_priority() {
  constexpr int kNice = 30;
  (void)setpriority(PRIO_PROCESS, static_cast<id_t>(getpid()), kNice);
}

bool start_detached(ThreadEntry entry, void* argument) {
  pthread_t handle;
  if (pthread_create(&handle, nullptr, entry, argument) != 0) return false;
  (void)pthread_detach(handle);
  return true;
}

bool WorkerThread::start(ThreadEntry entry, void* argument) {
  started_ = pthread_create(&thread_, nullptr, entry, argument) == 0;
  return started_;
}

void WorkerThread::join() {
  if (!started_) return;
  (void)pthread_join(thread_, nullptr);
  started_ = false;
}

}  // namespace weir
