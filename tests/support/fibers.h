// Simulated time and threads. Threads of the program and of the tests are fibers of one
// operating-system thread; the clock stands still while one of them can run and jumps to
// the next deadline when all of them wait. The linker's --wrap (tests/CMakeLists.txt)
// redirects the program's calls to the simulation, so the program has no branch for tests.
//
// Fibers switch only inside wrapped calls. Seed 0: round-robin, only when a call blocks.
// Other seeds: random, possibly at every wrapped call.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <random>

namespace weir::test {

using Time = std::chrono::nanoseconds;  // since the simulation began
constexpr Time kNever = Time::max();

void set_seed(unsigned seed);
Time now();
// Sets what CLOCK_MONOTONIC and gettimeofday() show now.
void set_clock(Time at_start);

enum class Of { kTest, kProgram };
void spawn(std::function<void()> run, Of whose = Of::kTest);
// The program's threads, including ended ones that were neither joined nor detached.
int threads();

void sleep_until(Time time);
inline void sleep(Time time) { sleep_until(now() + time); }
// Under a random seed, may run other fibers first.
void may_switch();
// True in the program's own code, false in tests and inside wrapped calls.
bool in_program();

// Blocks until the time that `ready` returns, which may change while other fibers run; false at
// the deadline.
bool wait(const std::function<Time()>& ready, Time deadline = kNever);

// From now on the program's calls of that name fail with the error that `error` returns for
// each of them, unless it is 0.
void refuse(const char* call, std::function<int()> error);
inline void refuse(const char* call, int error) {
  refuse(call, [error] { return error; });
}
constexpr int kTimeout = -1;  // an `error` of poll: it returns 0
// For wrapped calls: the error with which this one has to fail, or 0.
int refused(const char* call);
// Sets errno and returns -1.
int fail(int error);

// Hides its scope from ThreadSanitizer: the simulation's state is not the program's.
class Inside {
 public:
  Inside();
  ~Inside();
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

// A wrapped call: may first run other fibers, then fails as told by refuse().
template <class Body>
auto simulated(const char* call, Body body) -> decltype(body()) {
  const Inside inside;
  may_switch();
  if (const int error = refused(call)) return fail(error);
  return body();
}

}  // namespace weir::test
