#pragma once

// The MKPDU as it stands on the wire (IEEE 802.1X-2010 clause 11): overlay types laid directly
// over packet memory, every multi-byte field in network byte order, and the constants of the
// format. The state machines never see this layer; the codec reads and writes it.

#include <array>
#include <cstdint>
#include <cstring>
#include <iosfwd>

#include "platform/EthAddr.h"
#include "platform/NetInt.h"
#include "platform/Pkt.h"
#include "platform/PtrInterface.h"

namespace Macsec {

struct MacsecConstants {
  static constexpr uint8_t eapolVersion = 3;
  static constexpr uint32_t eapolMinSize = 18;
  static constexpr uint16_t eapolEthType = 0x888E;
  static constexpr uint8_t mkaVersion = 1;
  static constexpr bool macsecDesired = true;
  static constexpr uint8_t macsecWithoutConfidentiality = 1;
  static constexpr uint8_t macsecWithConfidentiality = 2;
  static constexpr uint32_t mkpduMinSize = 32;
  static constexpr uint32_t sizeOfMemberIdentifier = 12;
  static constexpr uint8_t sizeOfIcv = 16;
  static constexpr uint8_t parameterSetHeaderSize = 4;
  static constexpr uint8_t sizeOfPeerInfo = 16;
  static constexpr uint8_t basicParameterSetBodyLen = 28;
  static constexpr uint32_t mkaAlgorithmAgility = 0x80C201;
  static constexpr uint8_t mkaAlgorithmAgilityIcvLength = 16;
  static constexpr uint8_t mkaWordAlignment = 4;
  static constexpr uint8_t sakUseParameterSetBodyLen = 40;
  // The XPN set: the high 32 bits of the latest and the old key's lowest acceptable packet numbers.
  static constexpr uint8_t xpnParameterSetBodyLen = 8;
  static constexpr uint8_t distSakParameterSet128BitKeyBodyLen = 36;
  static constexpr uint8_t distSakParameterSet256BitKeyBodyLen = 52;
  static constexpr uint8_t distSakBodyLenWithoutCipherSuiteInfo = 28;
  static constexpr uint8_t distSakParameterSetLenWithoutKey = 16;
  static constexpr uint8_t distCakParameterSetMinimumBodyLen = 24;
  static constexpr uint32_t distCakParameterSet128BitKeyMaxBodyLen = 56;
  static constexpr uint32_t distCakParameterSet256BitKeyMaxBodyLen = 104;
  static constexpr uint8_t sizeOfCipherSuiteParam = 8;
  static constexpr uint64_t xpn128CipherSuiteRefNo = 0x80C20001000003;
  static constexpr uint64_t xpn256CipherSuiteRefNo = 0x80C20001000004;
  static constexpr uint64_t nullCipherSuiteRefNo = 0xFFFFFFFFFFFFFFFF;
  static constexpr uint8_t sizeOfWrapped128BitKey = 24;
  static constexpr uint8_t sizeOfWrapped256BitKey = 40;
  static constexpr uint8_t icvIndicatorParamSetBodyLen = 4;
  // The cipher suites that a distributed SAK set names (IEEE 802.1AE).
  // The destination of every MKPDU: the PAE group address.
  static constexpr std::array<uint8_t, 6> paeGroupAddress = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x03};
};

enum ParameterSetTypes : uint8_t {
  livePeerParameterSetType = 1,
  potentialPeerParameterSetType = 2,
  sakUseParameterSetType = 3,
  distSakParameterSetType = 4,
  distCakParameterSetType = 5,
  kmdParameterSetType = 6,
  announcementParameterSetType = 7,
  xpnParameterSetType = 8,
  icvIndicatorParameterSetType = 255,
};
std::ostream& operator<<(std::ostream& out, ParameterSetTypes type);

// The EAPOL packet type of MKA frames.
struct EapolType {
  static constexpr uint8_t eapMka = 5;
};

// A 16-bit field of flags and a 12-bit length, in network order. Each mutator changes only its
// own bits. value() is the host-order number, ctorValue() the number as stored, v0() and v1()
// the first and second byte as stored.
class Bits16 {
 public:
  uint16_t value() const noexcept { return static_cast<uint16_t>(bytes_[0] << 8 | bytes_[1]); }
  uint16_t ctorValue() const noexcept {
    uint16_t stored;
    std::memcpy(&stored, bytes_, 2);
    return stored;
  }
  uint8_t v0() const noexcept { return bytes_[0]; }
  uint8_t v1() const noexcept { return bytes_[1]; }
  void valueIs(uint16_t v) noexcept {
    bytes_[0] = static_cast<uint8_t>(v >> 8);
    bytes_[1] = static_cast<uint8_t>(v);
  }
  uint16_t parameterSetBodyLength() const noexcept { return bits(11, 0); }
  void parameterSetBodyLengthIs(uint16_t length) noexcept { bitsIs(11, 0, length); }

