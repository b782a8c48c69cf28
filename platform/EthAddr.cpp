#include "platform/EthAddr.h"

#include <ostream>

#include "platform/Exception.h"

namespace Lanx {

namespace {

int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool EthAddr::parse(std::string_view text, EthAddr& out) noexcept {
  std::string digits;
  if (text.size() == 17) {  // aa:bb:cc:dd:ee:ff or aa-bb-...
    for (size_t i = 0; i < text.size(); ++i) {
      if (i % 3 == 2) {
        if (text[i] != ':' && text[i] != '-') return false;
      } else {
        digits += text[i];
      }
    }
  } else if (text.size() == 14) {  // aabb.ccdd.eeff
    for (size_t i = 0; i < text.size(); ++i) {
      if (i % 5 == 4) {
        if (text[i] != '.') return false;
      } else {
        digits += text[i];
      }
    }
  } else {
    return false;
  }
  std::array<uint8_t, 6> bytes{};
  for (size_t i = 0; i < 6; ++i) {
    const int hi = hexDigit(digits[2 * i]);
    const int lo = hexDigit(digits[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    bytes[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  out = EthAddr(bytes);
  return true;
}

EthAddr EthAddr::fromText(std::string_view text) {
  EthAddr addr;
  if (!parse(text, addr)) Zef::throwRangeException(Zef::String("not an Ethernet address: '") + text + "'");
  return addr;
}

uint64_t EthAddr::asUint64() const noexcept {
  uint64_t v = 0;
  for (uint8_t b : bytes_) v = v << 8 | b;
  return v;
}

std::string EthAddr::stringValue() const {
  static const char* hex = "0123456789abcdef";
  std::string text;
  text.reserve(17);
  for (size_t i = 0; i < 6; ++i) {
    if (i) text += ':';
    text += hex[bytes_[i] >> 4];
    text += hex[bytes_[i] & 0xf];
  }
  return text;
}

uint32_t EthAddr::hash() const noexcept { return Zef::hashMix(asUint64()); }

std::ostream& operator<<(std::ostream& out, const EthAddr& addr) { return out << addr.stringValue(); }

}  // namespace Lanx
