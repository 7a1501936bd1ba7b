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
#include <map>
#include <random>
#include <string>
#include <vector>

namespace weir::test {

using Time = std::chrono::nanoseconds;  // since the simulation began
constexpr Time kNever = Time::max();

struct Fiber;

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

// The fibers that wait for one condition.
class Waiters {
 public:
  void wake();

 private:
  friend bool wait(const std::vector<Waiters*>& lists, Time deadline);
  friend struct Fiber;
  std::vector<Fiber*> fibers_;
};
// Blocks until one of the lists is woken; false at the deadline.
bool wait(const std::vector<Waiters*>& lists, Time deadline = kNever);

// Makes all of the program's calls of that name fail with `error`; 0 ends it.
void refuse(const char* call, int error);
// Makes only the n-th of them fail, counted from now on and from 1.
void refuse_nth(const char* call, int n, int error);
constexpr int kTimeout = -1;  // an `error` of poll: it returns 0
// For wrapped calls: the error with which this one has to fail, or 0.
int refused(const char* call);
// Sets errno and returns -1.
int fail(int error);
// The program's calls by name since refuse_nth().
using Counts = std::map<std::string, int, std::less<>>;
const Counts& calls();

// Hides its scope from ThreadSanitizer: the simulation's state is not the program's.
class Inside {
 public:
  Inside();
  ~Inside();
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

}  // namespace weir::test
