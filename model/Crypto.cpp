#include "model/Crypto.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/Fatal.h"

namespace Macsec {

namespace {

struct MacDeleter {
  void operator()(EVP_MAC_CTX* ctx) const { EVP_MAC_CTX_free(ctx); }
};

const char* cbcCipherName(size_t keyLength) {
  return keyLength == 16 ? "AES-128-CBC" : keyLength == 32 ? "AES-256-CBC" : nullptr;
}

KeyBytes deriveFromCak(const KeyBytes& cak, const KeyBytes& ckn, int bits, std::string_view label) {
  if ((bits != 128 && bits != 256) || cak.size() < static_cast<size_t>(bits / 8)) return KeyBytes();
  // The context is the first 16 octets of the CKN; a shorter CKN is padded with zeros.
  KeyBytes context(16);
  if (!ckn.empty()) std::memcpy(context.data(), ckn.data(), std::min<size_t>(16, ckn.size()));
  return kdf(cak.prefix(static_cast<size_t>(bits / 8)), label, context, bits);
}

}  // namespace

KeyBytes aesCmac(const KeyBytes& key, const uint8_t* message, size_t length) {
  const char* cipher = cbcCipherName(key.size());
  if (cipher == nullptr) return KeyBytes();
  static EVP_MAC* mac = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
  if (mac == nullptr) Zef::fatal("OpenSSL has no CMAC");
  std::unique_ptr<EVP_MAC_CTX, MacDeleter> ctx(EVP_MAC_CTX_new(mac));
  OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, const_cast<char*>(cipher), 0),
                         OSSL_PARAM_construct_end()};
  KeyBytes tag(16);
  size_t tagLength = 0;
  if (!ctx || EVP_MAC_init(ctx.get(), key.data(), key.size(), params) != 1 ||
      EVP_MAC_update(ctx.get(), message, length) != 1 ||
      EVP_MAC_final(ctx.get(), tag.data(), &tagLength, tag.size()) != 1 || tagLength != 16) {
    return KeyBytes();
  }
  return tag;
}

KeyBytes kdf(const KeyBytes& key, std::string_view label, const KeyBytes& context, int bits) {
  // T_i = AES-CMAC(key, i || label || 0x00 || context || L), L in bits as two octets.
  KeyBytes input(1 + label.size() + 1 + context.size() + 2);
  uint8_t* p = input.data();
  p[0] = 0;
  std::memcpy(p + 1, label.data(), label.size());
  p[1 + label.size()] = 0;
  if (!context.empty()) std::memcpy(p + 2 + label.size(), context.data(), context.size());
  p[input.size() - 2] = static_cast<uint8_t>(bits >> 8);
  p[input.size() - 1] = static_cast<uint8_t>(bits);
  KeyBytes result;
  const size_t wanted = static_cast<size_t>(bits) / 8;
  for (uint8_t i = 1; result.size() < wanted; ++i) {
    p[0] = i;
    KeyBytes block = aesCmac(key, input.data(), input.size());
    if (block.empty()) return KeyBytes();
    result.append(block.data(), std::min(block.size(), wanted - result.size()));
  }
  return result;
}

KeyBytes randomBytes(size_t count) {
  KeyBytes random(count);
  if (count > 0 && RAND_bytes(random.data(), static_cast<int>(count)) != 1) {
    Zef::fatal("the random number generator failed");
  }
  return random;
}

KeyBytes deriveIck(const KeyBytes& cak, const KeyBytes& ckn, int bits) {
  return deriveFromCak(cak, ckn, bits, "IEEE8021 ICK");
}

KeyBytes deriveKek(const KeyBytes& cak, const KeyBytes& ckn, int bits) {
  return deriveFromCak(cak, ckn, bits, "IEEE8021 KEK");
}

KeyBytes deriveSak(const KeyBytes& cak, const KeyBytes& context, int bits) {
  if ((bits != 128 && bits != 256) || (cak.size() != 16 && cak.size() != 32)) return KeyBytes();
  return kdf(cak, "IEEE8021 SAK", context, bits);
}

KeyBytes seededBytes(uint64_t seed, uint64_t draw, size_t count) {
  KeyBytes key(16);
  uint8_t block[12] = {};
  for (int i = 0; i < 8; ++i) {
    key.data()[i] = static_cast<uint8_t>(seed >> (8 * i));
    block[i] = static_cast<uint8_t>(draw >> (8 * i));
  }
  // The first block is of the draw number alone, the later ones of the number and the block's.
  KeyBytes out;
  for (uint32_t counter = 0; out.size() < count; ++counter) {
    for (int i = 0; i < 4; ++i) block[8 + i] = static_cast<uint8_t>(counter >> (8 * i));
    const KeyBytes mac = aesCmac(key, block, counter == 0 ? 8 : sizeof block);
    out.append(mac.data(), std::min(mac.size(), count - out.size()));
  }
  return out;
}

KeyBytes deriveCak(const KeyBytes& msk, const KeyBytes& macs, int bits) {
  if ((bits != 128 && bits != 256) || msk.size() < static_cast<size_t>(bits / 8) || macs.size() != 12)
    return KeyBytes();
  return kdf(msk.prefix(static_cast<size_t>(bits / 8)), "IEEE8021 EAP CAK", macs, bits);
}

KeyBytes deriveCkn(const KeyBytes& msk, int bits, const KeyBytes& context, int cknBits) {
  if ((bits != 128 && bits != 256) || msk.size() < static_cast<size_t>(bits / 8) || cknBits <= 0 || cknBits > 256 ||
      cknBits % 8 != 0) {
    return KeyBytes();
  }
  return kdf(msk.prefix(static_cast<size_t>(bits / 8)), "IEEE8021 EAP CKN", context, cknBits);
}

Salt saltOf(const MemberId& mi, uint32_t keyNum) {
  // Most significant 16 bits: MI's top 16 XOR KN's low 16; next 16: MI's next 16 XOR KN's top 16;
  // the low 64 bits are MI's.
  Salt salt(mi.data());
  salt.data()[0] ^= static_cast<uint8_t>(keyNum >> 8);
  salt.data()[1] ^= static_cast<uint8_t>(keyNum);
  salt.data()[2] ^= static_cast<uint8_t>(keyNum >> 24);
  salt.data()[3] ^= static_cast<uint8_t>(keyNum >> 16);
  return salt;
}

}  // namespace Macsec
