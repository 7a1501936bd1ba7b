#include "system/process.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

namespace weir {

namespace {

void open_standard_descriptors() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}

void raise_descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

void ignore_sigpipe() { (void)std::signal(SIGPIPE, SIG_IGN); }

void prepare_process() {
  open_standard_descriptors();
  ignore_sigpipe();
  raise_descriptor_limit();
}

}  // namespace weir
