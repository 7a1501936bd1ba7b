// Everything at once. CHURN_SECONDS says for how long.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/captured_log.h"
#include "support/client.h"
#include "support/running_server.h"
#include "support/scripted_origin.h"

namespace weir::test {
namespace {

const std::string kKey = "0123456789abcdef";
const std::string kJson = head("200 OK", "application/json");

class ChurnTest : public testing::Test {
 protected:
  ChurnTest() {
    std::string list = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\nhttp://@/a/b/1\n";
    list += "#EXT-X-KEY:URI=\"http://~/key\"\nhttp://@/a/b/2\n";
    const std::string first = pattern(150000, 1);
    const std::string second = pattern(700000, 2);
    origin_.on("/a/b/1", {ok(first)});
    origin_.on("/a/b/2", {ok(encrypt(second, kKey))});
    origin_.on("/key", {ok(kKey)});
    origin_.on("/list", {ok(list + "#EXT-X-ENDLIST\n")});
    origin_.on("/master", {ok("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nhttp://~/list\n")});
    whole_ = kStreamHead + first + second;
  }

  // Until the time is over, on a thread of its own.
  void repeat(const std::function<void(std::minstd_rand&)>& turn) {
    threads_.emplace_back([this, turn, seed = threads_.size() + 1] {
      std::minstd_rand random(static_cast<unsigned>(seed));
      for (; std::chrono::steady_clock::now() < end_; ++turns_) {
        turn(random);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
  }

  // A player that listens to the end, leaves before, or doesn't even ask.
  void play(std::minstd_rand& random) {
    if (random() % 8 == 0) {
      read_and_close(server_.connect(), 0);
      return;
    }
    const size_t most = random() % 2 == 0 ? whole_.size() + 1 : random() % whole_.size();
    const std::string got = read_and_close(server_.ask(stream_resource("http://~/master")), most);
    if (got != whole_.substr(0, most)) ++wrong_;
  }

  // The origin, and servers that refuse in front of it or beside it.
  void update(std::minstd_rand& random) {
    const std::string gone = "127.0.0.1:" + std::to_string(gone_port_);
    const std::string live = origin_.address();
    const std::string maps[] = {live, gone + ";" + live, gone + "," + live + ";" + live};
    const std::string resource = "/update-cache-map?chunk=" + maps[random() % 3];
    if (server_.get(resource + "&playlist=" + maps[random() % 3]) != kJson + "\"OK\"\n") ++wrong_;
  }

  void read_statistics() {
    if (!server_.get("/stats.json").starts_with(kJson + "{\"last_chunk_speed\": ")) ++wrong_;
  }

  void ping() {
    if (server_.get("/watchdog") != kJson) ++wrong_;
  }

  CapturedLog log_;
  ScriptedOrigin origin_;
  RunningServer server_;
  const int gone_port_ = refusing_port();
  std::string whole_;
  std::atomic<int> turns_{0};
  std::atomic<int> wrong_{0};
  std::vector<std::thread> threads_;
  std::chrono::steady_clock::time_point end_;
};

TEST_F(ChurnTest, NobodyGetsAWrongByteAndNothingStays) {
  const char* const seconds = std::getenv("CHURN_SECONDS");
  std::minstd_rand first;
  update(first);
  const Baseline before;
  end_ = std::chrono::steady_clock::now() + std::chrono::seconds(seconds ? std::atoi(seconds) : 4);
  for (int i = 0; i < 30; ++i) repeat([this](auto& random) { play(random); });
  repeat([this](auto& random) { update(random); });
  repeat([this](auto&) { read_statistics(); });
  repeat([this](auto&) { ping(); });
  for (std::thread& thread : threads_) thread.join();
  EXPECT_EQ(wrong_, 0) << "of " << turns_;
  EXPECT_TRUE(before.is_reached());
  RecordProperty("turns", turns_);
  RecordProperty("streams", count(log_.err(), "mpl finish and cleanup!\n"));
}

}  // namespace
}  // namespace weir::test
