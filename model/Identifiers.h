#pragma once

// The identifiers of MKA as the octets they are: member identifiers, secure association key
// salts and connectivity association key names. They are text only where people read them: in
// configuration, traces, logs, mkactl and JSON, always as lower-case hexadecimal. They compare as
// that text does; they hash as octets.

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string_view>
#include <vector>

#include "platform/Octets.h"
#include "platform/String.h"

namespace Macsec {

namespace detail {

// Lower-case hexadecimal text of octets, without leaving it in memory: `text` holds 2 * size.
void hexInto(const uint8_t* data, size_t size, char* text) noexcept;
// Octets from 2 * size hexadecimal characters (either case); false, and nothing written, if the
// text is of another length or not hexadecimal.
bool octetsFromHex(std::string_view text, uint8_t* out, size_t size) noexcept;

}  // namespace detail

// N octets; all zero is none.
template <size_t N, class Tag>
class FixedOctets {
 public:
  static constexpr size_t kSize = N;

  FixedOctets() noexcept = default;
  explicit FixedOctets(const uint8_t* octets) noexcept { std::memcpy(octets_.data(), octets, N); }
  // None unless the text is 2N hexadecimal characters.
  static FixedOctets fromHex(std::string_view text) noexcept {
    FixedOctets value;
    if (!detail::octetsFromHex(text, value.octets_.data(), N)) return FixedOctets();
    return value;
  }

  const uint8_t* data() const noexcept { return octets_.data(); }
  uint8_t* data() noexcept { return octets_.data(); }
  static constexpr size_t size() noexcept { return N; }
  bool empty() const noexcept { return *this == FixedOctets(); }
  uint32_t hash() const noexcept { return Zef::hashBytes(octets_.data(), empty() ? 0 : N); }
  // Lower-case hexadecimal; empty for none.
  Zef::String hex() const {
    char text[2 * N];
    if (empty()) return Zef::String();
    detail::hexInto(octets_.data(), N, text);
    return Zef::String(text, sizeof text);
  }

  bool operator==(const FixedOctets& other) const noexcept { return Zef::sameOctets(octets_, other.octets_); }
  std::strong_ordering operator<=>(const FixedOctets&) const noexcept = default;

 private:
  std::array<uint8_t, N> octets_{};
};

template <size_t N, class Tag>
std::ostream& operator<<(std::ostream& out, const FixedOctets<N, Tag>& value) {
  char text[2 * N];
  if (value.empty()) return out;
  detail::hexInto(value.data(), N, text);
  return out.write(text, sizeof text);
}

// A member identifier (MI): the random 96 bits that name one participant of one session.
using MemberId = FixedOctets<12, struct MemberIdTag>;
// The 96-bit salt of a key of the extended packet number cipher suites.
using Salt = FixedOctets<12, struct SaltTag>;

// A connectivity association key name (CKN): 1 to 32 octets; none is empty.
class Ckn {
 public:
  static constexpr size_t kLongest = 32;

  Ckn() noexcept = default;
  // The first `size` octets, up to the longest a name may be.
  Ckn(const uint8_t* octets, size_t size) noexcept : size_(static_cast<uint8_t>(size < kLongest ? size : kLongest)) {
    std::memcpy(octets_.data(), octets, size_);
  }
  // None unless the text is 2 to 64 hexadecimal characters, of either case.
  static Ckn fromHex(std::string_view text) noexcept;

  const uint8_t* data() const noexcept { return octets_.data(); }
  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  uint32_t hash() const noexcept { return Zef::hashBytes(octets_.data(), size_); }
  Zef::String hex() const;

  bool operator==(const Ckn& other) const noexcept {
    return size_ == other.size_ && std::memcmp(data(), other.data(), size_) == 0;
  }
  // As the text compares: octet by octet, and a name before the longer ones it begins.
  std::strong_ordering operator<=>(const Ckn& other) const noexcept;

 private:
  uint8_t size_ = 0;
  std::array<uint8_t, kLongest> octets_{};
};
std::ostream& operator<<(std::ostream& out, const Ckn& ckn);

// An EAP session identifier: the octets by which both ends name one finished EAP exchange, up to
// 128 (EAP-TLS gives 65: its type and both randoms); none is empty. It names the key derived from
// the exchange, and arrives as octets from the exchange itself: the engine parses no text for it.
class EapSessionId {
 public:
  static constexpr size_t kLongest = 128;

  EapSessionId() noexcept = default;
  // The first `size` octets, up to the longest an identifier may be.
  EapSessionId(const uint8_t* octets, size_t size) : octets_(octets, octets + (size < kLongest ? size : kLongest)) {}
  // For an identifier written by hand: none unless the text is hexadecimal, two characters an octet.
  static EapSessionId fromHex(std::string_view text);

  const uint8_t* data() const noexcept { return octets_.data(); }
  size_t size() const noexcept { return octets_.size(); }
  bool empty() const noexcept { return octets_.empty(); }
  bool operator==(const EapSessionId&) const noexcept = default;

 private:
  std::vector<uint8_t> octets_;
};
std::ostream& operator<<(std::ostream& out, const EapSessionId& id);

// Identifiers written in code as their text: "0102030405060708090a0b0c"_mi, "96437a93"_ckn.
inline namespace IdentifierLiterals {
inline MemberId operator""_mi(const char* text, size_t size) { return MemberId::fromHex({text, size}); }
inline Ckn operator""_ckn(const char* text, size_t size) { return Ckn::fromHex({text, size}); }
}  // namespace IdentifierLiterals

}  // namespace Macsec
