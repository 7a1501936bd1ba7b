#include "support/world.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <sstream>

#include "server/server.h"

// A server's shared state lives as long as the process, and here come several.
extern "C" const char* __lsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier)
const char* __lsan_default_suppressions() { return "leak:weir::Server::run"; }

namespace weir::sim {

const std::string kOk = head("200 OK", "application/json");
const std::string kMapSet = kOk + "\"OK\"\n";

namespace {

World* world = nullptr;

timespec device_now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time;
}

// The requests in it that are whole.
void answer(std::string& received, Pipe& out, Pages& pages, std::map<std::string, size_t>& next) {
  for (size_t end; (end = received.find("\r\n\r\n")) != std::string::npos;) {
    const std::string request = received.substr(0, end);
    received.erase(0, end + 4);
    std::string shown = "> " + request;
    for (size_t at; (at = shown.find("\r\n")) != std::string::npos;) shown.replace(at, 2, " | ");
    noticed(shown);
    const size_t start = request.find(' ') + 1;
    const std::string path = request.substr(start, request.find(' ', start) - start);
    const auto found = pages.find(path);
    const Reply missing = ok("", "404 Not Found");
    const Reply& reply = found == pages.end()
                             ? missing
                             : found->second[std::min(next[path]++, found->second.size() - 1)];
    Time at = now();
    for (const Reply::Piece& piece : reply.pieces) out.put(at += piece.pause, piece.bytes);
    if (reply.end == Reply::kClose) out.end(at);
    if (reply.end == Reply::kReset) out.reset(at);
    if (reply.end != Reply::kKeep) received = "silent\r\n";
  }
}

}  // namespace

Reply raw(std::string bytes, Reply::End end) { return {{{0s, std::move(bytes)}}, end}; }

Reply ok(const std::string& body, const std::string& status) {
  const std::string length = std::to_string(body.size());
  return raw("HTTP/1.1 " + status + "\r\nContent-Length: " + length + "\r\n\r\n" + body);
}

Reply cut(const std::string& body, size_t sent, Reply::End end) {
  std::string text = ok(body).pieces[0].bytes;
  text.resize(text.size() - body.size() + sent);
  return raw(std::move(text), end);
}

Reply slow(const std::string& body, size_t piece, Time pause) {
  Reply reply = cut(body, 0, Reply::kKeep);
  for (size_t at = 0; at < body.size(); at += piece) {
    reply.pieces.push_back({pause, body.substr(at, piece)});
  }
  return reply;
}

std::string head(const std::string& status, const std::string& type) {
  return "HTTP/1.0 " + status + "\r\nContent-Type: " + type +
         "\r\nConnection: close\r\nAllow: GET, HEAD\r\nCache-Control: no-cache\r\n"
         "Access-Control-Allow-Origin: *\r\n\r\n";
}

std::string stream(const std::string& media) {
  return head("200 Streaming...", "application/octet-stream") + media;
}

std::string stats(int last, int average, int buffered, int profile) {
  return kOk + "{\"last_chunk_speed\": " + std::to_string(last) +
         ",\"avg_speed\": " + std::to_string(average) +
         ",\"cbuff_size\": " + std::to_string(buffered) +
         ",\"selected_profile\": " + std::to_string(profile) + "}\n";
}

std::string pattern(size_t size, unsigned seed) {
  std::minstd_rand random(seed);
  std::string text(size, '\0');
  std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random() >> 8); });
  return text;
}

static std::string cipher(std::string in, std::string key, int encrypting, bool end) {
  const auto bytes = [](auto& text) { return reinterpret_cast<unsigned char*>(text.data()); };
  key.resize(16);
  const unsigned char zero_iv[16] = {};
  std::string out(in.size() + 32, '\0');
  int size = 0;
  int last = 0;
  EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
  EVP_CipherInit_ex(context, EVP_aes_128_cbc(), nullptr, bytes(key), zero_iv, encrypting);
  EVP_CipherUpdate(context, bytes(out), &size, bytes(in), static_cast<int>(in.size()));
  if (!end || EVP_CipherFinal_ex(context, bytes(out) + size, &last) != 1) last = 0;
  EVP_CIPHER_CTX_free(context);
  out.resize(static_cast<size_t>(size + last));
  return out;
}

