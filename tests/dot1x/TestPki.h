#pragma once

// Certificates made at test time, never kept: an authority, a server and a client it signs, and
// the certificates that must be refused (expired, from another authority, with the wrong name),
// written as PEM files into a directory of their own that goes with the object.

#include <filesystem>
#include <memory>
#include <string>

#include "dot1x/TlsSession.h"

namespace Dot1x::Testing {

class TestPki {
 public:
  TestPki();
  ~TestPki();
  TestPki(const TestPki&) = delete;
  TestPki& operator=(const TestPki&) = delete;

  // The file of a name: "ca.pem", "server.pem", "server.key", "client.pem", "client.key",
  // "expired.pem", "expired.key", "stranger.pem", "stranger.key" (signed by "other-ca.pem"),
  // "misnamed.pem", "misnamed.key", "locked.key" (the client's key under the passphrase
  // "open sesame"). The server's certificate names many hosts, so that its handshake messages
  // need several EAP frames.
  std::string file(const std::string& name) const { return (dir_ / name).string(); }

  // Credentials of the certificate and key of a name ("server", "expired", ...), trusting the
  // authority and accepting the peer name.
  TlsCredentials credentials(const std::string& name, const std::string& peerName,
                             TlsVersion maxVersion = TlsVersion::tls13) const;
  // The authority's server and client: each accepts the other's name.
  TlsCredentials server(TlsVersion maxVersion = TlsVersion::tls13) const {
    return credentials("server", "client.example", maxVersion);
  }
  TlsCredentials client(TlsVersion maxVersion = TlsVersion::tls13) const {
    return credentials("client", "server.example", maxVersion);
  }

  // Credentials loaded for a side; throws std::runtime_error with the reason if they do not load.
  static std::shared_ptr<const TlsContext> loaded(const TlsCredentials& credentials, TlsContext::Side side);

 private:
  std::filesystem::path dir_;
};

}  // namespace Dot1x::Testing
