#pragma once

// The keys of the actor that sends or receives an MKPDU, made ready for its frames, and the cipher
// suite of its interface, which sizes the keys its frames carry.

#include <memory>
#include <utility>

#include "model/PreparedKeys.h"
#include "model/Values.h"

namespace Macsec {

struct ActorKeys {
  ActorKeys(std::shared_ptr<PreparedKeys> keys, CipherSuite suite) : prepared(std::move(keys)), cipherSuite(suite) {}
  // Keys made ready from their stored forms for the frames of one caller.
  ActorKeys(const StoredKey& ick, const StoredKey& kek, CipherSuite suite)
      : prepared(std::make_shared<PreparedKeys>(ick, kek)), cipherSuite(suite) {}

  std::shared_ptr<PreparedKeys> prepared;
  CipherSuite cipherSuite = cipherSuiteGcmAes128;
};

}  // namespace Macsec
