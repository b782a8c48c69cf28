#pragma once

// The plain values that the state machines exchange: identifiers of secure channels, keys in
// their stored form, the decoded form of an MKPDU, and the small enumerations of the MACsec and
// self-test machinery. A default-constructed value is the "empty" one, and the logic tests for
// it. Stream forms never show key bytes, not even in stored form.

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string_view>

#include "model/Identifiers.h"
#include "model/StoredKey.h"
#include "platform/EthAddr.h"
#include "platform/IntfId.h"
#include "platform/String.h"

namespace Macsec {

// The key length in bits, and the logic uses the number as such.
// The IEEE 802.1AE cipher suites. The values of the two original suites are their key lengths in
// bits; the extended packet number (XPN) suites take the next values. keyBitsOf() and
// cipherSuiteReference() give what each means; nothing reads the values as numbers.
enum CipherSuite : uint32_t {
  cipherSuiteNone = 0,  // no encryption
  cipherSuiteGcmAes128 = 128,
  cipherSuiteGcmAesXpn128 = 129,
  cipherSuiteGcmAes256 = 256,
  cipherSuiteGcmAesXpn256 = 257,
};
// The SAK's length in bits, 0 for none.
int keyBitsOf(CipherSuite suite);
// Whether frames carry 64-bit packet numbers, with a short SCI and a salt per SA.
bool isXpn(CipherSuite suite);
// The packet number from which a key of the suite is worn out and the key server makes the next:
// three quarters of its space, 0xC0000000 for 32-bit numbers, 0xC000000000000000 for XPN.
uint64_t packetNumberExhaustion(CipherSuite suite);
// The IEEE 802.1AE reference number (00-80-C2-00-01-00-00-01 to -04), and the suite of one;
// cipherSuiteNone for a number this engine does not run.
uint64_t cipherSuiteReference(CipherSuite suite);
CipherSuite cipherSuiteOfReference(uint64_t reference);

// What a member's MACsec can do, as its MKPDUs announce it and as a data plane offers it.
enum MacsecCapability : uint8_t {
  macsecNotImplemented = 0,
  macsecIntegrityOnly = 1,
  macsecConfidentialityAtZero = 2,     // and integrity: confidentiality from the first octet on
  macsecConfidentialityAnyOffset = 3,  // and integrity: confidentiality after 0, 30 or 50 octets
};
// The confidentiality offset of a key that protects integrity only: frames are not encrypted.
inline constexpr uint8_t kNoConfidentiality = 0xFF;
// Whether a capability keeps frames confidential after `offset` octets in the clear, or, for
// kNoConfidentiality, protects their integrity.
bool offersOffset(MacsecCapability capability, uint8_t offset);
// How a distributed SAK says the offset its key server uses: 1, 2, 3 for 0, 30, 50 octets; 0
// ("not used") for integrity only (kNoConfidentiality).
uint8_t offsetCodeOf(uint8_t offset);
std::optional<uint8_t> offsetOfCode(uint8_t code);

// What the self-test functions take: a key length in bits, or 0 for the plain frame.
enum CryptoLibCipherSuite : uint32_t {
  cryptoLibPlainText = 0,
  cryptoLibGcmAes128 = 128,
  cryptoLibGcmAes256 = 256,
};

// The stages of the power-on self test of an interface's cipher path.
enum POSTStage : uint32_t {
  postNotStarted = 0,
  postTesting128Encryption = 1,
  postTesting128Decryption = 2,
  postTesting256Encryption = 3,
  postTesting256Decryption = 4,
  postComplete = 5,
  postFailed = 6,
  postRetry = 7,
};

std::ostream& operator<<(std::ostream& out, CipherSuite suite);
std::ostream& operator<<(std::ostream& out, POSTStage stage);

// What one stage of the self test tests: a key length and a direction.
struct POSTTest {
  CryptoLibCipherSuite suite = cryptoLibPlainText;
  bool encrypt = false;
};
// The test of a testing stage (1 to 4); none for the others.
std::optional<POSTTest> postTestOf(POSTStage stage);

// The secure channel identifier: the interface's MAC address and a port number. SCIs are ordered
// address first; on the wire they are 8 bytes, the address then the port in network order. The
// all-zero SCI means none. Text form: the address, "::", the port number.
struct Sci {
  Lanx::EthAddr addr;
  uint16_t portId = 0;