std::string encrypt(const std::string& plain, const std::string& key) {
  return cipher(plain, key, 1, true);
}

std::string decrypt(const std::string& text, const std::string& key, bool end) {
  return cipher(text, key, 0, end);
}

World::World(unsigned seed, std::int64_t max_buffer) : start_(now()) {
  world = this;
  set_seed(seed);
  set_clock(1000s);
  noticed = [this](const std::string& line) { note((line[0] == '>' ? "" : "~ ") + line); };
  log_line = [this](int fd, const std::string& text) {
    if (!with_loop && (text == "loop\n" || text == "after select\n")) return;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      note((fd == STDERR_FILENO ? "! " : "") + line);
    }
  };
  const Device device = {device_now, [] { return world->marker; }, [] { world->note("~ reboot"); }};
  spawn(
      [this, max_buffer, device] {
        try {
          Server(INADDR_ANY, 7744, 5, max_buffer, device).run();
        } catch (const char* text) {
          note("~ "s + text);
        }
      },
      Of::kProgram);
  sleep(0s);
}

World::~World() {
  refuse("accept", EMFILE);
  (void)get({0s, "", "", 0s});
  refuse("accept", 0);
  EXPECT_EQ(threads(), 0);
  EXPECT_EQ(open_sockets(), 0);
  log_line = nullptr;
  noticed = nullptr;
  hosts.clear();
  names.clear();
}

void World::note(const std::string& line) {
  const Inside inside;
  if (noted_ != now()) {
    noted_ = now();
    char time[32];
    std::snprintf(time, sizeof time, "%.3f s\n", static_cast<double>(since_start().count()) / 1e9);
    transcript += time;
  }
  transcript += "  " + line + "\n";
}

Host& World::origin(const std::string& name_and_port, Pages pages) {
  const size_t colon = name_and_port.find(':');
  const std::string name = name_and_port.substr(0, colon);
  const std::string port = colon == std::string::npos ? ":80" : name_and_port.substr(colon);
  if (!names.contains(name)) names[name] = "10.0.0." + std::to_string(names.size() + 1);
  Host& host = hosts[names[name] + port];
  host.request = [pages = std::move(pages), next = std::map<std::string, size_t>()](
                     std::string& received, Pipe& out) mutable {
    answer(received, out, pages, next);
  };
  return host;
}

void World::at(Time time, std::function<void()> act) {
  spawn([this, time, act = std::move(act)] {
    sleep_until(start_ + time);
    act();
  });
}

std::string World::get(const Ask& ask) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in to{AF_INET, htons(7744), {htonl(INADDR_LOOPBACK)}, {}};
  if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) ADD_FAILURE();
  const bool whole = ask.resource.find(' ') != std::string::npos;
  const std::string text = whole || ask.resource.empty()
                               ? ask.resource
                               : "GET " + ask.resource + " HTTP/1.1\r\n\r\n";
  if (!text.empty()) EXPECT_EQ(send(fd, text.data(), text.size(), 0), std::ssize(text));
  std::string got;
  std::string piece(65536, '\0');
  for (;;) {
    if (ask.pause > 0s) sleep(ask.pause);
    const ssize_t count = read(fd, piece.data(), std::min(piece.size(), ask.leaves - got.size()));
    if (count <= 0) break;
    got.append(piece, 0, static_cast<size_t>(count));
  }
  close(fd);
  return got;
}

void World::play(const std::vector<Ask>& asks) {
  size_t left = asks.size();
  Waiters all;
  for (const Ask& ask : asks) {
    at(ask.at, [&] {
      const std::string got = get(ask);
      EXPECT_EQ(since_start(), ask.ended) << ask.resource;
      EXPECT_TRUE(got == ask.got) << ask.resource << " got " << got.size() << " of "
                                  << ask.got.size() << ":\n"
                                  << got.substr(0, 1000);
      const Inside inside;
      if (--left == 0) all.wake();
    });
  }
  while (left > 0) (void)wait({&all});
  while (threads() > 1) sleep(1s);
}

}  // namespace weir::sim
