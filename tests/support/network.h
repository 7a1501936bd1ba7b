// The network of the simulation: sockets of the program and of the test that meet in
// memory. Descriptors from kFirst on belong to it; calls with any other go to the system.
//
// To connect to a host that the test has set up is to talk with its `serve`; any other
// address refuses. Descriptors 1 and 2 are the log when somebody takes it.
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
  size_t taken = 0;  // of the first
  size_t held = 0;   // in all
  size_t capacity = size_t{4} << 20;
  Time ends = kNever;
  bool is_reset = false;  // by then
  bool broken = false;    // the reader has gone
  Waiters readers, writers;

  // From the writer, to arrive then.
  void put(Time at, std::string bytes);
  void end(Time at);
  void reset(Time at);
};

// What a host does with a connection. `request` is called with all that the program has
// sent so far, takes what it understands, and answers into `to_program`.
struct Host {
  enum class Kind { kServes, kRefuses, kSilent, kUnreachable, kDeaf };
  Kind kind = Kind::kServes;
  Time latency = std::chrono::milliseconds(1);  // of a connection; 0 connects at once
  size_t capacity = 256 << 10;                  // what is on the way to it at most
  std::function<void(std::string& received, Pipe& to_program)> request;
};

extern std::map<std::string, Host> hosts;         // "10.0.0.1:80"
extern std::map<std::string, std::string> names;  // name or address; "" has no address
extern std::function<void(int fd, const std::string&)> log_line;  // of descriptors 1 and 2
extern std::function<void(const std::string&)> noticed;           // calls that nobody else sees
void set_log_stuck(int fd, bool stuck);

bool is_listening();
int open_sockets();
void close_all_sockets();  // as at the end of a process

}  // namespace weir::test
