#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace Zef {

// Text held in the object itself when it has at most N characters, and on the heap beyond: a key
// of a table's node that is told apart from others without reading memory outside the node.
template <size_t N>
class InlineText {
 public:
  explicit InlineText(std::string_view text) : size_(text.size()) {
    if (size_ > N) {
      spill_.assign(text);
      return;
    }
    std::memcpy(inline_.data(), text.data(), size_);
  }
  std::string_view view() const noexcept { return std::string_view(size_ > N ? spill_.data() : inline_.data(), size_); }

 private:
  size_t size_;
  std::array<char, N> inline_;
  std::string spill_;
};

}  // namespace Zef
