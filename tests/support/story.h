// A story is the transcript of a test in short: tests/stories/<test>.txt. Shortening loses
// nothing, so that comparing two stories compares every line of both transcripts.
//
//   - "loop" and "after select" are left out when an idle second lies between them, and
//     a timer that waits shows its first turn and the time of the last, ", until 3.002 s".
//   - Times stand in front of the first line of their millisecond. "1 ms later" and "2 s
//     later", the times of a connect, replace the next one, so that phrases can contain it.
//   - The sequences of lines in tests/stories/phrases.txt are one line each, after "* ".
#pragma once

#include <string>

namespace weir::test {

// Compares with the story that has the name of the running test; `in_full`, without
// shortening. With SIM_SEED only the answers to clients are compared. In the environment:
// UPDATE_STORIES=1 writes the stories instead, STORY_LOGS=folder writes the transcripts there.
void compare(const std::string& transcript, bool in_full = false);

}  // namespace weir::test
