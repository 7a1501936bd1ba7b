// The simulated network: sockets of the program and of the test, connected in memory.
// Calls with descriptors below kFirst go to the system.
//
// A connection to one of `hosts` is served by its `request`; any other address refuses.
// Writes to descriptors 1 and 2 go to `log_line` while that is set.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "support/fibers.h"

namespace weir::test {

// One direction of a connection.
struct Pipe {
  struct Piece {
    Time at;
    std::string bytes;
  };
  std::deque<Piece> pieces;
  size_t taken = 0;  // bytes of the first piece that were read
  size_t held = 0;   // bytes in all pieces
  size_t capacity = size_t{4} << 20;
  Time ends = kNever;
  bool is_reset = false;  // it ends with a reset
  bool broken = false;    // the reader has closed it

  // For the writer; `at` is the time of arrival.
  void put(Time at, std::string bytes);
  void reset(Time at);
};

// An origin. `request` is called with the bytes received and not yet taken, removes the
// requests that are complete and answers into `to_program`.
struct Host {
  enum class Kind { kServes, kRefuses, kSilent, kUnreachable, kDeaf };
  Kind kind = Kind::kServes;
  Time latency = std::chrono::milliseconds(1);  // of connecting; 0 connects at once
  size_t capacity = 256 << 10;                  // most bytes on the way to it
  std::function<void(std::string& received, Pipe& to_program)> request;
};

extern std::map<std::string, Host> hosts;         // "10.0.0.1:80"
extern std::map<std::string, std::string> names;  // to addresses; "" is an entry without any
extern std::function<void(int fd, const std::string&)> log_line;  // of descriptors 1 and 2
extern std::function<void(const std::string&)> noticed;           // calls without another effect
void set_log_stuck(int fd, bool stuck);

bool is_listening();
int open_sockets();
void close_all_sockets();  // as the end of a process does

}  // namespace weir::test
