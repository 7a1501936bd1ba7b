// The pieces on the path of the bytes, each by itself.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "buffer/cbuff.h"
#include "cachemap/cache_map.h"
#include "playlist/chunklist.h"

namespace {

constexpr std::uint64_t kPiece = 128 << 10;

// What the hand-over is held against: one copy in, one copy out.
void copy_twice(benchmark::State& state) {
  const std::string source(kPiece, 'x');
  std::vector<char> between(4 << 20);
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
  const std::string source(piece, 'x');
  std::string target(piece, 0);
  weir::CBuff buffer;
  for (auto _ : state) {
    buffer.write(source.data(), piece);
    for (std::uint64_t left = piece; left > 0;) {
      unsigned char* from = nullptr;
      const std::uint64_t count = std::min(buffer.peek(&from), left);
      std::memcpy(target.data(), from, count);
      buffer.consume(count);
      left -= count;
    }
    benchmark::DoNotOptimize(target.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * state.range(0)));
}
BENCHMARK(buffer_hand_over)->Arg(kPiece)->Arg(1316)->Arg(16);

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
