#include "dot1x/RadiusClient.h"

#include "model/LogMessages.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Dot1x::RadiusClient")

namespace Dot1x {

RadiusClient::RadiusClient(Zef::Ptr<PaeStatusDir> statusDir, std::function<RadiusAuthenticator()> random)
    : statusDir_(std::move(statusDir)), random_(std::move(random)) {}

Zef::Ptr<RadiusServerStatus> RadiusClient::serverStatus(const std::string& server) {
  return statusDir_->radiusServerIs(Zef::String(server));
}

std::pair<uint32_t, uint8_t> RadiusClient::identifierFor(const std::string& server) {
  std::vector<Channel>& channels = channels_[server];
  for (uint32_t c = 0; c < channels.size(); ++c) {
    Channel& channel = channels[c];
    // The next free identifier after the last one given, so that an identifier just freed is
    // the last to be given again: a late answer to it then finds nothing outstanding.
    for (int tried = 0; tried < 256; ++tried) {
      const uint8_t identifier = channel.next++;
      if (!channel.busy[identifier]) return {c, identifier};
    }
  }
  channels.emplace_back();
  return {static_cast<uint32_t>(channels.size() - 1), channels.back().next++};
}

bool RadiusClient::send(const Lanx::IntfId& port, const RadiusServerSettings& server, RadiusPacket request,
                        double now) {
  cancel(port);
  const auto [channel, identifier] = identifierFor(server.name);
  request.identifier = identifier;
  request.authenticator = random_();
  std::string bytes =
      server.secret.withClear([&](const Macsec::KeyBytes& secret) { return encodeRadiusRequest(request, secret); });
  if (bytes.empty()) return false;
  channels_[server.name][channel].busy[identifier] = true;
  ports_[{server.name, channel, identifier}] = port;
  Outstanding& sent = outstanding_[port];
  sent = Outstanding{server.name,   channel,         identifier,       request.authenticator,
                     server.secret, server.deadTime, std::move(bytes), now};
  serverStatus(server.name)->requestsInc();
  TRACE(5, ": " << port << " request " << int(identifier) << " to " << server.name << " on " << channel);
  if (transmit_) transmit_(sent.server, channel, sent.bytes);
  return true;
}

void RadiusClient::resend(const Lanx::IntfId& port) {
  const auto it = outstanding_.find(port);
  if (it == outstanding_.end()) return;
  it->second.resent = true;
  serverStatus(it->second.server)->retransmissionsInc();
  if (transmit_) transmit_(it->second.server, it->second.channel, it->second.bytes);
}

void RadiusClient::timedOut(const Lanx::IntfId& port, double now) {
  const auto it = outstanding_.find(port);
  if (it == outstanding_.end()) return;
  const Zef::Ptr<RadiusServerStatus> status = serverStatus(it->second.server);
  status->timeoutsInc();
  status->upIs(false);
  Zef::log(Macsec::DOT1X_RADIUS_SERVER_DOWN, it->second.server, it->second.deadTime);
  downUntil_[it->second.server] = now + it->second.deadTime;
  cancel(port);
}

void RadiusClient::cancel(const Lanx::IntfId& port) {
  const auto it = outstanding_.find(port);
  if (it == outstanding_.end()) return;
  release(it->second);
  outstanding_.erase(it);
}

void RadiusClient::release(const Outstanding& request) {
  channels_[request.server][request.channel].busy[request.identifier] = false;
  ports_.erase({request.server, request.channel, request.identifier});
}

bool RadiusClient::up(const std::string& server, double now) const {
  const auto it = downUntil_.find(server);
  return it == downUntil_.end() || now >= it->second;
}

void RadiusClient::discarded(const std::string& server, const char* reason) {
  const Zef::Ptr<RadiusServerStatus> status = serverStatus(server);
  const Zef::String key(reason);
  status->discardedIs(key, status->discarded(key) + 1);
  TRACE(3, ": from " << server << " discarded: " << reason);
}

std::optional<RadiusDelivery> RadiusClient::answerIs(const std::string& server, uint32_t channel,
                                                     std::string_view bytes, double now) {
  if (bytes.size() < 2) {
    discarded(server, radiusRefusalText(RadiusRefusal::tooShort));
    return std::nullopt;
  }
  const auto owner = ports_.find({server, channel, static_cast<uint8_t>(bytes[1])});
  if (owner == ports_.end()) {
    discarded(server, "answers no request outstanding");
    return std::nullopt;
  }
  const Lanx::IntfId port = owner->second;
  Outstanding& request = outstanding_.at(port);
  RadiusDelivery delivery{port, {}, request.authenticator, request.secret};
  const RadiusRefusal refusal = request.secret.withClear([&](const Macsec::KeyBytes& secret) {
    return decodeRadiusAnswer(bytes, request.authenticator, secret, delivery.answer);
  });
  if (refusal != RadiusRefusal::none) {
    discarded(server, radiusRefusalText(refusal));
    return std::nullopt;
  }
  const Zef::Ptr<RadiusServerStatus> status = serverStatus(server);
  switch (delivery.answer.code) {
    case RadiusCode::accessAccept:
      status->acceptsInc();
      break;
    case RadiusCode::accessReject:
      status->rejectsInc();
      break;
    default:
      status->challengesInc();
      break;
  }
  // The round trip of a request sent more than once is not known: the answer may be to any.
  if (!request.resent) status->roundTripIs(now - request.sentAt);
  status->upIs(true);
  downUntil_.erase(server);
  cancel(port);
  return delivery;
}

}  // namespace Dot1x
