// An encrypted segment that arrives in pieces of any size and is resumed between
// some of them, beside the same bytes decrypted at one go. The first byte is the
// length of the key and whether the segment is garbage, the second goes into the
// size of a block; then two bytes a piece: its size, and whether it is what came
// with the head of a resumed answer.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "buffer/cbuff.h"
#include "support/bytes.h"
#include "upstream/connection.h"
#include "upstream/decryptor.h"
#include "upstream/segment_sink.h"

namespace {

constexpr std::size_t kMaxRead = 131071;

struct Piece {
  std::string bytes;
  bool resumed;
};

}  // namespace

namespace weir {

static void run(const std::vector<Piece>& pieces, const std::string& key, CBuff& buffer) {
  int ends[2];
  // One packet is one read.
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) std::abort();
  Connection connection{Fd(ends[0])};
  Decryptor decryptor;
  if (!decryptor.start(key)) std::abort();
  SegmentSink sink(buffer, decryptor);
  std::uint64_t received = 0;
  for (const auto& [bytes, resumed] : pieces) {
    if (resumed) {
      if (!sink.write(bytes)) std::abort();
    } else if (!bytes.empty()) {
      if (send(ends[1], bytes.data(), bytes.size(), 0) < 0) std::abort();
      if (sink.receive(connection, received) != SegmentSink::Step::kTaken) std::abort();
    }
  }
  if (!sink.finish()) std::abort();
  close(ends[1]);
}

}  // namespace weir

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2 || data[0] % 32 == 0 || size > 20) return 0;
  std::vector<Piece> pieces;
  std::size_t total = 0;
  for (std::size_t i = 2; i + 1 < size; i += 2) {
    const std::size_t length = (data[i] & 0x7FU) * 1024 + data[i + 1];
    pieces.push_back({std::string(std::min(length, kMaxRead), '\0'), (data[i] & 0x80) != 0});
    total += pieces.back().bytes.size();
  }
  const std::string key(data[0] % 32, 'k');
  std::string text = weir::test::pattern(total);
  if ((data[0] & 0x80) == 0 && total >= 16) {
    text = weir::test::encrypt(text.substr(0, total - 16), key);
  }
  text.resize(total);
  for (std::size_t at = 0; Piece & piece : pieces) {
    piece.bytes = text.substr(at, piece.bytes.size());
    at += piece.bytes.size();
  }
  weir::CBuff buffer(kMaxRead + 32 + data[1] * 64);
  weir::run(pieces, key, buffer);
  std::string got(buffer.fill(), '\0');
  if (!got.empty()) got.resize(buffer.read(weir::test::bytes_of(got)));
  if (got != weir::test::decrypt(text, key) || buffer.fill() != 0) std::abort();
  return 0;
}
