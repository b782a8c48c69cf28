#include "mkpdu/MkpduCoding.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <cstring>

#include "mkpdu/MkaPdu.h"
#include "model/PaeAddress.h"

namespace Macsec {

namespace {

using C = MacsecConstants;
constexpr size_t kHeader = C::eapolMinSize;
constexpr size_t kIcv = C::sizeOfIcv;
constexpr size_t kMi = C::sizeOfMemberIdentifier;

uint16_t be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t be32(const uint8_t* p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }

// Writes a frame into a string whose storage serves frame after frame: room is made a block at a
// time, not octet by octet, and the string is cut to the frame when it is done.
class FrameWriter {
 public:
  explicit FrameWriter(std::string& out) : out_(out) { out_.resize(std::max<size_t>(out_.capacity(), 256)); }
  size_t size() const noexcept { return size_; }
  char* data() noexcept { return out_.data(); }
  // The next n octets of the frame, for the caller to write.
  uint8_t* room(size_t n) {
    if (size_ + n > out_.size()) [[unlikely]]
      grow(n);
    uint8_t* at = reinterpret_cast<uint8_t*>(out_.data()) + size_;
    size_ += n;
    return at;
  }
  void finish() { out_.resize(size_); }
  void abandon() { out_.clear(); }

 private:
  [[gnu::noinline]] void grow(size_t n) { out_.resize(2 * (size_ + n)); }

