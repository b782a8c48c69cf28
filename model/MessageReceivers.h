#pragma once

// The actors of an agent as the codec finds them: for each interface and CKN, the one actor that
// takes the messages received for it and the keys its frames are checked and sealed with. A
// lookup costs the same among four actors as among four thousand.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>

#include "model/PreparedKeys.h"
#include "model/Status.h"
#include "platform/InlineText.h"
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
    const Key key = Key::of(intfId, ckn);
    for (auto [it, end] = receivers_.equal_range(key); it != end; ++it) {
      if (it->second.names(ckn)) {
        it->second.receiver = std::move(receiver);
        return;
      }
    }
    receivers_.emplace(key, Entry(ckn, std::move(receiver)));
  }
  // Removes the receiver of a CKN on an interface if `owner` registered it.
  void receiverDel(const Lanx::IntfId& intfId, const Zef::String& ckn, const void* owner) {
    for (auto [it, end] = receivers_.equal_range(Key::of(intfId, ckn)); it != end; ++it) {
      if (it->second.names(ckn) && it->second.receiver.owner == owner) {
        receivers_.erase(it);
        return;
      }
    }
  }
  // The receiver of a CKN on an interface; null if there is none. Valid until it is removed.
  const MessageReceiver* receiver(const Lanx::IntfId& intfId, const Zef::String& ckn) const {
    for (auto [it, end] = receivers_.equal_range(Key::of(intfId, ckn)); it != end; ++it) {
      if (it->second.names(ckn)) return &it->second.receiver;
    }
    return nullptr;
  }

 private:
  // An entry is found by its interface and the first characters of its CKN, and held in the
  // table's own node with the whole CKN, so that finding it reads one node.
  struct Key {
    Lanx::IntfId intfId;
    std::array<uint64_t, 2> head{};  // the CKN's first 16 characters, zero-padded
    size_t size = 0;
    bool operator==(const Key&) const noexcept = default;
    static Key of(const Lanx::IntfId& intfId, const Zef::String& ckn) noexcept {
      Key key{intfId, {}, ckn.size()};
      std::memcpy(key.head.data(), ckn.charPtr(), std::min(ckn.size(), sizeof key.head));
      return key;
    }
  };
  struct KeyHash {
    size_t operator()(const Key& key) const noexcept {
      return key.intfId.hash() ^ key.head[0] * 0x9e3779b97f4a7c15ull ^ key.head[1] * 0xc2b2ae3d27d4eb4full ^ key.size;
    }
  };
  struct Entry {
    Entry(const Zef::String& name, MessageReceiver r) : ckn(name.view()), receiver(std::move(r)) {}
    bool names(const Zef::String& other) const noexcept { return ckn.view() == other.view(); }
    Zef::InlineText<64> ckn;  // the longest CKN, 32 octets, as text, fits
    MessageReceiver receiver;
  };
  std::unordered_multimap<Key, Entry, KeyHash> receivers_;
};

}  // namespace Macsec
