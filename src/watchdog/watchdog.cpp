#include "watchdog/watchdog.h"

#include "base/limits.h"
#include "base/log.h"

namespace weir {

Watchdog::Watchdog(Device device) : device_(device) {}

void Watchdog::ping() {
  last_ping_.store(device_.now().tv_sec, std::memory_order_relaxed);
  armed_.store(true, std::memory_order_release);
  log_out("WD: ping");
}

void Watchdog::check() {
  check_marker();
  check_timeout();
}

void Watchdog::check_marker() {
  if (!device_.marker_exists()) return;
  const time_t now = device_.now().tv_sec;
  if (!marker_seen_) {
    marker_seen_ = true;
    marker_seen_at_ = now;
  } else if (now - marker_seen_at_ >= limits::kMarkerGrace.count()) {
    log_err_at_once("WD: REBOOTING (file)");
    device_.reboot();
  }
}

void Watchdog::check_timeout() {
  if (!armed_.load(std::memory_order_acquire)) return;
  const time_t now = device_.now().tv_sec;
  if (now - last_ping_.load(std::memory_order_relaxed) < limits::kPingTimeout.count()) return;
  armed_.store(false, std::memory_order_relaxed);
  log_err_at_once("WD: REBOOTING (timeout)");
  device_.reboot();
}

}  // namespace weir
