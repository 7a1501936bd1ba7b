// Simulated time. Threads of the program and of the test are fibers of one operating
// system thread; the clock stands still while one of them can run, and jumps to the next
// deadline when all of them wait. The seam is the linker's --wrap (tests/CMakeLists.txt):
// the program's own calls come here, and it has no branch for tests.
//
// A fiber is left only in a wrapped call. Which one runs next follows from the seed: with
// 0 in turn, and only where a call blocks; otherwise at random, and at any wrapped call.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

namespace weir::test {

using Time = std::chrono::nanoseconds;  // since the simulation began
constexpr Time kNever = Time::max();

struct Fiber;

void set_seed(unsigned seed);
Time now();
// What CLOCK_MONOTONIC and gettimeofday() show at the start.
void set_clock(Time at_start);

enum class Of { kTest, kProgram };
void spawn(std::function<void()> run, Of whose = Of::kTest);
// Of the program, those included that have ended and that nobody joined or detached.
int threads();

void sleep_until(Time time);
inline void sleep(Time time) { sleep_until(now() + time); }
// A place where another fiber may come in.
void may_switch();
bool in_program();  // and not in the simulation itself

// Those who wait for one thing to change.
class Waiters {
 public:
  void wake();

 private:
  friend bool wait(const std::vector<Waiters*>& lists, Time deadline);
  friend struct Fiber;
  std::vector<Fiber*> fibers_;
};
// Until any of them is woken; false at the deadline.
bool wait(const std::vector<Waiters*>& lists, Time deadline = kNever);

// The program's calls of that name fail with that error (0 takes it back).
void refuse(const char* call, int error);
int refused(const char* call);

// Within it ThreadSanitizer looks away: the simulation's own state is not the program's.
class Inside {
 public:
  Inside();
  ~Inside();
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

}  // namespace weir::test
