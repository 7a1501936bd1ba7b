// weir: an HTTP restreaming proxy for HTTP Live Streaming.
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "base/log.h"
#include "base/process.h"
#include "server/server.h"
#include "watchdog/device.h"

namespace {
constexpr std::uint32_t kAllInterfaces = 0;
constexpr std::uint32_t kPort = 7744;
constexpr std::int32_t kBacklog = 5;
}  // namespace

int main(int argc, char** argv) {
  weir::prepare_process();
  if (argc < 2) {
    weir::log_err("Specify maximal buffer size");
    return 2;
  }
  // A negative number, converted to unsigned, exceeds any fill count and so means no limit.
  const auto max_buffer = static_cast<std::uint64_t>(std::strtoll(argv[1], nullptr, 10));
  const auto server = std::make_unique<weir::Server>(kAllInterfaces, kPort, kBacklog, max_buffer,
                                                     weir::real_device());
  try {
    server->run();
  } catch (const char* text) {
    weir::log_err(text);
  }
  return 0;
}
