#pragma once

// What an agent keeps to carry the MKPDUs of each interface, found by one lookup per frame: the
// actors that take the interface's messages, each for its CKN, with the keys its frames are checked
// and sealed with; while the interface is in MKA operation, the access point its frames come in and
// go out on; its row of the MKPDU counters; and the member numbers accepted on it. A lookup costs
// the same among four interfaces as among four thousand.

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "model/DecodedMkpdu.h"
#include "model/MessageCounterData.h"
#include "model/PreparedKeys.h"
#include "model/ReplayGuard.h"
#include "model/Values.h"
#include "platform/IntfId.h"
#include "platform/PacketAccess.h"
#include "platform/String.h"

namespace Macsec {

struct MessageReceiver {
  // Who registered it: only its owner removes it.
  const void* owner = nullptr;
  // Handles a message received on the interface for the CKN, fully, before it returns.
  std::function<void(const DecodedMkpdu& message)> receive;
  // Called as soon as a frame names the receiver, before the frame is checked: the receiver asks
  // for the records it will read, which come while the frame's integrity check runs.
  std::function<void()> prefetch;
  std::shared_ptr<PreparedKeys> keys;
  // The cipher suite of the actor's interface, which sizes the keys the actor is sent; none when
  // the interface has no status.
  std::optional<CipherSuite> cipherSuite;
};

class MkpduInterface {
 public:
  explicit MkpduInterface(const Lanx::IntfId& intfId) : intfId_(intfId) {}
  MkpduInterface(const MkpduInterface&) = delete;
  MkpduInterface& operator=(const MkpduInterface&) = delete;

  const Lanx::IntfId& intfId() const noexcept { return intfId_; }

  // The receiver of a CKN on this interface; null if there is none. Valid until the interface's
  // receivers change.
  const MessageReceiver* receiver(const Ckn& ckn) const noexcept {
    const Entry* entry = entryOf(ckn);
    return entry ? &entry->receiver : nullptr;
  }

  // The access point, while the interface is in MKA operation; the hold on its row of the MKPDU
  // counters, taken on first count; the member numbers accepted on it.
  Zef::Ptr<Lanx::Pam> pam;
  Memtab::RowHold counterRow;
  ReplayGuard replay;

 private:
  friend class MkpduInterfaces;
  struct Entry {
    Ckn ckn;
    MessageReceiver receiver;
  };
  // An interface has an actor or two (a primary and a fallback key): they are kept in the record,
  // where finding one reads no other block; more wait in a list of their own.
  static constexpr size_t kInPlace = 2;

  Entry* entryOf(const Ckn& ckn) noexcept {
    return const_cast<Entry*>(static_cast<const MkpduInterface*>(this)->entryOf(ckn));
  }
  const Entry* entryOf(const Ckn& ckn) const noexcept {
    for (size_t i = 0; i < inPlace_; ++i) {
      if (receivers_[i].ckn == ckn) return &receivers_[i];
    }
    for (const Entry& entry : more_) {
      if (entry.ckn == ckn) return &entry;
    }
    return nullptr;
  }
  void entryIs(const Ckn& ckn, MessageReceiver receiver) {
    if (Entry* entry = entryOf(ckn)) {
      entry->receiver = std::move(receiver);
    } else if (inPlace_ < kInPlace) {
      receivers_[inPlace_++] = Entry{ckn, std::move(receiver)};
    } else {
      more_.push_back(Entry{ckn, std::move(receiver)});
    }
  }
  // Removes an entry; the last one, from the list if there is one, takes its place.
  void entryDel(Entry* entry) {
    Entry& last = more_.empty() ? receivers_[inPlace_ - 1] : more_.back();
    if (entry != &last) *entry = std::move(last);
    if (more_.empty()) {
      receivers_[--inPlace_] = Entry();
    } else {
      more_.pop_back();
    }
  }
  bool hasReceivers() const noexcept { return inPlace_ > 0; }

  Lanx::IntfId intfId_;
  uint8_t inPlace_ = 0;
  std::array<Entry, kInPlace> receivers_;
  std::vector<Entry> more_;
};

class MkpduInterfaces {
 public:
  // The record of an interface; null if it has none.
  MkpduInterface* find(const Lanx::IntfId& intfId) const noexcept {
    const size_t index = indexOf(intfId, hashOf(intfId));
    return index == kNone ? nullptr : slots_[index].record.get();
  }

