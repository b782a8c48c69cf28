#pragma once

// An actor's integrity check key and key encrypting key made ready for its frames: an AES context
// keyed once with the ICK, with the AES-CMAC subkeys, and AES key wrap contexts keyed once with the
// KEK, so that a frame costs the cipher rather than the opening of stored keys and the setting up
// of OpenSSL. The contexts live as long as the actor that holds them and are cleansed when they go
// (the key schedules by OpenSSL, the subkeys here). The KEK's contexts are made on first use,
// since most actors neither distribute nor receive keys in most of their frames.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "model/Identifiers.h"
#include "model/KeyBytes.h"
#include "model/StoredKey.h"

namespace Macsec {

class PreparedKeys {
 public:
  static constexpr size_t icvSize = 16;

  PreparedKeys(StoredKey ick, StoredKey kek);
  ~PreparedKeys();
  PreparedKeys(const PreparedKeys&) = delete;
  PreparedKeys& operator=(const PreparedKeys&) = delete;

  // The stored forms the contexts were made from.
  const StoredKey& ick() const noexcept { return ick_; }
  const StoredKey& kek() const noexcept { return kek_; }

  // The AES-CMAC of a message under the ICK, into `icv` (icvSize octets); false if the ICK does not
  // open or has a length AES-CMAC does not take.
  bool icvOf(const uint8_t* message, size_t length, uint8_t* icv);

  // A key wrapped with the KEK (RFC 3394); empty if either does not open. Wrapping is
  // deterministic, so the wrapped form of the last key is kept for the next frame that carries it.
  KeyBytes wrapped(const StoredKey& key);

  // A key unwrapped with the KEK, in stored form; none if it does not unwrap. A key server repeats
  // its key in every MKPDU until everybody transmits on it, so the last key is kept with its
  // wrapped form for the next frame that carries it. Each caller gets a stored form of its own.
  StoredKey unwrapped(const uint8_t* wrapped, size_t length);

 private:
  struct Contexts;
  // Makes the KEK's contexts, once.
  void prepareKek();

  StoredKey ick_;
  StoredKey kek_;
  std::unique_ptr<Contexts> contexts_;
  StoredKey lastWrappedKey_;
  KeyBytes lastWrapped_;
  KeyBytes lastUnwrapped_;
  StoredKey lastUnwrappedKey_;
};

// The prepared keys of an agent's actors, one set for all actors whose ICK and KEK are the same
// (ports configured with one CAK and CKN): a switch whose ports share a key keeps one set of
// contexts, warm in the cache, rather than one per port. A set goes when its last actor does.
class SharedPreparedKeys {
 public:
  // Keys ready for an actor of a CKN with this ICK and KEK: those of another actor that has the
  // same keys, or new ones. Telling whether two stored keys are the same opens both, which is done
  // here, once per actor, and never per frame.
  std::shared_ptr<PreparedKeys> keysFor(const Ckn& ckn, const StoredKey& ick, const StoredKey& kek);

 private:
  struct CknHash {
    size_t operator()(const Ckn& ckn) const noexcept { return ckn.hash(); }
  };
  std::unordered_map<Ckn, std::vector<std::weak_ptr<PreparedKeys>>, CknHash> byCkn_;
};

}  // namespace Macsec
