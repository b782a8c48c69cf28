#pragma once

#include <bit>
#include <compare>
#include <cstdint>
#include <cstring>
#include <ostream>

namespace Lanx {

// An unsigned integer as it stands in a packet: big-endian bytes, no alignment. value() and
// valueIs() convert to and from host order.
template <class T>
class NetUInt {
 public:
  NetUInt() noexcept = default;
  explicit NetUInt(T host) noexcept { valueIs(host); }

  T value() const noexcept {
    T v;
    std::memcpy(&v, bytes_, sizeof(T));
    return toHost(v);
  }
  void valueIs(T host) noexcept {
    const T v = toHost(host);
    std::memcpy(bytes_, &v, sizeof(T));
  }
  // The number as stored, without conversion.
  T ctorValue() const noexcept {
    T v;
    std::memcpy(&v, bytes_, sizeof(T));
    return v;
  }

  bool operator==(const NetUInt& other) const noexcept { return value() == other.value(); }
  std::strong_ordering operator<=>(const NetUInt& other) const noexcept { return value() <=> other.value(); }

 private:
  static T toHost(T v) noexcept {
    if constexpr (sizeof(T) == 1 || std::endian::native == std::endian::big) {
      return v;
    } else if constexpr (sizeof(T) == 2) {
      return static_cast<T>(__builtin_bswap16(v));
    } else if constexpr (sizeof(T) == 4) {
      return __builtin_bswap32(v);
    } else {
      return __builtin_bswap64(v);
    }
  }
  unsigned char bytes_[sizeof(T)] = {};
};

using NetU8 = NetUInt<uint8_t>;
using NetU16 = NetUInt<uint16_t>;
using NetU32 = NetUInt<uint32_t>;
using NetU64 = NetUInt<uint64_t>;

template <class T>
std::ostream& operator<<(std::ostream& out, const NetUInt<T>& n) {
  return out << +n.value();
}

}  // namespace Lanx
