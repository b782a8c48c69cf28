#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace Zef {

// Text held in the object itself when it has at most N characters, and on the heap beyond: a key
// of a table's node that is told apart from others without reading memory outside the node. The
// size and the characters come first and the rarely used spill pointer last, so that a short text
// and what follows it in a record share as few cache lines as can be.
template <size_t N>
class InlineText {
 public:
  explicit InlineText(std::string_view text) { assign(text); }
  InlineText(const InlineText& other) { assign(other.view()); }
  // A text moved from is empty.
  InlineText(InlineText&& other) noexcept
      : size_(std::exchange(other.size_, 0)), inline_(other.inline_), spill_(std::move(other.spill_)) {}
  InlineText& operator=(const InlineText& other) {
    if (this != &other) assign(other.view());
    return *this;
  }
  InlineText& operator=(InlineText&& other) noexcept {
    if (this != &other) {
      size_ = std::exchange(other.size_, 0);
      inline_ = other.inline_;
      spill_ = std::move(other.spill_);
    }
    return *this;
  }

  // Told by the size, which lies next to the characters, rather than by the spill pointer.
  std::string_view view() const noexcept { return std::string_view(size_ > N ? spill_.get() : inline_.data(), size_); }

 private:
  void assign(std::string_view text) {
    size_ = static_cast<uint32_t>(text.size());
    if (text.size() > N) {
      spill_ = std::make_unique<char[]>(text.size());
      std::memcpy(spill_.get(), text.data(), text.size());
      return;
    }
    spill_.reset();
    std::memcpy(inline_.data(), text.data(), text.size());
  }

  uint32_t size_ = 0;
  std::array<char, N> inline_;
  std::unique_ptr<char[]> spill_;
};

}  // namespace Zef
