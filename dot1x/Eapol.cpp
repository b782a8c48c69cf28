#include "dot1x/Eapol.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace Dot1x {

const char* eapolTypeText(EapolType type) {
  switch (type) {
    case EapolType::eapPacket:
      return "EAP-Packet";
    case EapolType::start:
      return "EAPOL-Start";
    case EapolType::logoff:
      return "EAPOL-Logoff";
    case EapolType::key:
      return "EAPOL-Key";
    case EapolType::encapsulatedAsfAlert:
      return "EAPOL-Encapsulated-ASF-Alert";
    case EapolType::mka:
      return "EAPOL-MKA";
    case EapolType::announcementGeneric:
      return "EAPOL-Announcement (Generic)";
    case EapolType::announcementSpecific:
      return "EAPOL-Announcement (Specific)";
    case EapolType::announcementRequest:
      return "EAPOL-Announcement-Req";
  }
  return "unknown";
}

const char* eapolRefusalText(EapolRefusal refusal) {
  switch (refusal) {
    case EapolRefusal::none:
      return "accepted";
    case EapolRefusal::tooShort:
      return "too short";
    case EapolRefusal::notEapol:
      return "not EAPOL";
    case EapolRefusal::badVersion:
      return "unsupported version";
    case EapolRefusal::badBodyLength:
      return "body length disagrees with the frame";
    case EapolRefusal::unknownType:
      return "unknown packet type";
  }
  return "unknown";
}

EapolRefusal decodeEapol(std::string_view frame, EapolFrame& out) {
  if (frame.size() < kEapolHeaderOctets) return EapolRefusal::tooShort;
  const auto* bytes = reinterpret_cast<const uint8_t*>(frame.data());
  if ((bytes[12] << 8 | bytes[13]) != kEapolEtherType) return EapolRefusal::notEapol;
  // A later version is read as ours: its receivers must take the frames of earlier ones, and
  // what a later one adds lies past what this reader looks at.
  if (bytes[14] == 0) return EapolRefusal::badVersion;
  if (bytes[15] >= kEapolTypes) return EapolRefusal::unknownType;
  const size_t bodyLength = static_cast<size_t>(bytes[16] << 8 | bytes[17]);
  if (bodyLength > frame.size() - kEapolHeaderOctets) return EapolRefusal::badBodyLength;

  std::array<uint8_t, 6> address;
  std::memcpy(address.data(), bytes, 6);
  out.destination = Lanx::EthAddr(address);
  std::memcpy(address.data(), bytes + 6, 6);
  out.source = Lanx::EthAddr(address);
  out.version = bytes[14];
  out.type = static_cast<EapolType>(bytes[15]);
  out.body = frame.substr(kEapolHeaderOctets, bodyLength);
  return EapolRefusal::none;
}

std::string encodeEapol(const EapolFrame& frame) {
  if (frame.body.size() > 0xFFFF) return std::string();
  std::string out(kEapolHeaderOctets + frame.body.size(), '\0');
  auto* bytes = reinterpret_cast<uint8_t*>(out.data());
  std::memcpy(bytes, frame.destination.data(), 6);
  std::memcpy(bytes + 6, frame.source.data(), 6);
  bytes[12] = static_cast<uint8_t>(kEapolEtherType >> 8);
  bytes[13] = static_cast<uint8_t>(kEapolEtherType);
  bytes[14] = frame.version;
  bytes[15] = static_cast<uint8_t>(frame.type);
  bytes[16] = static_cast<uint8_t>(frame.body.size() >> 8);
  bytes[17] = static_cast<uint8_t>(frame.body.size());
  std::copy(frame.body.begin(), frame.body.end(), out.begin() + kEapolHeaderOctets);
  return out;
}

}  // namespace Dot1x
