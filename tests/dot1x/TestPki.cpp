#include "tests/dot1x/TestPki.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace Dot1x::Testing {

namespace {

struct Issued {
  EVP_PKEY* key;
  X509* certificate;
};

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test certificates: ") + what);
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  check(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, "extension");
  X509_EXTENSION_free(extension);
}

// A certificate for `name`, valid from `fromDays` to `toDays` from now, signed by `issuer` (itself
// when null). An authority may sign others; others carry their name as a DNS name too.
Issued issue(const std::string& name, const Issued* issuer, bool authority, long fromDays = -1, long toDays = 30,
             const std::string& moreNames = "") {
  static long serial = 1;
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* certificate = X509_new();
  check(key != nullptr && certificate != nullptr, "key");
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
  X509_gmtime_adj(X509_getm_notBefore(certificate), fromDays * 86400);
  X509_gmtime_adj(X509_getm_notAfter(certificate), toDays * 86400);
  X509_NAME* subject = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("mkad tests"), -1, -1,
                             0);
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1,
                             0);
  X509* signer = issuer != nullptr ? issuer->certificate : certificate;
  X509_set_issuer_name(certificate, X509_get_subject_name(signer));
  X509_set_pubkey(certificate, key);
  if (authority) {
    addExtension(certificate, signer, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    addExtension(certificate, signer, NID_basic_constraints, "CA:FALSE");
    addExtension(certificate, signer, NID_subject_alt_name, "DNS:" + name + moreNames);
  }
  check(X509_sign(certificate, issuer != nullptr ? issuer->key : key, EVP_sha256()) > 0, "signature");
  return Issued{key, certificate};
}

void write(const std::filesystem::path& path, const Issued& issued, const char* passphrase = nullptr) {
  FILE* certificate = std::fopen((path.string() + ".pem").c_str(), "w");
  check(certificate != nullptr && PEM_write_X509(certificate, issued.certificate) == 1, "certificate file");
  std::fclose(certificate);
  FILE* key = std::fopen((path.string() + ".key").c_str(), "w");
  check(key != nullptr, "key file");
  const EVP_CIPHER* cipher = passphrase != nullptr ? EVP_aes_256_cbc() : nullptr;
  const auto* secret = reinterpret_cast<const unsigned char*>(passphrase);
  const int length = passphrase != nullptr ? static_cast<int>(std::string(passphrase).size()) : 0;
  check(PEM_write_PrivateKey(key, issued.key, cipher, secret, length, nullptr, nullptr) == 1, "key");
  std::fclose(key);
}

void release(const Issued& issued) {
  X509_free(issued.certificate);
  EVP_PKEY_free(issued.key);
}

}  // namespace

TestPki::TestPki() {
  std::string pattern = (std::filesystem::temp_directory_path() / "mka-pki-XXXXXX").string();
  check(mkdtemp(pattern.data()) != nullptr, "directory");
  dir_ = pattern;

  const Issued ca = issue("mkad test authority", nullptr, true);
  const Issued otherCa = issue("another authority", nullptr, true);
  std::string hosts;
  for (int i = 0; i < 80; ++i) hosts += ",DNS:host-" + std::to_string(i) + ".server.example";
  const Issued all[] = {
      ca,
      otherCa,
      issue("server.example", &ca, false, -1, 30, hosts),
      issue("client.example", &ca, false),
      issue("client.example", &ca, false, -30, -1),
      issue("client.example", &otherCa, false),
      issue("somebody-else.example", &ca, false),
  };
  const char* names[] = {"ca", "other-ca", "server", "client", "expired", "stranger", "misnamed"};
  for (size_t i = 0; i < std::size(all); ++i) write(dir_ / names[i], all[i]);
  write(dir_ / "locked", all[3], "open sesame");
  for (const Issued& issued : all) release(issued);
}

TestPki::~TestPki() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

TlsCredentials TestPki::credentials(const std::string& name, const std::string& peerName, TlsVersion maxVersion) const {
  TlsCredentials credentials;
  credentials.caFile = file("ca.pem");
  credentials.certFile = file(name + ".pem");
  credentials.keyFile = file(name + ".key");
  credentials.peerNames = {peerName};
  credentials.maxVersion = maxVersion;
  return credentials;
}

std::shared_ptr<const TlsContext> TestPki::loaded(const TlsCredentials& credentials, TlsContext::Side side) {
  std::string error;
  std::shared_ptr<const TlsContext> context = TlsContext::load(credentials, side, error);
  if (!context) throw std::runtime_error("the test's credentials do not load: " + error);
  return context;
}

}  // namespace Dot1x::Testing
