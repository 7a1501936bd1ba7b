// simulate SEED: plays the random world of that seed.
//
// Players with different habits watch live and recorded channels through caches that stall,
// cut, reset, trickle, refuse, announce too much, die and return. The expected output of each
// player is derived from what the caches sent it and compared byte for byte.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>

#include "support/world.h"

namespace weir::test {
namespace {

const std::string kBlock = pattern(1 << 20);
const std::string kKeys[] = {"0123456789abcdef", "another key, 16.", "yet another key."};

// What the caches sent of one segment, over all attempts to download it.
struct Download {
  bool encrypted;
  size_t key;
  std::string sent = {};
  bool ended = false;  // the response is complete as far as weir can tell
};

struct Channel {
  bool live, encrypted;
  int variants;
  Time duration;  // of a segment
  int segments;   // of a recorded channel
};

struct Player {
  const Channel* channel;
  Time began;
  std::vector<Download> downloads = {};

  std::string expected() const {
    std::string all;
    for (const Download& d : downloads) {
      all += d.encrypted ? decrypt(d.sent, kKeys[d.key], d.ended) : d.sent;
    }
    return all;
  }
};

// Checks each choice of a server in the log against the maps that earlier lines imply. Lines
// appear in lock-acquisition order.
class LogChecker {
 public:
  void check(const std::string& line) {
    const auto after = [&line](const std::string& text) {
      const size_t at = line.find(text);
      return at == std::string::npos ? "" : line.substr(at + text.size());
    };
    const std::string map = after("setting map to: "), dead = after("Invalidating cache server "),
                      server = after(" selected server: ");
    if (!map.empty()) maps_[map.back()] = map;
    if (!dead.empty()) maps_[dead.back()] = replaced(maps_[dead.back()], dead, "");
    if (!server.empty()) {
      const std::string& rings = maps_[server.back()];
      EXPECT_LT(rings.find(server), rings.find(';', rings.find_first_not_of(",;"))) << line;
    }
    if (line == "no valid ring found") {
      EXPECT_TRUE(std::any_of(maps_.begin(), maps_.end(), [](const auto& entry) {
        return entry.second.find_first_not_of(",;") == std::string::npos;
      }));
    }
  }

 private:
  std::map<char, std::string> maps_;  // live servers of each map, by the last digit of its ports
};

class Simulation {
 public:
  explicit Simulation(unsigned seed) : random_(seed), faults_(below(4) == 0 ? 0 : 2 + below(14)) {
    setenv("SIM_SEED", std::to_string(below(3) == 0 ? 0 : seed).c_str(), 1);
  }

  void run() {
    World world({std::to_string(1 << (10 + below(12)))});
    log_line = [this](int, const std::string& text) {
      std::istringstream lines(text);
      for (std::string line; std::getline(lines, line);) {
        checker_.check(line);
        starved_ += line.starts_with("no data for") ? 1 : 0;
      }
    };
    noticed = [&](const std::string& call) {
      EXPECT_TRUE(call != "restarts" || world.since_start() > end_);  // pinged until then
    };
    for (int i = 0; i < 4; ++i) {
      channels_.push_back({below(2) == 0, below(2) == 0, 1 + below(3),
                           std::chrono::seconds(1 + below(10)), 5 + below(60)});
    }
    for (const char* name :
         {"keys", "c0:80", "c1:80", "c2:80", "c3:80", "c0:81", "c1:81", "c2:81", "c3:81"}) {
      world.origin(name).request = [this](std::string& received, Pipe& out) {
        respond(received, out, [this](const std::string& request) { return answer(request); });
      };
    }
    const std::ptrdiff_t before = live_bytes;
    world.at(0s, [&] { disturb(world); });
    const int players = 4 + below(12);
    sleep(1ms);  // until the map is set
    for (int i = 0; i < players; ++i) world.at(1s, [&] { watch(world); });
    world.play({});
    EXPECT_LT(world.since_start(), end_ + 900s);
    sleep(20s);
    EXPECT_LT(live_bytes - before, 4096);  // a new map
  }

