#pragma once

// The actors of an agent as the codec finds them: for each interface and CKN, the one actor that
// takes the messages received for it and the keys its frames are checked and sealed with. A
// lookup costs the same among four actors as among four thousand.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "model/DecodedMkpdu.h"
#include "model/PreparedKeys.h"
#include "model/Values.h"
#include "platform/IntfId.h"
#include "platform/String.h"

namespace Macsec {

struct MessageReceiver {
  // Who registered it: only its owner removes it.
  const void* owner = nullptr;
  // Handles a message received on the interface for the CKN, fully, before it returns.
  std::function<void(const DecodedMkpdu& message)> receive;
  std::shared_ptr<PreparedKeys> keys;
  // The cipher suite of the actor's interface, which sizes the keys the actor is sent; none when
  // the interface has no status.
  std::optional<CipherSuite> cipherSuite;
};

class MessageReceivers {
 public:
  // Makes `receiver` the one of a CKN on an interface, in place of any before it.
  void receiverIs(const Lanx::IntfId& intfId, const Ckn& ckn, MessageReceiver receiver) {
    const uint64_t hash = hashOf(intfId, ckn);
    if (Entry* entry = find(intfId, ckn, hash)) {
      entry->receiver = std::move(receiver);
      return;
    }
    if (2 * (size_ + 1) > slots_.size()) grow();
    place(Slot{hash, std::make_unique<Entry>(intfId, ckn, std::move(receiver))});
    ++size_;
  }
  // Removes the receiver of a CKN on an interface if `owner` registered it.
  void receiverDel(const Lanx::IntfId& intfId, const Ckn& ckn, const void* owner) {
    const uint64_t hash = hashOf(intfId, ckn);
    const size_t index = indexOf(intfId, ckn, hash);
    if (index == kNone || slots_[index].entry->receiver.owner != owner) return;
    erase(index);
    --size_;
  }
  // The receiver of a CKN on an interface; null if there is none. Valid until it is removed.
  const MessageReceiver* receiver(const Lanx::IntfId& intfId, const Ckn& ckn) const {
    const Entry* entry = find(intfId, ckn, hashOf(intfId, ckn));
    return entry ? &entry->receiver : nullptr;
  }
  size_t size() const noexcept { return size_; }

 private:
  // An entry holds the whole CKN ahead of its receiver, so that telling it apart and using it
  // read the entry's first lines and nothing else.
  struct Entry {
    Entry(const Lanx::IntfId& intf, const Ckn& name, MessageReceiver r)
        : intfId(intf), ckn(name), receiver(std::move(r)) {}
    Lanx::IntfId intfId;
    Ckn ckn;
    MessageReceiver receiver;
  };
  // Open addressing with linear probing in a flat array that is at most half full: a slot carries
  // its entry's full hash, so a lookup reads one slot and the one entry that matches.
  struct Slot {
    uint64_t hash = 0;
    std::unique_ptr<Entry> entry;
  };
  static constexpr size_t kNone = ~size_t{0};

  // The low half, which picks the slot, mixes the interface and the CKN; the high half is the
  // CKN's own hash, to tell entries apart without reading them.
  static uint64_t hashOf(const Lanx::IntfId& intfId, const Ckn& ckn) noexcept {
    const uint64_t cknHash = Zef::hashBytes(ckn.data(), ckn.size());
    return (cknHash << 32) | Zef::hashMix(intfId.hash() ^ (cknHash << 32));
  }
  size_t mask() const noexcept { return slots_.size() - 1; }
  size_t indexOf(const Lanx::IntfId& intfId, const Ckn& ckn, uint64_t hash) const noexcept {
    if (slots_.empty()) return kNone;
    for (size_t i = hash & mask();; i = (i + 1) & mask()) {
      const Slot& slot = slots_[i];
      if (!slot.entry) return kNone;
      if (slot.hash == hash && slot.entry->intfId == intfId && slot.entry->ckn == ckn) return i;
    }
  }
  Entry* find(const Lanx::IntfId& intfId, const Ckn& ckn, uint64_t hash) const noexcept {
    const size_t index = indexOf(intfId, ckn, hash);
    return index == kNone ? nullptr : slots_[index].entry.get();
  }
  void place(Slot slot) {
    size_t i = slot.hash & mask();
    while (slots_[i].entry) i = (i + 1) & mask();
    slots_[i] = std::move(slot);
  }
  void grow() {
    std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(slots_.empty() ? 16 : 2 * slots_.size()));
    for (Slot& slot : old) {
      if (slot.entry) place(std::move(slot));
    }
  }
  // Empties a slot and moves back each later entry of its run that would otherwise no longer be
  // found from its home slot.
  void erase(size_t hole) {
    slots_[hole] = Slot{};
    for (size_t i = (hole + 1) & mask(); slots_[i].entry; i = (i + 1) & mask()) {
      const size_t home = slots_[i].hash & mask();
      // Whether `home` lies cyclically in (hole, i]: then the entry is still reachable.
      const bool reachable = hole <= i ? (hole < home && home <= i) : (hole < home || home <= i);
      if (reachable) continue;
      slots_[hole] = std::move(slots_[i]);
      hole = i;
    }
  }

  std::vector<Slot> slots_;
  size_t size_ = 0;
};

}  // namespace Macsec
