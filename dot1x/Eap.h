#pragma once

// EAP packets (RFC 3748 section 4): code, identifier and length, and for requests and responses
// the method type and what follows it, read and written as pure functions of the bytes. Octets
// after the length the packet gives are padding and left out, as the RFC asks.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Dot1x {

enum class EapCode : uint8_t {
  request = 1,
  response = 2,
  success = 3,
  failure = 4,
};
const char* eapCodeText(EapCode code);

// Method types from the IANA registry that this stack names. A packet carries any other value as
// it came, so that a peer can refuse a method it does not know.
enum class EapType : uint8_t {
  identity = 1,
  notification = 2,
  nak = 3,
  md5Challenge = 4,
  tls = 13,
  expanded = 254,
};

// The header of an EAP packet, and 4 octets of every one.
inline constexpr size_t kEapHeaderOctets = 4;

// One packet. `type` and `data` belong to requests and responses; `data`, what follows the type,
// points into the octets read.
struct EapPacket {
  EapCode code = EapCode::request;
  uint8_t identifier = 0;
  EapType type = EapType::identity;
  std::string_view data;

  bool hasType() const noexcept { return code == EapCode::request || code == EapCode::response; }
};

// Why a packet was refused.
enum class EapRefusal : uint8_t {
  none,
  tooShort,     // shorter than the header, or a request or response with no type
  badLength,    // a length below the header's, or past the end of what arrived
  unknownCode,  // a code that RFC 3748 does not define
};
inline constexpr size_t kEapRefusals = 4;
const char* eapRefusalText(EapRefusal refusal);

// Reads a packet (the body of an EAP-Packet frame, or an attribute's value). On refusal `out`
// holds nothing of meaning.
EapRefusal decodeEap(std::string_view octets, EapPacket& out);

// Builds a packet; a success or failure has no type or data. A packet of more than 65,535 octets
// has no length to give it: the result is empty.
std::string encodeEap(const EapPacket& packet);

}  // namespace Dot1x
