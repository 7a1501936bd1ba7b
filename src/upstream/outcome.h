#pragma once

namespace weir {

// The outcome of a step of a download, and the next step.
enum class Outcome {
  kDone,      // the step succeeded
  kNoAnswer,  // no connection, or no usable status line: make the next attempt
  kUnusable,  // a status other than 2xx, or no Content-Length: make no further attempt
  kBroken,    // a receive failed: give the download up
};

}  // namespace weir
