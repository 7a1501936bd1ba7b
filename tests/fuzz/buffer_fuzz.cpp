// The buffer under a string of operations, beside a plain string. The first byte
// is the block size; then two bytes an operation: which, and how much.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "buffer/cbuff.h"
#include "support/bytes.h"

namespace {

std::uint32_t counter = 0;  // of bytes stored

void demand(bool condition) {
  if (!condition) std::abort();
}

// Stores bytes that nothing before them looks like, and remembers them.
void put(weir::CBuff& buffer, std::string& model, unsigned kind, std::uint64_t count) {
  std::span<unsigned char> room;
  if (kind == 1) room = buffer.reserve();
  if (kind == 2) room = buffer.sealAndReserve();
  if (kind != 0) count = std::min<std::uint64_t>(count, room.size());
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(++counter * 0x9E3779B9 >> 24);
  model += bytes;
  if (kind == 0) {
    demand(buffer.write(weir::test::bytes_of(bytes)));
  } else {
    std::copy(bytes.begin(), bytes.end(), room.begin());
    buffer.commit(count);
  }
}

// Takes bytes, which must be the oldest ones.
void take(weir::CBuff& buffer, std::string& model, unsigned kind, std::uint64_t count) {
  if (model.empty()) return;  // it would wait
  std::string bytes(count, '\0');
  if (kind == 3) {
    const auto there = buffer.peek();
    bytes.resize(std::min<std::uint64_t>(there.size(), count));
    std::copy_n(there.begin(), bytes.size(), bytes.begin());
    buffer.consume(bytes.size());
  } else {
    bytes.resize(buffer.read(weir::test::bytes_of(bytes)));
  }
  demand(model.starts_with(bytes));
  model.erase(0, bytes.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  weir::CBuff buffer(data[0] % 40 + 1);
  counter = 0;
  std::string model;
  for (std::size_t i = 1; i + 1 < size; i += 2) {
    const unsigned kind = data[i] % 6;
    if (kind < 3) put(buffer, model, kind, data[i + 1]);
    if (kind == 3 || kind == 4) take(buffer, model, kind, data[i + 1]);
    if (kind == 5) {
      buffer.clear();
      model.clear();
    }
    demand(buffer.fill() == model.size());
  }
  // What is left comes out whole: a byte at least or an empty block a turn.
  for (std::size_t turns = model.size() + size; turns > 0; --turns) take(buffer, model, 3, 1000);
  demand(model.empty());
  return 0;
}
