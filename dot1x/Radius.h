#pragma once

// RADIUS (RFC 2865) as an authenticator's client carries EAP to its server (RFC 3579): packets read
// and written as pure functions of the bytes, the authenticators of both directions, the
// Message-Authenticator that every packet of EAP carries, EAP packets cut into attributes and
// joined again, and the keys of RFC 2548 that an Access-Accept brings. MD5 is RADIUS's own hash;
// OpenSSL computes it, from a provider other than the FIPS one: FIPS mode allows RADIUS only over
// TLS, where MD5 frames the packets and protects nothing.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/KeyBytes.h"

namespace Dot1x {

enum class RadiusCode : uint8_t {
  accessRequest = 1,
  accessAccept = 2,
  accessReject = 3,
  accessChallenge = 11,
};
const char* radiusCodeText(RadiusCode code);

// The attribute types the client sends and reads.
enum class RadiusType : uint8_t {
  userName = 1,
  nasIpAddress = 4,
  nasPort = 5,
  framedMtu = 12,
  state = 24,
  vendorSpecific = 26,
  sessionTimeout = 27,
  terminationAction = 29,
  calledStationId = 30,
  callingStationId = 31,
  nasIdentifier = 32,
  nasPortType = 61,
  eapMessage = 79,
  messageAuthenticator = 80,
  nasPortId = 87,
  eapKeyName = 102,
};

// Microsoft's vendor number, and its types of the keys an Access-Accept brings (RFC 2548).
inline constexpr uint32_t kMicrosoftVendor = 311;
inline constexpr uint8_t kMsMppeSendKey = 16;
inline constexpr uint8_t kMsMppeRecvKey = 17;

// The longest packet RFC 2865 allows, and the longest value of one attribute.
inline constexpr size_t kRadiusMaxOctets = 4096;
inline constexpr size_t kRadiusMaxValueOctets = 253;

using RadiusAuthenticator = std::array<uint8_t, 16>;

struct RadiusAttribute {
  uint8_t type = 0;
  std::string value;
};

struct RadiusPacket {
  RadiusCode code = RadiusCode::accessRequest;
  uint8_t identifier = 0;
  RadiusAuthenticator authenticator{};
  std::vector<RadiusAttribute> attributes;

  void add(RadiusType type, std::string_view value);
  // An attribute of RADIUS's integer kind: four octets, most significant first.
  void addInteger(RadiusType type, uint32_t value);
  // An EAP packet, cut into EAP-Message attributes of at most 253 octets, in order.
  void addEapMessage(std::string_view eap);
  // The first attribute of a type, or null.
  const std::string* attribute(RadiusType type) const;
  // The value of the first attribute of a type, read as an integer; none if absent or not four
  // octets long.
  std::optional<uint32_t> integerAttribute(RadiusType type) const;
  // Every EAP-Message attribute joined, in order: the EAP packet the server sent.
  std::string eapMessage() const;
  // The value of the first vendor attribute of that vendor and type, if there is one; it points
  // into the packet.
  std::optional<std::string_view> vendorAttribute(uint32_t vendor, uint8_t type) const;
};

// Why a packet was refused.
enum class RadiusRefusal : uint8_t {
  none,
  tooShort,                 // shorter than its header
  badLength,                // a length below the header's, above 4,096 or past what arrived
  badAttribute,             // an attribute shorter than its header or running past the packet
  notAnAnswer,              // a code that does not answer an Access-Request
  badAuthenticator,         // the Response Authenticator does not check with the secret
  noMessageAuthenticator,   // an answer that carries EAP without a Message-Authenticator
  badMessageAuthenticator,  // one that does not check, or is not 16 octets
};
inline constexpr size_t kRadiusRefusals = 8;
const char* radiusRefusalText(RadiusRefusal refusal);

// Reads a packet's header and attributes, checking nothing that needs the secret.
RadiusRefusal decodeRadius(std::string_view bytes, RadiusPacket& out);

// The bytes of an Access-Request, its Message-Authenticator computed over them with the secret
// (its request authenticator is the packet's own); empty if it would pass 4,096 octets or MD5 is
// refused.
std::string encodeRadiusRequest(const RadiusPacket& request, const Macsec::KeyBytes& secret);
// Reads an answer to the request whose authenticator is given: its code, its Response
// Authenticator and, where it has one or carries EAP, its Message-Authenticator.
RadiusRefusal decodeRadiusAnswer(std::string_view bytes, const RadiusAuthenticator& requestAuthenticator,
                                 const Macsec::KeyBytes& secret, RadiusPacket& out);
// The bytes of an answer, as a server sends it: the Message-Authenticator, then the Response
// Authenticator over all of it. For the tests' servers.
std::string encodeRadiusAnswer(const RadiusPacket& answer, const RadiusAuthenticator& requestAuthenticator,
                               const Macsec::KeyBytes& secret);

// The key an MS-MPPE-Send-Key or -Recv-Key value hides (RFC 2548 2.4.2): a two-octet salt, then
// the key's length and the key, padded to 16 octets and hidden with MD5 of the secret, the
// request authenticator and the salt. False if the value cannot be one.
bool revealMppeKey(std::string_view value, const Macsec::KeyBytes& secret,
                   const RadiusAuthenticator& requestAuthenticator, Macsec::KeyBytes& key);

// The value of an MS-MPPE key attribute that hides `key` under the salt (its high bit set), as a
// server sends it; for the tests' servers.
std::string hideMppeKey(const Macsec::KeyBytes& key, uint16_t salt, const Macsec::KeyBytes& secret,
                        const RadiusAuthenticator& requestAuthenticator);

}  // namespace Dot1x
