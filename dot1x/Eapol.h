#pragma once

// EAPOL frames (IEEE 802.1X-2010 clause 11): the Ethernet and EAPOL headers that every frame of a
// port access entity carries, read and written as pure functions of the bytes. The reader is
// strict about lengths and liberal about everything else: any version above 0 is read as ours,
// and octets after the body (padding, or trailers some equipment adds) are left out of it.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/EthAddr.h"

namespace Dot1x {

// The packet types of IEEE 802.1X-2010 table 11-3.
enum class EapolType : uint8_t {
  eapPacket = 0,
  start = 1,
  logoff = 2,
  key = 3,
  encapsulatedAsfAlert = 4,
  mka = 5,
  announcementGeneric = 6,
  announcementSpecific = 7,
  announcementRequest = 8,
};
inline constexpr size_t kEapolTypes = 9;
const char* eapolTypeText(EapolType type);

// The version this port sends, and the EtherType of every EAPOL frame.
inline constexpr uint8_t kEapolVersion = 3;
inline constexpr uint16_t kEapolEtherType = 0x888E;
// Destination, source, EtherType, then version, packet type and body length.
inline constexpr size_t kEapolHeaderOctets = 18;

// One frame as read. `body` is the body as its length gives it, and points into the frame read.
struct EapolFrame {
  Lanx::EthAddr destination;
  Lanx::EthAddr source;
  uint8_t version = kEapolVersion;
  EapolType type = EapolType::eapPacket;
  std::string_view body;
};

// Why a frame was refused.
enum class EapolRefusal : uint8_t {
  none,
  tooShort,       // shorter than the Ethernet and EAPOL headers
  notEapol,       // another EtherType
  badVersion,     // version 0, which no revision of IEEE 802.1X defines
  badBodyLength,  // a body length that runs past the end of the frame
  unknownType,    // a packet type that IEEE 802.1X does not define
};
inline constexpr size_t kEapolRefusals = 6;
const char* eapolRefusalText(EapolRefusal refusal);

// Reads the headers of a frame. On refusal `out` holds nothing of meaning.
EapolRefusal decodeEapol(std::string_view frame, EapolFrame& out);

// Builds a frame from its headers and body; the body length is the body's. A body of more than
// 65,535 octets has no length to give it: the result is empty.
std::string encodeEapol(const EapolFrame& frame);

}  // namespace Dot1x
