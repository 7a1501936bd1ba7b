// Fuzz drivers, one for each place where bytes from outside are read. PARSER names the function
// that this build of the file calls, with the first byte of the input and the others.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "buffer/cbuff.h"
#include "cachemap/cache_map.h"
#include "playlist/chunklist.h"
#include "playlist/selection.h"
#include "server/request_line.h"
#include "support/bytes.h"
#include "upstream/body.h"
#include "upstream/connection.h"
#include "upstream/decryptor.h"
#include "upstream/response.h"
#include "upstream/segment_sink.h"

namespace weir::fuzz {

void demand(bool condition) {
  if (!condition) std::abort();
}

// The buffer beside a plain string. `kind` is the block size; then two bytes an operation:
// which, and how much.
void buffer(unsigned kind, const std::string& operations) {
  CBuff buffer(kind % 40 + 1);
  std::string model;
  std::uint32_t counter = 0;  // of bytes stored
  const auto put = [&](unsigned which, std::uint64_t count) {
    std::span<unsigned char> room;
    if (which == 1) room = buffer.reserve();
    if (which == 2) room = buffer.sealAndReserve();
    if (which != 0) count = std::min<std::uint64_t>(count, room.size());
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(++counter * 0x9E3779B9 >> 24);
    model += bytes;
    if (which == 0) return demand(buffer.write(test::bytes_of(bytes)));
    std::copy(bytes.begin(), bytes.end(), room.begin());
    buffer.commit(count);
  };
  const auto take = [&](unsigned which, std::uint64_t count) {
    if (model.empty()) return;  // it would wait
    std::string bytes(count, '\0');
    if (which == 3) {
      const auto there = buffer.peek();
      const auto taken = there.first(std::min(there.size(), count));
      bytes.assign(taken.begin(), taken.end());
      buffer.consume(bytes.size());
    } else {
      bytes.resize(buffer.read(test::bytes_of(bytes)));
    }
    demand(model.starts_with(bytes));
    model.erase(0, bytes.size());
  };
  for (size_t i = 0; i + 1 < operations.size(); i += 2) {
    const unsigned which = static_cast<unsigned char>(operations[i]) % 6;
    const auto count = static_cast<unsigned char>(operations[i + 1]);
    if (which < 3) put(which, count);
    if (which == 3 || which == 4) take(which, count);
    if (which == 5) buffer.clear(), model.clear();
    demand(buffer.fill() == model.size());
  }
  // What is left comes out whole: a byte at least or an empty block a turn.
  for (size_t turns = model.size() + operations.size(); turns > 0; --turns) take(3, 1000);
  demand(model.empty());
}

// A line an operation: "=text" sets the map, "!address" invalidates, anything else is a path to
// select a server for.
void cachemap(unsigned /*kind*/, const std::string& operations) {
  CacheMap map;
  std::istringstream lines(operations);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    const std::string rest = line.substr(line.empty() ? 0 : 1);
    if (line.starts_with('=')) {
      map.setMap(text = rest);
    } else if (line.starts_with('!')) {
      map.invalidateServer(rest);
      demand(rest.empty() || map.selectServer("/a/b") != rest);
    } else if (!line.empty()) {
      const std::string server = map.selectServer(line);
      demand(text.find(server) != text.npos && server == map.selectServer(line));
    }
  }
}

// A variant's playlist, then a master with a selection among its variants. `kind` is the speed.
void playlist(unsigned kind, const std::string& text) {
  Chunklist chunklist("");
  chunklist.parse(text);
  for (const Chunk& chunk : chunklist.chunks) {
    demand(text.find(chunk.url) != text.npos);
    demand(!chunk.key_url || text.find(*chunk.key_url) != text.npos);
  }
  auto variants = parse_master(text);
  const std::uint64_t speed = std::uint64_t{kind} << 4;
  const auto selection = choose_variant(variants, speed);
  demand(selection.has_value() != variants.empty());
  if (!selection) return;
  const std::uint64_t bandwidth = selection->variant->bandwidth;
  demand(selection->band.low == 0 || selection->band.low == bandwidth);
  for (const Variant& variant : variants)
    demand(bandwidth >> 10 <= speed || variant.bandwidth >= bandwidth);
}

// The request line and its query.
void request(unsigned /*kind*/, const std::string& text) {
  const Fd sock(test::received(text));
  const auto request = parse_request_line(readline(sock.get()));
  if (!request) return;
  for (const auto& [key, value] : request->params)
    demand(key.find('=') == key.npos && request->get_param(key) != nullptr);
  demand(request->path.size() <= text.size());
}

// A whole response, into a string or the buffer, clear or encrypted. The header block always
// ends, since one that does not costs two seconds.
void response(unsigned kind, const std::string& text) {
  Connection connection{Fd(test::received(text + "\r\n\r\n\r\n"))};
  Response response;
  if (response.read_status(connection) != Outcome::kDone) return;
  if (!response.read_headers(connection)) return;
  CBuff buffer;
  std::string document;
  Download download;
  if ((kind & 1) != 0) {
    (void)download_document(connection, response, document);
  } else {
    const std::atomic<bool> stop{false};
    Decryptor decryptor;
    const std::string key((kind >> 1) % 20, 'k');
    demand(key.empty() || decryptor.start(key));
    SegmentSink sink(buffer, decryptor);
    download = download_segment(connection, response, sink, stop);
  }
  demand(download.received <= text.size() + 6 && document.size() <= text.size() + 6);
  demand(buffer.fill() <= download.received + 16);
}

}  // namespace weir::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 0) weir::fuzz::PARSER(data[0], std::string(data + 1, data + size));
  return 0;
}
