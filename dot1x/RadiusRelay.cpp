#include "dot1x/RadiusRelay.h"

#include <cstdio>

#include "dot1x/Eap.h"

namespace Dot1x {

namespace {

constexpr uint32_t kNasPortTypeEthernet = 15;
constexpr uint32_t kTerminationRadiusRequest = 1;
constexpr size_t kMppeKeyOctets = 32;

// A station's address as RFC 3580 writes it: "00-10-A4-23-19-C0".
std::string stationId(const Lanx::EthAddr& addr) {
  char text[18];
  const uint8_t* a = addr.data();
  std::snprintf(text, sizeof text, "%02X-%02X-%02X-%02X-%02X-%02X", a[0], a[1], a[2], a[3], a[4], a[5]);
  return text;
}

}  // namespace

RadiusRelay::RadiusRelay(RadiusNas nas, Macsec::KeyBytes secret, std::function<RadiusAuthenticator()> random,
                         uint8_t firstIdentifier)
    : nas_(std::move(nas)), secret_(std::move(secret)), random_(std::move(random)), nextIdentifier_(firstIdentifier) {}

std::string RadiusRelay::request(std::string_view eapResponse) {
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
  request.identifier = nextIdentifier_++;
  request.authenticator = random_();
  request.add(RadiusType::userName, identity_);
  request.add(RadiusType::nasIdentifier, nas_.identifier);
  request.addInteger(RadiusType::nasPort, nas_.port);
  request.addInteger(RadiusType::nasPortType, kNasPortTypeEthernet);
  request.add(RadiusType::calledStationId, stationId(nas_.own));
  request.add(RadiusType::callingStationId, stationId(nas_.peer));
  request.addInteger(RadiusType::framedMtu, nas_.framedMtu);
  if (!state_.empty()) request.add(RadiusType::state, state_);
  request.addEapMessage(eapResponse);
  outstanding_ = encodeRadiusRequest(request, secret_);
  outstandingAuthenticator_ = request.authenticator;
  return outstanding_;
}

RadiusStep RadiusRelay::answer(std::string_view bytes) {
  if (outstanding_.empty()) return {{}, "no request outstanding"};
  if (bytes.size() < 2 || bytes[1] != outstanding_[1]) return {{}, "answers another request"};
  RadiusPacket answer;
  if (const RadiusRefusal refusal = decodeRadiusAnswer(bytes, outstandingAuthenticator_, secret_, answer);
      refusal != RadiusRefusal::none) {
    return {{}, radiusRefusalText(refusal)};
  }
  outstanding_.clear();
  const std::string* state = answer.attribute(RadiusType::state);
  state_ = state ? *state : std::string();
  switch (answer.code) {
    case RadiusCode::accessChallenge:
      return {answer.eapMessage()};
    case RadiusCode::accessReject:
      outcome_ = EapOutcome::failure;
      failure_ = "the server rejected the supplicant";
      return {answer.eapMessage()};
    default:
      return accepted(answer);
  }
}

RadiusStep RadiusRelay::accepted(const RadiusPacket& accept) {
  // The keys come hidden under the secret and this request's authenticator; the MSK is the key
  // the authenticator receives with, then the one it sends with.
  Macsec::KeyBytes msk;
  for (const uint8_t type : {kMsMppeRecvKey, kMsMppeSendKey}) {
    Macsec::KeyBytes half;
    const auto hidden = accept.vendorAttribute(kMicrosoftVendor, type);
    if (!hidden || !revealMppeKey(*hidden, secret_, outstandingAuthenticator_, half) || half.size() != kMppeKeyOctets) {
      outcome_ = EapOutcome::failure;
      failure_ = "the server accepted the supplicant but gave no keys (MS-MPPE-Recv-Key and -Send-Key)";
      return {};
    }
    msk.append(half);
  }
  const std::string* keyName = accept.attribute(RadiusType::eapKeyName);
  if (keyName == nullptr || keyName->empty()) {
    outcome_ = EapOutcome::failure;
    failure_ = "the server accepted the supplicant but gave no session identifier (EAP-Key-Name)";
    return {};
  }
  grant_.msk = Macsec::StoredKey::of(msk);
  grant_.sessionId = Macsec::EapSessionId(reinterpret_cast<const uint8_t*>(keyName->data()), keyName->size());
  grant_.sessionTimeout = accept.integerAttribute(RadiusType::sessionTimeout).value_or(0);
  grant_.reauthenticate =
      accept.integerAttribute(RadiusType::terminationAction).value_or(0) == kTerminationRadiusRequest;
  outcome_ = EapOutcome::success;
  return {accept.eapMessage()};
}

}  // namespace Dot1x
