#include "base/process.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "base/fd.h"

namespace weir {

namespace {

void open_standard_descriptors() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  const Fd beyond(fd);
}

void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

// New pages cost a page fault every 4 KiB, nearly as much as copying 4 KiB. So blocks come
// from a single malloc heap for all threads, where freed blocks remain for reuse by any stream
// until release_free_memory().
void keep_freed_memory() {
  constexpr int kLargerThanBlocks = 4 << 20;  // bytes
  constexpr int kNever = -1;
  (void)mallopt(M_ARENA_MAX, 1);
  (void)mallopt(M_MMAP_THRESHOLD, kLargerThanBlocks);
  (void)mallopt(M_TRIM_THRESHOLD, kNever);
}

// Most threads only poll and sleep. A 4 ms timer slack, a tick of most kernels, lets nearby
// wake-ups coalesce.
void let_wake_ups_coincide() {
  constexpr unsigned long kSlack = 4'000'000;  // nanoseconds
  (void)prctl(PR_SET_TIMERSLACK, kSlack);
}

}  // namespace

void release_free_memory() { (void)malloc_trim(0); }

void prepare_process() {
  open_standard_descriptors();
  (void)std::signal(SIGPIPE, SIG_IGN);
  raise_descriptor_limit();
  keep_freed_memory();
  let_wake_ups_coincide();
}

}  // namespace weir
