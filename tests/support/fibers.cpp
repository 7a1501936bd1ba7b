#include "support/fibers.h"

#include <pthread.h>
#include <sys/time.h>
#include <ucontext.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define WEIR_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define WEIR_ASAN 1
#elif __has_feature(thread_sanitizer)
#define WEIR_TSAN 1
#endif
#endif
#if WEIR_ASAN
#include <sanitizer/common_interface_defs.h>
#elif WEIR_TSAN
#include <sanitizer/tsan_interface.h>
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
#endif

namespace __cxxabiv1 {
extern "C" void* __cxa_get_globals() noexcept;
}

namespace weir::test {

constexpr size_t kStack = 512 << 10;

struct Fiber {
  std::function<void()> run;
  Of whose = Of::kTest;
  int inside = 0;
  std::unique_ptr<char[]> stack = nullptr;
  const void* bottom = stack.get();
  size_t size = kStack;
  bool done = false;
  bool released = true;                          // joined or detached
  const std::function<Time()>* ready = nullptr;  // see wait()
  Time deadline = {};
  void* exceptions[2] = {};  // the C++ library's state of a thread
  ucontext_t context{};
  void* shadow = nullptr;  // the sanitizer's fiber
};

namespace {

Fiber main_fiber;
Fiber* current = &main_fiber;
Fiber* previous = nullptr;               // ran before `current`
std::deque<Fiber> fibers;                // of all times
std::vector<Fiber*> alive{&main_fiber};  // in the order in which they ran
std::map<std::string, std::function<int()>, std::less<>> refusals;
std::uint64_t unlocks = 0;  // of all mutexes
Time time_now{0};
Time clock_start = std::chrono::seconds(1000);
std::uint64_t steps = 0;  // since the clock last advanced
bool at_random = false;
std::minstd_rand random_order;

[[noreturn]] void die(const char* why) {
  std::fprintf(stderr, "simulation: %s at %.3f s, %d threads\n", why,
               static_cast<double>(time_now.count()) / 1e9, threads());
  std::abort();
}

// Called first after a switch, on the stack of the fiber that now runs.
void arrived() {
#if WEIR_ASAN
  __sanitizer_finish_switch_fiber(current->shadow, &previous->bottom, &previous->size);
#endif
  if (!previous->done) return;
#if WEIR_TSAN
  __tsan_destroy_fiber(previous->shadow);
#endif
  previous->stack.reset();
}

#if WEIR_TSAN
__attribute__((no_sanitize("thread")))
#endif
void switch_to(Fiber* next) {
  if (next == current) return;
  Fiber* const from = current;
  const int error = errno;
  void* const globals = __cxxabiv1::__cxa_get_globals();
  std::memcpy(from->exceptions, globals, sizeof from->exceptions);
#if WEIR_TSAN
  // Test fibers are synchronised implicitly; program fibers must synchronise themselves.
  static char test;
  if (from->shadow == nullptr) from->shadow = __tsan_get_current_fiber();
  if (from->whose == Of::kTest) __tsan_release(&test);
  __tsan_switch_to_fiber(next->shadow, __tsan_switch_to_fiber_no_sync);
  if (next->whose == Of::kTest) __tsan_acquire(&test);
#endif
  previous = from;
  current = next;
#if WEIR_ASAN
  __sanitizer_start_switch_fiber(from->done ? nullptr : &from->shadow, next->bottom, next->size);
#endif
  swapcontext(&from->context, &next->context);
  arrived();
  std::memcpy(__cxxabiv1::__cxa_get_globals(), from->exceptions, sizeof from->exceptions);
  errno = error;
}

// Chooses among the fibers that can run first, and advances the clock to that time.
Fiber* next_fiber() {
  static std::vector<Fiber*> next;
  Time first = kNever;
  for (Fiber* const fiber : alive) {
    const Time ready = fiber->ready == nullptr ? kNever : (*fiber->ready)();
    const Time time = std::max(time_now, std::min(ready, fiber->deadline));
    if (time < first) next.clear();
    first = std::min(first, time);
    if (time == first) next.push_back(fiber);
  }
  if (first == kNever) die("deadlock: every thread waits forever");
  if (first > time_now) steps = 0;
  if (++steps > 30'000'000) die("livelock: the clock no longer advances");
  time_now = first;
  return next[at_random ? random_order() % next.size() : 0];
}

// Runs others, and this one again at the deadline or when it is ready.
void pause(Time deadline) {
  current->deadline = deadline;
  std::erase(alive, current);
  alive.push_back(current);
  switch_to(next_fiber());
}

// Returns the fiber to run next.
Fiber* end_current() {
  const Inside inside;
  current->run = nullptr;
  current->done = true;
  std::erase(alive, current);
#if WEIR_TSAN
  __tsan_release(current);
  __tsan_release(&fibers);
#endif
  return next_fiber();
}

void fiber_main() {
  {
    const Inside inside;
    arrived();
  }
  current->run();
  switch_to(end_current());
  std::abort();
}

Fiber* new_fiber(std::function<void()> run, Of whose) {
  fibers.push_back({std::move(run), whose, 0, std::unique_ptr<char[]>(new char[kStack])});
  Fiber* const fiber = &fibers.back();
#if WEIR_TSAN
  fiber->shadow = __tsan_create_fiber(0);
#endif
  getcontext(&fiber->context);
  fiber->context.uc_stack.ss_sp = fiber->stack.get();
  fiber->context.uc_stack.ss_size = kStack;
  makecontext(&fiber->context, fiber_main, 0);
  alive.push_back(fiber);
  return fiber;
}

}  // namespace

Inside::Inside() {
#if WEIR_TSAN
  AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
  AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
  ++current->inside;
}

Inside::~Inside() {
  --current->inside;
#if WEIR_TSAN
  AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
  AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
#endif
}

void set_seed(unsigned seed) {
  at_random = seed != 0;
  random_order.seed(seed);
}

Time now() { return time_now; }
void set_clock(Time at_start) { clock_start = at_start - time_now; }

int threads() {
  const auto runs = [](const Fiber& fiber) {
    return fiber.whose == Of::kProgram && !(fiber.done && fiber.released);
  };
  const auto running = std::count_if(fibers.begin(), fibers.end(), runs);
#if WEIR_TSAN
  if (running == 0) __tsan_acquire(&fibers);  // as joining them would
#endif
  return static_cast<int>(running);
}

void spawn(std::function<void()> run, Of whose) {
  const Inside inside;
  (void)new_fiber(std::move(run), whose);
}

bool wait(const std::function<Time()>& ready, Time deadline) {
  if (ready() > time_now && deadline > time_now) {
    current->ready = &ready;
    pause(deadline);
    current->ready = nullptr;
  }
  return ready() <= time_now;
}

void sleep_until(Time time) {
  const Inside inside;
  pause(time);
}

void may_switch() {
  if (at_random && random_order() % 4 == 0) pause(time_now);
}

bool in_program() { return current->whose == Of::kProgram && current->inside == 0; }

void refuse(const char* call, std::function<int()> error) {
  const Inside inside;
  refusals[call] = std::move(error);
}

int refused(const char* call) {
  if (refusals.empty() || current->whose == Of::kTest) return 0;
  const Inside inside;
  const auto found = refusals.find(call);
  return found == refusals.end() ? 0 : found->second();
}

int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace weir::test

// Wrapped calls --------------------------------------------------------------------------

using namespace weir::test;

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec* time);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t*, void* (*entry)(void*),
                          void* argument) {
  const Inside inside;
  may_switch();
  if (const int error = refused("pthread_create")) return error;
  Fiber* const fiber = new_fiber([=] { entry(argument); }, Of::kProgram);
  fiber->released = false;
  *thread = reinterpret_cast<pthread_t>(fiber);
  may_switch();
  return 0;
}

