// What clients and the device see: endpoints, odd clients, refused resources, start and end.
#include <gtest/gtest.h>

#include "support/world.h"

namespace weir::test {

// How lines and queries are taken apart is in unit/text_test.cpp.
TEST(Story, EndpointsAnswerExactly) {
  World().converse({
      {0s, "/", 0},  // leaves before any stream has ignored SIGPIPE
      {1s, "HEAD /stream?url=x HTTP/1.1\r\n\r\n"},
      {2s, "/stream.ts?startFrom=1"},
      {3s, "get /stats%2Ejson?x=1\n\n"},
      {4s, "HEAD /stats.json HTTP/1.0\r\nA: b\r\n\r\n"},
      {5s, "HEAD /update-cache-map HTTP/1.1\r\n\r\n"},
      {6s, "/update-cache-map?chunk=a=b%2Cc+;&x&chunk=d&playlist=%zz%4&chunk=e"},
      {7s, "/update-cache-map?playlist="},
      {8s, "HEAD /watchdog HTTP/1.1\r\n\r\n"},
      {9s, "/stream/"},
      {10s, "/%0D%0Aa+b=c&d?e"},
      {11s, "GET \r\n\r\n"},
      {12s, "POST /stats.json HTTP/1.1\r\n\r\n" + pattern(65536)},
      {13s, "POST /stats.json HTTP/1.1\r\n\r\n" + pattern(65537)},
  });
}

// A silent client blocks no one else; it is dropped after 4095 ten-second timeouts. The
// second one is silent in its request line, and then again in its headers.
TEST(Story, SilentClientIsDroppedAfterElevenHours) {
  World().converse({{0s, ""}, {5s, "HEAD /watchdog "}, {40900s, "/stats.json"}});
}

TEST(Story, DeviceRestartsWithoutPingsOrByItsMarker) {
  World world;
  const auto mark = [&world](bool on) { world.marker = on; };
  world.during(20500ms, 25500ms, mark);
  world.during(28500ms, 31500ms, mark);
  world.during(899500ms, 902500ms, mark);
  world.converse({{10300ms, "POST /watchdog\r\n\r\n"},
                  {100900ms, "/watchdog"},
                  {500s, "/watchdog"},
                  {600s, "/watchdog"},
                  {900s, "/stats.json"},
                  {1500s, "/stats.json"}});
}

// Threads that write to standard error wait for its reader; all others go on. While the loop
// waits in its log, a connect timeout is reported when it occurs.
TEST(Story, StuckLogReadersDelayNothingElse) {
  World world;
  world.during(1s, 400s, [](bool stuck) { set_log_stuck(2, stuck); });
  world.during(401s, 409s, [](bool stuck) { set_log_stuck(1, stuck); });
  Host& host = world.origin("silent", {{"/", {ok("")}}});
  world.during(0s, 408s,
               [&](bool ill) { host.kind = ill ? Host::Kind::kSilent : Host::Kind::kServes; });
  world.converse({{0s, "/watchdog"},
                  {2s, "/x"},
                  {3s, "/stats.json"},
                  {4s, kM},
                  {350s, "/watchdog"},
                  {400500ms, "/stream?url=http://silent/"}},
                 vod(list(1, {"/1", kEnd})));
}

TEST(Story, RefusedThreadsAndMemoryAreSurvived) {
  World world;
  const auto refused = [&](const char* call, Time from, Time to, int what = EAGAIN) {
    world.during(from, to, [=](bool on) { refuse(call, on ? what : 0); });
  };
  // A playlist with one more segment each time.
  const std::string k = key("http://o/k");
  std::vector<Reply> lives;
  for (int number = 1; number <= 6; ++number) {
    const std::string last = number == 6 ? kEnd : "#";
    lives.push_back(ok(list(number, {number < 3 ? key("") : k, "/e", last}, 1)));
  }
  const std::string secret = encrypt(kKey, kKey);
  const Reply paced = slow(secret, 16, 100ms), first = raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n.");
  refused("pthread_create", 0s, 500us);            // the request's thread
  refused("pthread_create", 20s, 20500us + 20s);   // the timer's
  refused("pthread_create", 50001500us, 52500ms);  // the first two fill passes'
  Time start = 99500ms;
  // All memory, a block of the buffer, the cipher's output, and twice the cipher's input.
  for (const int what : {EAGAIN, EAGAIN, 524288 + 23, 131103 + 23, 131071 + 23}) {
    refused("malloc", start, start + 900ms, what);
    start += 1s;
  }
  // The last bytes of "/tail" need a second block of the buffer.
  const Reply tail = {{{1s, ok(encrypt(std::string(1290, 't'), kKey)).pieces[0].bytes}}};
  refused("malloc", 130500ms, 131004500us, 524288 + 23);
  world.converse({{250us, "/stats.json"},
                  {19999500us, kM},
                  {50s, kM},
                  {100s, "/stream?url=http://o/live"},
                  {130s, "/stream?url=http://o/end"}},
                 vod(list(1, {"/a", kEnd}),
                     {{"/k", {ok(kKey)}},
                      {"/end", {ok(master({"1 http://o/ends"}))}},
                      {"/ends", {ok(list(1, {"/big", k, "/tail", key(""), "/1", kEnd}))}},
                      {"/big", {ok(std::string(523000, 'b'))}},
                      {"/tail", {tail}},
                      {"/a", {slow("0123456789", 1, 1s)}},
                      {"/live", {ok(master({"1 http://o/l"}))}},
                      {"/l", lives},
                      {"/e", {first, paced, paced, ok(secret), paced}}}));
}

TEST(Story, StartupFailuresExitCleanly) {
  EXPECT_EQ(World(std::vector<std::string>()).transcript,
            "0.000 s\n  ! Specify maximal buffer size\n  ~ status 2\n");
  for (const auto& [call, words] : {std::pair{"socket", "Couldn't create listening socket!"},
                                    std::pair{"bind", "Couldn't bind listening socket."},
                                    std::pair{"listen", "Call to listen failed."}}) {
    refuse(call, EMFILE);
    EXPECT_EQ(World().transcript, "0.000 s\n  ! "s + words + "\n  ~ status 0\n");
    refuse(call, 0);
  }
}

}  // namespace weir::test
