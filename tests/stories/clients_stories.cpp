// What clients and the device see: endpoints, odd clients, refused resources, start and end.
#include <gtest/gtest.h>

#include "support/story.h"
#include "support/world.h"

namespace weir::test {
namespace {

// How lines and queries are taken apart is in unit/request_line_test.cpp.
TEST(Story, EndpointsAnswerExactly) {
  World world;
  world.converse({
      {0s, "/", 0},  // leaves before any stream has ignored SIGPIPE
      {1s, "HEAD /stream?url=x HTTP/1.1\r\n\r\n"},
      {2s, "/stream.ts?startFrom=1"},
      {3s, "get /stats%2Ejson?x=1\n\n"},
      {4s, "HEAD /stats.json HTTP/1.0\r\nA: b\r\n\r\n"},
      {5s, "HEAD /update-cache-map HTTP/1.1\r\n\r\n"},
      {6s, "/update-cache-map?chunk=a=b%2Cc+;&x&chunk=d&playlist=%zz%4"},
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
  World world;
  world.converse({{0s, ""}, {5s, "HEAD /watchdog "}, {40900s, "/stats.json"}});
}

TEST(Story, DeviceRestartsWithoutPingsOrByItsMarker) {
  World world;
  const auto mark = [&world](Time from, Time to) {
    world.at(from, [&world] { world.marker = true; });
    world.at(to, [&world] { world.marker = false; });
  };
  mark(20500ms, 25500ms);
  mark(28500ms, 31500ms);
  mark(699500ms, 702500ms);
  world.converse({{10300ms, "POST /watchdog\r\n\r\n"},
                  {100900ms, "/watchdog"},
                  {500s, "/watchdog"},
                  {600s, "/watchdog"},
                  {700s, "/stats.json"},
                  {1500s, "/stats.json"}});
}

// Threads that write to standard error wait for its reader; all others go on.
TEST(Story, StuckErrorReaderBlocksNeitherLoopNorWatchdog) {
  World world;
  world.at(1s, [] { set_log_stuck(2, true); });
  world.at(400s, [] { set_log_stuck(2, false); });
  world.origin("o", vod(list(1, {"/1", kEnd})));
  world.converse(
      {{0s, "/watchdog"}, {2s, "/x"}, {3s, "/stats.json"}, {4s, kM}, {350s, "/watchdog"}});
}

// The loop waits in its log, but the connect timeout is reported when it occurs.
TEST(Story, StuckOutputReaderDelaysNoProblem) {
  World world;
  world.at(1s, [] { set_log_stuck(1, true); });
  world.at(9s, [] { set_log_stuck(1, false); });
  Host& host = world.origin("silent", {{"/", {ok("")}}});
  host.kind = Host::Kind::kSilent;
  world.at(8s, [&host] { host.kind = Host::Kind::kServes; });
  world.converse({{500ms, "/stream?url=http://silent/"}});
}

TEST(Story, RefusedThreadsAndMemoryAreSurvived) {
  World world;
  const auto refused = [&](const char* call, Time from, Time to, int what = EAGAIN) {
    world.at(from, [=] { refuse(call, what); });
    world.at(to, [=] { refuse(call, 0); });
  };
  // A playlist with one more segment each time.
  const auto live = [](int number) {
    return ok(
        list(number, {key(number < 3 ? "" : "http://o/k"), "/e", number == 6 ? kEnd : "#"}, 1));
  };
  const std::string secret = encrypt(kKey, kKey);
  const Reply paced = slow(secret, 16, 100ms);
  world.origin(
      "o",
      vod(list(1, {"/a", kEnd}),
          {{"/k", {ok(kKey)}},
           {"/a", {slow("0123456789", 1, 1s)}},
           {"/live", {ok(master({"1 http://o/l"}))}},
           {"/l", {live(1), live(2), live(3), live(4), live(5), live(6)}},
           {"/e", {raw("HTTP/1.0 200 OK\r\nA: 1\r\n\r\n."), paced, paced, ok(secret), paced}}}));
  refused("pthread_create", 0s, 500us);            // the request's thread
  refused("pthread_create", 20s, 20500us + 20s);   // the timer's
  refused("pthread_create", 50001500us, 52500ms);  // the first two fill passes'
  Time start = 99500ms;
  // All memory, a block of the buffer, the cipher's output, and twice the cipher's input.
  for (const int what : {EAGAIN, EAGAIN, 524288 + 23, 131103 + 23, 131071 + 23}) {
    refused("malloc", start, start + 900ms, what);
    start += 1s;
  }
  world.converse(
      {{250us, "/stats.json"}, {19999500us, kM}, {50s, kM}, {100s, "/stream?url=http://o/live"}});
}

TEST(Story, StartupFailuresExitCleanly) {
  std::string transcript;
  for (const std::string call :
       {"argument", "socket", "bind", "listen", "accept", "SO_RCVTIMEO", "SO_SNDTIMEO"}) {
    refuse(call.c_str(), EMFILE);
    World world(call == "argument" ? std::vector<std::string>() : std::vector{"1"s});
    if (is_listening()) world.play({{2500ms, ""}});
    refuse(call.c_str(), 0);
    transcript += "  ~ refused: " + call + "\n" + world.transcript;
  }
  compare(transcript);
}

// An argument that is no number leaves no room for any segment.
TEST(Story, ArgumentIsReadAsFarAsItIsANumber) {
  for (const char* const argument : {"abc", "0x10", ""}) {
    World world({argument});
    world.origin("o", vod(list(1, {"/1", kEnd}, 60)));
    refuse("select", EINTR);
    world.at(1s, [] { refuse("select", 0); });
    sleep(1s);
    EXPECT_EQ(world.get({0s, kM}), stream(""));
    EXPECT_EQ(world.since_start(), 17002ms);
  }
}

}  // namespace
}  // namespace weir::test
