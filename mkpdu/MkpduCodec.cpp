#include "mkpdu/MkpduCodec.h"

#include <array>
#include <cstring>
#include <optional>

#include "model/LogMessages.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec")

namespace Macsec {

namespace {

// The column that counts a kind of refused frame.
uint64_t Memtab::MessageCounterData::*columnOf(DecodeResult result) {
  using Row = Memtab::MessageCounterData;
  switch (result) {
    case DecodeResult::accepted:
      return &Row::inMkpdus;
    case DecodeResult::tooShort:
    case DecodeResult::badBodyLength:
    case DecodeResult::badParameterSet:
    case DecodeResult::badCkn:
      return &Row::inMalformed;
    case DecodeResult::notMka:
      return &Row::inNotMka;
    case DecodeResult::badVersion:
      return &Row::inBadVersion;
    case DecodeResult::unsupported:
      return &Row::inUnsupportedAgility;
    case DecodeResult::unknownCkn:
      return &Row::inUnknownCkn;
    case DecodeResult::badIcv:
      return &Row::inBadIcv;
    case DecodeResult::badKeyWrap:
      return &Row::inBadKeyWrap;
    case DecodeResult::replayed:
      return &Row::inReplayed;
  }
  return &Row::inMalformed;
}

}  // namespace

void MkpduCodec::count(MkpduInterface& intf, uint64_t Memtab::MessageCounterData::*column) {
  if (counters()) counters()->countIn(intf.intfId(), intf.counterRow, column);
}

void MkpduCodec::handleInitialized() {
  TRACE(8, "");
  initializedIs(true);
  txMessageIs(pamManager()->txMessageInfo());
  for (auto it = pamManager()->mkaIntfIter(); it; ++it) handleMkaIntf(it.key());
}

void MkpduCodec::handleMkaIntf(const Lanx::IntfId& intfId) {
  if (!initialized()) return;
  TRACE(8, ": intf " << intfId);
  if (pamManager()->mkaIntfHas(intfId)) {
    // An access point for the interface, watched for frames.
    const Zef::Ptr<Lanx::Pam> pam = pamCollection()->pamIs(intfId);
    pamIs(intfId, pam);
    pamManager()->interfaces().interfaceOf(intfId)->pam = pam;
    return;
  }
  pamDel(intfId);
  pamCollection()->pamDel(intfId);
  pamManager()->interfaces().interfaceClosed(intfId);
}

void MkpduCodec::ZefPam::handleReadable() {
  MkpduCodec* codec = owner();
  if (codec == nullptr) return;
  const Zef::Ptr<Lanx::Pkt> pkt = notifier()->rxPkt();
  if (!pkt) {
    TRACE(3, ": Error receiving packet");
    return;
  }
  MkpduInterface& intf = *codec->pamManager()->interfaces().interfaceOf(key());
  if (pkt->contiguous()) {
    codec->receive(intf, pkt->data(), pkt->size());
    return;
  }
  const std::string frame = pkt->bytes();
  codec->receive(intf, reinterpret_cast<const uint8_t*>(frame.data()), frame.size());
}

bool MkpduCodec::frameIs(const Lanx::IntfId& intfId, const uint8_t* frame, size_t length) {
  MkpduInterface* intf = pamManager()->interfaces().find(intfId);
  if (intf == nullptr || !intf->pam) return false;
  receive(*intf, frame, length);
  return true;
}

std::optional<ActorKeys> MkpduCodec::actorKeys(const Lanx::IntfId& intfId, const Ckn& ckn,
                                               const MessageReceiver* receiver) const {
  // A running actor holds its keys ready.
  if (receiver != nullptr && receiver->cipherSuite) return ActorKeys{receiver->keys, *receiver->cipherSuite};
  // A status without its actor (a device on its way down or up) has its stored keys opened for
  // this frame.
  const Zef::Ptr<IntfStatus const> intf = Zef::Ptr<Status const>(status())->intfStatus(intfId);
  const Zef::Ptr<MkaPortStatus const> port = Zef::Ptr<Status const>(status())->portStatus(intfId);
  const Zef::Ptr<MkaActorStatus const> actor = port ? port->actorStatus(ckn) : nullptr;
  if (!intf || !actor || actor->ick().empty()) return std::nullopt;
  return ActorKeys{actor->ick(), actor->kek(), intf->cipherSuite()};
}

DecodeResult MkpduCodec::receive(MkpduInterface& intf, const uint8_t* frame, size_t length) {
  const Lanx::IntfId& intfId = intf.intfId();
  // The codec's own message serves every frame, and keeps no key past it; a frame received while an
  // actor still reads the last one is decoded apart.
  std::optional<DecodedMkpdu> apart;
  DecodedMkpdu& message = rxDecodedInUse_ ? apart.emplace() : rxDecoded_;
  struct InUse {
    bool& flag;
    DecodedMkpdu& message;
    bool outermost;
    ~InUse() {
      message.sakDistInfo = SakDistInfo();
      message.cakDistInfo = CakDistInfo();
      if (outermost) flag = false;
    }
  } inUse{rxDecodedInUse_, message, !rxDecodedInUse_};
  rxDecodedInUse_ = true;
  // The actor of the frame's CKN is found once, in the interface's record: its keys check the
  // frame, and it takes the message. The lookup holds two pointers, so that it fits in the function
  // object without an allocation.
  struct Found {
    const MkpduInterface& intf;
    const MessageReceiver* receiver = nullptr;
    Ckn named;
  } found{intf, nullptr, Ckn()};
  auto keysOf = [this, &found](const Ckn& ckn) {
    found.named = ckn;
    found.receiver = found.intf.receiver(ckn);
    if (found.receiver != nullptr && found.receiver->prefetch) found.receiver->prefetch();
    return actorKeys(found.intf.intfId(), ckn, found.receiver);
  };
  DecodeResult result = decodeMkpdu(frame, length, keysOf, message);
  const MessageReceiver* receiver = found.receiver;
  const Ckn& named = found.named;
  // A known CKN whose MKPDUs do not check is most often another CAK at the other end: operators
  // hear of it, and not only from a counter. The frame's source address names the peer.
  if (result == DecodeResult::badIcv) {
    std::array<uint8_t, 6> source;
    std::memcpy(source.data(), frame + 6, source.size());
    Zef::log(MKA_CAK_MISMATCH, Lanx::EthAddr(source), named, intfId);
  }
  // Each member's numbers must grow: an MKPDU heard again is dropped. The guard never forgets a
  // member that an actor holds as a peer.
  auto heldAsPeer = [&](const Ckn& ckn, const MemberId& member) {
    const Zef::Ptr<MkaPortStatus const> port = Zef::Ptr<Status const>(status())->portStatus(intfId);
    const Zef::Ptr<MkaActorStatus const> actor = port ? port->actorStatus(ckn) : nullptr;
    return actor && (actor->livePeerHas(member) || actor->potentialPeerHas(member));
  };
  if (result == DecodeResult::accepted &&
      !intf.replay.accept(message.baseInfo.ckn, message.baseInfo.msgId, message.baseInfo.msgNum, heldAsPeer)) {
    result = DecodeResult::replayed;
  }
  if (result != DecodeResult::accepted) {
    TRACE(3, ": Dropping MKPDU on " << intfId << ": " << decodeResultText(result));
    count(intf, columnOf(result));
    return result;
  }
  count(intf, &Memtab::MessageCounterData::inMkpdus);

  // To the actor of its CKN, which has handled it when this call returns.
  pamManager()->rxMessageDeliver(message, receiver);
  return DecodeResult::accepted;
}

void MkpduCodec::handleTransmit() {
  if (!initialized()) return;
  const OutgoingMkpdu& out = txMessage()->outgoing();
  // The sender names the record of its interface; nothing is looked up.
  MkpduInterface* intf = out.interface;
  // The frame goes out from the address of the port's SCI, which the message carries.
  const Lanx::EthAddr& source = out.message.baseInfo.sci.addr;
  std::string& frame = txFrame_;
  const bool built =
      intf && intf->pam && out.keys && !source.isZero() && encodeMkpdu(out.message, source, *out.keys, frame);
  if (!built) {
    TRACE(3, ": Cannot send MKPDU on " << out.intfId);
    if (intf) {
      count(*intf, &Memtab::MessageCounterData::outErrors);
    } else if (counters()) {
      counters()->countIn(out.intfId, &Memtab::MessageCounterData::outErrors);
    }
    return;
  }
  const Zef::Ptr<Lanx::Pam> pam = intf->pam;
  pam->txFrame(frame);
  count(*intf, &Memtab::MessageCounterData::outMkpdus);
}

}  // namespace Macsec
