// Feeds arbitrary packets to both sides of EAP over EAP-TLS: a peer, and an authenticator that
// has asked for the identity. Each input is a run of packets, each led by its length. The
// authenticator's are made responses to its outstanding request and the peer's requests, so that
// they reach the method and its fragments rather than stop at the identifier. Neither side may
// crash, and neither may end in success without the keys of a finished handshake.

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "dot1x/Eap.h"
#include "dot1x/EapExchange.h"
#include "tests/dot1x/TestPki.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

struct Contexts {
  std::shared_ptr<const Dot1x::TlsContext> server;
  std::shared_ptr<const Dot1x::TlsContext> peer;
};

const Contexts& contexts() {
  static const Contexts made = [] {
    using Dot1x::Testing::TestPki;
    const TestPki pki;
    return Contexts{TestPki::loaded(pki.server(), Dot1x::TlsContext::Side::server),
                    TestPki::loaded(pki.client(), Dot1x::TlsContext::Side::peer)};
  }();
  return made;
}

// A packet made to pass the first checks of the side it goes to: its code, and the identifier
// the authenticator waits for.
std::string aimed(std::string packet, Dot1x::EapCode code, const std::string& outstanding) {
  if (packet.size() >= 2) {
    packet[0] = static_cast<char>(code);
    if (outstanding.size() >= 2) packet[1] = outstanding[1];
  }
  return packet;
}

void requireHonestOutcome(Dot1x::EapOutcome outcome, const Dot1x::EapTlsMethod* method) {
  if (outcome != Dot1x::EapOutcome::success) return;
  require(method != nullptr && method->finished());
  require(!method->session().msk().empty() && method->session().sessionId().size() == 65);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  Dot1x::EapAuthenticator authenticator(contexts().server, 200, 0);
  Dot1x::EapPeer peer(contexts().peer, "fuzz", 200);
  authenticator.begin();
  while (!input.empty()) {
    const size_t length = std::min<size_t>(static_cast<uint8_t>(input[0]), input.size() - 1);
    const std::string packet(input.substr(1, length));
    input.remove_prefix(1 + length);
    const bool toPeer = !packet.empty() && (packet[0] & 0x80) != 0;
    if (toPeer) {
      peer.receive(aimed(packet, Dot1x::EapCode::request, {}));
      requireHonestOutcome(peer.outcome(), peer.method());
    } else {
      authenticator.receive(aimed(packet, Dot1x::EapCode::response, authenticator.outstanding()));
      requireHonestOutcome(authenticator.outcome(), authenticator.method());
      if (authenticator.outcome() != Dot1x::EapOutcome::pending) require(authenticator.outstanding().empty());
    }
  }
  return 0;
}
