#include "mka/MkaActorSm.h"

#include "model/Crypto.h"
#include "model/LogMessages.h"
#include "platform/Clock.h"
#include "platform/Prefetch.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::MkaActorSm")

// Every handler of the actor opens with this line at level 8.
#define ACTOR_ENTRY() TRACE(8, ": Actor " << ckn() << " on " << intfId())

namespace Macsec {

namespace {

// Derives one key of the actor from its CAK, in stored form. The clear CAK and the clear result
// exist only inside this call.
using Derivation = KeyBytes (*)(const KeyBytes&, const KeyBytes&, int);

// The ICK and the KEK take the CAK's own length, whatever the cipher suite: IEEE 802.1X derives
// them from the whole CAK.
StoredKey deriveStored(Derivation derive, const StoredKey& cak, const Ckn& ckn) {
  const KeyBytes name(ckn.data(), ckn.size());
  return cak.withClear(
      [&](const KeyBytes& clear) { return StoredKey::of(derive(clear, name, static_cast<int>(clear.size() * 8))); });
}

}  // namespace

Zef::Ptr<MkaMessageInfo> MkaActorSm::txMessageInfo() const {
  return pamManager() ? pamManager()->txMessageInfo() : nullptr;
}

void MkaActorSm::handleInitialized() {
  ACTOR_ENTRY();
  // The creator has made these entries.
  intfStatusIs(status()->intfStatus(intfId()));
  portStatusIs(status()->portStatus(intfId()));
  actorStatusIs(portStatus() ? portStatus()->actorStatus(ckn()) : nullptr);
  cpStatusIs(status()->cpStatus(intfId()));

  // Only a new actor gets an identity; one rebuilt over its status keeps it. The keys go with the
  // identity, but a status brought back from a saved state holds none, and derives them again.
  const bool resumed = !actorStatus()->msgId().empty() && actorStatus()->cak().empty();
  if (actorStatus()->msgId().empty()) updateMsgId();
  if (actorStatus()->cak().empty()) {
    actorStatus()->cakIs(cak());
    actorStatus()->kekIs(deriveStored(deriveKek, cak(), ckn()));
    actorStatus()->ickIs(deriveStored(deriveIck, cak(), ckn()));
  }

  // From here on the actor takes messages, and its role follows its status.
  initializedIs(true);
  handlePrincipalActor();

  // With delay protection the first MKPDU leaves at once; otherwise after a random number
  // of whole seconds below the period, so that actors started together do not send together. A
  // member that went on after a restart speaks at once: its peers have been waiting for it.
  mkpduTimerIs(timerWheel());
  double deadline = Zef::System::currentTime();
  if (!status()->delayProtection() && !resumed) {
    const int period = static_cast<int>(status()->mkpduPeriod());
    if (period > 0) deadline += timerWheel()->randomBelow(static_cast<uint32_t>(period));
  }
  mkpduTimer()->timeMinIs(deadline);

  // Last, the codec may hand this actor the messages of its CKN on its interface, and check and
  // seal its frames with its keys, made ready once (and shared with the agent's other actors
  // that have the same keys).
  if (pamManager()) {
    const std::shared_ptr<PreparedKeys> keys =
        pamManager()->preparedKeys().keysFor(ckn(), actorStatus()->ick(), actorStatus()->kek());
    const std::optional<CipherSuite> suite = intfStatus() ? std::optional(intfStatus()->cipherSuite()) : std::nullopt;
    frameKeys_.emplace(keys, suite.value_or(cipherSuiteGcmAes128));
    mkpduInterface_ = pamManager()->interfaces().receiverIs(
        intfId(), ckn(),
        MessageReceiver{this, [this](const DecodedMkpdu& message) { handleRxMessage(message); },
                        [this] { prefetchRecords(); }, keys, suite});
  }
}

void MkaActorSm::prefetchRecords() const {
  // The lines that lead each record hold what every MKPDU reads of it.
  constexpr size_t kLine = 64;
  Zef::prefetch(this, sizeof(*this));
  Zef::prefetch(actorStatus(), 4 * kLine);
  Zef::prefetch(portStatus().ptr(), 2 * kLine);
  Zef::prefetch(intfStatus().ptr(), 2 * kLine);
  Zef::prefetch(cpStatus(), 5 * kLine);
  Zef::prefetch(cpSm().ptr(), sizeof(ControlledPortSm));
  Zef::prefetch(mkpduInterface_.get(), 3 * kLine);
}

void MkaActorSm::handlePrincipalActor() {
  if (!initialized()) return;
  ACTOR_ENTRY();
  if (actorStatus()->principal()) {
    keyServerSmIs(intfId(), ckn(), status(), timerWheel(), hwStatus());
    cpSmIs(ckn(), intfId(), status(), hwStatus(), timerWheel());
  } else {
    keyServerSmDel();
    cpSmDel();
  }
}

void MkaActorSm::handleRxMessage(const DecodedMkpdu& message) {
  ACTOR_ENTRY();
  if (!parseBasicInfo(message)) return;
  parseLivePeerInfo(message);
  parseCakDistInfo(message);
  parseSakDistInfo(message);
  parseSakUseInfo(message);
}

void MkaActorSm::handleCleanUp() {
  ACTOR_ENTRY();
  // No message reaches an actor on its way out, and its keys' contexts go with it.
  if (pamManager()) pamManager()->interfaces().receiverDel(intfId(), ckn(), this);
  frameKeys_.reset();
  mkpduInterface_.reset();
  keyServerSmDel();
  cpSmDel();
  if (mkpduTimer()) mkpduTimer()->timeMinIs(Orb::never);
  // The actor's status belongs to the port, which decides what becomes of it.
}

void MkaActorSm::updateMsgId() {
  ACTOR_ENTRY();
  const KeyBytes id = status()->replaySeed() != 0
                          ? seededBytes(status()->replaySeed(), status()->replayDrawsInc(1), MemberId::kSize)
                          : randomBytes(MemberId::kSize);
  actorStatus()->msgIdIs(MemberId(id.data()));
  TRACE(3, ": Generated msg ID is " << actorStatus()->msgId() << forActor());
  actorStatus()->msgNumIs(0);
  // A new identifier must not be one a peer already has.
  for (auto it = actorStatus()->livePeerIter(); it; ++it) {
    if (it.key() == actorStatus()->msgId()) {
      TRACE(3, ": Found a conflicting msgID in live peer list" << forActor());
      updateMsgId();
      return;
    }
  }
  for (auto it = actorStatus()->potentialPeerIter(); it; ++it) {
    if (it.key() == actorStatus()->msgId()) {
      TRACE(3, ": Found a conflicting msgID in potential peer list" << forActor());
      updateMsgId();
      return;
    }
  }
}

bool MkaActorSm::parseBasicInfo(const DecodedMkpdu& message) {
  ACTOR_ENTRY();
  const BasicInfo& base = message.baseInfo;
  const MemberId& peerId = base.msgId;

  // Our own MKPDU, looped back or from another actor of this port.
  if (base.sci == portStatus()->mySci()) {
    TRACE(3, ": Duplicate SCI detected in incoming MKPDU" << forActor());
    return false;
  }

  // The sender took our identifier: take a new one, and go on with the message.
  if (peerId == actorStatus()->msgId()) {
    TRACE(3, ": Member ID collision detected" << forActor());
    updateMsgId();
  }

  // Does the sender list us with one of our last few message numbers? The lower bound is
  // signed 64-bit so that it does not wrap while our number is still small.
  const uint32_t myMn = actorStatus()->msgNum();
  const int64_t lowest = static_cast<int64_t>(myMn) - status()->mkpduThreshold();
  auto listsMe = [&](const std::vector<std::pair<MemberId, uint32_t>>& peers) {
    for (const auto& [id, number] : peers) {
      if (id == actorStatus()->msgId() && number <= myMn && static_cast<int64_t>(number) >= lowest) return true;
    }
    return false;
  };
  bool mutual = listsMe(message.livePeers);
  if (mutual) {
    TRACE(3, ": My MN detected in peer's live peer list" << forActor());
  } else if ((mutual = listsMe(message.potentialPeers))) {
    TRACE(3, ": My MN detected in peer's potential peer list" << forActor());
  }

  const double now = Zef::System::currentTime();
  if (mutual) {
    // Mutual liveness: the sender is a live peer.
    Zef::Ptr<MkaPeer> peer = actorStatus()->livePeer(peerId);
    const bool promoted = !peer;
    if (promoted) {
      TRACE(1, ": Creating new live peer " << peerId << forActor());
      // The key server and the controlled port hear of the new peer inside this call, before its
      // record is filled in below: an MKPDU they ask for waits until it is. What the peer says of
      // its keys is on its potential record already, where the key server reads it when it picks
      // the new key's association number.
      if (const Zef::Ptr<MkaPeer> potential = actorStatus()->potentialPeer(peerId)) {
        potential->sakUseInfoIs(message.sakUseInfo);
      }
      promotingPeerIs(true);
      peer = actorStatus()->livePeerIs(peerId);
      Zef::log(MKA_SESSION_ESTABLISHED, base.sci.addr, base.sci.portId, ckn(), intfId());
    }
    peer->baseInfoIs(base);
    peer->sakUseInfoIs(message.sakUseInfo);
    peer->timeStampIs(now);
    peer->resumedIs(false);
    if (actorStatus()->potentialPeerHas(peerId)) {
      TRACE(3, ": Removing " << peerId << " from potential peer list of actor " << ckn() << " on " << intfId());
      actorStatus()->potentialPeerDel(peerId);
    }
    if (promoted) {
      promotingPeerIs(false);
      if (immediateOwed()) {
        immediateOwedIs(false);
        handleMkpduTimerExpiry(false);
      }
    }
    doUpdateKeyServer();
    doUpdateActorSuccess();
    return true;
  }

  // The sender has not heard us (lately). A live peer that stopped listing us is left to age
  // out, but what it says of its keys is news still: a key it transmits on must stay receivable.
  // One brought back from a saved state has not heard us since the restart: its message number is
  // taken, and answered at once, so that it hears itself listed with a recent number before it
  // ages us out. Anybody else is a potential peer.
  if (const Zef::Ptr<MkaPeer> live = actorStatus()->livePeer(peerId)) {
    live->sakUseInfoIs(message.sakUseInfo);
    if (live->resumed() && base.msgNum > live->baseInfo().msgNum) {
      TRACE(3, ": Resumed live peer " << peerId << " at message number " << base.msgNum << forActor());
      live->baseInfoIs(base);
      mkpduImmediateCntInc(1);
    }
    return true;
  }
  Zef::Ptr<MkaPeer> peer = actorStatus()->potentialPeer(peerId);
  if (!peer) {
    TRACE(1, ": Creating new potential peer " << peerId << forActor());
    peer = actorStatus()->potentialPeerIs(peerId);
  }
  peer->baseInfoIs(base);
  peer->sakUseInfoIs(message.sakUseInfo);
  peer->timeStampIs(now);
  return true;
}

void MkaActorSm::parseLivePeerInfo(const DecodedMkpdu& message) {
  ACTOR_ENTRY();
  // The sender's live peers are potential peers to us, known by hearsay: no SCI, no key server
  // flag, only the message number the sender reports for them.
  const double now = Zef::System::currentTime();
  for (const auto& [id, number] : message.livePeers) {
    if (id == actorStatus()->msgId()) continue;
    Zef::Ptr<MkaPeer> peer = actorStatus()->potentialPeer(id);
    if (!peer) {
      // Exact text, with no " on " before the interface: operators' tooling matches it.
      TRACE(3, ": Adding new potential peer " << id << " for actor " << ckn() << intfId());
      peer = actorStatus()->potentialPeerIs(id);
    }
    BasicInfo reduced;
    reduced.msgNum = number;
    peer->baseInfoIs(reduced);
    peer->timeStampIs(now);
  }
}

bool MkaActorSm::senderIsLive(const MemberId& peerId, const char* set, const char* caller) {
  // A sender that has just become a potential peer cannot deliver key material.
  if (actorStatus()->livePeerHas(peerId)) return true;
  ZEF_TRACE_FN(zefTraceHandle(), 3, caller,
               ": Peer " << peerId << " not in live peer list of actor " << ckn() << " on " << intfId() << ". Ignoring "
                         << set << " set.");
  return false;
}

void MkaActorSm::countKeyNotFromKeyServer() {
  if (memtabCounters()) memtabCounters()->countIn(intfId(), &Memtab::MessageCounterData::inNotKeyServer);
}

void MkaActorSm::refuseOffset(const MemberId& keyServer, uint8_t offsetCode) {
  const std::optional<uint8_t> offset = offsetOfCode(offsetCode);
  const std::string asked = !offset                         ? "code " + std::to_string(offsetCode)
                            : *offset == kNoConfidentiality ? "none (integrity only)"
                                                            : std::to_string(*offset) + " octets";
  TRACE(1, ": Refusing the SAK from peer " << keyServer << ": confidentiality offset " << asked
                                           << " not offered by the data plane" << forActor());
  if (memtabCounters()) memtabCounters()->countIn(intfId(), &Memtab::MessageCounterData::inOffsetRefused);
  Zef::log(MKA_SAK_OFFSET_REFUSED, keyServerTail(keyServer), intfId(), asked);
}

void MkaActorSm::parseCakDistInfo(const DecodedMkpdu& message) {
  ACTOR_ENTRY();
  const BasicInfo& base = message.baseInfo;
  const MemberId& peerId = base.msgId;
  if (message.cakDistInfo == CakDistInfo()) {
    TRACE(3, ": No Dist CAK set found in MKPDU from peer " << peerId << forActor());
    return;
  }
  if (!senderIsLive(peerId, "CAK dist", __PRETTY_FUNCTION__)) return;
  if (base.sci != actorStatus()->keyServer()) {
    TRACE(3, ": Received dist CAK from a peer " << peerId << " who is not a key server" << forActor());
    countKeyNotFromKeyServer();
    return;
  }
  actorStatus()->distCakIs(Cak{message.cakDistInfo.ckn, message.cakDistInfo.cak});
}

void MkaActorSm::parseSakDistInfo(const DecodedMkpdu& message) {
  ACTOR_ENTRY();
  const BasicInfo& base = message.baseInfo;
  const SakDistInfo dist = message.sakDistInfo;
  const MemberId& peerId = base.msgId;
  if (dist == SakDistInfo()) {
    TRACE(3, ": No Dist SAK set found in MKPDU from peer " << peerId << forActor());
    return;
  }
  if (!senderIsLive(peerId, "SAK dist", __PRETTY_FUNCTION__)) return;
  if (base.sci != actorStatus()->keyServer()) {
    TRACE(3, ": Received dist SAK from a peer " << peerId << " who is not a key server" << forActor());
    countKeyNotFromKeyServer();
    return;
  }
  if (dist.cipherSuite != intfStatus()->cipherSuite()) {
    TRACE(3, ": Cipher Suite mismatch from peer " << peerId << ". Ignoring dist SAK set" << forActor());
    return;
  }
  // The key is used at the key server's confidentiality offset, by every member alike, or not at
  // all: a port that encrypted at another offset than its peers would garble every frame.
  const std::optional<uint8_t> offset = offsetOfCode(dist.confidentialityOffset);
  if (!offset || !offersOffset(portStatus()->macsecCapability(), *offset)) {
    refuseOffset(peerId, dist.confidentialityOffset);
    return;
  }
  // An association number above 3 is a fault of the sender; it ends this MKPDU with the range
  // error.
  const Sak sak{AssociationNumber(dist.distributedAN), peerId, dist.keyNumber, dist.wrappedSak, {}};
  // The key server repeats its key in every MKPDU: a known key is the common case. A known key
  // that the controlled port no longer has in either slot (it gave way, or the port was someone
  // else's meanwhile) goes in again.
  // A key known by its identifier but under another association number or with other octets is
  // another key: a forged set may have taken the identifier, before the key server's set or after
  // it. The key server repeats its own set while a live peer does not report its key, so that set
  // comes last, and stays.
  // A key brought back from a saved state is known by its identifier alone: its octets are in the
  // data plane only.
  const Sak& known = actorStatus()->distSak();
  if (identicalKey(known, sak) || (known.key.empty() && sameKey(known, sak))) {
    const Zef::Ptr<CpStatus const> cp = cpStatus();
    auto holds = [&](const SakContext& slot) { return identicalKey(slot.sak, known); };
    if (!actorStatus()->principal() || !cp || holds(cp->latestSakContext()) || holds(cp->oldSakContext())) return;
    TRACE(1, ": Installing again the SAK from peer " << peerId << forActor());
    actorStatus()->distSakIs(Sak());
  }
  // Exact text, with no space before "for": operators' tooling matches it.
  TRACE(1, ": Resetting sakTransmit"
               << "for actor " << ckn() << " on " << intfId());
  actorStatus()->sakTransmitIs(false);
  TRACE(1, ": Installing SAK from peer " << peerId << forActor());
  actorStatus()->distOffsetIs(*offset);
  actorStatus()->distSakIs(sak);
}

namespace {

// The peer's entry for the key being distributed: its latest key, else its old key, else none.
KeyInfo keyInUse(const SakUseInfo& use, const Sak& sak) {
  if (use.latestKey != KeyInfo() && sakMatch(use.latestKey, sak)) return use.latestKey;
  if (use.oldKey != KeyInfo() && sakMatch(use.oldKey, sak)) return use.oldKey;
  return KeyInfo();
}

// The live peer with an SCI, or none.
Zef::Ptr<MkaPeer const> livePeerWithSci(const MkaActorStatus& actor, const Sci& sci) {
  for (auto it = actor.livePeerIter(); it; ++it) {
    if (it->baseInfo().sci == sci) return it.ptr();
  }
  return nullptr;
}

}  // namespace

bool MkaActorSm::ownHardwareReceives(const Sak& sak) const {
  // The key may be in either slot: hardware that confirms at once moves a session's first key on
  // to the old slot before any peer reports it.
  if (!cpStatus()) return false;
  for (const SakContext& context : {cpStatus()->latestSakContext(), cpStatus()->oldSakContext()}) {
    if (sameKey(context.sak, sak)) {
      return context.rxInstalled;
    }
  }
  return false;
}

void MkaActorSm::updateSakTransmit() {
  // Nobody transmits on a key before every live peer says it receives on it: frames on a key that
  // a peer cannot decrypt yet are lost, the first key of a session included. A peer that stops
  // being live stops counting. The key server also waits for its own hardware; a follower waits
  // for its key server to transmit first, and on a shared segment for the other members as well.
  const Sak& sak = actorStatus()->distSak();
  if (sak.empty()) return;
  if (actorStatus()->electedSelf()) {
    if (actorStatus()->sakTransmit()) return;
    const bool ownKey = sak.mi == actorStatus()->msgId();
    const bool everyoneReceives = ownKey && !aLivePeerLacks(sak) && ownHardwareReceives(sak);
    TRACE(1, ": Setting sakTransmit " << everyoneReceives << forActor());
    actorStatus()->sakTransmitIs(everyoneReceives);
    return;
  }
  const Zef::Ptr<MkaPeer const> keyServer = livePeerWithSci(*actorStatus(), actorStatus()->keyServer());
  if (!keyServer) return;
  const KeyInfo announced = keyInUse(keyServer->sakUseInfo(), sak);
  if (announced == KeyInfo()) return;
  const bool transmit = announced.tx && !aLivePeerLacks(sak);
  TRACE(1, ": Setting sakTransmit:  " << transmit << forActor());
  actorStatus()->sakTransmitIs(transmit);
}

bool MkaActorSm::aLivePeerLacks(const Sak& sak) const {
  for (auto it = actorStatus()->livePeerIter(); it; ++it) {
    if (!keyInUse(it->sakUseInfo(), sak).rx) return true;
  }
  return false;
}

void MkaActorSm::parseSakUseInfo(const DecodedMkpdu& message) {
  ACTOR_ENTRY();
  const BasicInfo& base = message.baseInfo;
  const SakUseInfo use = message.sakUseInfo;
  const MemberId& peerId = base.msgId;
  // Only a live peer's SAK use set counts.
  if (use == SakUseInfo()) {
    TRACE(3, ": No SAK USE set present in MKPDU from peer " << peerId << forActor());
    return;
  }
  if (!senderIsLive(peerId, "SAK use", __PRETTY_FUNCTION__)) return;

  // A follower that stood as key server for a moment (on forged or stale news) withdrew the key it
  // had been given, or holds back one that a key server which has since given way or gone handed
  // out, while its port still receives on the key server's key. The key server sees it received
  // and will not send it again, so the key is taken back from the port once the key server says it
  // uses it.
  const bool fromKeyServer = base.keyServer && base.sci == actorStatus()->keyServer() && !actorStatus()->electedSelf();
  const bool lacksKeyServersKey = actorStatus()->distSak().empty() || actorStatus()->distSak().mi != peerId;
  if (fromKeyServer && lacksKeyServersKey && actorStatus()->principal() && cpStatus()) {
    const SakContext& held = cpStatus()->latestSakContext();
    if (held.rxInstalled && held.sak.mi == peerId && keyInUse(use, held.sak) != KeyInfo()) {
      TRACE(1,
            ": Taking back the latest key " << held.sak.mi << ":" << held.sak.keyNum << " from the port" << forActor());
      actorStatus()->distSakIs(held.sak);
    }
  }

  // Whether this actor may transmit on its key now: what the key server says, and what every live
  // peer receives.
  updateSakTransmit();

  // Lowest acceptable packet numbers follow the last sender.
  if (use.delayProtect) {
    actorStatus()->keysLPNIs(KeysLPN{use.oldKey.lpn, use.latestKey.lpn});
  } else {
    actorStatus()->keysLPNIs(KeysLPN());
  }

  // A peer's packet numbers running out on the key in distribution ask the key server for a new
  // key at once. A worn key already replaced asks no more: the peer reports it until the new one is
  // in service, and a key at each of those reports would never let one get there.
  const uint64_t exhaustion = packetNumberExhaustion(intfStatus()->cipherSuite());
  const Sak& current = actorStatus()->distSak();
  const auto worn = [&](const KeyInfo& key) { return key.lpn >= exhaustion && sakMatch(key, current); };
  if (actorStatus()->electedSelf() && (worn(use.latestKey) || worn(use.oldKey))) {
    TRACE(1, ": LLPN exhaustion detected" << forActor());
    actorStatus()->llpnExhaustionInc(1);
  }
}

void MkaActorSm::checkOwnPacketNumbers() {
  // The key server's own transmit SA running out asks for a new key as a peer's does, once.
  if (!actorStatus()->electedSelf() || !actorStatus()->principal() || !cpStatus()) return;
  const uint64_t exhaustion = packetNumberExhaustion(intfStatus()->cipherSuite());
  for (const SakContext& slot : {cpStatus()->latestSakContext(), cpStatus()->oldSakContext()}) {
    if (slot.txInstalled && slot.txSaValue >= exhaustion && sameKey(slot.sak, actorStatus()->distSak())) {
      TRACE(1, ": Own packet number exhaustion detected" << forActor());
      actorStatus()->llpnExhaustionInc(1);
      return;
    }
  }
}

uint8_t MkaActorSm::getKeyServerPriority() const {
  switch (intfStatus()->dot1xType()) {
    case Dot1x::dot1xTypePreSharedKey:
      return intfStatus()->keyServerPriority();
    case Dot1x::dot1xTypeAuthenticator:
      return 16;
    default:
      return 255;
  }
}

namespace {

enum class Better { first, second, neither };

// The better of two key server candidates, by what they say of themselves: lower priority, then
// the lower SCI (address, then port number); neither when the two cannot be told apart.
Better betterKeyServer(const BasicInfo& a, const BasicInfo& b) {
  ZEF_TRACE_FN(zefTraceHandle(), 8,
               "Macsec::MkaPeer::Ptr Macsec::electKeyServer(Macsec::MkaPeer::Ptr, Macsec::MkaPeer::Ptr)", "");
  if (a.keyServerPriority != b.keyServerPriority) {
    return a.keyServerPriority < b.keyServerPriority ? Better::first : Better::second;
  }
  if (a.sci == b.sci) return Better::neither;
  return a.sci < b.sci ? Better::first : Better::second;
}

}  // namespace

// The better of two peers as key server; null when the two cannot be told apart.
Zef::Ptr<MkaPeer> electKeyServer(const Zef::Ptr<MkaPeer>& a, const Zef::Ptr<MkaPeer>& b) {
  switch (betterKeyServer(a->baseInfo(), b->baseInfo())) {
    case Better::first:
      return a;
    case Better::second:
      return b;
    case Better::neither:
      break;
  }
  return nullptr;
}

void MkaActorSm::doUpdateKeyServer() {
  ACTOR_ENTRY();
  // The best live peer that offers itself. A tie forgets both, and the next candidate starts
  // afresh.
  Zef::Ptr<MkaPeer> best;
  for (auto it = actorStatus()->livePeerIter(); it; ++it) {
    if (!it->baseInfo().keyServer) continue;
    best = best ? electKeyServer(it.ptr(), best) : it.ptr();
  }

  // Ourselves as a candidate, as our MKPDUs present us. A supplicant of an EAP exchange never
  // stands.
  bool electedSelf = false;
  const Dot1x::Dot1xType type = intfStatus()->dot1xType();
  if (type == Dot1x::dot1xTypePreSharedKey || type == Dot1x::dot1xTypeAuthenticator) {
    BasicInfo self;
    self.keyServerPriority = getKeyServerPriority();
    self.sci = portStatus()->mySci();
    const Better choice = best ? betterKeyServer(self, best->baseInfo()) : Better::first;
    electedSelf = choice == Better::first;
    if (choice == Better::neither) best = nullptr;
  }

  // electedSelf is written first: the key server's handler must still see the previous keyServer.
  actorStatus()->electedSelfIs(electedSelf);
  TRACE(1, ": Elected self is: " << (electedSelf ? 1 : 0) << forActor());

  // The key server's SCI, or none.
  if (electedSelf) {
    TRACE(1, ": Elected " << actorStatus()->msgId() << " as key server" << forActor());
    actorStatus()->keyServerIs(portStatus()->mySci());
  } else if (best) {
    TRACE(1, ": Elected " << best->id() << " as key server" << forActor());
    actorStatus()->keyServerIs(best->baseInfo().sci);
  } else {
    TRACE(1, ": Unable to elect key server" << forActor());
    actorStatus()->keyServerIs(Sci());
  }
}

void MkaActorSm::doUpdateActorSuccess() {
  ACTOR_ENTRY();
  const bool up = actorStatus()->livePeerSize() > 0 && !actorStatus()->keyServer().isZero();
  if (up) {
    if (actorStatus()->success()) return;
    TRACE(3, ": Marking actor " << ckn() << " SUCCESS"
                                << " on " << intfId());
    Zef::log(MKA_STATE_CHG, ckn(), "UP", intfId());
    actorStatus()->successIs(true);
    return;
  }
  // Guarded by success: an actor that was never up keeps what its last election gave it.
  if (!actorStatus()->success()) return;
  TRACE(3, ": Marking actor " << ckn() << " FAILED"
                              << " on " << intfId());
  Zef::log(MKA_STATE_CHG, ckn(), "DOWN", intfId());
  actorStatus()->successIs(false);
  actorStatus()->electedSelfIs(false);
  actorStatus()->keyServerIs(Sci());
}

void MkaActorSm::handlePeerReview() {
  if (!initialized()) return;
  ACTOR_ENTRY();
  const double now = Zef::System::currentTime();
  const double lifeTime = status()->mkaLifeTime();
  // A time stamp at or ahead of now is never aged.
  auto aged = [&](const MkaPeer& peer) { return now > peer.timeStamp() && now - peer.timeStamp() > lifeTime; };
  for (auto it = actorStatus()->potentialPeerIter(); it; ++it) {
    if (!aged(*it.ptr())) continue;
    TRACE(1, ": Peer " << it.key() << " aged out from potential peer list" << forActor());
    actorStatus()->potentialPeerDel(it.key());
  }
  for (auto it = actorStatus()->livePeerIter(); it; ++it) {
    if (!aged(*it.ptr())) continue;
    TRACE(1, ": Peer " << it.key() << " aged out from live peer list" << forActor());
    // Another member may hold it live a little longer, and it may still transmit on a key until
    // then: what it last said of its keys stays one more life time, as a potential peer, where a
    // key server picking a new key's association number reads it.
    const Zef::Ptr<MkaPeer> last = actorStatus()->potentialPeerIs(it.key());
    last->baseInfoIs(it->baseInfo());
    last->sakUseInfoIs(it->sakUseInfo());
    last->timeStampIs(now);
    actorStatus()->livePeerDel(it.key());
  }
  doUpdateActorSuccess();
  // The peers that went may have been the last ones that lacked the key.
  updateSakTransmit();
}

namespace {

KeyInfo keyInfoOf(const SakContext& context) {
  return KeyInfo{context.sak.an, context.txInstalled, context.rxInstalled,
                 context.sak.mi, context.sak.keyNum,  context.txSaValue};
}

// The key a port transmits on, told as one that the actor does not speak for as received.
KeyInfo transmitOnly(const Sak& transmitting) {
  if (transmitting.empty()) return KeyInfo();
  return KeyInfo{transmitting.an, true, false, transmitting.mi, transmitting.keyNum, 0};
}

// The last message number of a member identifier: past it, the actor takes a new identity.
constexpr uint32_t kLastMsgNum = 0xFFFFFFFFu;

}  // namespace

void MkaActorSm::handleMkpduTimerExpiry(bool timerExpiry) {
  // Only the periodic run ages peers; it does so before anything is read for the MKPDU.
  if (!initialized()) return;
  ACTOR_ENTRY();
  if (!timerExpiry && promotingPeer()) {
    immediateOwedIs(true);
    return;
  }
  prefetchRecords();
  if (timerExpiry) handlePeerReview();

  // The message is built in place, in the one outgoing message of the agent.
  const Zef::Ptr<MkaMessageInfo> tx = txMessageInfo();
  OutgoingMkpdu& out = tx->outgoing();
  DecodedMkpdu& message = out.message;
  out.intfId = intfId();

  // Until a key server is known, an actor that may stand offers itself.
  const Dot1x::Dot1xType type = intfStatus()->dot1xType();
  BasicInfo& base = message.baseInfo;
  base = BasicInfo();
  base.keyServerPriority = getKeyServerPriority();
  base.keyServer = actorStatus()->keyServer().isZero()
                       ? (type == Dot1x::dot1xTypePreSharedKey || type == Dot1x::dot1xTypeAuthenticator)
                       : actorStatus()->electedSelf();
  base.macsecDesired = actorStatus()->macsecDesired();
  const CipherSuite cipher = intfStatus()->cipherSuite();
  base.macsecCapability = keyBitsOf(cipher) > 0 ? portStatus()->macsecCapability() : macsecIntegrityOnly;
  base.sci = portStatus()->mySci();
  if (actorStatus()->msgNum() == kLastMsgNum) updateMsgId();
  base.msgId = actorStatus()->msgId();
  base.msgNum = actorStatus()->msgNumInc(1);
  base.ckn = ckn();

  // Every peer once, with the last message number heard from it: a live peer that another peer
  // also reports (and so is potential by hearsay too) goes in the live list only.
  message.livePeers.clear();
  message.potentialPeers.clear();
  for (auto it = actorStatus()->livePeerIter(); it; ++it) {
    message.livePeers.emplace_back(it.key(), it->baseInfo().msgNum);
  }
  for (auto it = actorStatus()->potentialPeerIter(); it; ++it) {
    if (!actorStatus()->livePeerHas(it.key())) message.potentialPeers.emplace_back(it.key(), it->baseInfo().msgNum);
  }

  // The key server repeats its key until everybody transmits on it, and for as long as a live
  // peer does not say it receives on it (one that went away for a moment, or that was a key
  // server itself meanwhile, may have missed it). Only a key it made: one it inherited from the
  // former key server would reach the peers under this member's identifier, as another key on
  // the same number. A key brought back from a saved state has no octets to give; the key server
  // replaces it.
  const Sak& sak = actorStatus()->distSak();
  if (actorStatus()->electedSelf() && actorStatus()->principal() && !sak.empty() && !sak.key.empty() &&
      sak.mi == actorStatus()->msgId() && (!actorStatus()->sakTransmit() || aLivePeerLacks(sak))) {
    message.sakDistInfo = SakDistInfo{sak.an, offsetCodeOf(actorStatus()->distOffset()), sak.keyNum, cipher, sak.key};
  } else {
    message.sakDistInfo = SakDistInfo();
  }

  // What the hardware has confirmed, not what was asked of it; read in place. The port's keys are
  // its principal actor's to tell, and only to live peers: another actor (one of another key, or a
  // follower live again that has yet to be given the key), or one alone, says it receives on none,
  // so that its key server gives it the key. Each says which key the port transmits on, even one
  // that a rebuilt controlled port keeps in neither slot, so that no key server hands out a key
  // on that number, and no peer stops receiving on it, while the port's frames go out under it.
  const Zef::Ptr<CpStatus const> cp = cpStatus();
  const SakContext none;
  const SakContext& latest = cp ? cp->latestSakContext() : none;
  const SakContext& old = cp ? cp->oldSakContext() : none;
  const Sak transmitting = cp ? cp->txSak() : Sak();
  if (actorStatus()->livePeerSize() == 0 || !actorStatus()->principal()) {
    message.sakUseInfo = SakUseInfo{transmitOnly(transmitting), KeyInfo(), false, false, false};
  } else {
    const KeyInfo outside = sameKey(latest.sak, transmitting) ? KeyInfo() : transmitOnly(transmitting);
    const KeyInfo oldKey = old == none ? outside : keyInfoOf(old);
    const bool nothing = latest == none && oldKey == KeyInfo();
    message.sakUseInfo =
        nothing ? SakUseInfo() : SakUseInfo{keyInfoOf(latest), oldKey, false, false, status()->delayProtection()};
  }

  // The codec seals and sends the frame inside this call, with this actor's keys, on its
  // interface's record. Neither those nor the key the message carried stay in it past the call.
  if (frameKeys_) frameKeys_->cipherSuite = cipher;
  out.keys = frameKeys_ ? &*frameKeys_ : nullptr;
  out.interface = mkpduInterface_.get();
  tx->countInc(1);
  out.keys = nullptr;
  out.interface = nullptr;
  message.sakDistInfo = SakDistInfo();

  // An immediate MKPDU does not move the periodic one.
  if (timerExpiry) mkpduTimer()->timeMinIs(Zef::System::currentTime() + status()->mkpduPeriod());
}

void MkaActorSm::handleDistSak() {
  if (!initialized()) return;
  ACTOR_ENTRY();
  // The key server's new key goes out at once; a follower that just received one does not answer
  // here.
  if (!actorStatus()->distSak().empty() && actorStatus()->electedSelf()) {
    TRACE(3, ": Actor " << ckn() << " send MKPDU on " << intfId());
    mkpduImmediateCntInc(1);
  }
}

void MkaActorSm::handleLatestSakContext() {
  if (!initialized()) return;
  ACTOR_ENTRY();
  if (!actorStatus()->principal()) return;
  // The key server's own hardware may be the last to receive on its key.
  updateSakTransmit();
  // A follower tells the key server that it receives; the key server tells everybody that it
  // transmits.
  const SakContext latest = cpStatus()->latestSakContext();
  const bool electedSelf = actorStatus()->electedSelf();
  checkOwnPacketNumbers();
  if ((latest.rxInstalled && !latest.txEnabled && !electedSelf) || (latest.txInstalled && electedSelf)) {
    TRACE(3, ": Actor " << ckn() << " send MKPDU on " << intfId());
    mkpduImmediateCntInc(1);
  }
}

}  // namespace Macsec
