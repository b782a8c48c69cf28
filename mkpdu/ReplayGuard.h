#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace Macsec {

// The last member number accepted per member identifier (and CKN) on one interface. An MKPDU
// whose number is not greater than the last one accepted is a replay. Memory is bounded: past
// `capacity` members, the one heard from least recently is forgotten.
class ReplayGuard {
 public:
  explicit ReplayGuard(size_t capacity = 256) : capacity_(capacity) {}

  // Whether a message may be accepted; remembers its number if it is.
  bool accept(const std::string& member, uint32_t number) {
    ++clock_;
    auto it = last_.find(member);
    if (it != last_.end()) {
      if (number <= it->second.number) return false;
      it->second = {number, clock_};
      return true;
    }
    if (last_.size() >= capacity_) forgetOldest();
    last_.emplace(member, Entry{number, clock_});
    return true;
  }
  size_t size() const noexcept { return last_.size(); }

 private:
  struct Entry {
    uint32_t number;
    uint64_t heard;
  };
  void forgetOldest() {
    auto oldest = last_.begin();
    for (auto it = last_.begin(); it != last_.end(); ++it) {
      if (it->second.heard < oldest->second.heard) oldest = it;
    }
    last_.erase(oldest);
  }

  size_t capacity_;
  uint64_t clock_ = 0;
  std::unordered_map<std::string, Entry> last_;
};

}  // namespace Macsec