 protected:
  uint16_t bits(int high, int low) const noexcept {
    return static_cast<uint16_t>((value() >> low) & ((1u << (high - low + 1)) - 1));
  }
  void bitsIs(int high, int low, uint16_t v) noexcept {
    const uint16_t mask = static_cast<uint16_t>(((1u << (high - low + 1)) - 1) << low);
    valueIs(static_cast<uint16_t>((value() & ~mask) | ((v << low) & mask)));
  }

 private:
  uint8_t bytes_[2] = {0, 0};
};

class BasicParameterSetPart : public Bits16 {
 public:
  bool keyServer() const noexcept { return bits(15, 15); }
  void keyServerIs(bool b) noexcept { bitsIs(15, 15, b); }
  bool macsecDesired() const noexcept { return bits(14, 14); }
  void macsecDesiredIs(bool b) noexcept { bitsIs(14, 14, b); }
  uint8_t macsecCapability() const noexcept { return static_cast<uint8_t>(bits(13, 12)); }
  void macsecCapabilityIs(uint8_t c) noexcept { bitsIs(13, 12, c); }
};

class PeerListLengthParameter : public Bits16 {};
class DistSakLengthSet : public Bits16 {};
class DistCakLengthSet : public Bits16 {};
class IcvIndicatorLengthSet : public Bits16 {};
class CommonSetLengthParameter : public Bits16 {};

class SakUsePlainTxAndLengthSet : public Bits16 {
 public:
  bool plainTx() const noexcept { return bits(15, 15); }
  void plainTxIs(bool b) noexcept { bitsIs(15, 15, b); }
  bool plainRx() const noexcept { return bits(14, 14); }
  void plainRxIs(bool b) noexcept { bitsIs(14, 14, b); }
  bool delayProtect() const noexcept { return bits(12, 12); }
  void delayProtectIs(bool b) noexcept { bitsIs(12, 12, b); }
};

// One byte of bit fields.
class Bits8 {
 public:
  uint8_t value() const noexcept { return byte_; }
  void valueIs(uint8_t v) noexcept { byte_ = v; }

 protected:
  uint8_t bits(int high, int low) const noexcept {
    return static_cast<uint8_t>((byte_ >> low) & ((1u << (high - low + 1)) - 1));
  }
  void bitsIs(int high, int low, uint8_t v) noexcept {
    const uint8_t mask = static_cast<uint8_t>(((1u << (high - low + 1)) - 1) << low);
    byte_ = static_cast<uint8_t>((byte_ & ~mask) | ((v << low) & mask));
  }

 private:
  uint8_t byte_ = 0;
};

class SakUseAnAndOffset : public Bits8 {
 public:
  uint8_t latestKeyAN() const noexcept { return bits(7, 6); }
  void latestKeyANIs(uint8_t an) noexcept { bitsIs(7, 6, an); }
  bool latestKeyTx() const noexcept { return bits(5, 5); }
  void latestKeyTxIs(bool b) noexcept { bitsIs(5, 5, b); }
  bool latestKeyRx() const noexcept { return bits(4, 4); }
  void latestKeyRxIs(bool b) noexcept { bitsIs(4, 4, b); }
  uint8_t oldKeyAN() const noexcept { return bits(3, 2); }
  void oldKeyANIs(uint8_t an) noexcept { bitsIs(3, 2, an); }
  bool oldKeyTx() const noexcept { return bits(1, 1); }
  void oldKeyTxIs(bool b) noexcept { bitsIs(1, 1, b); }
  bool oldKeyRx() const noexcept { return bits(0, 0); }
  void oldKeyRxIs(bool b) noexcept { bitsIs(0, 0, b); }
};

class DistSakAnAndOffset : public Bits8 {
 public:
  uint8_t distributedAN() const noexcept { return bits(7, 6); }
  void distributedANIs(uint8_t an) noexcept { bitsIs(7, 6, an); }
  uint8_t confidentialityOffset() const noexcept { return bits(5, 4); }
  void confidentialityOffsetIs(uint8_t offset) noexcept { bitsIs(5, 4, offset); }
};

std::ostream& operator<<(std::ostream& out, const SakUseAnAndOffset& v);
std::ostream& operator<<(std::ostream& out, const DistSakAnAndOffset& v);

// The SCI as it stands in the basic parameter set.
struct SciParameterSet {
  uint8_t addr[6];
  Lanx::NetU16 portId;
  Lanx::EthAddr address() const { return Lanx::EthAddr({addr[0], addr[1], addr[2], addr[3], addr[4], addr[5]}); }
  void addressIs(const Lanx::EthAddr& a) { std::memcpy(addr, a.data(), 6); }
};

// The overlays. Each is a plain layout of bytes over packet memory (no counting: the packet owns
// the memory).

struct Eapol : Zef::NrcPtrInterface {
  uint8_t dst[6];
  uint8_t src[6];
  Lanx::NetU16 ethType;
  uint8_t version;
  uint8_t eapolType;
  Lanx::NetU16 bodyLen;
};

