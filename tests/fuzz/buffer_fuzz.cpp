// The buffer under a string of operations, beside a plain string. The first byte
// is the block size; then two bytes an operation: which, and how much.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "buffer/cbuff.h"

namespace {

void demand(bool condition) {
  if (!condition) std::abort();
}

// The buffer and what it should hold.
struct Pair {
  explicit Pair(std::uint64_t block) : buffer(block) {}

  void write(std::uint64_t count) {
    const std::string bytes = next(count);
    demand(buffer.write(bytes.data(), count) == count);
  }

  void fill_reserved(bool seal, std::uint64_t count) {
    unsigned char* out = nullptr;
    const std::uint64_t room = seal ? buffer.sealAndReserve(&out) : buffer.reserve(&out);
    demand(room > 0);
    const std::string bytes = next(std::min(room, count));
    std::copy(bytes.begin(), bytes.end(), out);
    buffer.commit(bytes.size());
  }

  void peek(std::uint64_t count) {
    if (model.empty()) return;  // it would wait
    unsigned char* from = nullptr;
    count = std::min(buffer.peek(&from), count);
    take(std::string(from, from + count));
    buffer.consume(count);
  }

  void read(std::uint64_t count) {
    if (model.empty()) return;
    std::string bytes(count, '\0');
    bytes.resize(buffer.read(bytes.data(), count));
    take(bytes);
  }

  void clear() {
    buffer.clear();
    model.clear();
  }

 private:
  std::string next(std::uint64_t count) {
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(++counter);
    model += bytes;
    return bytes;
  }

  void take(const std::string& bytes) {
    demand(model.starts_with(bytes));
    model.erase(0, bytes.size());
  }

 public:
  weir::CBuff buffer;
  std::string model;
  unsigned counter = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  Pair pair(data[0] % 40 + 1);
  for (std::size_t i = 1; i + 1 < size; i += 2) {
    const std::uint64_t count = data[i + 1];
    switch (data[i] % 6) {
      case 0:
        pair.write(count);
        break;
      case 1:
        pair.fill_reserved(false, count);
        break;
      case 2:
        pair.fill_reserved(true, count);
        break;
      case 3:
        pair.peek(count);
        break;
      case 4:
        pair.read(count);
        break;
      default:
        pair.clear();
        break;
    }
    demand(pair.buffer.fill() == pair.model.size());
  }
  // What is left comes out whole: a byte at least or an empty block a turn.
  for (std::size_t turns = pair.model.size() + size; turns > 0; --turns) pair.peek(1000);
  demand(pair.model.empty());
  return 0;
}
