#pragma once

// TLS for EAP-TLS on OpenSSL, carried in memory: the method hands in what the peer sent and takes
// out what to send back, and no socket is ever involved. One TlsContext holds what a side proves
// itself with and what it accepts of its peer, loaded once; one TlsSession is one handshake, and
// gives the keys of RFC 5216 (TLS 1.2) and RFC 9190 (TLS 1.3) when it ends well.

#include <openssl/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model/Identifiers.h"
#include "model/StoredKey.h"

namespace Dot1x {

enum class TlsVersion : uint8_t { tls12, tls13 };
const char* tlsVersionText(TlsVersion version);

// What one side of EAP-TLS proves itself with, and what it accepts of its peer.
struct TlsCredentials {
  std::string caFile;    // the authorities that sign the peer's certificate (and this side's)
  std::string certFile;  // this side's certificate, followed by any intermediate ones
  std::string keyFile;   // its private key
  // The passphrase of an encrypted key file, if it is one. It is wiped once the key is loaded.
  Macsec::KeyBytes passphrase;
  std::string crlFile;  // revoked certificates, checked when given
  // The names one of which the peer's certificate must carry, in its subject alternative names or,
  // when it has none of the DNS kind, in its subject's common name. None: any certificate that the
  // authorities sign.
  std::vector<std::string> peerNames;
  TlsVersion minVersion = TlsVersion::tls12;
  TlsVersion maxVersion = TlsVersion::tls13;
};

class TlsContext {
 public:
  enum class Side { peer, server };

  // Loads the credentials for one side. On failure the result is null and `error` says what is
  // wrong and with which file: unreadable, or a key that is not the certificate's.
  static std::shared_ptr<const TlsContext> load(TlsCredentials credentials, Side side, std::string& error);
  // Why a peer would refuse this side's certificate: it has expired, is not valid yet, or the
  // authorities do not sign it (with the intermediate certificates of its file); empty if none.
  std::string ownCertificateProblem() const;
  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  Side side() const noexcept { return side_; }
  SSL_CTX* raw() const noexcept { return ctx_; }

 private:
  TlsContext(SSL_CTX* ctx, Side side) : ctx_(ctx), side_(side) {}
  SSL_CTX* ctx_;
  Side side_;
};

class TlsSession {
 public:
  enum class State { handshaking, finished, failed };

  explicit TlsSession(std::shared_ptr<const TlsContext> context);
  ~TlsSession();
  TlsSession(const TlsSession&) = delete;
  TlsSession& operator=(const TlsSession&) = delete;

  // Takes one whole TLS message from the peer (nothing, for the peer side's first flight) and
  // returns the TLS octets to send back, which may be none. When the handshake fails, what it
  // returns is the alert that tells the peer, if there is one.
  std::string input(std::string_view fromPeer);

  State state() const noexcept { return state_; }
  // Why the handshake failed, in OpenSSL's words, with the certificate's problem if it was that.
  const std::string& failure() const noexcept { return failure_; }
  TlsVersion version() const;
  // The peer's certificate subject, one line, once its certificate has been verified.
  std::string peerSubject() const;

  // The keys of the exchange, once finished: the master session key, 64 octets in stored form,
  // and the session identifier (its method type, 13, then 64 octets of the handshake's).
  const Macsec::StoredKey& msk() const noexcept { return msk_; }
  const Macsec::EapSessionId& sessionId() const noexcept { return sessionId_; }

 private:
  void finish();
  void fail(std::string reason);
  std::string drainOutput();

  std::shared_ptr<const TlsContext> context_;
  SSL* ssl_ = nullptr;
  BIO* fromPeer_ = nullptr;  // owned by ssl_
  BIO* toPeer_ = nullptr;    // owned by ssl_
  State state_ = State::handshaking;
  std::string failure_;
  Macsec::StoredKey msk_;
  Macsec::EapSessionId sessionId_;
};

}  // namespace Dot1x
