// Fails every fallible call of a short story once: at each call the process forks, and the call
// fails in the child, which plays on and checks the outcome against the table of faults.
// REFUSE_EVERY=n in the environment leaves out all but every n-th call.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "support/world.h"

namespace weir::test {
namespace {

struct Fault {
  const char* call;
  int error;
  int short_streams;  // clients that may get only beginnings of the segments they should get
  const char* last_words = "";  // of the process, if it may end
  // Of so many calls one fails, if there is one for each log line or byte of a request.
  int every = 1;

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
    {"client read", ECONNRESET, 1, "", 5},
    {"client read", EAGAIN, 0, "", 5},
    {"client write", EPIPE, 1},
    {"client write", EAGAIN, 1},
    {"upstream read", ECONNRESET, 1},
    // The rest of a body that was not read counts as bad answers: weir marks the caches dead.
    {"upstream read", ENOMEM, 2},
    {"upstream write", EPIPE, 0},
    {"upstream write", EAGAIN, 0},
    {"log write", EIO, 0, "", 5},
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

// What the first child leaves for the others. The parent must not use libcrypto: a child whose
// program fails to set it up in time could not be told from the others.
struct Shared {
  std::ptrdiff_t left;                // bytes that the program holds after the story
  char secret[420'016], tail[1'296];  // kPlain and kTail, encrypted
};
Shared* const shared = static_cast<Shared*>(
    mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
std::string secret() { return {shared->secret, sizeof shared->secret}; }
std::string tail() { return {shared->tail, sizeof shared->tail}; }

const std::string kMap = "/update-cache-map?chunk=a:80,b:80&playlist=a:80,b:80";

struct Part {
  std::string plain, sent = plain;
};

struct Client {
  Time at;
  std::string resource;
  std::vector<Part> parts;  // of the answer that it should get
  std::string got = {};

  std::string whole() const {
    std::string all;
    for (const Part& part : parts) all += part.plain;
    return all;
  }

  // Whether it got only beginnings of the parts, decrypted or not.
  bool is_short() const {
    std::string rest = got;
    for (const auto& [plain, sent] : parts) {
      if (rest.starts_with(kRepeated + kRepeated.substr(0, 99))) rest.erase(0, kStallsAt);
      const std::string& part = rest.starts_with(sent.substr(0, 16)) ? sent : plain;
      const auto end = std::mismatch(rest.begin(), rest.end(), part.begin(), part.end()).first;
      rest.erase(rest.begin(), end);
    }
    return rest.empty();
  }

  friend std::ostream& operator<<(std::ostream& out, const Client& client) {
    return out << client.resource << ": " << client.got.size() << " of " << client.whole().size();
  }
};

std::string without_figures(std::string text) {
  std::erase_if(text, isdigit);
  return text;
}

std::vector<Client> clients() {
  const std::string no_figures =
      "{\"last_chunk_speed\": ,\"avg_speed\": ,\"cbuff_size\": ,\"selected_profile\": }\n";
  return {{1s, "/stream?url=http://~/x/other", {{stream("")}, {kOther}, {kTail, tail()}}},
          {1200ms, "/stream?url=http://~/x/master", {{stream("")}, {kClear}, {kPlain, secret()}}},
          {1400ms, "/watchdog", {{kOk}}},
          {6s, "/stats.json", {{without_figures(kOk)}, {no_figures}}},
          // At the end: a request that breaks off may set half a map.
          {60s, kMap, {{kOk}, {kMapSet.substr(kOk.size())}}}};
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
      const auto found = pages.find(path_of(request));
      if (found == pages.end()) return ok("", "404 No");
      const auto& [path, page] = *found;
      if (path == "/x/1" && !std::exchange(stalled, true)) return cut(page, kStallsAt);
      const size_t from = offset_of(request);
      return slow(page.substr(from), 150'000, 20ms, status_from(from));
    });
  };
}

// Asks everything, as long as the program runs. Figures are left out of the statistics.
std::vector<Client> play(World& world) {
  std::vector<Client> all = clients();
  for (Client& client : all) {
    world.at(world.since_start() + client.at, [&world, &client] {
      if (is_listening()) client.got = world.get({0s, client.resource});
      if (client.resource == "/stats.json") client.got = without_figures(client.got);
    });
  }
  world.play({});
  return all;
}

// True in a child process; the parent waits for it.
bool forks(unsigned seconds, const char* call = "", int number = 0) {
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGALRM, SIG_DFL);
    alarm(seconds);
    return true;
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0) << call << " " << number;
  return false;
}

[[noreturn]] void end_child() {
  std::fflush(stdout);
  _exit(testing::Test::HasFailure() ? 1 : 0);
}

// Plays the story, and once more.
void play_twice(const Fault& fault) {
  World world({"1000000"});
  bool stalled = false, failed = false;
  for (const char* name : {"a", "b"}) world.origin(name).request = cache(stalled);
  EXPECT_EQ(world.get({0s, kMap}), kMapSet);
  world.play({});
  const std::ptrdiff_t before = live_bytes;
  if (forks(60)) {
    (void)play(world);
    shared->left = live_bytes - before;
    end_child();
  }
  const char* const wanted = std::getenv("REFUSE_EVERY");
  const int every = fault.every * (wanted == nullptr ? EVERY : std::atoi(wanted));
  int calls = 0;
  refuse(fault.call, [&] {
    if (failed || testing::Test::HasFailure() || calls++ % every != 0) return 0;
    failed = forks(60, fault.call, calls);
    return failed ? fault.error : 0;
  });
  const std::vector<Client> first = play(world);
  refuse(fault.call, 0);
  EXPECT_GT(calls, 0) << "the story never calls it";
  int short_streams = 0;
  for (const Client& client : first) {
    if (client.got == client.whole()) continue;
    EXPECT_TRUE(failed && client.is_short()) << client;
    ++short_streams;
  }
  if (!is_listening()) {
    EXPECT_STRNE(fault.last_words, "");
    EXPECT_NE(world.transcript.find(std::string("! ") + fault.last_words), std::string::npos);
    return;
  }
  EXPECT_LE(short_streams, fault.short_streams);
  EXPECT_LE(live_bytes - before, shared->left + kTolerated) << "leaked";
  EXPECT_EQ(world.get({0s, kMap}), kMapSet);
  for (const Client& client : play(world)) EXPECT_TRUE(client.got == client.whole()) << client;
}

class RefuseNth : public testing::TestWithParam<Fault> {};

TEST_P(RefuseNth, EachCallFailsOnce) {
  if (forks(60)) {
    encrypt(kPlain, kKey).copy(shared->secret, sizeof shared->secret);
    encrypt(kTail, kKey).copy(shared->tail, sizeof shared->tail);
    end_child();
  }
  if (forks(280)) {
    play_twice(GetParam());
    end_child();
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
