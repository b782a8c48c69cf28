#include "dot1x/TlsSession.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <cstring>

namespace Dot1x {

namespace {

// The type of EAP-TLS, which leads its session identifier and is the context of its exporters.
constexpr uint8_t kEapTlsType = 13;

int protocolOf(TlsVersion version) { return version == TlsVersion::tls13 ? TLS1_3_VERSION : TLS1_2_VERSION; }

// The last error OpenSSL queued, in its words; the queue is left empty.
std::string openSslReason() {
  const unsigned long code = ERR_peek_last_error();
  ERR_clear_error();
  if (code == 0) return "unknown error";
  const char* reason = ERR_reason_error_string(code);
  return reason != nullptr ? reason : "error " + std::to_string(code);
}

int passphraseOf(char* buffer, int size, int, void* userdata) {
  const auto* passphrase = static_cast<const Macsec::KeyBytes*>(userdata);
  if (passphrase == nullptr || passphrase->empty() || passphrase->size() > static_cast<size_t>(size)) return 0;
  std::memcpy(buffer, passphrase->data(), passphrase->size());
  return static_cast<int>(passphrase->size());
}

}  // namespace

const char* tlsVersionText(TlsVersion version) { return version == TlsVersion::tls13 ? "TLS 1.3" : "TLS 1.2"; }

std::shared_ptr<const TlsContext> TlsContext::load(TlsCredentials credentials, Side side, std::string& error) {
  ERR_clear_error();
  SSL_CTX* ctx = SSL_CTX_new(side == Side::server ? TLS_server_method() : TLS_client_method());
  if (ctx == nullptr) {
    error = "cannot make a TLS context: " + openSslReason();
    return nullptr;
  }
  std::shared_ptr<const TlsContext> context(new TlsContext(ctx, side));
  const auto failed = [&](const std::string& what) {
    error = what;
    ERR_clear_error();
    return nullptr;
  };

  if (credentials.minVersion > credentials.maxVersion) {
    return failed("the lowest TLS version allowed is above the highest");
  }
  SSL_CTX_set_min_proto_version(ctx, protocolOf(credentials.minVersion));
  SSL_CTX_set_max_proto_version(ctx, protocolOf(credentials.maxVersion));
  // One handshake and nothing after it: no tickets to resume with (EAP-TLS resumption is not
  // offered), no renegotiation, no compression.
  SSL_CTX_set_options(ctx, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  SSL_CTX_set_num_tickets(ctx, 0);

  if (SSL_CTX_load_verify_locations(ctx, credentials.caFile.c_str(), nullptr) != 1) {
    return failed(credentials.caFile + ": cannot read the authorities: " + openSslReason());
  }
  if (SSL_CTX_use_certificate_chain_file(ctx, credentials.certFile.c_str()) != 1) {
    return failed(credentials.certFile + ": cannot read the certificate: " + openSslReason());
  }
  SSL_CTX_set_default_passwd_cb(ctx, passphraseOf);
  SSL_CTX_set_default_passwd_cb_userdata(ctx, &credentials.passphrase);
  const bool keyRead = SSL_CTX_use_PrivateKey_file(ctx, credentials.keyFile.c_str(), SSL_FILETYPE_PEM) == 1;
  SSL_CTX_set_default_passwd_cb_userdata(ctx, nullptr);
  credentials.passphrase = Macsec::KeyBytes();
  // OpenSSL refuses a key that is not the certificate's as it reads it.
  const bool mismatched = !keyRead && ERR_GET_REASON(ERR_peek_last_error()) == X509_R_KEY_VALUES_MISMATCH;
  if (mismatched || (keyRead && SSL_CTX_check_private_key(ctx) != 1)) {
    return failed(credentials.keyFile + ": the private key is not the one of " + credentials.certFile);
  }
  if (!keyRead) return failed(credentials.keyFile + ": cannot read the private key: " + openSslReason());
  if (!credentials.crlFile.empty()) {
    X509_STORE* store = SSL_CTX_get_cert_store(ctx);
    X509_LOOKUP* lookup = X509_STORE_add_lookup(store, X509_LOOKUP_file());
    if (lookup == nullptr || X509_load_crl_file(lookup, credentials.crlFile.c_str(), X509_FILETYPE_PEM) <= 0) {
      return failed(credentials.crlFile + ": cannot read the revocation list: " + openSslReason());
    }
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
  }
  // The peer proves itself with a certificate of the authorities, carrying one of the names.
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  X509_VERIFY_PARAM* param = SSL_CTX_get0_param(ctx);
  X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  for (const std::string& name : credentials.peerNames) {
    if (X509_VERIFY_PARAM_add1_host(param, name.c_str(), name.size()) != 1) {
      return failed("cannot accept the peer name \"" + name + "\"");
    }
  }
  return context;
}

TlsContext::~TlsContext() { SSL_CTX_free(ctx_); }

std::string TlsContext::ownCertificateProblem() const {
  X509* certificate = SSL_CTX_get0_certificate(ctx_);
  if (certificate == nullptr) return "there is no certificate";
  if (X509_cmp_current_time(X509_get0_notAfter(certificate)) <= 0) return "the certificate has expired";
  if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0) return "the certificate is not valid yet";
  STACK_OF(X509)* chain = nullptr;
  SSL_CTX_get0_chain_certs(ctx_, &chain);
  X509_STORE_CTX* check = X509_STORE_CTX_new();
  if (check == nullptr) return "out of memory";
  std::string problem;
  if (X509_STORE_CTX_init(check, SSL_CTX_get_cert_store(ctx_), certificate, chain) != 1 ||
      X509_verify_cert(check) != 1) {
    problem = std::string("the authorities of the CA file do not sign the certificate: ") +
              X509_verify_cert_error_string(X509_STORE_CTX_get_error(check));
  }
  X509_STORE_CTX_free(check);
  ERR_clear_error();
  return problem;
}

TlsSession::TlsSession(std::shared_ptr<const TlsContext> context) : context_(std::move(context)) {
  ssl_ = SSL_new(context_->raw());
  fromPeer_ = BIO_new(BIO_s_mem());
  toPeer_ = BIO_new(BIO_s_mem());
  if (ssl_ == nullptr || fromPeer_ == nullptr || toPeer_ == nullptr) {
    BIO_free(fromPeer_);
    BIO_free(toPeer_);
    fromPeer_ = toPeer_ = nullptr;
    fail("cannot make a TLS session: " + openSslReason());
    return;
  }
  // An empty buffer is "try again later", never the end of the stream.
  BIO_set_mem_eof_return(fromPeer_, -1);
  BIO_set_mem_eof_return(toPeer_, -1);
  SSL_set_bio(ssl_, fromPeer_, toPeer_);
  if (context_->side() == TlsContext::Side::server) {
    SSL_set_accept_state(ssl_);
  } else {
    SSL_set_connect_state(ssl_);
  }
}

TlsSession::~TlsSession() { SSL_free(ssl_); }

std::string TlsSession::input(std::string_view fromPeer) {
  if (state_ != State::handshaking) return std::string();
  ERR_clear_error();
  if (!fromPeer.empty() && BIO_write(fromPeer_, fromPeer.data(), static_cast<int>(fromPeer.size())) <= 0) {
    fail("cannot take the peer's message: " + openSslReason());
    return std::string();
  }
  if (SSL_is_init_finished(ssl_) == 0) {
    const int result = SSL_do_handshake(ssl_);
    if (result <= 0) {
      if (SSL_get_error(ssl_, result) != SSL_ERROR_WANT_READ) {
        const long verified = SSL_get_verify_result(ssl_);
        fail(verified != X509_V_OK ? std::string("the peer's certificate: ") + X509_verify_cert_error_string(verified)
                                   : openSslReason());
      }
      return drainOutput();
    }
  }
  if (version() == TlsVersion::tls12) {
    finish();
    return drainOutput();
  }
  // With TLS 1.3 the server ends the handshake with its commitment: one octet of application data,
  // zero, after the peer's Finished. Nothing else may come as data.
  if (context_->side() == TlsContext::Side::server) {
    static constexpr char kCommitment = 0;
    if (SSL_write(ssl_, &kCommitment, 1) != 1) {
      fail("cannot send the commitment message: " + openSslReason());
    } else {
      finish();
    }
    return drainOutput();
  }
  char data[2];
  const int read = SSL_read(ssl_, data, sizeof data);
  if (read == 1 && data[0] == 0) {
    finish();
  } else if (read > 0 || SSL_get_error(ssl_, read) != SSL_ERROR_WANT_READ) {
    fail(read > 0 ? "the server sent data other than its commitment message" : openSslReason());
  }
  return drainOutput();
}

TlsVersion TlsSession::version() const {
  return ssl_ != nullptr && SSL_version(ssl_) == TLS1_3_VERSION ? TlsVersion::tls13 : TlsVersion::tls12;
}

std::string TlsSession::peerSubject() const {
  if (ssl_ == nullptr) return std::string();
  X509* peer = SSL_get0_peer_certificate(ssl_);
  if (peer == nullptr || SSL_get_verify_result(ssl_) != X509_V_OK) return std::string();
  BIO* text = BIO_new(BIO_s_mem());
  if (text == nullptr) return std::string();
  X509_NAME_print_ex(text, X509_get_subject_name(peer), 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
  char* data = nullptr;
  const long size = BIO_get_mem_data(text, &data);
  std::string subject(data, size > 0 ? static_cast<size_t>(size) : 0);
  BIO_free(text);
  return subject;
}

void TlsSession::finish() {
  // The key material is 128 octets, of which the master session key is the first 64. TLS 1.2
  // takes it from the PRF with the label alone (RFC 5216); TLS 1.3 from the exporter, with the
  // method type as context, and the session identifier from a second one (RFC 9190).
  Macsec::KeyBytes material(128);
  Macsec::KeyBytes id(1);
  id.data()[0] = kEapTlsType;
  bool exported = false;
  if (version() == TlsVersion::tls13) {
    static constexpr char kKeyLabel[] = "EXPORTER_EAP_TLS_Key_Material";
    static constexpr char kIdLabel[] = "EXPORTER_EAP_TLS_Method-Id";
    Macsec::KeyBytes methodId(64);
    exported = SSL_export_keying_material(ssl_, material.data(), material.size(), kKeyLabel, sizeof kKeyLabel - 1,
                                          &kEapTlsType, 1, 1) == 1 &&
               SSL_export_keying_material(ssl_, methodId.data(), methodId.size(), kIdLabel, sizeof kIdLabel - 1,
                                          &kEapTlsType, 1, 1) == 1;
    id.append(methodId);
  } else {
    static constexpr char kKeyLabel[] = "client EAP encryption";
    Macsec::KeyBytes randoms(64);
    exported = SSL_export_keying_material(ssl_, material.data(), material.size(), kKeyLabel, sizeof kKeyLabel - 1,
                                          nullptr, 0, 0) == 1 &&
               SSL_get_client_random(ssl_, randoms.data(), 32) == 32 &&
               SSL_get_server_random(ssl_, randoms.data() + 32, 32) == 32;
    id.append(randoms);
  }
  if (!exported) {
    fail("cannot export the keys: " + openSslReason());
    return;
  }
  msk_ = Macsec::StoredKey::of(material.prefix(64));
  sessionId_ = Macsec::EapSessionId(id.data(), id.size());
  state_ = State::finished;
}

void TlsSession::fail(std::string reason) {
  state_ = State::failed;
  failure_ = std::move(reason);
}

std::string TlsSession::drainOutput() {
  std::string out;
  if (toPeer_ == nullptr) return out;
  out.resize(BIO_ctrl_pending(toPeer_));
  const int read = out.empty() ? 0 : BIO_read(toPeer_, out.data(), static_cast<int>(out.size()));
  out.resize(read > 0 ? static_cast<size_t>(read) : 0);
  return out;
}

}  // namespace Dot1x
