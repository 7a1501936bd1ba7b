// Waiting for a socket, and sleeping. Uses poll(): descriptors above 1023 work too.
//
// Threads: any.
#pragma once

#include <chrono>

namespace weir {

// Wait until a read (write) would not block. The end of the stream and a pending socket error
// count as ready, because the next call reports them. False on a time-out or an error.
[[nodiscard]] bool wait_readable(int fd, std::chrono::seconds timeout);
[[nodiscard]] bool wait_writable(int fd, std::chrono::seconds timeout);

void sleep_for(std::chrono::milliseconds time);

}  // namespace weir
