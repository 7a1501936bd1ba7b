#pragma once

namespace weir {

// To be called before the process opens a descriptor.
// - Closed standard descriptors become /dev/null, so that no socket is mistaken for the log.
// - SIGPIPE is ignored: a write to a peer that has gone fails instead.
// - The descriptor limit is raised to the hard limit.
// - Freed memory is kept for later blocks of the buffers.
// - Sleeps of the calling thread, and of threads it starts later, may last 4 ms longer.
void prepare_process();

// Returns freed memory to the system. Called at the end of a stream.
void release_free_memory();

}  // namespace weir
