#include "support/world.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "support/story.h"

// The program's main(), renamed.
int weir_main(int argc, char** argv);

namespace weir::test {

const std::string kOk = head("200 OK", "application/json");
std::ptrdiff_t live_bytes = 0;
std::ptrdiff_t peak_bytes = 0;
const std::string kMapSet = kOk + "\"OK\"\n";

namespace {

World* world = nullptr;
int worlds = 0;

// Drops CAP_SYS_BOOT at load time, so that no test binary can reboot the machine.
const bool tame = [] {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[2] = {};
  if (syscall(SYS_capget, &header, sets) != 0) std::abort();
  sets[0].effective &= ~(1U << CAP_SYS_BOOT);
  sets[0].permitted &= ~(1U << CAP_SYS_BOOT);
  if (syscall(SYS_capset, &header, sets) != 0) std::abort();
  return true;
}();

template <class... Values>
std::string text_of(const char* format, Values... values) {
  char text[64];
  return {text, static_cast<size_t>(std::snprintf(text, sizeof text, format, values...))};
}

// In one line: "a{9}" is nine times an "a". A longer text ends with its size and FNV-1a sum.
std::string shown(const std::string& bytes, size_t most) {
  std::string line;
  std::uint32_t sum = 2166136261;
  for (const char c : bytes) sum = (sum ^ static_cast<unsigned char>(c)) * 16777619;
  for (size_t at = 0, run = 0; at < bytes.size() && line.size() < most; at += run) {
    run = std::min(bytes.find_first_not_of(bytes[at], at), bytes.size()) - at;
    if (run < 4) run = 1;
    const bool plain = bytes[at] >= ' ' && bytes[at] <= '~' && bytes[at] != '\\';
    line += plain ? std::string(1, bytes[at]) : text_of("\\x%02hhx", bytes[at]);
    if (run > 1) line += text_of("{%zu}", run);
  }
  return line.size() < most ? line : line + text_of("... %zu bytes, %08x", bytes.size(), sum);
}

}  // namespace

Reply raw(std::string bytes, Reply::End end) { return {{{0s, std::move(bytes)}}, end}; }

Reply ok(const std::string& body, const std::string& status) {
  const std::string length = std::to_string(body.size());
  return raw("HTTP/1.1 " + status + "\r\nContent-Length: " + length + "\r\n\r\n" + body);
}

Reply cut(const std::string& body, size_t sent, Reply::End end, const std::string& status) {
  std::string text = ok(body, status).pieces[0].bytes;
  text.resize(text.size() - body.size() + sent);
  return raw(std::move(text), end);
}

Reply slow(const std::string& body, size_t piece, Time pause, const std::string& status) {
  Reply reply = cut(body, 0, Reply::kKeep, status);
  for (size_t at = 0; at < body.size(); at += piece)
    reply.pieces.push_back({pause, body.substr(at, piece)});
  return reply;
}

std::string master(const std::vector<std::string>& variants) {
  std::string text = "#EXTM3U\n";
  for (std::string variant : variants) {
    variant[variant.find(' ')] = '\n';
    text += "#EXT-X-STREAM-INF:BANDWIDTH=" + variant + "\n";
  }
  return text;
}

std::string list(int first, const std::vector<std::string>& lines, long duration) {
  std::string text = "#EXTM3U\n#EXT-X-TARGETDURATION:" + std::to_string(duration) +
                     "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(first) + "\n";
  for (const std::string& line : lines) text += (line[0] == '/' ? "http://o" : "") + line + "\n";
  return text;
}

std::string key(const std::string& url) { return "#EXT-X-KEY:METHOD=AES-128,URI=\"" + url + "\""; }

Pages vod(const std::string& variant, Pages more) {
  more.insert({{"/m", {ok(master({"1 http://o/v"}))}}, {"/v", {ok(variant)}}});
  for (const std::string path : {"/1", "/2", "/3", "/4", "/5", "/6", "/7"})
    more.insert({path, {ok(path)}});
  return more;
}

std::string head(const std::string& status, const std::string& type) {
  return "HTTP/1.0 " + status + "\r\nContent-Type: " + type +
         "\r\nConnection: close\r\nAllow: GET, HEAD\r\nCache-Control: no-cache\r\n"
         "Access-Control-Allow-Origin: *\r\n\r\n";
}

std::string stream(const std::string& media) {
  return head("200 Streaming...", "application/octet-stream") + media;
}

std::string path_of(const std::string& request) {
  const size_t start = request.find(' ') + 1;
  return request.substr(start, request.find(' ', start) - start);
}

size_t offset_of(const std::string& request) {
  const size_t range = request.find("bytes=");
  return range == std::string::npos ? 0 : std::stoul(request.substr(range + 6));
}

std::string status_from(size_t offset) {
  if (offset == 0) return "200 OK";
  return "206 P\r\nContent-Range: bytes " + std::to_string(offset) + "-";
}

void respond(std::string& received, Pipe& out,
             const std::function<Reply(const std::string& request)>& reply_to) {
  constexpr char kNoMore = '\0';
  for (size_t end;
       !received.starts_with(kNoMore) && (end = received.find("\r\n\r\n")) != std::string::npos;) {
    const std::string request = received.substr(0, end);
    received.erase(0, end + 4);
    const Reply reply = reply_to(request);
    Time at = now();
    for (const Reply::Piece& piece : reply.pieces) out.put(at += piece.pause, piece.bytes);
    if (reply.end == Reply::kClose) out.ends = at;
    if (reply.end == Reply::kReset) out.reset(at);
    if (reply.end != Reply::kKeep) received.assign(1, kNoMore);
  }
}

World::World(const std::vector<std::string>& arguments) : start_(now()) {
  world = this;
  ++worlds;
  const char* const seed = std::getenv("SIM_SEED");
  set_seed(seed == nullptr ? 0 : static_cast<unsigned>(std::atoi(seed)));
  set_clock(1000s);
  noticed = [this](const std::string& call) { note("~ " + call); };
  log_line = [this](int fd, const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
      note((fd == STDERR_FILENO ? "! " : "") + line);
  };
  spawn(
      [this, arguments] {
        std::vector<char*> argv = {const_cast<char*>("weir")};
        for (const std::string& text : arguments) argv.push_back(const_cast<char*>(text.c_str()));
        const int status = weir_main(static_cast<int>(argv.size()), argv.data());
        const Inside inside;
        note("~ status " + std::to_string(status));
        running_ = false;
        close_all_sockets();
      },
      Of::kProgram);
  while (running_ && !is_listening()) sleep(0s);
}

World::~World() {
  if (running_) {
    sleep(2s);
    EXPECT_EQ(threads(), 1);
    EXPECT_EQ(open_sockets(), 1);
    refuse("accept", EMFILE);
    (void)get({0s, ""});
    refuse("accept", 0);
  }
  EXPECT_EQ(threads(), 0);
  EXPECT_EQ(open_sockets(), 0);
  log_line = nullptr;
  noticed = nullptr;
  hosts.clear();
  names.clear();
}

std::string World::stamp() const {
  return text_of("%.3f", static_cast<double>(since_start().count()) / 1e9);
}

void World::note(const std::string& line) {
  const Inside inside;
  if (noted_ != now()) transcript += stamp() + " s\n";
  noted_ = now();
  transcript += "  " + line + "\n";
}

Host& World::origin(const std::string& name_and_port, Pages pages) {
  const size_t colon = name_and_port.find(':');
  const std::string name = name_and_port.substr(0, colon);
  const std::string port = colon == std::string::npos ? ":80" : name_and_port.substr(colon);
  if (!names.contains(name)) names[name] = "10.0.0." + std::to_string(names.size() + 1);
  Host& host = hosts[names[name] + port];
  host.request = [this, pages = std::move(pages), next = std::map<std::string, size_t>()](
                     std::string& received, Pipe& out) mutable {
    respond(received, out, [&](const std::string& request) {
      note("> " + replaced(request, "\r\n", " | "));
      const std::string path = path_of(request);
      const auto found = pages.find(path);
      if (found == pages.end()) return ok("", "404 Not Found");
      return found->second[std::min(next[path]++, found->second.size() - 1)];
    });
  };
  return host;
}

void World::at(Time time, std::function<void()> act) {
  ++acts_;
  spawn([this, time, act = std::move(act)] {
    sleep_until(start_ + time);
    act();
    --acts_;
  });
}

void World::during(Time from, Time to, const std::function<void(bool)>& act) {
  at(from, [act] { act(true); });
  at(to, [act] { act(false); });
}

std::string World::get(const Ask& ask) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in to{AF_INET, htons(7744), {htonl(INADDR_LOOPBACK)}, {}};
  if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) ADD_FAILURE();
  const bool complete = ask.resource.empty() || ask.resource.find(' ') != std::string::npos;
  const std::string text = complete ? ask.resource : "GET " + ask.resource + " HTTP/1.1\r\n\r\n";
  (void)!send(fd, text.data(), text.size(), 0);  // the program may have closed already
  std::string got;
  std::string piece(65536, '\0');
  while (got.size() < ask.leaves) {
    if (ask.pause > 0s) sleep(ask.pause);
    const ssize_t count = read(fd, piece.data(), std::min(piece.size(), ask.leaves - got.size()));
    if (count < 0) note("~ reset");
    if (count <= 0) break;
    got.append(piece, 0, static_cast<size_t>(count));
  }
  close(fd);
  return got;
}

