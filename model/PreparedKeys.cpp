#include "model/PreparedKeys.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <utility>

#include "platform/Fatal.h"

namespace Macsec {

namespace {

struct MacCtxDeleter {
  void operator()(EVP_MAC_CTX* ctx) const { EVP_MAC_CTX_free(ctx); }
};
struct CipherCtxDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using MacCtx = std::unique_ptr<EVP_MAC_CTX, MacCtxDeleter>;
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;

// An AES-CMAC context keyed with a 16- or 32-octet key; none for another length.
MacCtx cmacKeyedWith(const KeyBytes& key) {
  const char* cipher = key.size() == 16 ? "AES-128-CBC" : key.size() == 32 ? "AES-256-CBC" : nullptr;
  if (cipher == nullptr) return nullptr;
  static EVP_MAC* mac = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
  if (mac == nullptr) Zef::fatal("OpenSSL has no CMAC");
  MacCtx ctx(EVP_MAC_CTX_new(mac));
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, const_cast<char*>(cipher), 0),
                         OSSL_PARAM_construct_end()};
  if (!ctx || EVP_MAC_init(ctx.get(), key.data(), key.size(), params) != 1) return nullptr;
  return ctx;
}

// An AES key wrap context keyed with a 16- or 32-octet KEK, for wrapping or for unwrapping (the
// two need different key schedules); none for another length.
CipherCtx keyWrapKeyedWith(const KeyBytes& kek, bool wrap) {
  const EVP_CIPHER* cipher = kek.size() == 16 ? EVP_aes_128_wrap() : kek.size() == 32 ? EVP_aes_256_wrap() : nullptr;
  if (cipher == nullptr) return nullptr;
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx || EVP_CipherInit_ex(ctx.get(), cipher, nullptr, kek.data(), nullptr, wrap ? 1 : 0) != 1) return nullptr;
  return ctx;
}

// One pass of a keyed wrap context over `input`, into `output`, which has room for `expected`
// octets; the context is restarted with its key kept.
bool runKeyWrap(EVP_CIPHER_CTX* ctx, const uint8_t* input, size_t length, uint8_t* output, size_t expected) {
  int out = 0;
  int tail = 0;
  return EVP_CipherInit_ex(ctx, nullptr, nullptr, nullptr, nullptr, -1) == 1 &&
         EVP_CipherUpdate(ctx, output, &out, input, static_cast<int>(length)) == 1 &&
         EVP_CipherFinal_ex(ctx, output + out, &tail) == 1 && static_cast<size_t>(out + tail) == expected;
}

}  // namespace

struct PreparedKeys::Contexts {
  MacCtx icv;
  bool kekTried = false;
  CipherCtx wrap;
  CipherCtx unwrap;
};

PreparedKeys::PreparedKeys(StoredKey ick, StoredKey kek)
    : ick_(std::move(ick)), kek_(std::move(kek)), contexts_(std::make_unique<Contexts>()) {
  contexts_->icv = ick_.withClear([](const KeyBytes& clear) { return cmacKeyedWith(clear); });
}

PreparedKeys::~PreparedKeys() = default;

bool PreparedKeys::icvOf(const uint8_t* message, size_t length, uint8_t* icv) {
  EVP_MAC_CTX* ctx = contexts_->icv.get();
  size_t icvLength = 0;
  // Restarting without a key keeps the one the context was made with.
  return ctx != nullptr && EVP_MAC_init(ctx, nullptr, 0, nullptr) == 1 && EVP_MAC_update(ctx, message, length) == 1 &&
         EVP_MAC_final(ctx, icv, &icvLength, icvSize) == 1 && icvLength == icvSize;
}

void PreparedKeys::prepareKek() {
  if (contexts_->kekTried) return;
  contexts_->kekTried = true;
  kek_.withClear([&](const KeyBytes& clear) {
    contexts_->wrap = keyWrapKeyedWith(clear, true);
    contexts_->unwrap = keyWrapKeyedWith(clear, false);
  });
}

KeyBytes PreparedKeys::wrapped(const StoredKey& key) {
  // The same stored form is the same key, unless it has been wiped since.
  if (!key.empty() && !key.wiped() && key == lastWrappedKey_) return lastWrapped_;
  prepareKek();
  EVP_CIPHER_CTX* ctx = contexts_->wrap.get();
  KeyBytes result = key.withClear([&](const KeyBytes& clear) {
    if (ctx == nullptr || clear.size() < 16 || clear.size() % 8 != 0) return KeyBytes();
    KeyBytes out(clear.size() + 8);
    return runKeyWrap(ctx, clear.data(), clear.size(), out.data(), out.size()) ? out : KeyBytes();
  });
  if (result.empty()) return result;
  lastWrappedKey_ = key;
  lastWrapped_ = result;
  return result;
}

namespace {

// A stored key with storage of its own: wiping either copy in place leaves the other.
StoredKey ownCopyOf(const StoredKey& key) { return StoredKey::fromStoredText(Zef::String(key.storedText().view())); }

}  // namespace

StoredKey PreparedKeys::unwrapped(const uint8_t* wrapped, size_t length) {
  // The same wrapped octets are the same key.
  if (!lastUnwrappedKey_.empty() && lastUnwrapped_.size() == length &&
      CRYPTO_memcmp(lastUnwrapped_.data(), wrapped, length) == 0) {
    return ownCopyOf(lastUnwrappedKey_);
  }
  prepareKek();
  EVP_CIPHER_CTX* ctx = contexts_->unwrap.get();
  if (ctx == nullptr || length < 24 || length % 8 != 0) return StoredKey();
  KeyBytes clear(length);  // room for OpenSSL's block-sized output; cut below
  if (!runKeyWrap(ctx, wrapped, length, clear.data(), length - 8)) return StoredKey();
  StoredKey key = StoredKey::of(clear.prefix(length - 8));
  lastUnwrapped_ = KeyBytes(wrapped, length);
  lastUnwrappedKey_ = ownCopyOf(key);
  return key;
}

std::shared_ptr<PreparedKeys> SharedPreparedKeys::keysFor(const Ckn& ckn, const StoredKey& ick, const StoredKey& kek) {
  std::vector<std::weak_ptr<PreparedKeys>>& sets = byCkn_[ckn];
  std::erase_if(sets, [](const std::weak_ptr<PreparedKeys>& set) { return set.expired(); });
  for (const std::weak_ptr<PreparedKeys>& set : sets) {
    std::shared_ptr<PreparedKeys> keys = set.lock();
    if (keys->ick().sameKeyAs(ick) && keys->kek().sameKeyAs(kek)) return keys;
  }
  // Made apart from its count, so that the weak references here do not hold the memory.
  std::shared_ptr<PreparedKeys> keys(new PreparedKeys(ick, kek));
  sets.push_back(keys);
  return keys;
}

}  // namespace Macsec