  // The record of an interface, made if it has none. It stays as long as the interface is in MKA
  // operation or has receivers, and an actor may hold it for as long as it sends.
  const std::shared_ptr<MkpduInterface>& interfaceOf(const Lanx::IntfId& intfId) {
    const uint64_t hash = hashOf(intfId);
    const size_t index = indexOf(intfId, hash);
    if (index != kNone) return slots_[index].record;
    if (2 * (size_ + 1) > slots_.size()) grow();
    ++size_;
    return slots_[place(Slot{hash, std::make_shared<MkpduInterface>(intfId)})].record;
  }

  // Makes `receiver` the one of a CKN on an interface, in place of any before it; the interface's
  // record, which the receiver's owner holds to send.
  std::shared_ptr<MkpduInterface> receiverIs(const Lanx::IntfId& intfId, const Ckn& ckn, MessageReceiver receiver) {
    const std::shared_ptr<MkpduInterface>& record = interfaceOf(intfId);
    record->entryIs(ckn, std::move(receiver));
    return record;
  }

  // Removes the receiver of a CKN on an interface if `owner` registered it.
  void receiverDel(const Lanx::IntfId& intfId, const Ckn& ckn, const void* owner) {
    MkpduInterface* record = find(intfId);
    MkpduInterface::Entry* entry = record ? record->entryOf(ckn) : nullptr;
    if (entry == nullptr || entry->receiver.owner != owner) return;
    record->entryDel(entry);
    dropIfUnused(intfId);
  }

  // The receiver of a CKN on an interface; null if there is none.
  const MessageReceiver* receiver(const Lanx::IntfId& intfId, const Ckn& ckn) const noexcept {
    const MkpduInterface* record = find(intfId);
    return record ? record->receiver(ckn) : nullptr;
  }

  // The interface leaves MKA operation: it has no access point any more, and the numbers accepted
  // on it are forgotten.
  void interfaceClosed(const Lanx::IntfId& intfId) {
    MkpduInterface* record = find(intfId);
    if (record == nullptr) return;
    record->pam = nullptr;
    record->counterRow = Memtab::RowHold();
    record->replay = ReplayGuard();
    dropIfUnused(intfId);
  }

  size_t size() const noexcept { return size_; }

 private:
  // Open addressing with linear probing in a flat array that is at most half full: a slot carries
  // its record's hash, so a lookup reads one slot and the one record that matches.
  struct Slot {
    uint64_t hash = 0;
    std::shared_ptr<MkpduInterface> record;
  };
  static constexpr size_t kNone = ~size_t{0};

  static uint64_t hashOf(const Lanx::IntfId& intfId) noexcept { return Zef::hashMix(intfId.hash()); }
  size_t mask() const noexcept { return slots_.size() - 1; }
  size_t indexOf(const Lanx::IntfId& intfId, uint64_t hash) const noexcept {
    if (slots_.empty()) return kNone;
    for (size_t i = hash & mask();; i = (i + 1) & mask()) {
      const Slot& slot = slots_[i];
      if (!slot.record) return kNone;
      if (slot.hash == hash && slot.record->intfId() == intfId) return i;
    }
  }
  size_t place(Slot slot) {
    size_t i = slot.hash & mask();
    while (slots_[i].record) i = (i + 1) & mask();
    slots_[i] = std::move(slot);
    return i;
  }
  void grow() {
    std::vector<Slot> old = std::exchange(slots_, std::vector<Slot>(slots_.empty() ? 16 : 2 * slots_.size()));
    for (Slot& slot : old) {
      if (slot.record) place(std::move(slot));
    }
  }
  // A record with neither an access point nor receivers goes.
  void dropIfUnused(const Lanx::IntfId& intfId) {
    const size_t index = indexOf(intfId, hashOf(intfId));
    if (index == kNone || slots_[index].record->pam || slots_[index].record->hasReceivers()) return;
    erase(index);
    --size_;
  }
  // Empties a slot and moves back each later record of its run that would otherwise no longer be
  // found from its home slot.
  void erase(size_t hole) {
    slots_[hole] = Slot{};
    for (size_t i = (hole + 1) & mask(); slots_[i].record; i = (i + 1) & mask()) {
      const size_t home = slots_[i].hash & mask();
      // Whether `home` lies cyclically in (hole, i]: then the record is still reachable.
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
