#include "dot1x/EapExchange.h"

namespace Dot1x {

EapAuthenticator::EapAuthenticator(std::shared_ptr<const TlsContext> server, size_t fragmentOctets,
                                   uint8_t firstIdentifier)
    : server_(std::move(server)), fragmentOctets_(fragmentOctets), identifier_(firstIdentifier) {}

std::string EapAuthenticator::begin() {
  method_.reset();
  outcome_ = EapOutcome::pending;
  failure_.clear();
  identity_.clear();
  return request(EapType::identity, {});
}

EapStep EapAuthenticator::receive(std::string_view packet) {
  EapPacket response;
  if (decodeEap(packet, response) != EapRefusal::none) return {{}, "malformed"};
  if (response.code != EapCode::response) return {{}, "not a response"};
  if (outcome_ != EapOutcome::pending || outstanding_.empty()) return {{}, "no request outstanding"};
  if (response.identifier != identifier_) return {{}, "answers another request"};

  // The identity first, then EAP-TLS, the one method offered.
  if (!method_) {
    if (response.type != EapType::identity) return {{}, "not the identity asked for"};
    identity_ = std::string(response.data);
    method_ = std::make_unique<EapTlsMethod>(server_, fragmentOctets_);
    return {request(EapType::tls, EapTlsMethod::startRequest())};
  }
  if (response.type == EapType::nak) return {finish(EapOutcome::failure, "the peer does not take EAP-TLS")};
  if (response.type != EapType::tls) return {{}, "another method"};
  const std::string answer = method_->process(response.data);
  if (!answer.empty()) return {request(EapType::tls, answer)};
  if (method_->finished()) return {finish(EapOutcome::success)};
  return {finish(EapOutcome::failure, method_->failure())};
}

std::string EapAuthenticator::request(EapType type, std::string_view data) {
  ++identifier_;
  outstanding_ = encodeEap(EapPacket{EapCode::request, identifier_, type, data});
  return outstanding_;
}

std::string EapAuthenticator::finish(EapOutcome outcome, std::string reason) {
  outcome_ = outcome;
  failure_ = std::move(reason);
  outstanding_.clear();
  // A success or failure carries the identifier of the response it answers.
  const EapCode code = outcome == EapOutcome::success ? EapCode::success : EapCode::failure;
  return encodeEap(EapPacket{code, identifier_, EapType::identity, {}});
}

EapPeer::EapPeer(std::shared_ptr<const TlsContext> peer, std::string identity, size_t fragmentOctets)
    : peer_(std::move(peer)), identity_(std::move(identity)), fragmentOctets_(fragmentOctets) {}

EapStep EapPeer::receive(std::string_view packet) {
  EapPacket in;
  if (decodeEap(packet, in) != EapRefusal::none) return {{}, "malformed"};
  switch (in.code) {
    case EapCode::response:
      return {{}, "not a request"};
    case EapCode::success:
      // Only the method's own end makes a success: before it, a success proves nothing.
      if (outcome_ != EapOutcome::pending || !method_ || !method_->finished()) return {{}, "success before the method"};
      outcome_ = EapOutcome::success;
      return {};
    case EapCode::failure:
      if (outcome_ != EapOutcome::pending) return {{}, "failure after the outcome"};
      outcome_ = EapOutcome::failure;
      failure_ = method_ && method_->failed() ? method_->failure() : "the authenticator refused";
      return {};
    case EapCode::request:
      break;
  }
  // The authenticator sends a request again when our answer was lost: the same answer goes back,
  // and the request is not taken twice. A request is the same when it is the same to the octet;
  // one with the last identifier but other contents is new (an authenticator that started over).
  const std::string_view request = packet.substr(0, 5 + in.data.size());
  if (request == lastRequest_ && !lastResponse_.empty()) return {lastResponse_};
  std::string response = answer(in);
  if (response.empty()) return {{}, "nothing to answer"};
  lastRequest_ = request;
  lastResponse_ = response;
  return {std::move(response)};
}

std::string EapPeer::answer(const EapPacket& request) {
  switch (request.type) {
    case EapType::identity:
      // A new identity request begins a new exchange.
      method_.reset();
      outcome_ = EapOutcome::pending;
      failure_.clear();
      return encodeEap(EapPacket{EapCode::response, request.identifier, EapType::identity, identity_});
    case EapType::notification:
      return encodeEap(EapPacket{EapCode::response, request.identifier, EapType::notification, {}});
    case EapType::tls: {
      if (!method_) method_ = std::make_unique<EapTlsMethod>(peer_, fragmentOctets_);
      const std::string data = method_->process(request.data);
      if (data.empty()) return std::string();
      return encodeEap(EapPacket{EapCode::response, request.identifier, EapType::tls, data});
    }
    default: {
      // Any other method: we take EAP-TLS only.
      static constexpr char kTls[] = {static_cast<char>(EapType::tls)};
      return encodeEap(EapPacket{EapCode::response, request.identifier, EapType::nak, {kTls, 1}});
    }
  }
}

}  // namespace Dot1x
