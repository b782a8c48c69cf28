#pragma once

// Clear key octets, and the hexadecimal text that keys, CKNs and member identifiers are written in.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/String.h"

namespace Macsec {

// Bytes that are wiped when they go. Clear key octets live only in these.
class KeyBytes {
 public:
  KeyBytes() = default;
  explicit KeyBytes(size_t size) : bytes_(size) {}
  KeyBytes(const uint8_t* data, size_t size) : bytes_(data, data + size) {}
  KeyBytes(const KeyBytes&) = default;
  KeyBytes(KeyBytes&& other) noexcept : bytes_(std::move(other.bytes_)) {}
  KeyBytes& operator=(KeyBytes other) noexcept {
    wipe();
    bytes_.swap(other.bytes_);
    return *this;
  }
  ~KeyBytes() { wipe(); }

  uint8_t* data() noexcept { return bytes_.data(); }
  const uint8_t* data() const noexcept { return bytes_.data(); }
  size_t size() const noexcept { return bytes_.size(); }
  bool empty() const noexcept { return bytes_.empty(); }
  // Appending may move the octets; the old buffer is wiped first.
  void append(const uint8_t* data, size_t size);
  void append(const KeyBytes& other) { append(other.data(), other.size()); }
  // The first `size` octets (all of them if there are fewer).
  KeyBytes prefix(size_t size) const { return KeyBytes(data(), size < this->size() ? size : this->size()); }
  bool operator==(const KeyBytes& other) const noexcept { return bytes_ == other.bytes_; }

 private:
  void wipe() noexcept;
  std::vector<uint8_t> bytes_;
};

// Octets from hexadecimal text (either case). False for odd length or a non-hex character.
bool hexToBytes(std::string_view hex, KeyBytes& out);
// Lower-case hexadecimal text of octets.
Zef::String bytesToHex(const uint8_t* data, size_t size);
inline Zef::String bytesToHex(const KeyBytes& bytes) { return bytesToHex(bytes.data(), bytes.size()); }

}  // namespace Macsec
