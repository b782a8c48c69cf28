#include "dot1x/PaeManager.h"

#include "model/Crypto.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Dot1x::PaeManager")

namespace Dot1x {

bool PaeManager::paeIs(const Lanx::IntfId& intfId, const PaeSettings& settings) {
  const Zef::Ptr<Interface::EthIntfStatus const> eth = ethIntfStatusDir()->intfStatus(intfId);
  if (!eth || (!settings.tls && !settings.passThrough())) return false;
  const Zef::Ptr<SupplicantSm> supplicant = supplicants(intfId);
  const Zef::Ptr<AuthenticatorSm> authenticator = authenticators(intfId);
  if ((supplicant && supplicant->settings() == settings) || (authenticator && authenticator->settings() == settings)) {
    return true;
  }
  // New settings make a new entity: an exchange under the old ones proves nothing of the new.
  paeDel(intfId);
  TRACE(3, ": " << intfId << " as " << settings.role);
  const Zef::Ptr<PaePortStatus> status = statusDir()->portIs(intfId);
  const auto send = [this, intfId](std::string_view frame) {
    if (transmit()) transmit()(intfId, frame);
  };
  if (settings.role == PaeRole::supplicant) {
    const Zef::Ptr<SupplicantSm> made = supplicantsIs(intfId, settings, eth, status, eapKeyStatus(), timerWheel());
    made->transmitIs(send);
    made->handleLinkStatus();
  } else {
    const Zef::Ptr<AuthenticatorSm> made =
        authenticatorsIs(intfId, settings, eth, status, eapKeyStatus(), timerWheel(), nextIdentifier(),
                         settings.passThrough() ? radiusClient() : nullptr);
    nextIdentifierIs(static_cast<uint8_t>(nextIdentifier() + 101));
    made->transmitIs(send);
    made->handleLinkStatus();
  }
  return true;
}

void PaeManager::paeDel(const Lanx::IntfId& intfId) {
  supplicantsDel(intfId);
  authenticatorsDel(intfId);
  statusDir()->portDel(intfId);
}

bool PaeManager::reauthenticate(const Lanx::IntfId& intfId) {
  if (const Zef::Ptr<SupplicantSm> supplicant = supplicants(intfId)) {
    supplicant->reauthenticate();
    return true;
  }
  if (const Zef::Ptr<AuthenticatorSm> authenticator = authenticators(intfId)) {
    authenticator->reauthenticate();
    return true;
  }
  return false;
}

bool PaeManager::loggedOffIs(const Lanx::IntfId& intfId, bool loggedOff) {
  const Zef::Ptr<SupplicantSm> supplicant = supplicants(intfId);
  if (!supplicant) return false;
  supplicant->loggedOffIs(loggedOff);
  return true;
}

bool PaeManager::frameIs(const Lanx::IntfId& intfId, const EapolFrame& frame) {
  if (const Zef::Ptr<SupplicantSm> supplicant = supplicants(intfId)) {
    supplicant->frameIs(frame);
    return true;
  }
  if (const Zef::Ptr<AuthenticatorSm> authenticator = authenticators(intfId)) {
    authenticator->frameIs(frame);
    return true;
  }
  return false;
}

std::shared_ptr<RadiusClient> PaeManager::radiusClient() {
  if (!radius_) {
    radius_ = std::make_shared<RadiusClient>(statusDir(), [] {
      RadiusAuthenticator authenticator{};
      const Macsec::KeyBytes random = Macsec::randomBytes(authenticator.size());
      std::copy(random.data(), random.data() + authenticator.size(), authenticator.begin());
      return authenticator;
    });
    radius_->transmitIs([this](const std::string& server, uint32_t channel, std::string_view packet) {
      if (radiusTransmit()) radiusTransmit()(server, channel, packet);
    });
  }
  return radius_;
}

void PaeManager::radiusAnswerIs(const std::string& server, uint32_t channel, std::string_view bytes) {
  if (!radius_) return;
  const std::optional<RadiusDelivery> delivery = radius_->answerIs(server, channel, bytes, Zef::System::currentTime());
  if (!delivery) return;
  if (const Zef::Ptr<AuthenticatorSm> authenticator = authenticators(delivery->port)) {
    authenticator->radiusAnswerIs(*delivery);
  }
}

}  // namespace Dot1x
