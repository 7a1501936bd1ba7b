// The pieces on the path of the bytes, each by itself.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/process.h"
#include "buffer/cbuff.h"
#include "cachemap/cache_map.h"
#include "playlist/chunklist.h"
#include "upstream/ucurl.h"

static std::atomic<std::int64_t> locks{0};

// Counts what every lock of the program goes through.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static auto* const real =
      reinterpret_cast<decltype(&pthread_mutex_lock)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  locks.fetch_add(1, std::memory_order_relaxed);
  return real(mutex);
}

namespace {

constexpr std::uint64_t kPiece = 128 << 10;

// What the hand-over is held against: one copy in, one copy out of as much as a block.
void copy_twice(benchmark::State& state) {
  const std::string source(kPiece, 'x');
  std::vector<char> between(weir::CBuff::kBlockSize);
  std::string target(kPiece, 0);
  std::size_t at = 0;
  for (auto _ : state) {
    std::memcpy(between.data() + at, source.data(), kPiece);
    std::memcpy(target.data(), between.data() + at, kPiece);
    benchmark::DoNotOptimize(target.data());
    at = (at + kPiece) % between.size();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kPiece));
}
BENCHMARK(copy_twice);

void buffer_hand_over(benchmark::State& state) {
  const auto piece = static_cast<std::uint64_t>(state.range(0));
  const std::vector<unsigned char> source(piece, 'x');
  std::vector<unsigned char> target(piece);
  weir::CBuff buffer;
  const std::int64_t before = locks;
  for (auto _ : state) {
    (void)buffer.write(source);
    for (std::uint64_t left = piece; left > 0;) {
      const auto from = buffer.peek();
      const std::uint64_t count = std::min<std::uint64_t>(from.size(), left);
      std::memcpy(target.data(), from.data(), count);
      buffer.consume(count);
      left -= count;
    }
    benchmark::DoNotOptimize(target.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * state.range(0)));
  const auto blocks = static_cast<double>(state.iterations() * state.range(0)) /
                      static_cast<double>(weir::CBuff::kBlockSize);
  state.counters["locks a block"] = static_cast<double>(locks - before) / blocks;
}
BENCHMARK(buffer_hand_over)->Arg(kPiece)->Arg(1316)->Arg(16);

// An origin that has one segment, and sends it for every request on its one connection.
class Origin {
 public:
  explicit Origin(const std::string& body)
      : reply_("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
               body) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener_, any, size) != 0 || listen(listener_, 1) != 0) std::abort();
    getsockname(listener_, any, &size);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/segment.ts";
    thread_ = std::thread([this] { serve(); });
  }
  ~Origin() {
    thread_.join();  // ends when the client has closed
    close(listener_);
  }
  const std::string& url() const { return url_; }

 private:
  void serve() {
    const int fd = accept(listener_, nullptr, nullptr);
    char request[4096];
    while (read(fd, request, sizeof request) > 0) {
      for (std::size_t at = 0; at < reply_.size();) {
        const ssize_t count = write(fd, reply_.data() + at, reply_.size() - at);
        if (count <= 0) break;
        at += static_cast<std::size_t>(count);
      }
    }
    close(fd);
  }

  const std::string reply_;
  const int listener_ = socket(AF_INET, SOCK_STREAM, 0);
  std::string url_;
  std::thread thread_;
};

// Time and CPU are the download's own; the origin has a thread of its own.
void body_download(benchmark::State& state) {
  constexpr std::size_t kBody = 8 << 20;
  const bool encrypted = state.range(0) != 0;
  const Origin origin(std::string(kBody, 'x'));
  weir::UCurl curl;
  weir::CBuff buffer;
  const std::atomic<bool> stop{false};
  for (auto _ : state) {
    const auto got =
        curl.get_stream(origin.url(), buffer, encrypted ? "0123456789abcdef" : "", stop, 0);
    if (!got.done() || got.received != kBody) state.SkipWithError("a body is missing");
    buffer.clear();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kBody));
  state.SetLabel(encrypted ? "AES-128" : "clear");
}
BENCHMARK(body_download)->Arg(0)->Arg(1)->UseRealTime();

// What the cipher alone takes.
void cipher_alone(benchmark::State& state) {
  std::vector<unsigned char> in(kPiece);
  std::vector<unsigned char> out(kPiece + 32);
  EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
  EVP_DecryptInit_ex(context, EVP_aes_128_cbc(), nullptr, in.data(), in.data());
  int count = 0;
  for (auto _ : state) {
    EVP_DecryptUpdate(context, out.data(), &count, in.data(), static_cast<int>(kPiece));
  }
  EVP_CIPHER_CTX_free(context);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kPiece));
}
BENCHMARK(cipher_alone);

void ring_selection(benchmark::State& state) {
  weir::CacheMap map;
  map.setMap("a:1,b:1,c:1,d:1,e:1,f:1;g:1");
  for (auto _ : state) benchmark::DoNotOptimize(map.selectServer("/live/720p/segment1.ts"));
}
BENCHMARK(ring_selection);

void variant_playlist(benchmark::State& state) {
  std::string text = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:1\n#EXT-X-TARGETDURATION:5\n";
  for (int i = 0; i < state.range(0); ++i) {
    text.append("#EXTINF:5,\nhttp://@/live/720p/").append(std::to_string(i)).append(".ts\n");
  }
  weir::Chunklist chunklist("http://~/live/720p/list.m3u8");
  for (auto _ : state) chunklist.parse(text);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(variant_playlist)->Arg(6)->Arg(1000);

}  // namespace

int main(int argc, char** argv) {
  weir::prepare_process();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
