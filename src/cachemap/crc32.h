#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace weir {

namespace crc32_detail {

// The CRC of each single byte: IEEE 802.3, reflected.
constexpr std::array<std::uint32_t, 256> make_table() {
  constexpr std::uint32_t kPolynomial = 0xEDB88320;
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? kPolynomial : 0);
    table[byte] = crc;
  }
  return table;
}

inline constexpr auto kTable = make_table();

}  // namespace crc32_detail

// CRC-32 as in zlib and Ethernet.
constexpr std::uint32_t crc32(std::string_view bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc = (crc >> 8) ^ crc32_detail::kTable[(crc ^ static_cast<unsigned char>(byte)) & 0xFF];
  }
  return ~crc;
}

static_assert(crc32("123456789") == 0xCBF43926);

}  // namespace weir