  double hours = 0;  // of streams
  unsigned faults = 0;

 private:
  int below(int limit) { return static_cast<int>(random_() >> 4) % limit; }
  bool one_in(int times) { return below(times) == 0; }

  // Changes maps and caches, refuses threads or memory, asks for statistics, pings.
  void disturb(World& world) {
    const std::string maps[] = {"chunk=c0:80,c1:80;c2:80,c3:80&playlist=c3:81;c0:81,c2:81,c1:81",
                                "chunk=c1:80;c0:80;c3:80&playlist=c0:81,c1:81,c2:81,c3:81",
                                "chunk=c1:80,c0:80,c3:80", "playlist=c2:81;c1:81"};
    std::string map = maps[below(2)];
    while (world.since_start() < end_) {
      EXPECT_EQ(world.get({0s, "/update-cache-map?" + map}), kMapSet);
      map = maps[below(4)];
      for (int turn = below(20); turn >= 0; --turn) {
        auto host = std::next(hosts.begin(), 1 + below(8));  // not the first, which has the keys
        const Host::Kind kinds[] = {Host::Kind::kServes, Host::Kind::kServes, Host::Kind::kRefuses,
                                    Host::Kind::kSilent};
        host->second.kind = faults_ == 0 ? Host::Kind::kServes : kinds[below(4)];
        if (faults_ > 0 && one_in(10)) {
          const char* const call = no_memory_ ? "malloc" : "pthread_create";
          refuse(call, EAGAIN);
          sleep(std::chrono::milliseconds(below(1500)));
          refuse(call, 0);
        }
        EXPECT_EQ(world.get({0s, "/watchdog"}), kOk);
        const std::string shown = world.get({0s, "/stats.json"});
        EXPECT_TRUE(shown.starts_with(kOk + "{\"last_chunk_speed\": ") && shown.ends_with("}\n"));
        sleep(std::chrono::seconds(below(20)));
      }
    }
    for (auto& [address, host] : hosts) host.kind = Host::Kind::kServes;
  }

  // One player after another, until the end of the world.
  void watch(World& world) {
    while (world.since_start() < end_) {
      sleep(std::chrono::milliseconds(below(30000)));
      if (one_in(20)) {  // sends no request
        EXPECT_EQ(world.get({0s, "", 0}), "");
        continue;
      }
      const size_t number = players_.size();
      players_.push_back({&channels_[static_cast<size_t>(below(4))], now()});
      const std::string resource = "/stream.ts?url=http://~/" + std::to_string(number) +
                                   "/m&startFrom=" + std::to_string(below(8) - 5);
      const bool stays = !one_in(3);
      const size_t leaves = stays ? std::string::npos : static_cast<size_t>(200 + below(1 << 20));
      const Time pause = one_in(3) ? std::chrono::milliseconds(below(2000)) : Time(0);
      const int starved_before = starved_;
      const std::string got = world.get({0s, resource, leaves, pause});
      const Player& player = players_[number];
      hours += static_cast<double>((now() - player.began).count()) / 3.6e12;
      // Without a thread there is nothing to check, without memory no certain result.
      if (got.empty() || no_memory_) continue;
      const std::string expected = stream(player.expected());
      const bool whole = stays && starved_ == starved_before;
      EXPECT_TRUE(whole ? got == expected : expected.starts_with(got))
          << "player " << number << " got " << got.size() << " of " << expected.size() << ", same "
          << std::mismatch(got.begin(), got.end(), expected.begin(), expected.end()).first -
                 got.begin();
    }
  }

  Reply answer(const std::string& request) {
    unsigned number = 0, variant = 0, sequence = 0;
    char kind = 0;
    std::sscanf(request.c_str(), "GET /%u/%c%u/%u", &number, &kind, &variant, &sequence);
    Player& player = players_.at(number);
    const bool fault = faults_ > 0 && one_in(kind == 's' ? faults_ : 60);
    faults += fault ? 1 : 0;
    if (kind == 'k') return ok(kKeys[variant]);
    if (kind == 's') return segment(player, variant, sequence, request, fault);
    if (fault) return headless();
    const std::string prefix = '/' + std::to_string(number);
    if (kind == 'v') return ok(segments(prefix, variant, *player.channel));
    std::vector<std::string> variants;
    for (int v = 0; v < player.channel->variants; ++v) {
      const std::string path = prefix + "/v" + std::to_string(v);
      variants.push_back(std::to_string(100000 << v) + " http://~" + path);
    }
    return ok(master(variants));
  }

