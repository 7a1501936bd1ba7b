// What the network and upstreams do wrong, to every kind of thing that is fetched.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "buffer/cbuff.h"
#include "support/captured_log.h"
#include "support/client.h"
#include "support/running_server.h"
#include "support/scripted_origin.h"
#include "upstream/ucurl.h"

namespace weir::test {
namespace {

using namespace std::literals;
using End = Reply::End;

const std::string kKey = "0123456789abcdef";
// A stream of a clear segment and two enciphered ones, of 600 bytes.
const std::string kA = pattern(600, 1);
const std::string kB = pattern(600, 2);
const std::string kC = pattern(600, 3);
const std::string kSecretB = encrypt(kB, kKey);
const std::string kSecretC = encrypt(kC, kKey);
const std::string kAll = kA + kB + kC;
const std::string kUndeciphered = kA + kSecretB + kSecretC;

// What both segments are with another key.
std::string with_key(const std::string& key) {
  return kA + decipher(kSecretB, key) + decipher(kSecretC, key);
}

enum Place : size_t { kMaster, kVariant, kKeyFile, kClear, kEnciphered, kPlaces };

struct Fault {
  const char* name;
  // What is answered at that place, again and again, instead of the body ...
  std::function<Reply(const std::string& body, Place place)> reply;
  // ... or else where the place is said to be.
  std::function<int()> port;
  // What the player gets after the head; nothing where the fault is none.
  std::array<std::optional<std::string>, kPlaces> got;
  // How often the five streams say what.
  std::vector<std::pair<std::string, int>> lines;
  int seconds;  // until the last of them has ended
};

const std::string kNoStart = "start_refreshing failed!\n";
const std::string kNoVariant = "unable to select variand - should_finish\n";
const std::string kNoData = "no data for long time, closing stream\n";
const std::string kGivenUp = "FAILED\n";

Reply cut_at_100(const std::string& body, End end) {
  return cut(body, std::min<size_t>(body.size() - 5, 100), end);
}

// The times: 12 s until a refused download is given up, 60 s where nothing comes
// back, 16 s without data; and 3 s between the four attempts at a segment.
const Fault kFaults[] = {
    {"ConnectionRefused",
     nullptr,
     refusing_port,
     {"", "", kUndeciphered, "", kA},
     {{kNoStart, 1}, {kNoVariant, 1}, {kNoData, 2}, {kGivenUp, 4}},
     31},
    {"BlackHole",
     nullptr,
     silent_port,
     {"", "", kA, "", kA},
     {{kNoStart, 1}, {"marking this variant as invalid\n", 1}, {kNoData, 4}, {kGivenUp, 2}},
     64},
    {"SilentServer",
     [](const std::string&, Place) { return raw("", End::kStall); },
     nullptr,
     {"", "", kUndeciphered, "", kA},
     {{kNoStart, 1}, {kNoVariant, 1}, {kNoData, 2}, {"Excep: recv timeout1\n", 9}},
     24},
    {"ResetInsideTheBody",
     [](const std::string& body, Place) {
       Reply reply = cut_at_100(body, End::kReset);
       reply.pieces.push_back("");  // read by then
       return reply;
     },
     nullptr,
     {"", "", with_key(kKey.substr(0, 11)), kA.substr(0, 100) + kB + kC,
      kA + kB.substr(0, 96) + kC},
     {{kNoStart, 1}, {kNoVariant, 1}, {"Excep: recv error\n", 3}, {kGivenUp, 0}},
     5},
    {"ShortBody",
     [](const std::string& body, Place) { return cut_at_100(body, End::kClose); },
     nullptr,
     {"", kA, with_key(kKey.substr(0, 11)), kA.substr(0, 100) + kB + kC,
      kA + kB.substr(0, 96) + kC},
     {{kNoStart, 0},
      {kNoVariant, 1},
      {"no new chunks in many playlist reloads\n", 1},
      {"Excep: ", 0},
      {kGivenUp, 0}},
     10},
    // The segment is asked for again, and comes whole again; that nobody can know.
    {"LengthTooLarge",
     [](const std::string& body, Place) { return cut(body + "more", body.size(), End::kStall); },
     nullptr,
     {"", "", kAll, kA + kA + kA + kA + kB + kC,
      kA + decipher(kSecretB + kSecretB + kSecretB + kSecretB, kKey, false) + kC},
     {{kNoStart, 1}, {kNoVariant, 1}, {"Excep: recv timeout", 11}, {kGivenUp, 8}},
     14},
    {"LengthMissing",
     [](const std::string& body, Place) { return raw("HTTP/1.1 200 OK\r\nA: 1\r\n\r\n" + body); },
     nullptr,
     {"", "", kUndeciphered, kB + kC, kA + kC},
     {{kNoStart, 1}, {kNoVariant, 1}, {"Content-Length unknown\n", 11}, {kGivenUp, 8}},
     7},
    {"NoSuccess",
     [](const std::string& body, Place place) {
       return ok(body, std::array{"403 No", "404 No", "503 No", "404 No", "403 No"}[place]);
     },
     nullptr,
     {"", "", kUndeciphered, kB + kC, kA + kC},
     {{kNoStart, 1},
      {kNoVariant, 1},
      {"HTTP response first_line: HTTP/1.1 404 No\n", 6 + 24},
      {"HTTP response first_line: HTTP/1.1 403 No\n", 6 + 24},
      {"HTTP response first_line: HTTP/1.1 503 No\n", 6}},
     7},
    {"ByteASecond",
     [](const std::string& body, Place) {
       Reply reply = cut(body, body.size() - 3, End::kKeep);
       for (size_t i = body.size() - 3; i < body.size(); ++i) reply.pieces.push_back({body[i]});
       reply.pause = 1s;
       return reply;
     },
     nullptr,
     {kAll, kAll, kAll, kAll, kAll},
     {{"Excep: ", 0}, {kGivenUp, 0}},
     8},
    {"GarbageInsteadOfAHead",
     [](const std::string&, Place) { return raw("\x16\x03\x01\r\njunk"); },
     nullptr,
     {"", "", kUndeciphered, "", kA},
     {{kNoStart, 1}, {kNoVariant, 1}, {kNoData, 2}, {"Not HTTP/1.x?\n", 3 * 24 + 2 * 2 * 24}},
     31},
    {"CloseInsideTheHead",
     [](const std::string&, Place) { return raw("HTTP/1.1 200 OK\r\nContent-Le", End::kClose); },
     nullptr,
     {"", "", kUndeciphered, kB + kC, kA + kC},
     {{kNoStart, 1}, {kNoVariant, 1}, {"Excep: recv timeout1\n", 3 + 8}, {kGivenUp, 8}},
     14},
    {"EmptyBody",
     [](const std::string&, Place) { return ok(""); },
     nullptr,
     {"", "", kUndeciphered, kB + kC, kA + kC},
     {{kNoStart, 1}, {kNoVariant, 1}, {"Excep: ", 0}, {kGivenUp, 0}},
     5},
    {"PlaylistWithoutEntriesAndOtherKey",
     [](const std::string&, Place place) {
       return ok(place == kKeyFile ? "other keys of 16" : "#EXTM3U\n");
     },
     nullptr,
     {"", "", with_key("other keys of 16"), std::nullopt, std::nullopt},
     {{kNoStart, 1}, {kNoVariant, 1}},
     5},
    {"StalePlaylistAndShortKey",
     [](const std::string& body, Place place) {
       return ok(body.substr(0, place == kKeyFile ? 5 : body.find("#EXT-X-ENDLIST")));
     },
     nullptr,
     {std::nullopt, kAll, with_key(kKey.substr(0, 5)), std::nullopt, std::nullopt},
     {{"no new chunks in many playlist reloads\n", 1}},
     10},
};

// Prints its name where gtest would print its bytes.
void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

class FaultTest : public testing::TestWithParam<Fault> {
 protected:
  // A stream whose fault is at `place`; its URL.
  std::string publish(Place place) {
    const std::string prefix = "/" + std::to_string(place);
    const auto url = [&](Place at, const std::string& path) {
      const bool elsewhere = at == place && GetParam().port;
      return "http://127.0.0.1:" +
             (elsewhere ? std::to_string(GetParam().port()) : origin_.port()) + prefix + path;
    };
    const auto put = [&](Place at, const std::string& path, const std::string& body) {
      const bool faulty = at == place && GetParam().reply;
      origin_.on(prefix + path, {faulty ? GetParam().reply(body, at) : ok(body)});
    };
    put(kClear, "/a", kA);
    put(kEnciphered, "/b", kSecretB);
    origin_.on(prefix + "/c", {ok(kSecretC)});
    put(kKeyFile, "/key", kKey);
    put(kVariant, "/list",
        "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n" + url(kClear, "/a") + "\n#EXT-X-KEY:URI=\"" +
            url(kKeyFile, "/key") + "\"\n" + url(kEnciphered, "/b") + "\n" + url(kPlaces, "/c") +
            "\n#EXT-X-ENDLIST\n");
    put(kMaster, "/master",
        "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n" + url(kVariant, "/list") + "\n");
    return url(kMaster, "/master");
  }

