#include "watchdog/watchdog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "support/captured_log.h"

namespace weir::test {
namespace {

// A machine whose clock and marker file the test sets. It refuses to be rebooted
// and keeps what stood on the error stream at each attempt.
struct Machine {
  static timespec now() {
    std::this_thread::yield();
    return clock;
  }
  static bool marker_exists() { return marker; }
  static void reboot() { reboots.push_back(log->err()); }

  inline static timespec clock;
  inline static bool marker;
  inline static std::vector<std::string> reboots;
  inline static CapturedLog* log;
};

const Device kDevice = {Machine::now, Machine::marker_exists, Machine::reboot};

const std::string kFile = "WD: REBOOTING (file)\n";
const std::string kTimeout = "WD: REBOOTING (timeout)\n";

enum class Act { kPing, kCheck, kCheckWithMarker };

struct Step {
  timespec at;
  Act act;
  std::vector<std::string> reboots = {};
};

// A line has to be out before its reboot; nothing would come out after it.
void run(const std::vector<Step>& steps) {
  Watchdog watchdog(kDevice);
  for (const Step& step : steps) {
    SCOPED_TRACE(step.at.tv_sec);
    Machine::clock = step.at;
    Machine::marker = step.act == Act::kCheckWithMarker;
    Machine::reboots.clear();
    std::string out, err;
    {
      CapturedLog log;
      Machine::log = &log;
      step.act == Act::kPing ? watchdog.ping() : watchdog.check();
      out = log.out();
      err = log.err();
    }
    EXPECT_EQ(Machine::reboots, step.reboots);
    EXPECT_EQ(err, step.reboots.empty() ? "" : step.reboots.back());
    EXPECT_EQ(out, step.act == Act::kPing ? "WD: ping\n" : "");
  }
}

constexpr long kAlmostOne = 999999999;  // nanoseconds; they don't count

TEST(Watchdog, WithoutAPingThereIsNoTimeout) {
  run({{{0, 0}, Act::kCheck}, {{1000000, 0}, Act::kCheck}});
}

TEST(Watchdog, TimesOutOnce300WholeSecondsAfterTheLastPingUntilTheNext) {
  run({{{1000, kAlmostOne}, Act::kPing},
       {{1299, kAlmostOne}, Act::kCheck},
       {{1300, 0}, Act::kCheck, {kTimeout}},
       {{1301, 0}, Act::kCheck},
       {{9000, 0}, Act::kPing},
       {{9200, 0}, Act::kPing},
       {{9499, kAlmostOne}, Act::kCheck},
       {{9500, 0}, Act::kCheck, {kTimeout}},
       {{9900, 0}, Act::kCheck}});
}

TEST(Watchdog, AMarkerRebootsFrom10WholeSecondsAfterItsFirstSightingOn) {
  run({{{1000, kAlmostOne}, Act::kCheckWithMarker},
       {{1009, kAlmostOne}, Act::kCheckWithMarker},
       {{1010, 0}, Act::kCheckWithMarker, {kFile}},
       {{1010, 1}, Act::kCheckWithMarker, {kFile}},
       {{1011, 0}, Act::kCheck},
       {{1020, 0}, Act::kCheckWithMarker, {kFile}}});
}

TEST(Watchdog, BothInOneTurnTheFileFirst) {
  run({{{1000, 0}, Act::kPing},
       {{1290, 0}, Act::kCheckWithMarker},
       {{1300, 0}, Act::kCheckWithMarker, {kFile, kFile + kTimeout}},
       {{1301, 0}, Act::kCheckWithMarker, {kFile}}});
}

// Armed but without its time, it would look as old as the machine.
TEST(Watchdog, AFirstPingIsNeverSeenHalfWay) {
  Machine::clock = {1000000, 0};
  Machine::marker = false;
  Machine::reboots.clear();
  {
    CapturedLog log;
    Machine::log = &log;
    for (int i = 0; i < 300; ++i) {
      Watchdog watchdog(kDevice);
      std::atomic<bool> pinged{false};
      std::thread client([&] {
        watchdog.ping();
        pinged.store(true, std::memory_order_relaxed);
      });
      while (!pinged.load(std::memory_order_relaxed)) watchdog.check();
      client.join();
    }
  }
  EXPECT_TRUE(Machine::reboots.empty());
}

TEST(Watchdog, RestartsAlsoWhereNobodyReadsTheLog) {
  static int now, reboots;
  const FullErrorStream full;
  std::thread([] { log_err("holds the stream for ever"); }).detach();
  Watchdog watchdog({[] { return timespec{now, 0}; }, [] { return true; }, [] { ++reboots; }});
  for (now = 0; now < 12; ++now) watchdog.check();
  EXPECT_EQ(reboots, 2);
}

}  // namespace
}  // namespace weir::test
