#pragma once

// Equality of short runs of octets whose length is known when compiling, as a few word loads:
// identifiers and addresses are compared on every frame, and a library call per comparison cost
// more than the comparison.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Zef {

template <size_t N>
bool sameOctets(const std::array<uint8_t, N>& a, const std::array<uint8_t, N>& b) noexcept {
  size_t at = 0;
  bool same = true;
  auto compare = [&]<class Word>(Word) {
    for (; at + sizeof(Word) <= N; at += sizeof(Word)) {
      Word x;
      Word y;
      std::memcpy(&x, a.data() + at, sizeof x);
      std::memcpy(&y, b.data() + at, sizeof y);
      same = same && x == y;
    }
  };
  compare(uint64_t{});
  compare(uint32_t{});
  compare(uint16_t{});
  compare(uint8_t{});
  return same;
}

}  // namespace Zef
