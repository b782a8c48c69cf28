#include "tests/dot1x/TestRadiusServer.h"

#include <gtest/gtest.h>

namespace Dot1x::Testing {

std::string TestRadiusServer::answer(const std::string& bytes) {
  if (bytes == lastRequest_) return lastAnswer_;
  RadiusPacket request;
  EXPECT_EQ(decodeRadius(bytes, request), RadiusRefusal::none);
  ++requests;
  lastUserName = *request.attribute(RadiusType::userName);
  lastNasPortId = *request.attribute(RadiusType::nasPortId);
  const std::string eap = request.eapMessage();
  EapPacket response;
  if (decodeEap(eap, response) == EapRefusal::none && response.type == EapType::identity) {
    // The port asked for the identity itself: the exchange goes on from its request.
    eap_ = std::make_unique<EapAuthenticator>(tls_, 1000, static_cast<uint8_t>(response.identifier - 1));
    eap_->begin();
  }
  const std::string out = eap_ ? eap_->receive(eap).send : std::string();
  RadiusPacket answer;
  answer.identifier = request.identifier;
  answer.addEapMessage(out);
  switch (eap_ ? eap_->outcome() : EapOutcome::failure) {
    case EapOutcome::pending:
      answer.code = RadiusCode::accessChallenge;
      answer.add(RadiusType::state, "round " + std::to_string(++rounds_));
      break;
    case EapOutcome::failure:
      answer.code = RadiusCode::accessReject;
      break;
    case EapOutcome::success: {
      answer.code = RadiusCode::accessAccept;
      const TlsSession& session = eap_->method()->session();
      session.msk().withClear([&](const Macsec::KeyBytes& msk) {
        if (!withKeys) return 0;
        for (const auto& [type, offset] : {std::pair{kMsMppeRecvKey, 0}, std::pair{kMsMppeSendKey, 32}}) {
          const std::string hidden =
              hideMppeKey(Macsec::KeyBytes(msk.data() + offset, 32), 0x1234, secret_, request.authenticator);
          answer.add(RadiusType::vendorSpecific, std::string("\x00\x00\x01\x37", 4) + static_cast<char>(type) +
                                                     static_cast<char>(hidden.size() + 2) + hidden);
        }
        return 0;
      });
      if (withKeyName) {
        answer.add(RadiusType::eapKeyName,
                   std::string(reinterpret_cast<const char*>(session.sessionId().data()), session.sessionId().size()));
      }
      if (sessionTimeout > 0) answer.addInteger(RadiusType::sessionTimeout, sessionTimeout);
      break;
    }
  }
  lastRequest_ = bytes;
  lastAnswer_ = encodeRadiusAnswer(answer, request.authenticator, secret_);
  return lastAnswer_;
}

}  // namespace Dot1x::Testing