  std::string& out_;
  size_t size_ = 0;
};

void put8(FrameWriter& out, uint8_t v) { *out.room(1) = v; }
void put16(FrameWriter& out, uint16_t v) {
  uint8_t* at = out.room(2);
  at[0] = static_cast<uint8_t>(v >> 8);
  at[1] = static_cast<uint8_t>(v);
}
void put32(FrameWriter& out, uint32_t v) {
  uint8_t* at = out.room(4);
  at[0] = static_cast<uint8_t>(v >> 24);
  at[1] = static_cast<uint8_t>(v >> 16);
  at[2] = static_cast<uint8_t>(v >> 8);
  at[3] = static_cast<uint8_t>(v);
}
void put64(FrameWriter& out, uint64_t v) {
  put32(out, static_cast<uint32_t>(v >> 32));
  put32(out, static_cast<uint32_t>(v));
}
void putBytes(FrameWriter& out, const uint8_t* p, size_t n) {
  if (n > 0) std::memcpy(out.room(n), p, n);
}
// Pads what follows `start` to whole words.
void padTo4(FrameWriter& out, size_t start) {
  while ((out.size() - start) % C::mkaWordAlignment != 0) put8(out, 0);
}

size_t padded(size_t n) { return (n + 3) & ~size_t{3}; }

// The 12 octets of a member identifier; none, as an empty key slot sends it, is all zeros.
void putMi(FrameWriter& out, const MemberId& mi) { putBytes(out, mi.data(), mi.size()); }

size_t wrappedLengthOf(CipherSuite cipher) {
  return keyBitsOf(cipher) == 256 ? C::sizeOfWrapped256BitKey : C::sizeOfWrapped128BitKey;
}

DecodeResult decodePeerList(const uint8_t* body, size_t length, std::vector<std::pair<MemberId, uint32_t>>& peers) {
  if (length % C::sizeOfPeerInfo != 0) return DecodeResult::badParameterSet;
  for (size_t at = 0; at < length; at += C::sizeOfPeerInfo)
    peers.emplace_back(MemberId(body + at), be32(body + at + kMi));
  return DecodeResult::accepted;
}

DecodeResult decodeSakUse(const uint8_t* set, size_t length, SakUseInfo& use) {
  const auto* overlay = reinterpret_cast<const SakUseSet*>(set);
  // The header's flags count even when no key is in use and the body is empty.
  const SakUsePlainTxAndLengthSet& flags = overlay->sakUsePlainTxAndLengthSet;
  use.plainTx = flags.plainTx();
  use.plainRx = flags.plainRx();
  use.delayProtect = flags.delayProtect();
  if (length == 0) return DecodeResult::accepted;
  if (length != C::sakUseParameterSetBodyLen) return DecodeResult::badParameterSet;
  const SakUseAnAndOffset& an = overlay->sakUseAnAndOffset;
  use.latestKey = KeyInfo{an.latestKeyAN(),
                          an.latestKeyTx(),
                          an.latestKeyRx(),
                          MemberId(overlay->latestKeyServerMemberIdentifier),
                          overlay->latestKeyNumber.value(),
                          overlay->llpn.value()};
  use.oldKey = KeyInfo{an.oldKeyAN(),
                       an.oldKeyTx(),
                       an.oldKeyRx(),
                       MemberId(overlay->oldKeyServerMemberIdentifier),
                       overlay->oldKeyNumber.value(),
                       overlay->olpn.value()};
  return DecodeResult::accepted;
}

// The XPN set's high halves of the two lowest acceptable packet numbers; a later revision's
// longer body starts the same.
DecodeResult decodeXpn(const uint8_t* body, size_t length, std::pair<uint32_t, uint32_t>& high) {
  if (length < C::xpnParameterSetBodyLen) return DecodeResult::badParameterSet;
  high = {be32(body), be32(body + 4)};
  return DecodeResult::accepted;
}

DecodeResult decodeDistSak(const uint8_t* set, size_t length, const ActorKeys& keys, SakDistInfo& dist) {
  if (length == 0) return DecodeResult::accepted;  // no key: traffic in the clear
  const auto* overlay = reinterpret_cast<const DistSakSet*>(set);
  size_t keyOffset = 8;  // after the header and the key number; 8 more with a cipher suite
  CipherSuite cipher = cipherSuiteGcmAes128;
  size_t wrappedLength = C::sizeOfWrapped128BitKey;
  if (length == C::distSakParameterSet128BitKeyBodyLen || length == C::distSakParameterSet256BitKeyBodyLen) {
    keyOffset += C::sizeOfCipherSuiteParam;
    // A suite this engine does not run becomes none, and the actor refuses the key.
    cipher = cipherSuiteOfReference(overlay->cipherSuite.value());
    wrappedLength =
        length == C::distSakParameterSet256BitKeyBodyLen ? C::sizeOfWrapped256BitKey : C::sizeOfWrapped128BitKey;
    // A known suite with a key of another length is malformed.
    if (cipher != cipherSuiteNone && wrappedLength != wrappedLengthOf(cipher)) return DecodeResult::badParameterSet;
  } else if (length != C::distSakBodyLenWithoutCipherSuiteInfo) {
    return DecodeResult::badParameterSet;
  }
  StoredKey sak = keys.prepared->unwrapped(set + keyOffset, wrappedLength);
  if (sak.empty()) return DecodeResult::badKeyWrap;
  dist.distributedAN = overlay->distSakAnAndOffset.distributedAN();
  dist.confidentialityOffset = overlay->distSakAnAndOffset.confidentialityOffset();
  dist.keyNumber = overlay->keyNumber.value();
  dist.cipherSuite = cipher;
  dist.wrappedSak = std::move(sak);
  return DecodeResult::accepted;
}

DecodeResult decodeDistCak(const uint8_t* set, size_t length, const ActorKeys& keys, CakDistInfo& dist) {
  const size_t wrappedLength = wrappedLengthOf(keys.cipherSuite);
  // A distributed CAK needs its name: 1 to 32 octets after the wrapped key.
  if (length <= wrappedLength || length - wrappedLength > 32) return DecodeResult::badParameterSet;
  StoredKey cak = keys.prepared->unwrapped(set + C::parameterSetHeaderSize, wrappedLength);
  if (cak.empty()) return DecodeResult::badKeyWrap;
  dist.cak = std::move(cak);
  dist.ckn = Ckn(set + C::parameterSetHeaderSize + wrappedLength, length - wrappedLength);
  return DecodeResult::accepted;
}

}  // namespace

const char* decodeResultText(DecodeResult result) {
  switch (result) {
    case DecodeResult::accepted:
      return "accepted";
    case DecodeResult::tooShort:
      return "too short";
    case DecodeResult::notMka:
      return "not an MKPDU";
    case DecodeResult::badVersion:
      return "unsupported version";
    case DecodeResult::badBodyLength:
      return "body length disagrees with the frame";
    case DecodeResult::badParameterSet:
      return "malformed parameter set";
    case DecodeResult::badCkn:
      return "bad CKN length";
    case DecodeResult::unknownCkn:
      return "unknown CKN";
    case DecodeResult::badIcv:
      return "ICV does not verify";
    case DecodeResult::badKeyWrap:
      return "distributed key does not unwrap";
    case DecodeResult::unsupported:
      return "unsupported algorithm agility";
    case DecodeResult::replayed:
      return "replayed member number";
  }
  return "unknown";
}

DecodeResult decodeMkpdu(const uint8_t* frame, size_t length, const KeyLookup& keys, DecodedMkpdu& out) {
  // The EAPOL header. The receiver is strict about integrity and liberal about everything else:
  // any EAPOL version, any of the PAE group addresses, and octets after the body (padding or
  // trailers some equipment adds), which the ICV does not cover and nothing reads.
  if (frame == nullptr || length < kHeader + C::mkpduMinSize) return DecodeResult::tooShort;
  const auto* eapol = reinterpret_cast<const Eapol*>(frame);
  if (!Dot1x::isPaeGroupAddress(eapol->dst) || eapol->ethType.value() != C::eapolEthType ||
      eapol->eapolType != EapolType::eapMka) {
    return DecodeResult::notMka;
  }
  if (eapol->version == 0) return DecodeResult::badVersion;
  const size_t bodyLength = eapol->bodyLen.value();
  if (bodyLength > length - kHeader || bodyLength % C::mkaWordAlignment != 0 || bodyLength < C::mkpduMinSize + kIcv) {
    return DecodeResult::badBodyLength;
  }
  const uint8_t* body = frame + kHeader;
  const size_t setsEnd = bodyLength - kIcv;

  // The basic parameter set and its CKN.
  const auto* basic = reinterpret_cast<const BasicParameterSet*>(body);
  // A later MKA version is read as ours, as IEEE 802.1X says.
  if (basic->version == 0) return DecodeResult::badVersion;
  const size_t basicLength = basic->basicParameterSetPart.parameterSetBodyLength();
  if (basicLength < C::basicParameterSetBodyLen) return DecodeResult::badParameterSet;
  const size_t cknLength = basicLength - C::basicParameterSetBodyLen;
  if (cknLength == 0 || cknLength > 32) return DecodeResult::badCkn;
  if (C::parameterSetHeaderSize + padded(basicLength) > setsEnd) return DecodeResult::badParameterSet;
  if (basic->algorithmAgility.value() != C::mkaAlgorithmAgility) return DecodeResult::unsupported;
  const Ckn ckn(body + sizeof(BasicParameterSet), cknLength);
  const std::optional<ActorKeys> actor = keys(ckn);
  if (!actor) return DecodeResult::unknownCkn;

  // The ICV covers everything from the destination address up to the ICV itself.
  uint8_t icv[kIcv];
  if (!actor->prepared->icvOf(frame, kHeader + setsEnd, icv) || CRYPTO_memcmp(icv, body + setsEnd, kIcv) != 0) {
    return DecodeResult::badIcv;
  }

  // The message is written in place, into storage that served the frame before, if any.
  DecodedMkpdu& message = out;
  message.sakUseInfo = SakUseInfo();
  message.sakDistInfo = SakDistInfo();
  message.cakDistInfo = CakDistInfo();
  message.livePeers.clear();
  message.potentialPeers.clear();
  BasicInfo& base = message.baseInfo;
  base.keyServerPriority = basic->keyServerPriority;
  base.keyServer = basic->basicParameterSetPart.keyServer();
  base.macsecDesired = basic->basicParameterSetPart.macsecDesired();
  base.macsecCapability = basic->basicParameterSetPart.macsecCapability();
  base.sci = Sci{basic->sci.address(), basic->sci.portId.value()};
  base.msgId = MemberId(basic->memberIdentifier);
  base.msgNum = basic->messageNumber.value();
  base.ckn = ckn;

  // The other sets, each on a 4-octet boundary; unknown types are stepped over, and a known type
  // that comes twice makes the frame malformed (two lists would mix, a second key would replace
  // the first).
  std::bitset<256> seen;
  std::pair<uint32_t, uint32_t> xpnHigh{0, 0};
  for (size_t at = C::parameterSetHeaderSize + padded(basicLength); at < setsEnd;) {
    if (setsEnd - at < C::parameterSetHeaderSize) return DecodeResult::badParameterSet;
    const uint8_t* set = body + at;
    const uint8_t type = set[0];
    const size_t setLength = be16(set + 2) & 0x0fff;
    // An ICV indicator closes the chain: its body is the ICV itself.
    if (type == icvIndicatorParameterSetType) {
      if (at + C::parameterSetHeaderSize != setsEnd) return DecodeResult::badParameterSet;
      break;
    }
    if (C::parameterSetHeaderSize + padded(setLength) > setsEnd - at) return DecodeResult::badParameterSet;
    const uint8_t* setBody = set + C::parameterSetHeaderSize;
    const bool known = type == livePeerParameterSetType || type == potentialPeerParameterSetType ||
                       type == sakUseParameterSetType || type == distSakParameterSetType ||
                       type == distCakParameterSetType || type == xpnParameterSetType;
    if (known && seen.test(type)) return DecodeResult::badParameterSet;
    seen.set(type);
    DecodeResult result = DecodeResult::accepted;
    switch (type) {
      case livePeerParameterSetType:
        result = decodePeerList(setBody, setLength, message.livePeers);
        break;
      case potentialPeerParameterSetType:
        result = decodePeerList(setBody, setLength, message.potentialPeers);
        break;
      case sakUseParameterSetType:
        result = decodeSakUse(set, setLength, message.sakUseInfo);
        break;
      case distSakParameterSetType:
        result = decodeDistSak(set, setLength, *actor, message.sakDistInfo);
        break;
      case distCakParameterSetType:
        result = decodeDistCak(set, setLength, *actor, message.cakDistInfo);
        break;
      case xpnParameterSetType:
        result = decodeXpn(setBody, setLength, xpnHigh);
        break;
      default:
        break;
    }
    if (result != DecodeResult::accepted) return result;
    at += C::parameterSetHeaderSize + padded(setLength);
  }
  // An XPN suite's packet numbers are whole once both sets are read, in whichever order they came.
  if (message.sakUseInfo.latestKey != KeyInfo()) message.sakUseInfo.latestKey.lpn |= uint64_t{xpnHigh.first} << 32;
  if (message.sakUseInfo.oldKey != KeyInfo()) message.sakUseInfo.oldKey.lpn |= uint64_t{xpnHigh.second} << 32;
  return DecodeResult::accepted;
}

bool encodeMkpdu(const DecodedMkpdu& message, const Lanx::EthAddr& source, const ActorKeys& keys, std::string& frame) {
  const BasicInfo& base = message.baseInfo;
  const size_t cknLength = base.ckn.size();
  // The body follows room for the EAPOL header, which is written once the body's length is known.
  // It is built in the caller's buffer.
  FrameWriter body(frame);
  auto fail = [&] {
    body.abandon();
    return false;
  };
  if (cknLength == 0) return fail();
  std::memset(body.room(kHeader), 0, kHeader);

  // The basic parameter set, with the CKN padded to 4 octets.
  put8(body, C::mkaVersion);
  put8(body, base.keyServerPriority);
  BasicParameterSetPart part;
  part.keyServerIs(base.keyServer);
  part.macsecDesiredIs(base.macsecDesired);
  part.macsecCapabilityIs(base.macsecCapability);
  part.parameterSetBodyLengthIs(static_cast<uint16_t>(C::basicParameterSetBodyLen + cknLength));
  put16(body, part.value());
  putBytes(body, base.sci.addr.data(), 6);
  put16(body, base.sci.portId);
  putMi(body, base.msgId);
  put32(body, base.msgNum);
  put32(body, C::mkaAlgorithmAgility);
  putBytes(body, base.ckn.data(), cknLength);
  padTo4(body, kHeader);

  // The peer lists, each only when it has members.
  for (auto [type, peers] : {std::pair{livePeerParameterSetType, &message.livePeers},
                             std::pair{potentialPeerParameterSetType, &message.potentialPeers}}) {
    if (peers->empty()) continue;
    put8(body, type);
    put8(body, 0);
    put16(body, static_cast<uint16_t>(peers->size() * C::sizeOfPeerInfo));
    for (const auto& [id, number] : *peers) {
      putMi(body, id);
      put32(body, number);
    }
  }

  // The SAK use set, unless it is the default.
  const SakUseInfo& use = message.sakUseInfo;
  if (use != SakUseInfo()) {
    put8(body, sakUseParameterSetType);
    SakUseAnAndOffset an;
    an.latestKeyANIs(use.latestKey.an);
    an.latestKeyTxIs(use.latestKey.tx);
    an.latestKeyRxIs(use.latestKey.rx);
    an.oldKeyANIs(use.oldKey.an);
    an.oldKeyTxIs(use.oldKey.tx);
    an.oldKeyRxIs(use.oldKey.rx);
    put8(body, an.value());
    SakUsePlainTxAndLengthSet flags;
    flags.plainTxIs(use.plainTx);
    flags.plainRxIs(use.plainRx);
    flags.delayProtectIs(use.delayProtect);
    flags.parameterSetBodyLengthIs(C::sakUseParameterSetBodyLen);
    put16(body, flags.value());
    for (const KeyInfo* key : {&use.latestKey, &use.oldKey}) {
      putMi(body, key->mi);
      put32(body, key->keyNum);
      put32(body, static_cast<uint32_t>(key->lpn));
    }
    // The XPN set follows with the high halves, for an XPN suite or any number beyond 32 bits;
    // no suspension is announced.
    const uint32_t latestHigh = static_cast<uint32_t>(use.latestKey.lpn >> 32);
    const uint32_t oldHigh = static_cast<uint32_t>(use.oldKey.lpn >> 32);
    if (isXpn(keys.cipherSuite) || latestHigh != 0 || oldHigh != 0) {
      put8(body, xpnParameterSetType);
      put8(body, 0);
      put16(body, C::xpnParameterSetBodyLen);
      put32(body, latestHigh);
      put32(body, oldHigh);
    }
  }

  // The distributed SAK set, unless it is the default: the key wrapped with the KEK, with the
  // cipher suite only when it is not the default one.
  const SakDistInfo& dist = message.sakDistInfo;
  if (dist != SakDistInfo()) {
    const KeyBytes wrappedSak = keys.prepared->wrapped(dist.wrappedSak);
    if (wrappedSak.empty()) return fail();
    const bool withSuite = dist.cipherSuite != cipherSuiteGcmAes128;
    put8(body, distSakParameterSetType);
    DistSakAnAndOffset an;
    an.distributedANIs(dist.distributedAN);
    an.confidentialityOffsetIs(dist.confidentialityOffset);
    put8(body, an.value());
    put16(body, static_cast<uint16_t>(4 + (withSuite ? C::sizeOfCipherSuiteParam : 0) + wrappedSak.size()));
    put32(body, dist.keyNumber);
    if (withSuite) {
      const uint64_t reference = cipherSuiteReference(dist.cipherSuite);
      put64(body, reference != 0 ? reference : C::nullCipherSuiteRefNo);
    }
    putBytes(body, wrappedSak.data(), wrappedSak.size());
  }

  // The distributed CAK set, unless it is the default.
  const CakDistInfo& cakDist = message.cakDistInfo;
  if (cakDist != CakDistInfo()) {
    const KeyBytes wrappedCak = keys.prepared->wrapped(cakDist.cak);
    if (wrappedCak.empty()) return fail();
    put8(body, distCakParameterSetType);
    put8(body, 0);
    put16(body, static_cast<uint16_t>(wrappedCak.size() + cakDist.ckn.size()));
    putBytes(body, wrappedCak.data(), wrappedCak.size());
    putBytes(body, cakDist.ckn.data(), cakDist.ckn.size());
    padTo4(body, kHeader);
  }

  // The EAPOL header, and the ICV over all of it.
  const uint16_t eapolLength = static_cast<uint16_t>(body.size() - kHeader + kIcv);
  char* header = body.data();
  std::memcpy(header, C::paeGroupAddress.data(), 6);
  std::memcpy(header + 6, source.data(), 6);
  header[12] = static_cast<char>(C::eapolEthType >> 8);
  header[13] = static_cast<char>(C::eapolEthType & 0xff);
  header[14] = static_cast<char>(C::eapolVersion);
  header[15] = static_cast<char>(EapolType::eapMka);
  header[16] = static_cast<char>(eapolLength >> 8);
  header[17] = static_cast<char>(eapolLength & 0xff);
  uint8_t icv[kIcv];
  if (!keys.prepared->icvOf(reinterpret_cast<const uint8_t*>(body.data()), body.size(), icv)) return fail();
  putBytes(body, icv, kIcv);
  body.finish();
  return true;
}

}  // namespace Macsec