  bool isZero() const noexcept { return addr.isZero() && portId == 0; }
  uint32_t hash() const noexcept;
  bool operator==(const Sci&) const noexcept = default;
  std::strong_ordering operator<=>(const Sci&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const Sci& sci);

// A short secure channel identifier with the channel it belongs to.
struct Ssci {
  Sci sci;
  uint32_t ssci = 0;
  bool operator==(const Ssci&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const Ssci& ssci);

// An association number: 0 to 3. Next-number arithmetic is done modulo 4 on the plain integer and
// only then wrapped into this type.
class AssociationNumber {
 public:
  static constexpr uint8_t min = 0;
  static constexpr uint8_t max = 3;

  AssociationNumber() noexcept = default;
  AssociationNumber(unsigned value);  // throws Zef::RangeException above 3

  uint8_t value() const noexcept { return value_; }
  operator uint8_t() const noexcept { return value_; }
  uint32_t hash() const noexcept;
  bool operator==(const AssociationNumber&) const noexcept = default;
  std::strong_ordering operator<=>(const AssociationNumber&) const noexcept = default;

 private:
  uint8_t value_ = 0;
};
std::ostream& operator<<(std::ostream& out, const AssociationNumber& an);

// A connectivity association key with its name. `ckn` keys the actors; `cak` is the key in stored
// form. Empty (both empty) means no key.
struct Cak {
  Ckn ckn;
  StoredKey cak;
  bool empty() const noexcept { return ckn.empty() && cak.empty(); }
  // The same key: the same name and the same secret, whatever the two stored forms.
  bool sameKeyAs(const Cak& other) const { return ckn == other.ckn && cak.sameKeyAs(other.cak); }
  bool operator==(const Cak&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const Cak& cak);

struct GroupCak {
  bool enabled = false;
  uint32_t lifetimeMinutes = 0;
  bool operator==(const GroupCak&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const GroupCak& groupCak);

// A secure association key. `mi` and `keyNum` make the key identifier; `key` is in stored form;
// `salt` is filled in only on the copies that are programmed into the hardware.
struct Sak {
  uint8_t an = 0;
  MemberId mi;
  uint32_t keyNum = 0;
  StoredKey key;
  Salt salt;
  bool empty() const noexcept;
  bool operator==(const Sak&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const Sak& sak);

// The key server's part of a key identifier as the operators' log shows it: the member
// identifier's text from its 17th character on.
std::string keyServerTail(const MemberId& mi);

// One key slot of the controlled port.
struct SakContext {
  Sak sak;
  uint64_t txSaValue = 0;  // the transmit SA's next packet number, as the data plane last said
  bool txEnabled = false;
  bool rxEnabled = false;
  bool txInstalled = false;
  bool rxInstalled = false;
  bool operator==(const SakContext&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const SakContext& context);

struct KeysLPN {
  uint64_t oldLpn = 0;
  uint64_t latestLpn = 0;
  bool operator==(const KeysLPN&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const KeysLPN& lpn);

struct RxLPN {
  uint64_t lpn = 0;
  AssociationNumber an;
  bool operator==(const RxLPN&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const RxLPN& lpn);

// The parameters with which an interface's IntfStatus and CpStatus are made.
struct FipsStatus {
  bool fipsMode = false;     // the FIPS restrictions asked for
  bool fipsApplied = false;  // FIPS mode has been switched on successfully
  bool operator==(const FipsStatus&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const FipsStatus& fips);

// The basic parameter set of an MKPDU.
struct BasicInfo {
  uint8_t keyServerPriority = 0;
  bool keyServer = false;
  bool macsecDesired = false;
  uint8_t macsecCapability = 0;
  Sci sci;
  MemberId msgId;
  uint32_t msgNum = 0;
  Ckn ckn;
  // The numbers before the texts: the message number differs in every MKPDU, and telling it
  // reads no memory beyond the value. Every member takes part.
  bool operator==(const BasicInfo& o) const noexcept {
    return msgNum == o.msgNum && keyServerPriority == o.keyServerPriority && keyServer == o.keyServer &&
           macsecDesired == o.macsecDesired && macsecCapability == o.macsecCapability && sci == o.sci &&
           msgId == o.msgId && ckn == o.ckn;
  }
};
std::ostream& operator<<(std::ostream& out, const BasicInfo& info);

// One key's entry in a SAK use set.
struct KeyInfo {
  uint8_t an = 0;
  bool tx = false;
  bool rx = false;
  MemberId mi;
  uint32_t keyNum = 0;
  // 64 bits for an XPN suite: the SAK use set carries the low 32, the XPN set the high 32.
  uint64_t lpn = 0;
  // The numbers before the identifier, for the same reason as BasicInfo's. Every member takes part.
  bool operator==(const KeyInfo& o) const noexcept {
    return lpn == o.lpn && keyNum == o.keyNum && an == o.an && tx == o.tx && rx == o.rx && mi == o.mi;
  }
};
std::ostream& operator<<(std::ostream& out, const KeyInfo& info);

struct SakUseInfo {
  KeyInfo latestKey;
  KeyInfo oldKey;
  bool plainTx = false;
  bool plainRx = false;
  bool delayProtect = false;
  bool operator==(const SakUseInfo&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const SakUseInfo& info);

struct SakDistInfo {
  uint8_t distributedAN = 0;
  uint8_t confidentialityOffset = 0;
  uint32_t keyNumber = 0;
  CipherSuite cipherSuite = cipherSuiteGcmAes128;
  StoredKey wrappedSak;
  bool operator==(const SakDistInfo&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const SakDistInfo& info);

struct CakDistInfo {
  Ckn ckn;
  StoredKey cak;
  bool operator==(const CakDistInfo&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const CakDistInfo& info);

// What the running self test is doing.
struct POSTInfo {
  uint8_t reserved = 0;
  bool encrypt = false;
  uint32_t keySize = 0;
  bool operator==(const POSTInfo&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const POSTInfo& info);

// One SA that the hardware reports as installed: the key's association number and identifier,
// and a value the hardware attaches, which the engine copies without reading. The default is "no
// SA".
struct SaStatus {
  AssociationNumber an;
  MemberId mi;
  uint32_t keyNum = 0;
  uint64_t value = 0;  // a transmit SA's next packet number
  bool empty() const noexcept { return *this == SaStatus(); }
  bool operator==(const SaStatus&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const SaStatus& sa);

// How the hardware validates received frames; the engine only carries it.
enum ValidateFrames : uint8_t {
  validateFramesDisabled = 0,
  validateFramesCheck = 1,
  validateFramesStrict = 2,
};
std::ostream& operator<<(std::ostream& out, ValidateFrames validate);

// The same key by identifier: association number, key number and key server.
inline bool sakMatch(const KeyInfo& info, const Sak& sak) {
  return info.an == sak.an && info.keyNum == sak.keyNum && info.mi == sak.mi;
}
inline bool sameKey(const Sak& a, const Sak& b) { return a.an == b.an && a.mi == b.mi && a.keyNum == b.keyNum; }
// The same key by identifier and by its octets too. A key server never hands out two keys under
// one identifier, so two that differ in either are two keys, one of them forged.
inline bool identicalKey(const Sak& a, const Sak& b) { return sameKey(a, b) && a.key.sameKeyAs(b.key); }

// Whether a member whose last SAK use set is `use` may transmit on `sak`: the set says so, or the
// set lists the key (received, or still being installed) and no newer key of the same key server
// that the member transmits on. A member installs a key and moves on to it as soon as it hears
// that its key server transmits on it, before its next MKPDU can say so, and that MKPDU may be
// lost. A member whose last MKPDU had no SAK use set transmits on none: a member sends the set
// whenever it transmits on a key, even one a restart left in neither slot.
bool mayTransmitOn(const SakUseInfo& use, const Sak& sak);

}  // namespace Macsec

namespace Dot1x {

// The role of an interface in 802.1X key derivation.
enum Dot1xType : uint8_t {
  dot1xTypeAuthenticator = 0,  // keys come from EAP; this side may be key server
  dot1xTypeSupplicant = 1,     // keys come from EAP; this side never stands for election
  dot1xTypePreSharedKey = 2,   // no 802.1X: a configured key
};
std::ostream& operator<<(std::ostream& out, Dot1xType type);

// One EAP-derived key as the 802.1X agent offers it.
struct EapKey {
  Dot1xType dot1xType = dot1xTypeAuthenticator;
  Macsec::StoredKey key;
  Macsec::EapSessionId sessionId;
  Lanx::EthAddr myMac;
  Lanx::EthAddr peerMac;
  bool operator==(const EapKey&) const noexcept = default;
};
std::ostream& operator<<(std::ostream& out, const EapKey& key);

}  // namespace Dot1x
