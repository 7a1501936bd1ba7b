// Waiting for a socket and sleeping.
//
// These use poll(), so that descriptors above 1023 work too.
#pragma once

#include <chrono>

namespace weir {

// Wait until the socket can be read from (written to) without blocking. An end
// of stream and a pending socket error count as ready: the call that follows
// reports them. False when the time ran out, or on an error.
[[nodiscard]] bool wait_readable(int fd, std::chrono::seconds timeout);
[[nodiscard]] bool wait_writable(int fd, std::chrono::seconds timeout);

void sleep_for(std::chrono::milliseconds time);

}  // namespace weir
