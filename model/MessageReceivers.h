#pragma once

// The actors of an agent as the codec finds them: for each interface and CKN, the one actor that
// takes the messages received for it and the keys its frames are checked and sealed with. A
// lookup costs the same among four actors as among four thousand.

#include <array>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "model/PreparedKeys.h"
#include "model/Status.h"
#include "platform/IntfId.h"
#include "platform/String.h"

namespace Macsec {

struct MessageReceiver {
  // Who registered it: only its owner removes it.
  const void* owner = nullptr;
  // Handles the message in the received-message object, fully, before it returns.
  std::function<void()> receive;
  std::shared_ptr<PreparedKeys> keys;
  // The status of the actor's interface, whose cipher suite sizes the keys the actor is sent.
  Zef::Ptr<IntfStatus const> intfStatus;
};

class MessageReceivers {
 public:
  // Makes `receiver` the one of a CKN on an interface, in place of any before it.
  void receiverIs(const Lanx::IntfId& intfId, const Zef::String& ckn, MessageReceiver receiver) {
    std::vector<Entry>& entries = byIntf_[intfId];
    for (Entry& entry : entries) {
      if (entry.names(ckn)) {
        entry.receiver = std::move(receiver);
        return;
      }
    }
    entries.emplace_back(ckn, std::move(receiver));
  }
  // Removes the receiver of a CKN on an interface if `owner` registered it.
  void receiverDel(const Lanx::IntfId& intfId, const Zef::String& ckn, const void* owner) {
    const auto it = byIntf_.find(intfId);
    if (it == byIntf_.end()) return;
    std::erase_if(it->second, [&](const Entry& entry) { return entry.names(ckn) && entry.receiver.owner == owner; });
    if (it->second.empty()) byIntf_.erase(it);
  }
  // The receiver of a CKN on an interface; null if there is none. Valid until the next change.
  const MessageReceiver* receiver(const Lanx::IntfId& intfId, const Zef::String& ckn) const {
    const auto it = byIntf_.find(intfId);
    if (it == byIntf_.end()) return nullptr;
    for (const Entry& entry : it->second) {
      if (entry.names(ckn)) return &entry.receiver;
    }
    return nullptr;
  }

 private:
  // An interface has an actor for its primary key, one for its fallback key, and for a while
  // those of keys being retired: a few, found by comparing CKNs.
  // The CKN is held in the entry itself as well, so that telling the entries of an interface
  // apart reads no memory beyond them.
  struct Entry {
    static constexpr size_t kInline = 64;  // the longest CKN, 32 octets, as text
    Entry(const Zef::String& name, MessageReceiver r) : size(name.size()), ckn(name), receiver(std::move(r)) {
      if (size <= kInline) std::memcpy(text.data(), name.charPtr(), size);
    }
    bool names(const Zef::String& other) const noexcept {
      if (other.size() != size) return false;
      return size <= kInline ? std::memcmp(text.data(), other.charPtr(), size) == 0 : ckn == other;
    }
    size_t size;
    std::array<char, kInline> text{};
    Zef::String ckn;
    MessageReceiver receiver;
  };
  std::unordered_map<Lanx::IntfId, std::vector<Entry>> byIntf_;
};

}  // namespace Macsec
