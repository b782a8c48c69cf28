// TLS for EAP-TLS, both sides in memory: the handshakes of TLS 1.2 and 1.3 end with the same keys
// on both sides, the keys those of the RFCs computed here apart from OpenSSL's exporters, and
// each way a peer can fail to prove itself ends the handshake with the reason.

#include "dot1x/TlsSession.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>

#include <map>
#include <sstream>

#include "tests/dot1x/TestPki.h"

namespace Dot1x {
namespace {

using Testing::TestPki;

// Runs the handshake, each side answering the other, until neither has anything to say.
void handshake(TlsSession& peer, TlsSession& server) {
  std::string toServer = peer.input("");
  for (int flight = 0; flight < 8; ++flight) {
    const std::string toPeer = server.input(toServer);
    if (toPeer.empty()) return;
    toServer = peer.input(toPeer);
  }
  ADD_FAILURE() << "the handshake does not end";
}

// The secrets OpenSSL logs for a key log file, by label: what the keys derive from.
std::map<std::string, std::string> gSecrets;
void keepSecret(const SSL*, const char* line) {
  std::istringstream words(line);
  std::string label, clientRandom, secret;
  words >> label >> clientRandom >> secret;
  gSecrets[label] = secret;
}

Macsec::KeyBytes octetsOf(const std::string& hex) {
  Macsec::KeyBytes bytes;
  EXPECT_TRUE(Macsec::hexToBytes(hex, bytes));
  return bytes;
}

Macsec::KeyBytes kdf(const char* name, const std::vector<OSSL_PARAM>& params, size_t length) {
  EVP_KDF* kdf = EVP_KDF_fetch(nullptr, name, nullptr);
  EVP_KDF_CTX* ctx = EVP_KDF_CTX_new(kdf);
  Macsec::KeyBytes out(length);
  std::vector<OSSL_PARAM> all = params;
  all.push_back(OSSL_PARAM_construct_end());
  EXPECT_EQ(EVP_KDF_derive(ctx, out.data(), length, all.data()), 1);
  EVP_KDF_CTX_free(ctx);
  EVP_KDF_free(kdf);
  return out;
}

OSSL_PARAM octetParam(const char* key, const std::string& value) {
  return OSSL_PARAM_construct_octet_string(key, const_cast<char*>(value.data()), value.size());
}

std::string asString(const Macsec::KeyBytes& bytes) {
  return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// The TLS 1.2 PRF with SHA-256 (RFC 5246 section 5).
Macsec::KeyBytes prf(const Macsec::KeyBytes& secret, const std::string& labelAndSeed, size_t length) {
  const std::string key = asString(secret);
  char digest[] = "SHA256";
  return kdf("TLS1-PRF",
             {OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
              octetParam(OSSL_KDF_PARAM_SECRET, key), octetParam(OSSL_KDF_PARAM_SEED, labelAndSeed)},
             length);
}

// HKDF-Expand-Label with SHA-256 (RFC 8446 section 7.1).
Macsec::KeyBytes expandLabel(const Macsec::KeyBytes& secret, const std::string& label, const std::string& context,
                             size_t length) {
  std::string info;
  info.push_back(static_cast<char>(length >> 8));
  info.push_back(static_cast<char>(length));
  info.push_back(static_cast<char>(6 + label.size()));
  info += "tls13 " + label;
  info.push_back(static_cast<char>(context.size()));
  info += context;
  const std::string key = asString(secret);
  char digest[] = "SHA256";
  char mode[] = "EXPAND_ONLY";
  return kdf("HKDF",
             {OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
              OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_MODE, mode, 0), octetParam(OSSL_KDF_PARAM_KEY, key),
              octetParam(OSSL_KDF_PARAM_INFO, info)},
             length);
}

std::string sha256(const std::string& data) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest);
  return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

// The TLS 1.3 exporter (RFC 8446 section 7.5).
Macsec::KeyBytes exporter(const Macsec::KeyBytes& exporterSecret, const std::string& label, const std::string& context,
                          size_t length) {
  const Macsec::KeyBytes derived = expandLabel(exporterSecret, label, sha256(""), 32);
  return expandLabel(derived, "exporter", sha256(context), length);
}

std::string clearOf(const Macsec::StoredKey& key) {
  return key.withClear([](const Macsec::KeyBytes& clear) { return asString(clear); });
}

TEST(TlsSession, BothVersionsEndWithTheKeysOfTheirRfcsOnBothSides) {
  const TestPki pki;
  for (const TlsVersion version : {TlsVersion::tls12, TlsVersion::tls13}) {
    SCOPED_TRACE(tlsVersionText(version));
    const auto serverContext = TestPki::loaded(pki.server(), TlsContext::Side::server);
    const auto peerContext = TestPki::loaded(pki.client(version), TlsContext::Side::peer);
    ASSERT_TRUE(serverContext && peerContext);
    // One suite of each version with SHA-256, so that the keys can be computed here; the secrets
    // they come from, as a key log would have them.
    SSL_CTX_set_cipher_list(serverContext->raw(), "ECDHE-ECDSA-AES128-GCM-SHA256");
    SSL_CTX_set_ciphersuites(serverContext->raw(), "TLS_AES_128_GCM_SHA256");
    SSL_CTX_set_keylog_callback(serverContext->raw(), keepSecret);
    gSecrets.clear();

    TlsSession peer(peerContext);
    TlsSession server(serverContext);
    handshake(peer, server);
    ASSERT_EQ(peer.state(), TlsSession::State::finished) << peer.failure();
    ASSERT_EQ(server.state(), TlsSession::State::finished) << server.failure();
    EXPECT_EQ(peer.version(), version);
    EXPECT_EQ(server.version(), version);
    EXPECT_EQ(server.peerSubject(), "O = mkad tests, CN = client.example");
    EXPECT_EQ(peer.peerSubject(), "O = mkad tests, CN = server.example");

    // The session identifier: the method type, then 64 octets.
    const Macsec::EapSessionId& id = server.sessionId();
    ASSERT_EQ(id.size(), 65u);
    EXPECT_EQ(id.data()[0], 13);
    EXPECT_EQ(peer.sessionId(), id);
    EXPECT_TRUE(peer.msk().sameKeyAs(server.msk()));
    const std::string idTail(reinterpret_cast<const char*>(id.data()) + 1, 64);
    const std::string typeOctet(1, '\x0d');
    if (version == TlsVersion::tls12) {
      // RFC 5216: the PRF of the master secret, the label, and both randoms, which are the
      // session identifier's 64 octets.
      ASSERT_TRUE(gSecrets.count("CLIENT_RANDOM"));
      const Macsec::KeyBytes material = prf(octetsOf(gSecrets["CLIENT_RANDOM"]), "client EAP encryption" + idTail, 128);
      EXPECT_EQ(clearOf(server.msk()), asString(material.prefix(64)));
    } else {
      // RFC 9190: the exporter with the method type as its context, 128 octets of which the key
      // is the first 64; the identifier from a second one.
      ASSERT_TRUE(gSecrets.count("EXPORTER_SECRET"));
      const Macsec::KeyBytes secret = octetsOf(gSecrets["EXPORTER_SECRET"]);
      const Macsec::KeyBytes material = exporter(secret, "EXPORTER_EAP_TLS_Key_Material", typeOctet, 128);
      EXPECT_EQ(clearOf(server.msk()), asString(material.prefix(64)));
      EXPECT_EQ(idTail, asString(exporter(secret, "EXPORTER_EAP_TLS_Method-Id", typeOctet, 64)));
    }
  }
  gSecrets.clear();
}

TEST(TlsSession, APeerThatCannotProveItselfEndsTheHandshakeOnBothSidesWithTheReason) {
  const TestPki pki;
  struct Case {
    const char* what;
    TlsCredentials peer;
    TlsCredentials server;
    const char* peerFailure;    // part of the peer's reason
    const char* serverFailure;  // part of the server's reason
  };
  const TlsCredentials stranger = pki.credentials("stranger", "server.example");
  const TlsCredentials expired = pki.credentials("expired", "server.example");
  const TlsCredentials misnamedServer = pki.credentials("misnamed", "client.example");
  TlsCredentials wrongAuthority = pki.client();
  wrongAuthority.caFile = pki.file("other-ca.pem");
  TlsCredentials onlyTls13 = pki.server();
  onlyTls13.minVersion = TlsVersion::tls13;
  const std::vector<Case> cases = {
      {"a client of another authority", stranger, pki.server(), "alert", "unable to get local issuer certificate"},
      {"an expired client certificate", expired, pki.server(), "alert", "certificate has expired"},
      {"a server with another name", pki.client(), misnamedServer, "hostname mismatch", "alert"},
      {"a server the client's authorities do not sign", wrongAuthority, pki.server(),
       "the peer's certificate: ", "alert"},
      {"no version in common", pki.client(TlsVersion::tls12), onlyTls13, "alert", "unsupported protocol"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto peerContext = TestPki::loaded(c.peer, TlsContext::Side::peer);
    const auto serverContext = TestPki::loaded(c.server, TlsContext::Side::server);
    ASSERT_TRUE(peerContext && serverContext);
    TlsSession peer(peerContext);
    TlsSession server(serverContext);
    handshake(peer, server);
    EXPECT_EQ(peer.state(), TlsSession::State::failed);
    EXPECT_EQ(server.state(), TlsSession::State::failed);
    EXPECT_NE(peer.failure().find(c.peerFailure), std::string::npos) << peer.failure();
    EXPECT_NE(server.failure().find(c.serverFailure), std::string::npos) << server.failure();
    EXPECT_TRUE(peer.msk().empty() && server.msk().empty() && peer.sessionId().empty());
  }
}

TEST(TlsContext, LoadingNamesTheFileAndWhatIsWrongWithIt) {
  const TestPki pki;
  const auto refusal = [](const TlsCredentials& credentials) {
    std::string error;
    EXPECT_FALSE(TlsContext::load(credentials, TlsContext::Side::peer, error));
    return error;
  };
  TlsCredentials missing = pki.client();
  missing.caFile = pki.file("nowhere.pem");
  EXPECT_EQ(refusal(missing).rfind(pki.file("nowhere.pem") + ": cannot read the authorities", 0), 0u);
  TlsCredentials mismatched = pki.client();
  mismatched.keyFile = pki.file("server.key");
  EXPECT_EQ(refusal(mismatched),
            pki.file("server.key") + ": the private key is not the one of " + pki.file("client.pem"));
  TlsCredentials backwards = pki.client();
  backwards.minVersion = TlsVersion::tls13;
  backwards.maxVersion = TlsVersion::tls12;
  EXPECT_EQ(refusal(backwards), "the lowest TLS version allowed is above the highest");

  // An encrypted key opens with its passphrase only.
  TlsCredentials locked = pki.client();
  locked.keyFile = pki.file("locked.key");
  EXPECT_EQ(refusal(locked).rfind(pki.file("locked.key") + ": cannot read the private key", 0), 0u);
  const std::string phrase = "open sesame";
  locked.passphrase = Macsec::KeyBytes(reinterpret_cast<const uint8_t*>(phrase.data()), phrase.size());
  const auto opened = TestPki::loaded(locked, TlsContext::Side::peer);
  ASSERT_TRUE(opened);
  EXPECT_EQ(opened->ownCertificateProblem(), "");

  // Certificates that load, but that no peer of these authorities would take.
  const TlsCredentials expired = pki.credentials("expired", "server.example");
  EXPECT_EQ(TestPki::loaded(expired, TlsContext::Side::peer)->ownCertificateProblem(), "the certificate has expired");
  const TlsCredentials stranger = pki.credentials("stranger", "server.example");
  EXPECT_EQ(TestPki::loaded(stranger, TlsContext::Side::peer)->ownCertificateProblem(),
            "the authorities of the CA file do not sign the certificate: unable to get local issuer certificate");
}

}  // namespace
}  // namespace Dot1x
