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
#include <optional>
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
  bool done = false, woken = false;
  bool released = true;  // joined or detached
  Waiters joiners = {};
  std::vector<Waiters*> waiting = {};
  std::optional<std::multimap<Time, Fiber*>::iterator> deadline = {};
  void* exceptions[2] = {};  // the C++ library's state of a thread
  ucontext_t context{};
  void* shadow = nullptr;  // the sanitizer's fiber
};

namespace {

Fiber main_fiber;
Fiber* current = &main_fiber;
Fiber* previous = nullptr;  // ran before `current`
std::deque<Fiber*> ready;
std::multimap<Time, Fiber*> due;
std::deque<Fiber> fibers;  // of all times
struct Refusal {
  int error = 0;
  int nth = 0;  // 0: all calls
  int calls = 0;
};
std::map<std::string, Refusal, std::less<>> refusals;
std::map<pthread_mutex_t*, Waiters> contended;
Time time_now{0};
Time clock_start = std::chrono::seconds(1000);
std::uint64_t steps = 0;  // since the clock last advanced
bool at_random = false;
std::minstd_rand random_order;

void make_ready(Fiber* fiber, bool woken) {
  for (Waiters* list : fiber->waiting) std::erase(list->fibers, fiber);
  fiber->waiting.clear();
  if (fiber->deadline) due.erase(*fiber->deadline);
  fiber->deadline.reset();
  fiber->woken = woken;
  ready.push_back(fiber);
}

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

// Advances the clock to the next deadline; every fiber due at that time becomes eligible to run.
void pass_time() {
  while (!due.empty() && (ready.empty() || due.begin()->first <= time_now)) {
    const auto [time, fiber] = *due.begin();
    if (time > time_now) steps = 0;
    time_now = std::max(time_now, time);
    make_ready(fiber, false);
  }
  if (ready.empty()) die("deadlock: every thread waits forever");
}

Fiber* next_fiber() {
  if (++steps > 30'000'000) die("livelock: the clock no longer advances");
  if (ready.empty()) pass_time();
  if (at_random) std::swap(ready.front(), ready[random_order() % ready.size()]);
  Fiber* const next = ready.front();
  ready.pop_front();
  return next;
}

void let_others_run() {
  make_ready(current, true);
  switch_to(next_fiber());
}

// Returns the fiber to run next.
Fiber* end_current() {
  const Inside inside;
  current->run = nullptr;
  current->done = true;
  current->joiners.wake();
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
  ready.push_back(fiber);
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

bool wait(const std::vector<Waiters*>& lists, Time deadline) {
  if (deadline <= time_now) return false;
  for (Waiters* list : lists) list->fibers.push_back(current);
  current->waiting = lists;
  if (deadline != kNever) current->deadline = due.emplace(deadline, current);
  switch_to(next_fiber());
  return current->woken;
}

void Waiters::wake() {
  while (!fibers.empty()) make_ready(fibers.front(), true);
}

void sleep_until(Time time) {
  const Inside inside;
  time > time_now ? (void)wait({}, time) : let_others_run();
}

void may_switch() {
  if (at_random && random_order() % 4 == 0) let_others_run();
}

bool in_program() { return current->whose == Of::kProgram && current->inside == 0; }

void refuse(const char* call, int error, int n) {
  const Inside inside;
  refusals[call] = {error, n};
}

int calls(const char* call) { return refusals[call].calls; }

int refused(const char* call) {
  if (refusals.empty() || current->whose == Of::kTest) return 0;
  const Inside inside;
  const auto found = refusals.find(call);
  if (found == refusals.end()) return 0;
  Refusal& refusal = found->second;
  ++refusal.calls;
  return refusal.nth == 0 || refusal.nth == refusal.calls ? refusal.error : 0;
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
  while (!fiber->done) wait({&fiber->joiners});
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
  while (pthread_mutex_trylock(mutex) == EBUSY) (void)wait({&contended[mutex]});
  return 0;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  const Inside inside;
  const int result = __real_pthread_mutex_unlock(mutex);
  if (auto waiting = contended.extract(mutex)) waiting.mapped().wake();
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
  if (clock != CLOCK_MONOTONIC && clock != CLOCK_REALTIME) return __real_clock_gettime(clock, time);
  const std::int64_t shown = __wrap__ZNSt6chrono3_V212steady_clock3nowEv();
  *time = {shown / 1'000'000'000, static_cast<long>(shown % 1'000'000'000)};
  return 0;
}

int __wrap_gettimeofday(timeval* time, void*) {
  timespec shown;
  __wrap_clock_gettime(CLOCK_REALTIME, &shown);
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