  CapturedLog log_;
  ScriptedOrigin origin_;
  RunningServer server_;
};

TEST_P(FaultTest, IsContained) {
  const Fault& fault = GetParam();
  // A stream beside them that lasts as long, and doesn't notice.
  const std::string calm = pattern(static_cast<size_t>(fault.seconds) * 2000);
  std::string list = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n";
  for (size_t at = 0; at < calm.size(); at += 1000) {
    const std::string path = "/" + std::to_string(at) + "calm";
    origin_.on(path, {slow(calm.substr(at, 1000), 1000, 500ms)});
    list += origin_.url(path) + "\n";
  }
  origin_.on("/calm_list", {ok(list + "#EXT-X-ENDLIST\n")});
  origin_.on("/calm_master", {ok("#EXTM3U\n" + origin_.url("/calm_list") + "\n")});
  std::array<std::string, kPlaces> urls;
  for (size_t place = kMaster; place < kPlaces; ++place)
    urls[place] = publish(static_cast<Place>(place));
  const Baseline before;
  std::array<std::string, kPlaces + 1> got;
  std::array<std::chrono::seconds, kPlaces + 1> lasted{};
  std::vector<std::thread> players;
  const auto play = [&](size_t number, const std::string& url) {
    players.emplace_back([&, number, url] {
      const auto start = std::chrono::steady_clock::now();
      got[number] = server_.get(stream_resource(url));
      lasted[number] = std::chrono::duration_cast<std::chrono::seconds>(
          std::chrono::steady_clock::now() - start);
    });
  };
  play(kPlaces, origin_.url("/calm_master"));
  for (size_t place = kMaster; place < kPlaces; ++place) {
    if (fault.got[place]) play(place, urls[place]);
  }
  for (std::thread& player : players) player.join();

  EXPECT_TRUE(got[kPlaces] == kStreamHead + calm);
  for (size_t place = kMaster; place < kPlaces; ++place) {
    if (!fault.got[place]) continue;
    const std::string& wanted = *fault.got[place];
    EXPECT_TRUE(got[place] == kStreamHead + wanted)
        << "place " << place << ": " << got[place].size() - kStreamHead.size() << " bytes of "
        << wanted.size();
    EXPECT_LT(lasted[place].count(), fault.seconds + 15) << "place " << place;
  }
  const std::string said = log_.err();
  // On a machine that stands still for two seconds the calm one has to try again.
  const int stalls = count(said, "calm FAILED\n");
  for (const auto& [line, times] : fault.lines) {
    const bool stalled = line == kGivenUp || "Excep: recv timeout2\n"s.starts_with(line);
    EXPECT_EQ(count(said, line), times + (stalled ? stalls : 0)) << line;
  }
  EXPECT_TRUE(before.is_reached());
}

INSTANTIATE_TEST_SUITE_P(EverywhereIn, FaultTest, testing::ValuesIn(kFaults),
                         [](const auto& row) { return std::string(row.param.name); });

// Clear and enciphered, at every byte of a segment of some blocks.
TEST(Resume, GoesOnExactlyWhereAStallBrokeOff) {
  constexpr size_t kSize = 130;
  const std::string plain = pattern(kSize);
  const CapturedLog log;
  ScriptedOrigin origin;
  std::vector<std::thread> downloads;
  const auto join_all = [&downloads] {
    for (std::thread& thread : downloads) thread.join();
    downloads.clear();
  };
  const auto download = [&](const std::string& media, const std::string& key, size_t offset) {
    const std::string path = (key.empty() ? "/clear" : "/secret") + std::to_string(offset);
    const std::string range = std::to_string(offset) + "-" + std::to_string(media.size() - 1);
    origin.on(path,
              {cut(media, offset, End::kStall),
               offset == 0 ? ok(media)
                           : ok(media.substr(offset), "206 P\r\nContent-Range: bytes " + range)});
    if (downloads.size() == 100) join_all();  // as many stacks as 32 bits can hold
    downloads.emplace_back([&origin, &plain, media, key, offset, path] {
      CBuff buffer;
      UCurl curl;
      const std::atomic<bool> stop{false};
      EXPECT_FALSE(curl.get_stream(origin.url(path), buffer, key, stop, 0));
      EXPECT_EQ(curl.position, offset);
      const auto rest = curl.get_stream(origin.url(path), buffer, key, stop, offset);
      EXPECT_TRUE(rest && rest->bytes == media.size() - offset);
      EXPECT_EQ(curl.position, media.size());
      EXPECT_TRUE(drain(buffer) == plain) << path;
    });
  };
  const std::string secret = encrypt(plain, kKey);
  for (size_t offset = 0; offset < plain.size(); ++offset) download(plain, "", offset);
  for (size_t offset = 0; offset < secret.size(); ++offset) download(secret, kKey, offset);
  join_all();
  const auto all = static_cast<int>(plain.size() + secret.size());
  EXPECT_EQ(count(log.err(), "Excep: recv timeout2\n"), all);
  EXPECT_EQ(count(log.err(), "DEBUG: from bytes specified! "), all - 2);
  EXPECT_EQ(count(origin.requests(), "\r\nRange: bytes=77-\r\n"), 2);
}

}  // namespace
}  // namespace weir::test
