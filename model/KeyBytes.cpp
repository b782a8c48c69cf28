#include "model/KeyBytes.h"

#include <openssl/crypto.h>

#include <algorithm>

namespace Macsec {

void KeyBytes::wipe() noexcept {
  if (!bytes_.empty()) OPENSSL_cleanse(bytes_.data(), bytes_.size());
}

void KeyBytes::append(const uint8_t* data, size_t size) {
  KeyBytes joined(bytes_.size() + size);
  std::copy(bytes_.begin(), bytes_.end(), joined.bytes_.begin());
  std::copy(data, data + size, joined.bytes_.begin() + static_cast<std::ptrdiff_t>(bytes_.size()));
  *this = std::move(joined);
}

bool hexToBytes(std::string_view hex, KeyBytes& out) {
  if (hex.size() % 2 != 0) return false;
  KeyBytes bytes(hex.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    int value = 0;
    for (int half = 0; half < 2; ++half) {
      const char c = hex[2 * i + half];
      int digit;
      if (c >= '0' && c <= '9') {
        digit = c - '0';
      } else if (c >= 'a' && c <= 'f') {
        digit = c - 'a' + 10;
      } else if (c >= 'A' && c <= 'F') {
        digit = c - 'A' + 10;
      } else {
        return false;
      }
      value = value << 4 | digit;
    }
    bytes.data()[i] = static_cast<uint8_t>(value);
  }
  out = std::move(bytes);
  return true;
}

Zef::String bytesToHex(const uint8_t* data, size_t size) {
  static const char* digits = "0123456789abcdef";
  // Identifiers and names fit on the stack; the text is wiped either way, since keys pass here too.
  char small[128];
  std::vector<char> large(2 * size > sizeof small ? 2 * size : 0);
  char* text = large.empty() ? small : large.data();
  for (size_t i = 0; i < size; ++i) {
    text[2 * i] = digits[data[i] >> 4];
    text[2 * i + 1] = digits[data[i] & 0xf];
  }
  Zef::String result(text, 2 * size);
  OPENSSL_cleanse(text, 2 * size);
  return result;
}

}  // namespace Macsec
