#include "model/StoredKey.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>
#include <ostream>

#include "platform/Fatal.h"

namespace Macsec {

namespace {

// The stored form: the prefix, then hexadecimal text of nonce (12) || cipher text || tag (16),
// with AES-256-GCM under a key drawn at random once per process.
constexpr std::string_view kPrefix = "$mka1$";
constexpr size_t kNonce = 12;
constexpr size_t kTag = 16;

const KeyBytes& processKey() {
  static const KeyBytes* key = [] {
    auto* k = new KeyBytes(32);
    if (RAND_bytes(k->data(), 32) != 1) Zef::fatal("the random number generator failed");
    return k;
  }();
  return *key;
}

struct CtxDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};

}  // namespace

StoredKey StoredKey::of(const KeyBytes& clear) {
  if (clear.empty()) return StoredKey();
  KeyBytes sealed(kNonce + clear.size() + kTag);
  uint8_t* nonce = sealed.data();
  uint8_t* body = nonce + kNonce;
  uint8_t* tag = body + clear.size();
  if (RAND_bytes(nonce, kNonce) != 1) Zef::fatal("the random number generator failed");
  std::unique_ptr<EVP_CIPHER_CTX, CtxDeleter> ctx(EVP_CIPHER_CTX_new());
  int length = 0;
  int tail = 0;
  if (!ctx || EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, processKey().data(), nonce) != 1 ||
      EVP_EncryptUpdate(ctx.get(), body, &length, clear.data(), static_cast<int>(clear.size())) != 1 ||
      EVP_EncryptFinal_ex(ctx.get(), body + length, &tail) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTag, tag) != 1) {
    Zef::fatal("encoding a key failed");
  }
  return StoredKey(Zef::String(kPrefix) + bytesToHex(sealed));
}

StoredKey StoredKey::ofHex(std::string_view clearHex) {
  KeyBytes clear;
  if (!hexToBytes(clearHex, clear)) return StoredKey();
  return of(clear);
}

KeyBytes StoredKey::open() const {
  const std::string_view text = stored_.view();
  if (text.substr(0, kPrefix.size()) != kPrefix) return KeyBytes();
  KeyBytes sealed;
  if (!hexToBytes(text.substr(kPrefix.size()), sealed) || sealed.size() <= kNonce + kTag) return KeyBytes();
  const size_t clearLength = sealed.size() - kNonce - kTag;
  uint8_t* nonce = sealed.data();
  uint8_t* body = nonce + kNonce;
  uint8_t* tag = body + clearLength;
  KeyBytes clear(clearLength);
  std::unique_ptr<EVP_CIPHER_CTX, CtxDeleter> ctx(EVP_CIPHER_CTX_new());
  int length = 0;
  int tail = 0;
  if (!ctx || EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, processKey().data(), nonce) != 1 ||
      EVP_DecryptUpdate(ctx.get(), clear.data(), &length, body, static_cast<int>(clearLength)) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTag, tag) != 1 ||
      EVP_DecryptFinal_ex(ctx.get(), clear.data() + length, &tail) != 1) {
    return KeyBytes();
  }
  return clear;
}

bool StoredKey::sameKeyAs(const StoredKey& other) const {
  return withClear([&](const KeyBytes& mine) {
    return other.withClear([&](const KeyBytes& theirs) {
      return mine.size() == theirs.size() && CRYPTO_memcmp(mine.data(), theirs.data(), mine.size()) == 0;
    });
  });
}

std::ostream& operator<<(std::ostream& out, const StoredKey& key) {
  return out << (key.empty() ? "no key" : "key set");
}

}  // namespace Macsec
