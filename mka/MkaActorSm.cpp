#include "mka/MkaActorSm.h"

#include <cstdlib>

#include "model/CloakLib.h"
#include "model/Crypto.h"
#include "platform/Clock.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::MkaActorSm")

// Every handler of the actor opens with this line at level 8.
#define ACTOR_ENTRY() TRACE(8, ": Actor " << ckn() << " on " << intfId())

namespace Macsec {

namespace {

// Derives one key of the actor from its stored CAK and returns it in stored form. The clear CAK
// and the clear result exist only inside this call and are wiped before it returns.
using Derivation = void (*)(const uint8_t*, const uint8_t*, int, Zef::String&);

Zef::String deriveStored(Derivation derive, const Zef::String& storedCak, const Zef::String& ckn, int bits) {
  Zef::String clearCak = CloakLib::doDecodeKey(storedCak);
  Zef::String clearKey;
  derive(reinterpret_cast<const uint8_t*>(clearCak.charPtr()), reinterpret_cast<const uint8_t*>(ckn.charPtr()), bits,
         clearKey);
  Zef::String stored = CloakLib::doEncodeKey(clearKey);
  clearKey.zeroStringDataUnsafe();
  clearCak.zeroStringDataUnsafe();
  return stored;
}

}  // namespace

Zef::Ptr<MkaMessageInfo const> MkaActorSm::rxMessageInfo() const {
  return pamManager() ? Zef::Ptr<MkaMessageInfo const>(pamManager()->rxMessageInfo()) : nullptr;
}

Zef::Ptr<MkaMessageInfo> MkaActorSm::txMessageInfo() const {
  return pamManager() ? pamManager()->txMessageInfo() : nullptr;
}

void MkaActorSm::handleInitialized() {
  ACTOR_ENTRY();
  // 1. The creator has made these entries.
  intfStatusIs(status()->intfStatus(intfId()));
  portStatusIs(status()->portStatus(intfId()));
  actorStatusIs(portStatus() ? portStatus()->actorStatus(ckn()) : nullptr);
  cpStatusIs(status()->cpStatus(intfId()));

  // 2. The key length in bits.
  const int bits = static_cast<int>(intfStatus()->cipherSuite());

  // 3. Only a new actor gets an identity and keys; one rebuilt over its status keeps both.
  if (actorStatus()->msgId().empty()) {
    updateMsgId();
    actorStatus()->cakIs(cak());
    actorStatus()->kekIs(deriveStored(deriveKek, cak(), ckn(), bits));
    actorStatus()->ickIs(deriveStored(deriveIck, cak(), ckn(), bits));
  }

  // 4., 5.
  initializedIs(true);
  handlePrincipalActor();

  // 6., 7. With delay protection the first MKPDU leaves at once; otherwise after a random number
  // of whole seconds below the period, so that actors started together do not send together.
  mkpduTimerIs(timerWheel());
  double deadline = Zef::System::currentTime();
  if (!status()->delayProtection()) {
    const int period = static_cast<int>(status()->mkpduPeriod());
    if (period > 0) deadline += std::rand() % period;
  }
  mkpduTimer()->timeMinIs(deadline);
}

void MkaActorSm::handlePrincipalActor() {
  if (!initialized()) return;
  ACTOR_ENTRY();
  if (actorStatus()->principal()) {
    keyServerSmIs(intfId(), ckn(), status(), timerWheel(), timerWheel());
    cpSmIs(ckn(), intfId(), status(), hwStatus(), timerWheel());
  } else {
    keyServerSmDel();
    cpSmDel();
  }
}

void MkaActorSm::handlePamRxMessageInfo() {
  ACTOR_ENTRY();
  zef_RxMessageInfoInIs(pamManager()->rxMessageInfo());
}

void MkaActorSm::handleRxMessage() {
  // Every actor of the agent sees every MKPDU: all but the one it is for return here, silently.
  const Zef::Ptr<MkaMessageInfo const> message = rxMessageInfo();
  if (message->intfId() != intfId()) return;
  const Zef::Ptr<MkaInfo const> info = message->mkaInfo();
  if (!info || info->baseInfo().ckn != ckn()) return;
  ACTOR_ENTRY();
  if (!parseBasicInfo()) return;
  parseLivePeerInfo();
  parseCakDistInfo();
  parseSakDistInfo();
  parseSakUseInfo();
}

void MkaActorSm::handleCleanUp() {
  ACTOR_ENTRY();
  keyServerSmDel();
  cpSmDel();
  if (mkpduTimer()) mkpduTimer()->timeMinIs(Orb::never);
  // The actor's status belongs to the port, which decides what becomes of it.
}

void MkaActorSm::updateMsgId() {
  ACTOR_ENTRY();
  Zef::String id;
  randomNumberGenerator(96, id);
  actorStatus()->msgIdIs(id);
  TRACE(3, ": Generated msg ID is " << actorStatus()->msgId() << " for actor " << ckn() << " on " << intfId());
  actorStatus()->msgNumIs(0);
  // A new identifier must not be one a peer already has.
  for (auto it = actorStatus()->livePeerIter(); it; ++it) {
    if (it.key() == actorStatus()->msgId()) {
      TRACE(3, ": Found a conflicting msgID in live peer list for actor " << ckn() << " on " << intfId());
      updateMsgId();
      return;
    }
  }
  for (auto it = actorStatus()->potentialPeerIter(); it; ++it) {
    if (it.key() == actorStatus()->msgId()) {
      TRACE(3, ": Found a conflicting msgID in potential peer list for actor " << ckn() << " on " << intfId());
      updateMsgId();
      return;
    }
  }
}

bool MkaActorSm::parseBasicInfo() {
  ACTOR_ENTRY();
  return false;
}

void MkaActorSm::parseLivePeerInfo() { ACTOR_ENTRY(); }

void MkaActorSm::parseCakDistInfo() { ACTOR_ENTRY(); }

void MkaActorSm::parseSakDistInfo() { ACTOR_ENTRY(); }

void MkaActorSm::parseSakUseInfo() { ACTOR_ENTRY(); }

void MkaActorSm::handleMkpduTimerExpiry(bool periodic) {
  if (!initialized()) return;
  ACTOR_ENTRY();
  (void)periodic;
}

void MkaActorSm::handleDistSak() {
  if (!initialized()) return;
  ACTOR_ENTRY();
}

void MkaActorSm::handleLatestSakContext() {
  if (!initialized()) return;
  ACTOR_ENTRY();
}

}  // namespace Macsec
