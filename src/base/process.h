#pragma once

namespace weir {

// Sets up the process. Must be called before the process opens a descriptor.
// - Closed standard descriptors become /dev/null, so that no socket is mistaken for the log.
// - SIGPIPE is ignored: a write to a closed connection fails instead.
// - The descriptor limit is raised to the hard limit.
// - Freed memory is kept for reuse by the buffers.
// - Sleeps of the calling thread, and of threads it starts later, may last 4 ms longer.
void prepare_process();

// Returns freed memory to the system. Called at the end of a stream.
void release_free_memory();

}  // namespace weir
