#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "model/Identifiers.h"

namespace Macsec {

// The last member number accepted per member (CKN and member identifier) on one interface. An
// MKPDU whose number is not greater than the last one accepted is a replay. Memory is bounded:
// past `capacity` members, the one heard from least recently is forgotten, but never a member that
// an actor still holds as a peer (those are bounded by the peers' lifetimes), so that no old
// number of a peer is ever accepted again.
class ReplayGuard {
 public:
  // Whether an actor holds the member with this CKN and member identifier as a peer.
  using Held = std::function<bool(const Ckn& ckn, const MemberId& member)>;

  explicit ReplayGuard(size_t capacity = 256) : capacity_(capacity) {}

  // Whether a message may be accepted; remembers its number if it is.
  bool accept(const Ckn& ckn, const MemberId& member, uint32_t number, const Held& held = {}) {
    ++clock_;
    if (Entry* entry = find(ckn, member)) {
      if (number <= entry->number) return false;
      entry->number = number;
      entry->heard = clock_;
      return true;
    }
    if (entries_.size() >= capacity_) forgetOldest(held);
    entries_.emplace_back(ckn, member, number, clock_);
    return true;
  }
  size_t size() const noexcept { return entries_.size(); }

 private:
  // An interface hears a handful of members, so a short array searched by member identifier, the
  // name that differs, costs less than a hash table: one block of memory, and no hashing of names.
  // The member identifier and the numbers lead, so that passing over another member reads one
  // cache line of its entry.
  struct Entry {
    Entry(const Ckn& c, const MemberId& m, uint32_t n, uint64_t h) : member(m), number(n), heard(h), ckn(c) {}
    MemberId member;
    uint32_t number;
    uint64_t heard;
    Ckn ckn;
  };
  Entry* find(const Ckn& ckn, const MemberId& member) {
    for (Entry& entry : entries_) {
      if (entry.member == member && entry.ckn == ckn) return &entry;
    }
    return nullptr;
  }
  void forgetOldest(const Held& held) {
    auto oldest = entries_.end();
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      if (held && held(it->ckn, it->member)) continue;
      if (oldest == entries_.end() || it->heard < oldest->heard) oldest = it;
    }
    if (oldest == entries_.end()) return;
    if (oldest != entries_.end() - 1) *oldest = std::move(entries_.back());
    entries_.pop_back();
  }

  size_t capacity_;
  uint64_t clock_ = 0;
  std::vector<Entry> entries_;
};

}  // namespace Macsec
