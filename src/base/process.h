#pragma once

namespace weir {

// Call before the process opens anything of its own. Standard descriptors that are closed
// become /dev/null, so that no socket is ever taken for the log. SIGPIPE is ignored. The
// descriptor limit is raised as far as allowed. Freed memory is kept for later blocks of
// the buffers. Sleeps of the calling thread, and of those it starts later, may last 4 ms
// longer.
void prepare_process();

// Gives freed memory back to the system. For the end of a stream.
void release_free_memory();

}  // namespace weir
