#include "model/PreparedKeys.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace Macsec {

namespace {

struct CipherCtxDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;

// AES-CMAC (RFC 4493) on one AES-CBC context keyed once with the ICK, and the two subkeys derived
// from it: a frame is one pass of the cipher over its blocks, the last one padded and masked with a
// subkey. Restarting a MAC context, or the cipher, for every frame cost more than the cipher.
class Cmac {
 public:
  static constexpr size_t kBlock = 16;

  // None for a key of another length than 16 or 32 octets.
  static std::unique_ptr<Cmac> keyedWith(const KeyBytes& key) {
    const EVP_CIPHER* cipher = key.size() == 16 ? EVP_aes_128_cbc() : key.size() == 32 ? EVP_aes_256_cbc() : nullptr;
    if (cipher == nullptr) return nullptr;
    auto cmac = std::unique_ptr<Cmac>(new Cmac);
    const uint8_t zero[kBlock] = {};
    if (!cmac->cbc_ || EVP_EncryptInit_ex(cmac->cbc_.get(), cipher, nullptr, key.data(), zero) != 1 ||
        EVP_CIPHER_CTX_set_padding(cmac->cbc_.get(), 0) != 1) {
      return nullptr;
    }
    // L = AES(K, 0); K1 = L doubled in GF(2^128), K2 = K1 doubled. The chain starts again from zero.
    uint8_t l[kBlock] = {};
    int out = 0;
    const bool made = EVP_EncryptUpdate(cmac->cbc_.get(), l, &out, zero, kBlock) == 1 && out == kBlock;
    doubled(l, cmac->k1_);
    doubled(cmac->k1_, cmac->k2_);
    OPENSSL_cleanse(l, sizeof l);
    if (!made || !cmac->restart()) return nullptr;
    return cmac;
  }

  ~Cmac() {
    OPENSSL_cleanse(k1_, sizeof k1_);
    OPENSSL_cleanse(k2_, sizeof k2_);
  }

  bool macOf(const uint8_t* message, size_t length, uint8_t* mac) {
    // The message in whole blocks: a last block that is short is padded with 0x80 and zeros and
    // masked with K2, a whole one masked with K1.
    const size_t size = length == 0 ? kBlock : (length + kBlock - 1) / kBlock * kBlock;
    if (input_.size() < size) {
      input_.resize(size);
      output_.resize(size);
    }
    uint8_t* in = input_.data();
    std::memcpy(in, message, length);
    if (length < size) {
      in[length] = 0x80;
      std::memset(in + length + 1, 0, size - length - 1);
    }
    xorInto(in + size - kBlock, length == size ? k1_ : k2_);
    // The context chains on from the last block it made, which is kept: masking the first block
    // with it starts this message's chain from zero, as CMAC does, without restarting the context.
    xorInto(in, chain_);
    int out = 0;
    const bool passed = EVP_EncryptUpdate(cbc_.get(), output_.data(), &out, in, static_cast<int>(size)) == 1 &&
                        static_cast<size_t>(out) == size;
    // The last block, masked with a subkey over a message anybody may read, would give the subkey.
    OPENSSL_cleanse(in + size - kBlock, kBlock);
    if (!passed) {
      restart();
      return false;
    }
    std::memcpy(chain_, output_.data() + size - kBlock, kBlock);
    std::memcpy(mac, chain_, kBlock);
    return true;
  }

 private:
  Cmac() : cbc_(EVP_CIPHER_CTX_new()) {}

  // The chain from zero again, after a pass that may have left it anywhere.
  bool restart() {
    std::memset(chain_, 0, sizeof chain_);
    return EVP_EncryptInit_ex(cbc_.get(), nullptr, nullptr, nullptr, chain_) == 1;
  }

  static void xorInto(uint8_t* to, const uint8_t* from) {
    for (size_t i = 0; i < kBlock; ++i) to[i] ^= from[i];
  }

  // Multiplication by x in GF(2^128), with the reduction polynomial's constant 0x87.
  static void doubled(const uint8_t* in, uint8_t* out) {
    for (size_t i = 0; i < kBlock; ++i) {
      out[i] = static_cast<uint8_t>(in[i] << 1 | (i + 1 < kBlock ? in[i + 1] >> 7 : 0));
    }
    if (in[0] & 0x80) out[kBlock - 1] ^= 0x87;
  }

  CipherCtx cbc_;
  uint8_t k1_[kBlock] = {};
  uint8_t k2_[kBlock] = {};
  // The last block the context made: the previous message's MAC.
  uint8_t chain_[kBlock] = {};
  // The blocks of a message and of its pass, sized to the longest message so far.
  std::vector<uint8_t> input_;
  std::vector<uint8_t> output_;
};

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
  std::unique_ptr<Cmac> icv;
  bool kekTried = false;
  CipherCtx wrap;
  CipherCtx unwrap;
};

PreparedKeys::PreparedKeys(StoredKey ick, StoredKey kek)
    : ick_(std::move(ick)), kek_(std::move(kek)), contexts_(std::make_unique<Contexts>()) {
  contexts_->icv = ick_.withClear([](const KeyBytes& clear) { return Cmac::keyedWith(clear); });
}

PreparedKeys::~PreparedKeys() = default;

bool PreparedKeys::icvOf(const uint8_t* message, size_t length, uint8_t* icv) {
  return contexts_->icv != nullptr && contexts_->icv->macOf(message, length, icv);
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