void World::play(const std::vector<Ask>& asks) {
  for (const Ask& ask : asks) {
    at(ask.at, [this, ask] {
      const std::string got = get(ask);
      const size_t end = std::min(got.find("\r\n\r\n"), got.size());
      note("~ got " + stamp() + " " + shown(ask.resource, 70) + ": " +
           shown(replaced(got.substr(0, end), "\r\n", " | "), 999) + " || " +
           shown(got.substr(std::min(end + 4, got.size())), 200));
    });
  }
  while (acts_ > 0) sleep(1s);
  for (int patience = 200; patience > 0 && threads() > 1; --patience) sleep(1s);
}

void World::converse(const std::vector<Ask>& asks, const Pages& pages, bool in_full) {
  if (!pages.empty()) origin("o", pages);
  play(asks);
  compare(transcript, in_full);
}

}  // namespace weir::test

extern "C" {

// For LeakSanitizer: objects that one run of main() shares are never freed, and unreachable in
// the next run.
int __lsan_is_turned_off() { return weir::test::worlds > 1 ? 1 : 0; }

// The device that the program guards.

int __real_stat(const char* path, struct stat* status);

int __wrap_stat(const char* path, struct stat* status) {
  const weir::test::Inside inside;
  if (path != std::string("/var/shutdown_in_progress")) return __real_stat(path, status);
  return weir::test::world->marker ? 0 : -1;
}

int __wrap_reboot(int command) {
  const weir::test::Inside inside;
  weir::test::noticed(command == RB_AUTOBOOT ? "restarts" : "does something else");
  return -1;
}
}