struct BasicParameterSet : Zef::NrcPtrInterface {
  uint8_t version;
  uint8_t keyServerPriority;
  BasicParameterSetPart basicParameterSetPart;
  SciParameterSet sci;
  uint8_t memberIdentifier[12];
  Lanx::NetU32 messageNumber;
  Lanx::NetU32 algorithmAgility;
};

struct CommonParamSet : Zef::NrcPtrInterface {
  uint8_t parameterSetType;
  uint8_t reserved;
  CommonSetLengthParameter parameterSetLengthParameter;
};

struct PeerListSet : Zef::NrcPtrInterface {
  uint8_t parameterSetType;
  uint8_t reserved;
  PeerListLengthParameter peerListLengthParameter;
};

struct PeerInfoParameter : Zef::NrcPtrInterface {
  uint8_t memberIdentifier[12];
  Lanx::NetU32 messageNumber;
};

struct SakUseSet : Zef::NrcPtrInterface {
  uint8_t parameterSetType;
  SakUseAnAndOffset sakUseAnAndOffset;
  SakUsePlainTxAndLengthSet sakUsePlainTxAndLengthSet;
  uint8_t latestKeyServerMemberIdentifier[12];
  Lanx::NetU32 latestKeyNumber;
  Lanx::NetU32 llpn;
  uint8_t oldKeyServerMemberIdentifier[12];
  Lanx::NetU32 oldKeyNumber;
  Lanx::NetU32 olpn;
};

struct DistSakSet : Zef::NrcPtrInterface {
  uint8_t parameterSetType;
  DistSakAnAndOffset distSakAnAndOffset;
  DistSakLengthSet distSakLengthSet;
  Lanx::NetU32 keyNumber;
  Lanx::NetU64 cipherSuite;
};

struct DistCakSet : Zef::NrcPtrInterface {
  uint8_t parameterSetType;
  uint8_t reserved;
  DistCakLengthSet distCakLengthSet;
};

struct IcvIndicatorSet : Zef::NrcPtrInterface {
  uint8_t parameterSetType;
  uint8_t reserved;
  IcvIndicatorLengthSet icvIndicatorLengthSet;
};

static_assert(sizeof(Eapol) == 18);
static_assert(sizeof(BasicParameterSet) == 32);
static_assert(sizeof(PeerListSet) == 4);
static_assert(sizeof(PeerInfoParameter) == 16);
static_assert(sizeof(SakUseSet) == 44);
static_assert(sizeof(DistSakSet) == 16);
static_assert(sizeof(DistCakSet) == 4);
static_assert(sizeof(IcvIndicatorSet) == 4);
static_assert(sizeof(CommonParamSet) == 4);

// A counted holder of a packet and an overlay on its current first byte. The wrapper checks no
// length: that is the codec's matter.
template <class Overlay>
class OverlayWrapper : public Zef::PtrInterface {
 public:
  explicit OverlayWrapper(const Zef::Ptr<Lanx::Pkt>& pkt) : pkt_(pkt) { handlePkt(); }
  const Zef::Ptr<Lanx::Pkt>& pkt() const noexcept { return pkt_; }
  Overlay* overlay() const noexcept { return overlay_; }
  void handlePkt() { overlay_ = pkt_ ? reinterpret_cast<Overlay*>(pkt_->data()) : nullptr; }

 private:
  Zef::Ptr<Lanx::Pkt> pkt_;
  Overlay* overlay_ = nullptr;
};

#define MACSEC_OVERLAY_WRAPPER(Wrapper, factory, accessor, Overlay) \
  class Wrapper : public OverlayWrapper<Overlay> {                  \
   public:                                                          \
    using OverlayWrapper::OverlayWrapper;                           \
    Overlay* accessor() const noexcept { return overlay(); }        \
  };                                                                \
  inline Zef::Ptr<Wrapper> factory(const Zef::Ptr<Lanx::Pkt>& pkt) { return Zef::Ptr<Wrapper>(new Wrapper(pkt)); }

MACSEC_OVERLAY_WRAPPER(BasicParameterSetWrapper, basicParameterSetWrapperFactory, basicParameterSetPkt,
                       BasicParameterSet)
MACSEC_OVERLAY_WRAPPER(PeerInfoParameterWrapper, peerInfoParameterWrapperFactory, peerInfoParameterPkt,
                       PeerInfoParameter)
MACSEC_OVERLAY_WRAPPER(PeerListSetWrapper, peerListSetWrapperFactory, peerListSetPkt, PeerListSet)
MACSEC_OVERLAY_WRAPPER(SakUseSetWrapper, sakUseSetWrapperFactory, sakUseSetPkt, SakUseSet)
MACSEC_OVERLAY_WRAPPER(DistSakSetWrapper, distSakSetWrapperFactory, distSakSetPkt, DistSakSet)
MACSEC_OVERLAY_WRAPPER(EapolWrapper, eapolWrapperFactory, eapolPkt, Eapol)

#undef MACSEC_OVERLAY_WRAPPER

}  // namespace Macsec
