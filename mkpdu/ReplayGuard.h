#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "platform/InlineText.h"

namespace Macsec {

// The last member number accepted per member (CKN and member identifier) on one interface. An
// MKPDU whose number is not greater than the last one accepted is a replay. Memory is bounded:
// past `capacity` members, the one heard from least recently is forgotten, but never a member that
// an actor still holds as a peer (those are bounded by the peers' lifetimes), so that no old
// number of a peer is ever accepted again.
class ReplayGuard {
 public:
  // Whether an actor holds the member with this CKN and member identifier as a peer.
  using Held = std::function<bool(std::string_view ckn, std::string_view member)>;

  explicit ReplayGuard(size_t capacity = 256) : capacity_(capacity) {}

  // Whether a message may be accepted; remembers its number if it is.
  bool accept(std::string_view ckn, std::string_view member, uint32_t number, const Held& held = {}) {
    ++clock_;
    auto it = last_.find(MemberView{ckn, member});
    if (it != last_.end()) {
      if (number <= it->second.number) return false;
      it->second.number = number;
      it->second.heard = clock_;
      return true;
    }
    if (last_.size() >= capacity_) forgetOldest(held);
    last_.emplace(std::piecewise_construct, std::forward_as_tuple(ckn, member), std::forward_as_tuple(number, clock_));
    return true;
  }
  size_t size() const noexcept { return last_.size(); }

 private:
  // A member is found by views of its names, so that a message already heard costs no copies.
  struct MemberView {
    std::string_view ckn;
    std::string_view member;
  };
  // The names are held in the table's own node when they fit, as those of MKPDUs do (a CKN of up
  // to 32 octets and a member identifier of 12, as text).
  struct Member {
    Member(std::string_view c, std::string_view m) : ckn(c), member(m) {}
    operator MemberView() const noexcept { return MemberView{ckn.view(), member.view()}; }
    Zef::InlineText<64> ckn;
    Zef::InlineText<24> member;
  };
  struct MemberHash {
    using is_transparent = void;
    size_t operator()(MemberView m) const noexcept {
      return std::hash<std::string_view>()(m.ckn) * 31 + std::hash<std::string_view>()(m.member);
    }
  };
  struct MemberEqual {
    using is_transparent = void;
    bool operator()(MemberView a, MemberView b) const noexcept { return a.ckn == b.ckn && a.member == b.member; }
  };
  struct Entry {
    Entry(uint32_t n, uint64_t h) : number(n), heard(h) {}
    uint32_t number;
    uint64_t heard;
  };
  void forgetOldest(const Held& held) {
    auto oldest = last_.end();
    for (auto it = last_.begin(); it != last_.end(); ++it) {
      const MemberView names = it->first;
      if (held && held(names.ckn, names.member)) continue;
      if (oldest == last_.end() || it->second.heard < oldest->second.heard) oldest = it;
    }
    if (oldest != last_.end()) last_.erase(oldest);
  }

  size_t capacity_;
  uint64_t clock_ = 0;
  std::unordered_map<Member, Entry, MemberHash, MemberEqual> last_;
};

}  // namespace Macsec