int __wrap_pthread_join(pthread_t thread, void**) {
  const Inside inside;
  auto* const fiber = reinterpret_cast<Fiber*>(thread);
  if (fiber->released) die("a thread is joined twice");
  (void)wait([fiber] { return fiber->done ? Time(0) : kNever; });
  fiber->released = true;
#if WEIR_TSAN
  __tsan_acquire(fiber);
#endif
  return 0;
}

int __wrap_pthread_detach(pthread_t thread) {
  const Inside inside;
  reinterpret_cast<Fiber*>(thread)->released = true;
  return 0;
}

pthread_t __wrap_pthread_self() { return reinterpret_cast<pthread_t>(current); }

// Takes the real mutex, too: ThreadSanitizer has to see it.
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  const Inside inside;
  may_switch();
  while (pthread_mutex_trylock(mutex) == EBUSY)
    (void)wait([before = unlocks] { return unlocks > before ? Time(0) : kNever; });
  return 0;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  const Inside inside;
  const int result = __real_pthread_mutex_unlock(mutex);
  ++unlocks;
  may_switch();
  return result;
}

// std::chrono::steady_clock::now() returns one 64-bit number.
std::int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
  const Inside inside;
  may_switch();
  return (clock_start + time_now).count();
}

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  if (clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, time);
  const std::int64_t shown = __wrap__ZNSt6chrono3_V212steady_clock3nowEv();
  *time = {shown / 1'000'000'000, static_cast<long>(shown % 1'000'000'000)};
  return 0;
}

int __wrap_gettimeofday(timeval* time, void*) {
  timespec shown;
  __wrap_clock_gettime(CLOCK_MONOTONIC, &shown);
  *time = {shown.tv_sec, shown.tv_nsec / 1000};
  return 0;
}

int __wrap_nanosleep(const timespec* time, timespec*) {
  return simulated("nanosleep", [time] {
    sleep(std::chrono::seconds(time->tv_sec) + Time(time->tv_nsec));
    return 0;
  });
}
}
