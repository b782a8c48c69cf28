#pragma once

// The EAP-TLS method (RFC 5216, RFC 9190) on one side of one exchange: it moves TLS messages
// between a TlsSession and the type data of EAP-TLS packets, fragmenting what it sends and
// acknowledging each fragment it is sent, and says when the handshake is over. The EAP layer
// around it keeps identifiers, retransmissions and the outcome.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "dot1x/EapTls.h"
#include "dot1x/TlsSession.h"

namespace Dot1x {

class EapTlsMethod {
 public:
  EapTlsMethod(std::shared_ptr<const TlsContext> context, size_t fragmentOctets);

  // The server's first request: EAP-TLS Start.
  static std::string startRequest();

  // Takes the type data of the other side's EAP-TLS packet and returns the type data to answer
  // with. The answer is empty when the method has nothing more to say: then it has either
  // finished or failed. A packet that breaks the framing fails the method.
  std::string process(std::string_view typeData);

  bool finished() const noexcept { return session_.state() == TlsSession::State::finished && !fragments_.pending(); }
  bool failed() const noexcept { return !failure_.empty(); }
  const std::string& failure() const noexcept { return failure_; }
  const TlsSession& session() const noexcept { return session_; }

 private:
  std::string send(std::string message);
  std::string nextFragment();
  void fail(std::string reason);

  TlsSession session_;
  EapTlsReassembly reassembly_;
  EapTlsFragmenter fragments_;
  bool server_;
  bool started_ = false;
  std::string failure_;
};

}  // namespace Dot1x
