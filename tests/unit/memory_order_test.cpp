// The buffer, the end of a stream and the watchdog under a model of C++'s memory order: a load
// returns any value that is not older than what its thread must have seen. Processors that keep
// stores in order hide weaker orders; ThreadSanitizer sees them only if they publish plain data.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "base/limits.h"
#include "base/log.h"
#include "buffer/aligned.h"
#include "support/bytes.h"
#include "watchdog/device.h"

namespace weir_model {

// The clocks of both threads, then the newest known store of each atomic.
using View = std::array<long, 250>;

std::minstd_rand random_choice;
size_t running = 0;  // the thread: 0 or 1
size_t atomics = 0;
View views[2];
View unlocked;  // what the last owner of the mutex knew
bool locked = false;
std::function<void()> meanwhile;  // what thread 1 does in the middle of thread 0's actions

void start_again() {
  views[0] = views[1] = unlocked = {};
  atomics = 0;
}

void join(View& view, const View& other) {
  for (size_t i = 0; i < view.size(); ++i) view[i] = std::max(view[i], other[i]);
}

long tick() { return ++views[running][running]; }
bool happened_before(size_t thread, long time) { return views[running][thread] >= time; }

// There is one mutex, that of the buffer.
bool model_lock(const pthread_mutex_t* /*mutex*/) {
  join(views[running], unlocked);
  return locked = true;
}

bool model_unlock(const pthread_mutex_t* /*mutex*/) {
  unlocked = views[running];
  return locked = false;
}

template <class Value>
class Atomic {
 public:
  explicit Atomic(Value value) : stores_{{value, {}}} {}
  ~Atomic() {
    for (const size_t thread : {0U, 1U})
      EXPECT_TRUE(happened_before(thread, used_[thread])) << "destroyed while in use";
  }
  Value load(std::memory_order order) const {
    used_[running] = tick();
    long& seen = views[running].at(key_);
    seen += static_cast<long>(random_choice() % (stores_.size() - static_cast<size_t>(seen)));
    const auto& [value, published] = stores_[static_cast<size_t>(seen)];
    if (order == std::memory_order_acquire) join(views[running], published);
    return value;
  }
  void store(Value value, std::memory_order order) { store(value, order, {}); }
  void fetch_add(Value value, std::memory_order order) {
    store(stores_.back().first + value, order, stores_.back().second);
  }
  void fetch_sub(Value value, std::memory_order order) { fetch_add(-value, order); }

 private:
  void store(Value value, std::memory_order order, View published) {
    used_[running] = tick();
    views[running].at(key_) = static_cast<long>(stores_.size());
    if (order == std::memory_order_release) join(published, views[running]);
    stores_.emplace_back(value, published);
    if (running == 1 || locked || random_choice() % 4 != 0) return;
    running = 1;
    meanwhile();  // may destroy this object
    running = 0;
  }

  const size_t key_ = 2 + atomics++;
  std::vector<std::pair<Value, View>> stores_;  // the values it has had, and what each published
  mutable long used_[2] = {};                   // the time of the last use by each thread
};

using namespace weir;
template <class... Pieces>
void log_out(const Pieces&... /*pieces*/) {}
void log_err_at_once(const char* /*line*/) {}
void sleep_for(std::chrono::milliseconds /*time*/) {}

}  // namespace weir_model

namespace std {
using weir_model::Atomic;
}

// The sources again, with the model's atomics and locks.
// NOLINTBEGIN(readability-identifier-naming,bugprone-suspicious-include)
#define atomic Atomic
#define weir weir_model
#define pthread_mutex_lock model_lock
#define pthread_mutex_unlock model_unlock
#include "buffer/cbuff.cpp"
#include "playlist/stream_control.h"
#include "watchdog/watchdog.cpp"
// NOLINTEND(readability-identifier-naming,bugprone-suspicious-include)
#undef atomic
#undef weir

namespace weir_model {

TEST(MemoryOrder, ConsumerGetsWhatTheProducerWrote) {
  for (unsigned turn = 0; turn < 500; ++turn) {
    start_again();
    const std::string all = test::pattern(40, turn);
    std::string got;
    std::vector<long> times;  // by the producer's clock, of each byte written
    StreamControl control;
    CBuff buffer(1 + turn % 6);
    bool over = false;
    const auto produce = [&] {
      if (times.size() == all.size()) return control.end_stream();
      const auto room = random_choice() % 4 == 0 ? buffer.sealAndReserve() : buffer.reserve();
      const auto count =
          std::min({1 + random_choice() % 4, room.size(), all.size() - times.size()});
      std::copy_n(all.data() + times.size(), count, room.begin());
      times.resize(times.size() + count, tick());
      buffer.commit(count);
    };
    meanwhile = [&] {
      over = over || (control.is_over() && buffer.fill() == 0);
      if (over) return;
      const auto there = buffer.peek();
      got.append(there.begin(), there.end());
      EXPECT_TRUE(got.empty() || happened_before(0, times.at(got.size() - 1))) << "not published";
      buffer.consume(there.size());
    };
    for (int step = 0; !over && step < 10000; ++step) {
      running = random_choice() % 2;
      running == 0 ? produce() : meanwhile();
    }
    EXPECT_EQ(got, all);
    running = 1;
    join(views[1], views[0]);  // the producer's thread has been joined
    EXPECT_EQ(buffer.fill(), 0U);
  }
}

TEST(MemoryOrder, WatchdogThatIsArmedKnowsTheTimeOfThePing) {
  static time_t now = 0;
  static int restarts = 0;
  for (int turn = 0; turn < 100; ++turn) {
    start_again();
    meanwhile = [] {};
    now = 1000;
    Watchdog watchdog({[] { return timespec{now, 0}; }, [] { return false; }, [] { ++restarts; }});
    running = 0;
    watchdog.ping();
    running = 1;
    now += 299;
    for (int check = 0; check < 5; ++check) watchdog.check();
    EXPECT_EQ(restarts, turn);
    ++now;
    for (int check = 0; check < 20; ++check) watchdog.check();
    EXPECT_EQ(restarts, turn + 1);
    join(views[1], views[0]);
  }
}

}  // namespace weir_model
