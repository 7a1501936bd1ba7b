#pragma once

namespace weir {

// A write to a peer that has gone fails with an error instead of ending the process.
void ignore_sigpipe();

// Puts the process in order before it opens anything of its own: standard
// descriptors that are closed become /dev/null, so that no socket is ever taken
// for the log; SIGPIPE is ignored; the descriptor limit is raised as far as allowed;
// freed memory is kept for the blocks of the buffers to be used again; sleeps of the
// calling thread, and of those that it starts from then on, may last 4 ms longer.
void prepare_process();

// Gives freed memory back to the system. For the end of a stream.
void release_free_memory();

}  // namespace weir
