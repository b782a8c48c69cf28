#include "dot1x/EapTlsMethod.h"

namespace Dot1x {

namespace {

bool isAcknowledgement(const EapTlsFragment& fragment) {
  return !fragment.start && !fragment.more && !fragment.messageLength && fragment.data.empty();
}

}  // namespace

EapTlsMethod::EapTlsMethod(std::shared_ptr<const TlsContext> context, size_t fragmentOctets)
    : session_(context), fragments_(fragmentOctets), server_(context->side() == TlsContext::Side::server) {
  if (session_.state() == TlsSession::State::failed) fail(session_.failure());
}

std::string EapTlsMethod::startRequest() { return encodeEapTls(EapTlsFragment{true, false, std::nullopt, {}}); }

std::string EapTlsMethod::process(std::string_view typeData) {
  if (failed()) return std::string();
  EapTlsFragment fragment;
  if (const EapTlsRefusal refusal = decodeEapTls(typeData, fragment); refusal != EapTlsRefusal::none) {
    fail(std::string("EAP-TLS: ") + eapTlsRefusalText(refusal));
    return std::string();
  }

  // While a message of ours goes out in fragments, the other side only acknowledges them.
  if (fragments_.pending()) {
    if (!isAcknowledgement(fragment)) {
      fail("EAP-TLS: the other side spoke before our fragments were all sent");
      return std::string();
    }
    return nextFragment();
  }
  if (isAcknowledgement(fragment)) {
    // The server's final flight, or an alert, acknowledged: the method is over, one way or the
    // other. Anywhere else an acknowledgement answers nothing.
    if (!server_ || session_.state() == TlsSession::State::handshaking) {
      fail("EAP-TLS: an acknowledgement where a message was due");
    }
    return std::string();
  }
  if (fragment.start) {
    if (server_ || started_) {
      fail("EAP-TLS: a start in the middle of the exchange");
      return std::string();
    }
    started_ = true;
    return send(session_.input(""));
  }
  if (const EapTlsRefusal refusal = reassembly_.add(fragment); refusal != EapTlsRefusal::none) {
    fail(std::string("EAP-TLS: ") + eapTlsRefusalText(refusal));
    return std::string();
  }
  if (reassembly_.awaitingMore()) return encodeEapTls(EapTlsFragment{});

  std::string answer = session_.input(reassembly_.take());
  if (session_.state() == TlsSession::State::failed) {
    // The alert, if there is one, still goes out, so that the other side knows why. A peer that
    // has none acknowledges the server's alert, so that the server can end the exchange.
    failure_ = session_.failure();
    if (!answer.empty()) return send(std::move(answer));
    return server_ ? std::string() : encodeEapTls(EapTlsFragment{});
  }
  if (!answer.empty()) return send(std::move(answer));
  // The peer acknowledges the server's last flight; the server never stays silent mid-handshake.
  if (!server_) return encodeEapTls(EapTlsFragment{});
  fail("EAP-TLS: the peer's message did not move the handshake on");
  return std::string();
}

std::string EapTlsMethod::send(std::string message) {
  fragments_.messageIs(std::move(message));
  return nextFragment();
}

std::string EapTlsMethod::nextFragment() { return encodeEapTls(fragments_.next()); }

void EapTlsMethod::fail(std::string reason) {
  if (failure_.empty()) failure_ = std::move(reason);
}

}  // namespace Dot1x
