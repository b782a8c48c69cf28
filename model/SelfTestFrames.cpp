// The known-answer frames of the power-on self test. The plain frame is the 4 header bytes (the
// EtherType 0x888E and the marker 0xAB 0xCD) and 32 bytes of text; the protected frames carry
// the same header, then the AES-GCM cipher text of the text and the 16-byte tag, under the key
// 00 01 02 ... (16 or 32 bytes), the IV ca fe ba be fa ce db ad de ca f8 88 and the header as
// additional authenticated data. A test re-derives both answers with OpenSSL.

#include <cstring>

#include "model/Crypto.h"

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

}  // namespace Macsec
