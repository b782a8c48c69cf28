#include "dot1x/Eap.h"

namespace Dot1x {

const char* eapCodeText(EapCode code) {
  switch (code) {
    case EapCode::request:
      return "Request";
    case EapCode::response:
      return "Response";
    case EapCode::success:
      return "Success";
    case EapCode::failure:
      return "Failure";
  }
  return "unknown";
}

const char* eapRefusalText(EapRefusal refusal) {
  switch (refusal) {
    case EapRefusal::none:
      return "accepted";
    case EapRefusal::tooShort:
      return "too short";
    case EapRefusal::badLength:
      return "length disagrees with the packet";
    case EapRefusal::unknownCode:
      return "unknown code";
  }
  return "unknown";
}

EapRefusal decodeEap(std::string_view octets, EapPacket& out) {
  if (octets.size() < kEapHeaderOctets) return EapRefusal::tooShort;
  const auto* bytes = reinterpret_cast<const uint8_t*>(octets.data());
  const size_t length = static_cast<size_t>(bytes[2] << 8 | bytes[3]);
  if (length < kEapHeaderOctets || length > octets.size()) return EapRefusal::badLength;
  if (bytes[0] < static_cast<uint8_t>(EapCode::request) || bytes[0] > static_cast<uint8_t>(EapCode::failure)) {
    return EapRefusal::unknownCode;
  }
  out.code = static_cast<EapCode>(bytes[0]);
  out.identifier = bytes[1];
  out.data = std::string_view();
  // A success or failure is its header; anything its length claims beyond that is ignored.
  if (!out.hasType()) return EapRefusal::none;
  if (length < kEapHeaderOctets + 1) return EapRefusal::tooShort;
  out.type = static_cast<EapType>(bytes[kEapHeaderOctets]);
  out.data = octets.substr(kEapHeaderOctets + 1, length - kEapHeaderOctets - 1);
  return EapRefusal::none;
}

std::string encodeEap(const EapPacket& packet) {
  const size_t length = kEapHeaderOctets + (packet.hasType() ? 1 + packet.data.size() : 0);
  if (length > 0xFFFF) return std::string();
  std::string out(kEapHeaderOctets, '\0');
  out[0] = static_cast<char>(packet.code);
  out[1] = static_cast<char>(packet.identifier);
  out[2] = static_cast<char>(length >> 8);
  out[3] = static_cast<char>(length);
  if (packet.hasType()) {
    out.push_back(static_cast<char>(packet.type));
    out.append(packet.data);
  }
  return out;
}

}  // namespace Dot1x
