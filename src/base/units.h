#pragma once

namespace weir {

// Bit/s as kbps: units of 1024 bit/s, rounded down if the type is integral.
template <class Number>
constexpr Number kbps(Number bits_per_second) {
  return bits_per_second / 1024;
}

}  // namespace weir
