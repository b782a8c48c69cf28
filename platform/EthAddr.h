#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/Octets.h"

namespace Lanx {

// A 48-bit Ethernet address. The default is the all-zero address. Its text form is six pairs of
// lower-case hexadecimal digits joined by ':', as in "02:00:00:0a:0b:0c".
class EthAddr {
 public:
  constexpr EthAddr() noexcept = default;
  constexpr explicit EthAddr(const std::array<uint8_t, 6>& bytes) noexcept : bytes_(bytes) {}
  // Parses the text form; also takes '-' as the separator and the dotted "0200.000a.0b0c" form.
  // Throws Zef::RangeException naming the text if it is not an address.
  static EthAddr fromText(std::string_view text);
  // The same without throwing; returns false and leaves `out` alone for bad text.
  static bool parse(std::string_view text, EthAddr& out) noexcept;

  const std::array<uint8_t, 6>& bytes() const noexcept { return bytes_; }
  const uint8_t* data() const noexcept { return bytes_.data(); }
  bool isZero() const noexcept { return Zef::sameOctets(bytes_, {}); }
  uint64_t asUint64() const noexcept;
  std::string stringValue() const;
  uint32_t hash() const noexcept;

  bool operator==(const EthAddr& other) const noexcept { return Zef::sameOctets(bytes_, other.bytes_); }
  std::strong_ordering operator<=>(const EthAddr&) const noexcept = default;

 private:
  std::array<uint8_t, 6> bytes_{};
};

std::ostream& operator<<(std::ostream& out, const EthAddr& addr);

}  // namespace Lanx
