#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>

namespace Macsec {

// The last member number accepted per member (CKN and member identifier) on one interface. An
// MKPDU whose number is not greater than the last one accepted is a replay. Memory is bounded:
// past `capacity` members, the one heard from least recently is forgotten, but never a member that
// an actor still holds as a peer (those are bounded by the peers' lifetimes), so that no old
// number of a peer is ever accepted again.
class ReplayGuard {
 public:
  // Whether an actor holds the member with this CKN and member identifier as a peer.
  using Held = std::function<bool(const std::string& ckn, const std::string& member)>;

  explicit ReplayGuard(size_t capacity = 256) : capacity_(capacity) {}

  // Whether a message may be accepted; remembers its number if it is.
  bool accept(const std::string& ckn, const std::string& member, uint32_t number, const Held& held = {}) {
    ++clock_;
    const std::string key = ckn + '/' + member;
    auto it = last_.find(key);
    if (it != last_.end()) {
      if (number <= it->second.number) return false;
      it->second.number = number;
      it->second.heard = clock_;
      return true;
    }
    if (last_.size() >= capacity_) forgetOldest(held);
    last_.emplace(key, Entry{number, clock_, ckn, member});
    return true;
  }
  size_t size() const noexcept { return last_.size(); }

 private:
  struct Entry {
    uint32_t number;
    uint64_t heard;
    std::string ckn;
    std::string member;
  };
  void forgetOldest(const Held& held) {
    auto oldest = last_.end();
    for (auto it = last_.begin(); it != last_.end(); ++it) {
      if (held && held(it->second.ckn, it->second.member)) continue;
      if (oldest == last_.end() || it->second.heard < oldest->second.heard) oldest = it;
    }
    if (oldest != last_.end()) last_.erase(oldest);
  }

  size_t capacity_;
  uint64_t clock_ = 0;
  std::unordered_map<std::string, Entry> last_;
};

}  // namespace Macsec
