#pragma once

// The actors of an agent as the codec finds them: for each interface and CKN, the one actor that
// takes the messages received for it and the keys its frames are checked and sealed with. A
// lookup costs the same among four actors as among four thousand.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "model/PreparedKeys.h"
#include "model/Values.h"
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
  // The cipher suite of the actor's interface, which sizes the keys the actor is sent; none when
  // the interface has no status.
  std::optional<CipherSuite> cipherSuite;
};

class MessageReceivers {
 public:
  // Makes `receiver` the one of a CKN on an interface, in place of any before it.
  void receiverIs(const Lanx::IntfId& intfId, const Zef::String& ckn, MessageReceiver receiver) {
    if (const auto it = receivers_.find(KeyView{intfId, ckn.view()}); it != receivers_.end()) {
      it->second = std::move(receiver);
      return;
    }
    receivers_.emplace(Key(intfId, ckn.view()), std::move(receiver));
  }
  // Removes the receiver of a CKN on an interface if `owner` registered it.
  void receiverDel(const Lanx::IntfId& intfId, const Zef::String& ckn, const void* owner) {
    const auto it = receivers_.find(KeyView{intfId, ckn.view()});
    if (it != receivers_.end() && it->second.owner == owner) receivers_.erase(it);
  }
  // The receiver of a CKN on an interface; null if there is none. Valid until it is removed.
  const MessageReceiver* receiver(const Lanx::IntfId& intfId, const Zef::String& ckn) const {
    const auto it = receivers_.find(KeyView{intfId, ckn.view()});
    return it == receivers_.end() ? nullptr : &it->second;
  }

 private:
  // An entry is found by views of its names, and holds the whole CKN in the table's own node, so
  // that finding it reads that node only.
  struct KeyView {
    Lanx::IntfId intfId;
    std::string_view ckn;
  };
  struct Key {
    Key(const Lanx::IntfId& intf, std::string_view name) : intfId(intf), ckn(name) {}
    operator KeyView() const noexcept { return KeyView{intfId, ckn.view()}; }
    Lanx::IntfId intfId;
    Zef::InlineText<64> ckn;  // the longest CKN, 32 octets, as text, fits
  };
  struct KeyHash {
    using is_transparent = void;
    size_t operator()(const KeyView& key) const noexcept {
      return Zef::hashMix(key.intfId.hash() ^ (uint64_t{Zef::hashBytes(key.ckn.data(), key.ckn.size())} << 32));
    }
  };
  struct KeyEqual {
    using is_transparent = void;
    bool operator()(const KeyView& a, const KeyView& b) const noexcept {
      return a.intfId == b.intfId && a.ckn == b.ckn;
    }
  };
  std::unordered_map<Key, MessageReceiver, KeyHash, KeyEqual> receivers_;
};

}  // namespace Macsec
