// The known-answer frames of the power-on self test. The plain frame is the 4 header bytes (the
// EtherType 0x888E and the marker 0xAB 0xCD) and 32 bytes of text; the protected frames carry
// the same header, then the AES-GCM cipher text of the text and the 16-byte tag, under the key
// 00 01 02 ... (16 or 32 bytes), the IV ca fe ba be fa ce db ad de ca f8 88 and the header as
// additional authenticated data. A test re-derives both answers with OpenSSL.

#include "model/Crypto.h"

#include <openssl/evp.h>

#include <cstring>
#include <memory>

namespace Macsec {

namespace {

constexpr uint8_t kPlain[] = {0x88, 0x8e, 0xab, 0xcd, 'M', 'K', 'A', ' ', 'p', 'o', 'w', 'e',
                              'r',  '-',  'o',  'n',  ' ', 's', 'e', 'l', 'f', ' ', 't', 'e',
                              's',  't',  ',',  ' ',  'A', 'E', 'S', '-', 'G', 'C', 'M', '.'};

constexpr uint8_t kCipher128[] = {0x88, 0x8e, 0xab, 0xcd, 0xc4, 0x32, 0x86, 0x96, 0xf5, 0x98, 0xf6, 0x64, 0xd8,
                                  0x3d, 0xa6, 0xe6, 0x7d, 0x89, 0xc5, 0x8b, 0xe0, 0x2b, 0x4c, 0x41, 0x28, 0x9f,
                                  0x9c, 0x85, 0x70, 0xac, 0x45, 0x56, 0x31, 0x64, 0xa0, 0xff, 0x0a, 0xec, 0x07,
                                  0xa3, 0x2b, 0x4e, 0x33, 0x7c, 0x79, 0x26, 0x64, 0x72, 0x02, 0x79, 0x52, 0x0f};

constexpr uint8_t kCipher256[] = {0x88, 0x8e, 0xab, 0xcd, 0xc7, 0xe8, 0xe1, 0x06, 0xda, 0x15, 0x38, 0x7e, 0x34,
                                  0x26, 0x32, 0xb3, 0x5b, 0x6e, 0xec, 0x53, 0x6b, 0x00, 0xb4, 0x34, 0xac, 0x6d,
                                  0x46, 0x54, 0x0f, 0x9a, 0x57, 0x5c, 0xf9, 0xca, 0x28, 0xd1, 0xdb, 0x00, 0x41,
                                  0xf4, 0xd5, 0xac, 0xb4, 0x6e, 0x80, 0xd0, 0xd8, 0x0b, 0x6c, 0x4f, 0x96, 0x4d};

constexpr size_t kHeader = 4;
constexpr size_t kTag = 16;
constexpr uint8_t kIv[12] = {0xca, 0xfe, 0xba, 0xbe, 0xfa, 0xce, 0xdb, 0xad, 0xde, 0xca, 0xf8, 0x88};
// The test key: 00 01 02 ..., as long as the suite's keys.
constexpr uint8_t kKey[32] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15,
                              16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31};

struct CtxDeleter {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};

struct Frame {
  const uint8_t* data;
  unsigned int length;
};

bool frameOf(CryptoLibCipherSuite suite, Frame& frame) {
  switch (suite) {
    case cryptoLibPlainText:
      frame = {kPlain, sizeof kPlain};
      return true;
    case cryptoLibGcmAes128:
      frame = {kCipher128, sizeof kCipher128};
      return true;
    case cryptoLibGcmAes256:
      frame = {kCipher256, sizeof kCipher256};
      return true;
  }
  return false;
}

}  // namespace

void selfTestPktData(CryptoLibCipherSuite suite, Zef::String& data, unsigned int& length) {
  Frame frame;
  if (!frameOf(suite, frame)) {
    data = Zef::String();
    length = 0;
    return;
  }
  data = Zef::String(reinterpret_cast<const char*>(frame.data), frame.length);
  length = frame.length;
}

bool selfTestPktCheck(CryptoLibCipherSuite suite, const uint8_t* data, unsigned int length) {
  Frame frame;
  return frameOf(suite, frame) && data != nullptr && length == frame.length &&
         std::memcmp(data, frame.data, length) == 0;
}

std::string selfTestCipherPath(CryptoLibCipherSuite suite, bool encrypt, const uint8_t* data, size_t length) {
  const EVP_CIPHER* cipher = suite == cryptoLibGcmAes128   ? EVP_aes_128_gcm()
                             : suite == cryptoLibGcmAes256 ? EVP_aes_256_gcm()
                                                           : nullptr;
  if (cipher == nullptr || data == nullptr || length < kHeader + (encrypt ? 0 : kTag)) return {};
  const size_t body = length - kHeader - (encrypt ? 0 : kTag);
  std::string out(kHeader + body + (encrypt ? kTag : 0), '\0');
  auto* o = reinterpret_cast<uint8_t*>(out.data());
  std::memcpy(o, data, kHeader);
  std::unique_ptr<EVP_CIPHER_CTX, CtxDeleter> ctx(EVP_CIPHER_CTX_new());
  int n = 0;
  if (!ctx || EVP_CipherInit_ex(ctx.get(), cipher, nullptr, kKey, kIv, encrypt ? 1 : 0) != 1 ||
      EVP_CipherUpdate(ctx.get(), nullptr, &n, data, static_cast<int>(kHeader)) != 1 ||
      (body > 0 && EVP_CipherUpdate(ctx.get(), o + kHeader, &n, data + kHeader, static_cast<int>(body)) != 1)) {
    return {};
  }
  if (!encrypt &&
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTag, const_cast<uint8_t*>(data + kHeader + body)) != 1) {
    return {};
  }
  int tail = 0;
  if (EVP_CipherFinal_ex(ctx.get(), o + kHeader + body, &tail) != 1) return {};
  if (encrypt && EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTag, o + kHeader + body) != 1) return {};
  return out;
}

std::string selfTestLoopedBack(const POSTTest& test, const std::string& frame) {
  constexpr size_t kAddresses = 12;
  if (frame.size() <= kAddresses) return {};
  return frame.substr(0, kAddresses) + selfTestCipherPath(test.suite, test.encrypt,
                                                          reinterpret_cast<const uint8_t*>(frame.data()) + kAddresses,
                                                          frame.size() - kAddresses);
}

}  // namespace Macsec
