#pragma once

// A RADIUS server made of the codec and the local EAP server, for the tests of the authenticator's
// pass-through: each request's EAP goes to the EAP server, and its answer comes back as a Challenge
// with a State, or as an Accept with the keys of the exchange hidden as RFC 2548 hides them, or a
// Reject. A Response/Identity begins a new exchange; a request that comes again gets the answer it
// got before, as real servers keep it.

#include <memory>
#include <string>

#include "dot1x/EapExchange.h"
#include "dot1x/Radius.h"
#include "model/KeyBytes.h"

namespace Dot1x::Testing {

class TestRadiusServer {
 public:
  TestRadiusServer(std::shared_ptr<const TlsContext> tls, Macsec::KeyBytes secret)
      : tls_(std::move(tls)), secret_(std::move(secret)) {}

  // Leaves the keys or the key name out of its Accept.
  bool withKeys = true;
  bool withKeyName = true;
  uint32_t sessionTimeout = 3600;
  // What the last request said of the user and the port.
  std::string lastUserName;
  std::string lastNasPortId;
  // Requests taken, each once.
  int requests = 0;

  // The answer to a request's bytes.
  std::string answer(const std::string& bytes);

 private:
  std::shared_ptr<const TlsContext> tls_;
  Macsec::KeyBytes secret_;
  std::unique_ptr<EapAuthenticator> eap_;
  int rounds_ = 0;
  std::string lastRequest_;
  std::string lastAnswer_;
};

}  // namespace Dot1x::Testing
