// Fails every fallible call of a short story once, each in a process of its own, and checks
// the outcome against the table of faults.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "support/world.h"

namespace weir::test {
namespace {

struct Fault {
  const char* call;
  int error;
  int short_streams;  // clients that may get only beginnings of the segments they should get
  const char* last_words = "";  // of the process, if it may end

  friend void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.call; }
};

const Fault kFaults[] = {
    {"allocation", ENOMEM, 1},
    {"libcrypto", ENOMEM, 0},
    {"pthread_create", EAGAIN, 1},
    {"socket", EMFILE, 0},
    {"connect", ECONNREFUSED, 0},
    {"connect", ETIMEDOUT, 0},
    {"gethostbyname_r", EAGAIN, 0},
    {"accept", EMFILE, 1, "Error calling accept()"},
    {"SO_RCVTIMEO", EINVAL, 1, "setsockopt failed SO_RCVTIMEO"},
    {"SO_SNDTIMEO", EINVAL, 1, "setsockopt failed SO_SNDTIMEO"},
    {"setsockopt", EINVAL, 0},
    {"fcntl", EINVAL, 0},
    {"select", EINTR, 0},
    {"nanosleep", EINTR, 0},
    {"poll", ENOMEM, 1},
    {"poll", kTimeout, 1},
    {"client read", ECONNRESET, 1},
    {"client read", EAGAIN, 0},
    {"client write", EPIPE, 1},
    {"client write", EAGAIN, 1},
    {"upstream read", ECONNRESET, 1},
    // The rest of a body that was not read counts as bad answers: weir marks the caches dead.
    {"upstream read", ENOMEM, 2},
    {"upstream write", EPIPE, 0},
    {"upstream write", EAGAIN, 0},
    {"log write", EIO, 0},
};

std::string masked(std::string text, int cleared, int set) {
  for (char& c : text) c = static_cast<char>((c & ~cleared) | set);
  return text;
}

// A clear segment of two blocks of the buffer; an encrypted one of several reads and a third
// block. They share no byte, so that the place where one ends is certain.
const std::string kClear = masked(pattern(530'000), 128, 0);
const std::string kPlain = masked(pattern(420'000, 2), 0, 128);
// Segments of the other stream. All but the last bytes of the second fit into the first block, so
// that decrypting those takes memory at the end of the segment.
const std::string kOther = masked(pattern(523'000, 3), 128, 0);
const std::string kTail = masked(pattern(1'290, 4), 0, 128);
constexpr size_t kStallsAt = 200'000;
constexpr std::ptrdiff_t kTolerated = 256;  // bytes: a longer line in the log's buffer, say
// If resuming fails before its body, weir starts over and delivers these bytes again.
const std::string kRepeated = kClear.substr(0, kStallsAt);

// Written by the first child. The parent must not use libcrypto: a child whose program fails
// to set it up in time could not be told from the others.
struct Shared {
  int calls;
  std::ptrdiff_t left;                // bytes that the program holds after the story
  char secret[420'016], tail[1'296];  // kPlain and kTail, encrypted
};
Shared* const shared = static_cast<Shared*>(
    mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
std::string secret() { return {shared->secret, sizeof shared->secret}; }
std::string tail() { return {shared->tail, sizeof shared->tail}; }

const std::string kMap = "/update-cache-map?chunk=a:80,b:80&playlist=a:80,b:80";

struct Client {
  Time at;
  std::string resource;
  std::string whole;
  std::vector<std::pair<std::string, std::string>> segments = {};  // plain and as sent
  std::string got = {};
};

std::vector<Client> clients() {
  const std::string no_figures =
      "{\"last_chunk_speed\": ,\"avg_speed\": ,\"cbuff_size\": ,\"selected_profile\": }\n";
  return {{1s,
           "/stream?url=http://~/x/other",
           stream(kOther + kTail),
           {{kOther, kOther}, {kTail, tail()}}},
          {1200ms,
           "/stream?url=http://~/x/master",
           stream(kClear + kPlain),
           {{kClear, kClear}, {kPlain, secret()}}},
          {1400ms, "/watchdog", kOk},
          {6s, "/stats.json", kOk + no_figures},
          // At the end: a request that breaks off may set half a map.
          {60s, kMap, kMapSet}};
}

// A cache; `stalled` is shared by all of them.
std::function<void(std::string&, Pipe&)> cache(bool& stalled) {
  const std::map<std::string, std::string> pages = {
      {"/x/other", master({"800000 http://~/x/others"})},
      {"/x/others", list(1, {"http://@/x/3", key("http://a/k"), "http://@/x/4", kEnd})},
      {"/x/master", master({"800000 http://~/x/list"})},
      {"/x/list", list(1, {"http://@/x/1", key("http://a/k"), "http://@/x/2", kEnd})},
      {"/x/1", kClear},
      {"/x/2", secret()},
      {"/x/3", kOther},
      {"/x/4", tail()},
      {"/k", kKey}};
  return [pages, &stalled](std::string& received, Pipe& out) {
    respond(received, out, [&](const std::string& request) {
      const std::string path = request.substr(4, request.find(' ', 4) - 4);
      if (!pages.contains(path)) return ok("", "404 No");
      const std::string& page = pages.at(path);
      if (path == "/x/1" && !std::exchange(stalled, true)) return cut(page, kStallsAt);
      const size_t range = request.find("bytes=");
      if (range == std::string::npos)
        return page.size() < 4000 ? ok(page) : slow(page, 150'000, 20ms);
      const std::string from = std::to_string(std::stoul(request.substr(range + 6)));
      return ok(page.substr(std::stoul(from)), "206 P\r\nContent-Range: bytes " + from + "-");
    });
  };
}

// Asks everything, as long as the program runs. Figures are left out of the statistics.
std::vector<Client> play(World& world) {
  std::vector<Client> all = clients();
  for (Client& client : all) {
    world.at(world.since_start() + client.at, [&world, &client] {
      if (is_listening()) client.got = world.get({0s, client.resource});
      if (client.resource != "/stats.json") return;
      const size_t body = std::min(client.got.find('{'), client.got.size());
      std::string figures = client.got.substr(body);
      std::erase_if(figures, isdigit);
      client.got.replace(body, std::string::npos, figures);
    });
  }
  world.play({});
  return all;
}

// Consists of beginnings of the segments, decrypted or not.
bool is_short_of(const Client& client) {
  const size_t head_size = client.whole.find("\r\n\r\n") + 4;
  if (client.whole.starts_with(client.got)) return true;
  const bool headed = client.got.starts_with(client.whole.substr(0, head_size));
  std::string rest = client.got.substr(headed ? head_size : 0);
  if (rest.starts_with(kRepeated + kRepeated.substr(0, 99))) rest.erase(0, kStallsAt);
  auto segments = client.segments;
  if (segments.empty()) segments = {{client.whole.substr(head_size), "none"}};
  for (const auto& [plain, cipher] : segments) {
    const std::string& sent = rest.starts_with(cipher.substr(0, 16)) ? cipher : plain;
    const auto end = std::mismatch(rest.begin(), rest.end(), sent.begin(), sent.end()).first;
    rest.erase(rest.begin(), end);
  }
  return rest.empty();
}

std::string sizes(const Client& client) {
  return client.resource + ": " + std::to_string(client.got.size()) + " of " +
         std::to_string(client.whole.size());
}

// In a child: plays the story with the n-th call failing, 0 for none, then once more.
void play_twice(const Fault& fault, int n) {
  World world({"1000000"});
  bool stalled = false;
  for (const char* name : {"a", "b"}) world.origin(name).request = cache(stalled);
  EXPECT_EQ(world.get({0s, kMap}), kMapSet);
  world.play({});
  const std::ptrdiff_t before = live_bytes;
  refuse(fault.call, fault.error, n == 0 ? -1 : n);
  const std::vector<Client> first = play(world);
  const int counted = calls(fault.call);
  refuse(fault.call, 0);
  int short_streams = 0;
  for (const Client& client : first) {
    if (client.got == client.whole) continue;
    EXPECT_TRUE(n > 0 && is_short_of(client)) << sizes(client);
    ++short_streams;
  }
  if (!is_listening()) {
    EXPECT_STRNE(fault.last_words, "");
    EXPECT_NE(world.transcript.find(std::string("! ") + fault.last_words), std::string::npos);
    return;
  }
  EXPECT_LE(short_streams, fault.short_streams);
  if (n == 0) {
    shared->calls = counted;
    shared->left = live_bytes - before;
  }
  EXPECT_LE(live_bytes - before, shared->left + kTolerated) << "leaked";
  EXPECT_EQ(world.get({0s, kMap}), kMapSet);
  for (const Client& client : play(world)) EXPECT_TRUE(client.got == client.whole) << sizes(client);
}

// Runs it in a child process; returns that one's status.
int in_child(const std::function<void()>& run) {
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGALRM, SIG_DFL);
    alarm(60);
    run();
    std::fflush(stdout);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

class RefuseNth : public testing::TestWithParam<Fault> {};

TEST_P(RefuseNth, EachCallFailsOnce) {
  const Fault& fault = GetParam();
  ASSERT_EQ(in_child([] {
              encrypt(kPlain, kKey).copy(shared->secret, sizeof shared->secret);
              encrypt(kTail, kKey).copy(shared->tail, sizeof shared->tail);
            }),
            0);
  ASSERT_EQ(in_child([&] { play_twice(fault, 0); }), 0);
  ASSERT_GT(shared->calls, 0) << "the story never calls it";
  int bad = 0;
  for (int n = 1; n <= shared->calls && bad < 5; n += EVERY) {
    const int status = in_child([&] { play_twice(fault, n); });
    bad += status == 0 ? 0 : 1;
    EXPECT_EQ(status, 0) << "call " << n << " of " << shared->calls;
  }
}

std::string name_of(const testing::TestParamInfo<Fault>& info) {
  std::string name = info.param.call;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name + '_' + (info.param.error == kTimeout ? "ETIME" : strerrorname_np(info.param.error));
}

INSTANTIATE_TEST_SUITE_P(Calls, RefuseNth, testing::ValuesIn(kFaults), name_of);

}  // namespace
}  // namespace weir::test
