#include "dot1x/RadiusRelay.h"

#include <cstdio>

#include "dot1x/Eap.h"

namespace Dot1x {

namespace {

constexpr uint32_t kNasPortTypeEthernet = 15;
constexpr size_t kMppeKeyOctets = 32;

// A station's address as RFC 3580 writes it: "00-10-A4-23-19-C0".
std::string stationId(const Lanx::EthAddr& addr) {
  char text[18];
  const uint8_t* a = addr.data();
  std::snprintf(text, sizeof text, "%02X-%02X-%02X-%02X-%02X-%02X", a[0], a[1], a[2], a[3], a[4], a[5]);
  return text;
}

}  // namespace

RadiusPacket RadiusRelay::request(std::string_view eapResponse) {
  EapPacket response;
  if (decodeEap(eapResponse, response) == EapRefusal::none && response.code == EapCode::response &&
      response.type == EapType::identity) {
    // A new exchange: the identity names the user, and no State of the last one goes on.
    identity_ = std::string(response.data);
    state_.clear();
    outcome_ = EapOutcome::pending;
    failure_.clear();
    grant_ = RadiusGrant();
  }
  RadiusPacket request;
  request.add(RadiusType::userName, identity_);
  request.add(RadiusType::nasIdentifier, nas_.identifier);
  request.addInteger(RadiusType::nasPort, nas_.port);
  request.add(RadiusType::nasPortId, nas_.portName);
  request.addInteger(RadiusType::nasPortType, kNasPortTypeEthernet);
  request.add(RadiusType::calledStationId, stationId(nas_.own));
  request.add(RadiusType::callingStationId, stationId(nas_.peer));
  request.addInteger(RadiusType::framedMtu, nas_.framedMtu);
  if (!state_.empty()) request.add(RadiusType::state, state_);
  request.addEapMessage(eapResponse);
  lastRequest_ = request;
  return request;
}

std::string RadiusRelay::answer(const RadiusPacket& answer, const Macsec::StoredKey& secret,
                                const RadiusAuthenticator& requestAuthenticator) {
  const std::string* state = answer.attribute(RadiusType::state);
  state_ = state ? *state : std::string();
  switch (answer.code) {
    case RadiusCode::accessChallenge:
      break;
    case RadiusCode::accessReject:
      outcome_ = EapOutcome::failure;
      failure_ = "the RADIUS server rejected the supplicant";
      break;
    default:
      accepted(answer, secret, requestAuthenticator);
      break;
  }
  return answer.eapMessage();
}

void RadiusRelay::accepted(const RadiusPacket& accept, const Macsec::StoredKey& secret,
                           const RadiusAuthenticator& requestAuthenticator) {
  // The keys come hidden under the secret and the request's authenticator; the MSK is the key
  // the authenticator receives with, then the one it sends with.
  Macsec::KeyBytes msk;
  for (const uint8_t type : {kMsMppeRecvKey, kMsMppeSendKey}) {
    Macsec::KeyBytes half;
    const auto hidden = accept.vendorAttribute(kMicrosoftVendor, type);
    const bool revealed = hidden && secret.withClear([&](const Macsec::KeyBytes& clear) {
      return revealMppeKey(*hidden, clear, requestAuthenticator, half);
    });
    if (!revealed || half.size() != kMppeKeyOctets) {
      outcome_ = EapOutcome::failure;
      failure_ = "the RADIUS server accepted the supplicant but gave no keys (MS-MPPE-Recv-Key and -Send-Key)";
      return;
    }
    msk.append(half);
  }
  const std::string* keyName = accept.attribute(RadiusType::eapKeyName);
  if (keyName == nullptr || keyName->empty()) {
    outcome_ = EapOutcome::failure;
    failure_ = "the RADIUS server accepted the supplicant but gave no session identifier (EAP-Key-Name)";
    return;
  }
  grant_.msk = Macsec::StoredKey::of(msk);
  grant_.sessionId = Macsec::EapSessionId(reinterpret_cast<const uint8_t*>(keyName->data()), keyName->size());
  grant_.sessionTimeout = accept.integerAttribute(RadiusType::sessionTimeout).value_or(0);
  outcome_ = EapOutcome::success;
}

}  // namespace Dot1x
