// A whole server within the test's process, and how its answers look. A header of
// its own: only tests that use the server's room can have it.
#pragma once

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <thread>

#include "server/server.h"
#include "support/captured_log.h"
#include "support/client.h"
#include "support/scripted_origin.h"

namespace weir::test {

// A machine whose clock is real and which never restarts.
inline Device tame_device() {
  return {[] {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            return now;
          },
          [] { return false; }, [] {}};
}

inline std::string head(const std::string& status, const std::string& type) {
  return "HTTP/1.0 " + status + "\r\nContent-Type: " + type +
         "\r\nConnection: close\r\nAllow: GET, HEAD\r\nCache-Control: no-cache\r\n"
         "Access-Control-Allow-Origin: *\r\n\r\n";
}

inline const std::string kStreamHead = head("200 Streaming...", "application/octet-stream");

// The resource that asks for the stream of a master playlist.
inline std::string stream_resource(const std::string& url) { return "/stream.ts?url=" + url; }

// On a free port, with its loop on a thread of its own. The loop has no end, so
// the server is left running when the test's process exits.
class RunningServer {
 public:
  RunningServer() : port_(free_port()) {
    std::thread([port = static_cast<std::uint32_t>(port_)] {
      try {
        Server(INADDR_LOOPBACK, port, 5, 1 << 20, tame_device()).run();
      } catch (const char* text) {
        ADD_FAILURE() << text;
      }
    }).detach();
    if (!eventually([this] { return !get("/stats.json").empty(); })) std::abort();
  }

  int connect() const { return connect_to(port_); }

  // A connection that has asked for that.
  int ask(const std::string& resource) const {
    const int fd = connect();
    send_all(fd, "GET " + resource + " HTTP/1.1\r\n\r\n");
    return fd;
  }

  std::string get(const std::string& resource) const { return read_and_close(ask(resource)); }

 private:
  const int port_;
};

}  // namespace weir::test
