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

// What one of the clients may get instead of everything.
enum class Promise {
  kWhole,     // nothing else: weir tries again or does not need the call
  kEmpty,     // no body: a thread is started before anything is sent
  kCut,       // the beginning of the answer, or of its body without the head
  kParts,     // the beginning of each segment: a failed read ends a segment
  kAllParts,  // kParts for every client: the rest of a body that was not read counts as bad
              // answers, for which weir marks the caches dead
  kDocument,  // no body, or a segment without its key: a silent document is not tried again
  kEnds,      // as kCut; the process may end, and says why
};

struct Fault {
  const char* call;
  int error;
  Promise promise;
  const char* last_words = "";

  friend void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.call; }
};

const Fault kFaults[] = {
    {"allocation", ENOMEM, Promise::kParts},
    {"libcrypto", ENOMEM, Promise::kWhole},
    {"pthread_create", EAGAIN, Promise::kEmpty},
    {"socket", EMFILE, Promise::kWhole},
    {"connect", ECONNREFUSED, Promise::kWhole},
    {"connect", ETIMEDOUT, Promise::kWhole},
    {"gethostbyname_r", EAGAIN, Promise::kWhole},
    {"accept", EMFILE, Promise::kEnds, "Error calling accept()"},
    {"SO_RCVTIMEO", EINVAL, Promise::kEnds, "setsockopt failed SO_RCVTIMEO"},
    {"SO_SNDTIMEO", EINVAL, Promise::kEnds, "setsockopt failed SO_SNDTIMEO"},
    {"setsockopt", EINVAL, Promise::kWhole},
    {"fcntl", EINVAL, Promise::kWhole},
    {"select", EINTR, Promise::kWhole},
    {"nanosleep", EINTR, Promise::kWhole},
    {"poll", ENOMEM, Promise::kDocument},
    {"poll", kTimeout, Promise::kDocument},
    {"client read", ECONNRESET, Promise::kCut},
    {"client read", EAGAIN, Promise::kWhole},
    {"client write", EPIPE, Promise::kCut},
    {"client write", EAGAIN, Promise::kCut},
    {"upstream read", ECONNRESET, Promise::kParts},
    {"upstream read", ENOMEM, Promise::kAllParts},
    {"upstream write", EPIPE, Promise::kWhole},
    {"upstream write", EAGAIN, Promise::kWhole},
    {"log write", EIO, Promise::kWhole},
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
const std::string kKey = "0123456789abcdef";
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
  std::string got = {};
};

std::vector<Client> clients() {
  std::vector<Client> all(5);
  all[0] = {1s, "/stream?url=http://~/x/other", stream(kOther + kTail)};
  all[1] = {1200ms, "/stream?url=http://~/x/master", stream(kClear + kPlain)};
  all[2] = {1400ms, "/watchdog", kOk};
  all[3] = {6s, "/stats.json",
            kOk +
                "{\"last_chunk_speed\": ,\"avg_speed\": ,\"cbuff_size\": ,"
                "\"selected_profile\": }\n"};
  all[4] = {60s, kMap, kMapSet};  // at the end: a request that breaks off may set half a map
  return all;
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
      if (range == std::string::npos && page.size() < 4000) return ok(page);
      if (range == std::string::npos) return slow(page, 150'000, 20ms);
      const std::string from = std::to_string(std::stoul(request.substr(range + 6)));
      return ok(page.substr(std::stoul(from)), "206 P\r\nContent-Range: bytes " + from + "-");
    });
  };
}

// Asks everything, as long as the program runs.
std::vector<Client> play(World& world) {
  std::vector<Client> all = clients();
  for (Client& client : all) {
    world.at(world.since_start() + client.at, [&world, &client] {
      if (is_listening()) client.got = world.get({0s, client.resource});
      if (client.resource == "/stats.json") {
        const size_t body = std::min(client.got.find('{'), client.got.size());
        const auto figures = client.got.begin() + static_cast<std::ptrdiff_t>(body);
        client.got.erase(std::remove_if(figures, client.got.end(), isdigit), client.got.end());
      }
    });
  }
  world.play({});
  return all;
}

bool is_kept(Promise promise, const Client& client) {
  const size_t head_size = client.whole.find("\r\n\r\n") + 4;
  const std::string body = client.whole.substr(head_size);
  const bool headed = client.got.starts_with(client.whole.substr(0, head_size));
  const std::string got = client.got.substr(headed ? head_size : 0);
  const bool is_other = body == kOther + kTail;
  const std::string& first = is_other ? kOther : kClear;
  const std::string& second = is_other ? kTail : kPlain;
  const std::string cipher = is_other ? tail() : secret();
  switch (promise) {
    case Promise::kWhole:
      return false;
    case Promise::kEmpty:
      return got.empty();
    case Promise::kDocument:
      return got.empty() || got == first + cipher || got == kRepeated + body;
    case Promise::kEnds:
    case Promise::kCut:
      return client.whole.starts_with(client.got) || body.starts_with(got);
    case Promise::kParts:
    case Promise::kAllParts:
      break;
  }
  const bool repeats = got.starts_with(kRepeated + kRepeated.substr(0, 99));
  const std::string once = got.substr(repeats ? kStallsAt : 0);
  const auto rest = std::mismatch(once.begin(), once.end(), first.begin(), first.end()).first;
  const std::string after(rest, once.end());
  return second.starts_with(after) || cipher.starts_with(after);
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
  refuse_nth(fault.call, n == 0 ? -1 : n, fault.error);
  const std::vector<Client> first = play(world);
  const auto counted = calls().find(fault.call);
  refuse(fault.call, 0);
  int short_ones = 0;
  for (const Client& client : first) {
    if (client.got == client.whole) continue;
    EXPECT_TRUE(n > 0 && is_kept(fault.promise, client)) << sizes(client);
    ++short_ones;
    EXPECT_TRUE(short_ones == 1 || fault.promise == Promise::kAllParts || !is_listening())
        << "another client noticed, too: " << sizes(client);
  }
  if (!is_listening()) {
    EXPECT_EQ(fault.promise, Promise::kEnds);
    EXPECT_NE(world.transcript.find(std::string("! ") + fault.last_words), std::string::npos);
    return;
  }
  if (n == 0) {
    shared->calls = counted == calls().end() ? 0 : counted->second;
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
