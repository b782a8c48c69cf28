#include "model/Values.h"

#include <cstdio>
#include <ostream>
#include <string>
#include <utility>

#include "platform/Exception.h"

namespace Macsec {

namespace {

const char* yesNo(bool b) { return b ? "true" : "false"; }

}  // namespace

int keyBitsOf(CipherSuite suite) {
  switch (suite) {
    case cipherSuiteGcmAes128:
    case cipherSuiteGcmAesXpn128:
      return 128;
    case cipherSuiteGcmAes256:
    case cipherSuiteGcmAesXpn256:
      return 256;
    case cipherSuiteNone:
      break;
  }
  return 0;
}

bool offersOffset(MacsecCapability capability, uint8_t offset) {
  if (offset == kNoConfidentiality) return capability >= macsecIntegrityOnly;
  if (capability == macsecConfidentialityAnyOffset) return offset == 0 || offset == 30 || offset == 50;
  return capability == macsecConfidentialityAtZero && offset == 0;
}

uint8_t offsetCodeOf(uint8_t offset) {
  return offset == kNoConfidentiality ? 0 : offset == 50 ? 3 : offset == 30 ? 2 : 1;
}

std::optional<uint8_t> offsetOfCode(uint8_t code) {
  switch (code) {
    case 0:
      return kNoConfidentiality;
    case 1:
      return 0;
    case 2:
      return 30;
    case 3:
      return 50;
    default:
      return std::nullopt;
  }
}

bool isXpn(CipherSuite suite) { return suite == cipherSuiteGcmAesXpn128 || suite == cipherSuiteGcmAesXpn256; }

uint64_t packetNumberExhaustion(CipherSuite suite) { return isXpn(suite) ? 0xC000000000000000u : 0xC0000000u; }

namespace {

constexpr std::pair<CipherSuite, uint64_t> kReferences[] = {
    {cipherSuiteGcmAes128, 0x0080C20001000001},
    {cipherSuiteGcmAes256, 0x0080C20001000002},
    {cipherSuiteGcmAesXpn128, 0x0080C20001000003},
    {cipherSuiteGcmAesXpn256, 0x0080C20001000004},
};

}  // namespace

uint64_t cipherSuiteReference(CipherSuite suite) {
  for (const auto& [known, reference] : kReferences) {
    if (known == suite) return reference;
  }
  return 0;
}

CipherSuite cipherSuiteOfReference(uint64_t reference) {
  for (const auto& [suite, known] : kReferences) {
    if (known == reference) return suite;
  }
  return cipherSuiteNone;
}

std::ostream& operator<<(std::ostream& out, CipherSuite suite) {
  switch (suite) {
    case cipherSuiteNone:
      return out << "cipherSuiteNone";
    case cipherSuiteGcmAes128:
      return out << "cipherSuiteGcmAes128";
    case cipherSuiteGcmAes256:
      return out << "cipherSuiteGcmAes256";
    case cipherSuiteGcmAesXpn128:
      return out << "cipherSuiteGcmAesXpn128";
    case cipherSuiteGcmAesXpn256:
      return out << "cipherSuiteGcmAesXpn256";
  }
  return out << "CipherSuite(" << static_cast<uint32_t>(suite) << ")";
}

std::ostream& operator<<(std::ostream& out, POSTStage stage) {
  static const char* const names[] = {"postNotStarted",
                                      "postTesting128Encryption",
                                      "postTesting128Decryption",
                                      "postTesting256Encryption",
                                      "postTesting256Decryption",
                                      "postComplete",
                                      "postFailed",
                                      "postRetry"};
  if (stage < std::size(names)) return out << names[stage];
  return out << "POSTStage(" << static_cast<uint32_t>(stage) << ")";
}

std::optional<POSTTest> postTestOf(POSTStage stage) {
  switch (stage) {
    case postTesting128Encryption:
      return POSTTest{cryptoLibGcmAes128, true};
    case postTesting128Decryption:
      return POSTTest{cryptoLibGcmAes128, false};
    case postTesting256Encryption:
      return POSTTest{cryptoLibGcmAes256, true};
    case postTesting256Decryption:
      return POSTTest{cryptoLibGcmAes256, false};
    default:
      return std::nullopt;
  }
}

uint32_t Sci::hash() const noexcept { return Zef::hashMix(addr.asUint64() << 16 | portId); }

std::ostream& operator<<(std::ostream& out, const Sci& sci) { return out << sci.addr << "::" << sci.portId; }

std::ostream& operator<<(std::ostream& out, const Ssci& ssci) {
  // The SSCI as the eight hexadecimal digits of its 32 bits.
  char digits[9];
  std::snprintf(digits, sizeof digits, "%08x", ssci.ssci);
  return out << ssci.sci << "/" << (ssci.ssci == 0 ? "" : digits);
}

AssociationNumber::AssociationNumber(unsigned value) {
  if (value > max) {
    Zef::throwRangeException(
        "AssociationNumber::value < AssociationNumber::min or > AssociationNumber::max not allowed");
  }
  value_ = static_cast<uint8_t>(value);
}

uint32_t AssociationNumber::hash() const noexcept { return Zef::hashMix(value_); }

std::ostream& operator<<(std::ostream& out, const AssociationNumber& an) { return out << +an.value(); }

std::ostream& operator<<(std::ostream& out, const Cak& cak) {
  return out << "Cak(ckn=" << cak.ckn << ", " << cak.cak << ")";
}

std::ostream& operator<<(std::ostream& out, const GroupCak& g) {
  return out << "GroupCak(enabled=" << yesNo(g.enabled) << ", lifetimeMinutes=" << g.lifetimeMinutes << ")";
}

bool Sak::empty() const noexcept { return *this == Sak(); }

std::string keyServerTail(const MemberId& mi) {
  const Zef::String text = mi.hex();
  return std::string(text.view().substr(text.size() >= 16 ? 16 : text.size()));
}

std::ostream& operator<<(std::ostream& out, const Sak& sak) {
  return out << "Sak(an=" << +sak.an << ", mi=" << sak.mi << ", keyNum=" << sak.keyNum << ", " << sak.key
             << (sak.salt.empty() ? ")" : ", salt set)");
}

std::ostream& operator<<(std::ostream& out, const SakContext& c) {
  return out << "SakContext(" << c.sak << ", txSaValue=" << c.txSaValue << ", txEnabled=" << yesNo(c.txEnabled)
             << ", rxEnabled=" << yesNo(c.rxEnabled) << ", txInstalled=" << yesNo(c.txInstalled)
             << ", rxInstalled=" << yesNo(c.rxInstalled) << ")";
}

std::ostream& operator<<(std::ostream& out, const KeysLPN& lpn) {
  return out << "KeysLPN(oldLpn=" << lpn.oldLpn << ", latestLpn=" << lpn.latestLpn << ")";
}

std::ostream& operator<<(std::ostream& out, const RxLPN& lpn) {
  return out << "RxLPN(lpn=" << lpn.lpn << ", an=" << lpn.an << ")";
}

std::ostream& operator<<(std::ostream& out, const FipsStatus& f) {
  return out << "FipsStatus(fipsMode=" << yesNo(f.fipsMode) << ", fipsApplied=" << yesNo(f.fipsApplied) << ")";
}

std::ostream& operator<<(std::ostream& out, const BasicInfo& b) {
  return out << "BasicInfo(keyServerPriority=" << +b.keyServerPriority << ", keyServer=" << yesNo(b.keyServer)
             << ", macsecDesired=" << yesNo(b.macsecDesired) << ", macsecCapability=" << +b.macsecCapability
             << ", sci=" << b.sci << ", msgId=" << b.msgId << ", msgNum=" << b.msgNum << ", ckn=" << b.ckn << ")";
}

namespace {

bool mayTransmitOn(const KeyInfo& key, const KeyInfo& other, const Sak& sak) {
  if (!sakMatch(key, sak)) return false;
  if (key.tx) return true;
  const bool movedOn = other.tx && other.mi == key.mi && other.keyNum > key.keyNum;
  return !movedOn;
}

}  // namespace

bool mayTransmitOn(const SakUseInfo& use, const Sak& sak) {
  // A member sends a SAK use set whenever it transmits on a key, even one it keeps in neither
  // slot (after a restart, say): without one it transmits on none.
  return mayTransmitOn(use.latestKey, use.oldKey, sak) || mayTransmitOn(use.oldKey, use.latestKey, sak);
}

std::ostream& operator<<(std::ostream& out, const KeyInfo& k) {
  return out << "KeyInfo(an=" << +k.an << ", tx=" << yesNo(k.tx) << ", rx=" << yesNo(k.rx) << ", mi=" << k.mi
             << ", keyNum=" << k.keyNum << ", lpn=" << k.lpn << ")";
}

std::ostream& operator<<(std::ostream& out, const SakUseInfo& s) {
  return out << "SakUseInfo(latestKey=" << s.latestKey << ", oldKey=" << s.oldKey << ", plainTx=" << yesNo(s.plainTx)
             << ", plainRx=" << yesNo(s.plainRx) << ", delayProtect=" << yesNo(s.delayProtect) << ")";
}

std::ostream& operator<<(std::ostream& out, const SakDistInfo& d) {
  return out << "SakDistInfo(distributedAN=" << +d.distributedAN
             << ", confidentialityOffset=" << +d.confidentialityOffset << ", keyNumber=" << d.keyNumber
             << ", cipherSuite=" << d.cipherSuite << ", " << d.wrappedSak << ")";
}

std::ostream& operator<<(std::ostream& out, const CakDistInfo& c) {
  return out << "CakDistInfo(ckn=" << c.ckn << ", " << c.cak << ")";
}

std::ostream& operator<<(std::ostream& out, const POSTInfo& p) {
  return out << "POSTInfo(encrypt=" << yesNo(p.encrypt) << ", keySize=" << p.keySize << ")";
}

std::ostream& operator<<(std::ostream& out, const SaStatus& sa) {
  return out << "SaStatus(an=" << sa.an << ", mi=" << sa.mi << ", keyNum=" << sa.keyNum << ", value=" << sa.value
             << ")";
}

std::ostream& operator<<(std::ostream& out, ValidateFrames validate) {
  switch (validate) {
    case validateFramesDisabled:
      return out << "validateFramesDisabled";
    case validateFramesCheck:
      return out << "validateFramesCheck";
    case validateFramesStrict:
      return out << "validateFramesStrict";
  }
  return out << "ValidateFrames(" << +static_cast<uint8_t>(validate) << ")";
}

}  // namespace Macsec

namespace Dot1x {

std::ostream& operator<<(std::ostream& out, Dot1xType type) {
  switch (type) {
    case dot1xTypeAuthenticator:
      return out << "dot1xTypeAuthenticator";
    case dot1xTypeSupplicant:
      return out << "dot1xTypeSupplicant";
    case dot1xTypePreSharedKey:
      return out << "dot1xTypePreSharedKey";
  }
  return out << "Dot1xType(" << +static_cast<uint8_t>(type) << ")";
}

std::ostream& operator<<(std::ostream& out, const EapKey& key) {
  return out << "EapKey(dot1xType=" << key.dot1xType << ", sessionId=" << key.sessionId << ", myMac=" << key.myMac
             << ", peerMac=" << key.peerMac << ", " << key.key << ")";
}

}  // namespace Dot1x
