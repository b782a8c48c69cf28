#pragma once

// The actors of an agent as the codec finds them: for each interface and CKN, the one actor that
// takes the messages received for it and the keys its frames are checked and sealed with. A
// lookup costs the same among four actors as among four thousand.

#include <cstddef>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "model/PreparedKeys.h"
#include "platform/IntfId.h"
#include "platform/String.h"

namespace Macsec {

struct MessageReceiver {
  // Who registered it: only its owner removes it.
  const void* owner = nullptr;
  // Handles the message in the received-message object, fully, before it returns.
  std::function<void()> receive;
  std::shared_ptr<PreparedKeys> keys;
};

class MessageReceivers {
 public:
  // Makes `receiver` the one of a CKN on an interface, in place of any before it.
  void receiverIs(const Lanx::IntfId& intfId, const Zef::String& ckn, MessageReceiver receiver) {
    std::vector<Entry>& entries = byIntf_[intfId];
    for (Entry& entry : entries) {
      if (entry.ckn == ckn) {
        entry.receiver = std::move(receiver);
        return;
      }
    }
    entries.push_back(Entry{ckn, std::move(receiver)});
  }
  // Removes the receiver of a CKN on an interface if `owner` registered it.
  void receiverDel(const Lanx::IntfId& intfId, const Zef::String& ckn, const void* owner) {
    const auto it = byIntf_.find(intfId);
    if (it == byIntf_.end()) return;
    std::erase_if(it->second, [&](const Entry& entry) { return entry.ckn == ckn && entry.receiver.owner == owner; });
    if (it->second.empty()) byIntf_.erase(it);
  }
  // The receiver of a CKN on an interface; null if there is none. Valid until the next change.
  const MessageReceiver* receiver(const Lanx::IntfId& intfId, const Zef::String& ckn) const {
    const auto it = byIntf_.find(intfId);
    if (it == byIntf_.end()) return nullptr;
    for (const Entry& entry : it->second) {
      if (entry.ckn == ckn) return &entry.receiver;
    }
    return nullptr;
  }

 private:
  // An interface has an actor for its primary key, one for its fallback key, and for a while
  // those of keys being retired: a few, found by comparing CKNs.
  struct Entry {
    Zef::String ckn;
    MessageReceiver receiver;
  };
  std::unordered_map<Lanx::IntfId, std::vector<Entry>> byIntf_;
};

}  // namespace Macsec