  // Fails before the body.
  Reply headless() {
    const Reply replies[] = {raw("", Reply::kStall), raw("HTTP/1.1 200 OK\r\nConte", Reply::kClose),
                             raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\nxx", Reply::kClose),
                             raw("ICY 200 OK\r\n", Reply::kClose), ok("", "503 No")};
    return replies[below(5)];
  }

  std::string segments(const std::string& prefix, unsigned variant, const Channel& channel) const {
    const auto newest = static_cast<int>(std::min(now(), end_) / channel.duration) + 10;
    const int first = channel.live ? newest - 6 : 1;
    const std::string url = "http://@" + prefix + "/s" + std::to_string(variant) + '/';
    std::vector<std::string> lines;
    for (int sequence = first; sequence <= (channel.live ? newest : channel.segments); ++sequence) {
      if (channel.encrypted && (sequence == first || sequence % 10 == 0)) {
        lines.push_back(key("http://keys" + prefix + "/k" + std::to_string(sequence / 10 % 3)));
      }
      lines.push_back(url + std::to_string(sequence));
    }
    if (!channel.live || now() >= end_) lines.push_back(kEnd);
    return list(first, lines, channel.duration / 1s);
  }

  Reply segment(Player& player, unsigned variant, unsigned sequence, const std::string& request,
                bool fault) {
    if (fault && one_in(3)) return headless();
    const size_t key = sequence / 10 % 3;
    const size_t size = 1 + (sequence * 7919 + variant * 31) % (8000U << variant);
    std::string body = kBlock.substr(sequence * 104729 % 900000, size);
    if (player.channel->encrypted) body = encrypt(body, kKeys[key]);
    size_t from = offset_of(request);
    if (from > 0 && fault && one_in(4)) {
      from = 0;  // the range is ignored
      fault = false;
    } else if (from == 0) {
      player.downloads.push_back({player.channel->encrypted, key});
    }
    if (from > body.size()) return ok("", "416 No");
    body.erase(0, from);
    const Reply::End ends[] = {Reply::kStall, Reply::kClose, Reply::kReset, Reply::kStall};
    const int kind = below(4);
    const bool whole = !fault || kind == 3, announces_more = fault && whole;
    const size_t sent =
        whole ? body.size() : static_cast<size_t>(below(static_cast<int>(body.size()) + 1));
    Download& download = player.downloads.back();
    download.sent.append(body, 0, sent);
    download.ended = !announces_more && (ends[kind] != Reply::kStall || sent == body.size());
    if (announces_more) body += "lies";
    if (fault) return cut(body, sent, ends[kind], status_from(from));
    return slow(body, static_cast<size_t>(1000 + below(30000)),
                std::chrono::milliseconds(below(one_in(100) ? 1500 : 30)), status_from(from));
  }

  std::minstd_rand random_;
  const int faults_;                  // one response in so many is faulty; 0: none
  const bool no_memory_ = one_in(8);  // refuses memory, else threads
  const Time end_ = std::chrono::minutes(5 + below(40));
  std::vector<Channel> channels_;
  std::deque<Player> players_;
  LogChecker checker_;
  int starved_ = 0;  // streams closed for lack of data
};

}  // namespace
}  // namespace weir::test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc < 2) return 2;
  alarm(120);
  weir::test::Simulation simulation(static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)));
  simulation.run();
  const bool failed = testing::Test::HasFailure();
  std::printf("%s%s: %.3f stream-hours, %u faulty answers\n", failed ? "FAILED " : "", argv[1],
              simulation.hours, simulation.faults);
  return failed ? 1 : 0;
}
