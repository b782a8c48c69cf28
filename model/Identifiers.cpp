#include "model/Identifiers.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ostream>

namespace Macsec {

namespace detail {

void hexInto(const uint8_t* data, size_t size, char* text) noexcept {
  // Both digits of an octet from one table.
  static constexpr auto kPairs = [] {
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<std::array<char, 2>, 256> pairs{};
    for (size_t octet = 0; octet < pairs.size(); ++octet) pairs[octet] = {kDigits[octet >> 4], kDigits[octet & 0xf]};
    return pairs;
  }();
  for (size_t i = 0; i < size; ++i) std::memcpy(text + 2 * i, kPairs[data[i]].data(), 2);
}

bool octetsFromHex(std::string_view text, uint8_t* out, size_t size) noexcept {
  if (text.size() != 2 * size) return false;
  auto digit = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  if (!std::all_of(text.begin(), text.end(), [&](char c) { return digit(c) >= 0; })) return false;
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<uint8_t>(digit(text[2 * i]) << 4 | digit(text[2 * i + 1]));
  return true;
}

}  // namespace detail

Ckn Ckn::fromHex(std::string_view text) noexcept {
  Ckn ckn;
  if (text.empty() || text.size() > 2 * kLongest || !detail::octetsFromHex(text, ckn.octets_.data(), text.size() / 2)) {
    return Ckn();
  }
  ckn.size_ = static_cast<uint8_t>(text.size() / 2);
  return ckn;
}

Zef::String Ckn::hex() const {
  char text[2 * kLongest];
  detail::hexInto(data(), size_, text);
  return Zef::String(text, 2 * size_);
}

std::strong_ordering Ckn::operator<=>(const Ckn& other) const noexcept {
  return std::lexicographical_compare_three_way(data(), data() + size_, other.data(), other.data() + other.size_);
}

std::ostream& operator<<(std::ostream& out, const Ckn& ckn) {
  char text[2 * Ckn::kLongest];
  detail::hexInto(ckn.data(), ckn.size(), text);
  return out.write(text, static_cast<std::streamsize>(2 * ckn.size()));
}

EapSessionId EapSessionId::fromHex(std::string_view text) {
  if (text.size() > 2 * kLongest) return EapSessionId();
  EapSessionId id;
  id.octets_.resize(text.size() / 2);
  if (!detail::octetsFromHex(text, id.octets_.data(), id.octets_.size())) return EapSessionId();
  return id;
}

std::ostream& operator<<(std::ostream& out, const EapSessionId& id) {
  char text[2 * EapSessionId::kLongest];
  detail::hexInto(id.data(), id.size(), text);
  return out.write(text, static_cast<std::streamsize>(2 * id.size()));
}

}  // namespace Macsec
