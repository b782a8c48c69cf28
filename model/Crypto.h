#pragma once

// The crypto functions of the engine, all on OpenSSL's libcrypto. The derivations follow the key
// hierarchy of IEEE 802.1X-2010 (clause 6.2), so a CAK/CKN pair gives the same ICK and KEK here as
// on any other MKA peer.
//
// They work on octets: keys are KeyBytes, reached through StoredKey::withClear, and identifiers
// the values of model/Identifiers.h. A derivation whose input is not valid gives an empty result.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "model/KeyBytes.h"
#include "model/Values.h"
#include "platform/String.h"

namespace Macsec {

// Octets of cryptographic randomness from OpenSSL's DRBG.
KeyBytes randomBytes(size_t count);
// The integrity check key and the key encrypting key of an actor, from the first bits/8 octets of
// its CAK and its CKN; empty if the CAK is shorter.
KeyBytes deriveIck(const KeyBytes& cak, const KeyBytes& ckn, int bits);
KeyBytes deriveKek(const KeyBytes& cak, const KeyBytes& ckn, int bits);
// A new SAK of `bits` (the cipher suite's key length, whatever the CAK's) from the whole CAK of 16
// or 32 octets and the context: the key server's nonce, the live peers' member identifiers, and
// the key number in network order.
KeyBytes deriveSak(const KeyBytes& cak, const KeyBytes& context, int bits);
// The CAK and CKN of an EAP exchange, from the first bits/8 octets of its master session key: the
// CAK's context is the two MAC addresses, the lower first; the CKN's is the EAP session
// identifier followed by the same addresses.
KeyBytes deriveCak(const KeyBytes& msk, const KeyBytes& macs, int bits);
KeyBytes deriveCkn(const KeyBytes& msk, int bits, const KeyBytes& context, int cknBits);
// The 96-bit salt of the extended packet number ciphers (IEEE 802.1AEbw) of the key that the
// member `mi` numbered `keyNum`.
Salt saltOf(const MemberId& mi, uint32_t keyNum);

// Octets that look random but follow from a seed and a draw number (AES-CMAC of the draw number
// and a block counter under a key made of the seed): member identifiers and nonces for a
// simulation that must replay exactly. Never for a real member, whose identifiers and keys must
// not be foreseeable.
KeyBytes seededBytes(uint64_t seed, uint64_t draw, size_t count);

// The known frames of the power-on self test: EtherType 0x888E, the marker bytes 0xAB 0xCD, then a
// plain text for suite 0, or its AES-GCM cipher text and tag under the test key of the suite.
void selfTestPktData(CryptoLibCipherSuite suite, Zef::String& data, unsigned int& length);
bool selfTestPktCheck(CryptoLibCipherSuite suite, const uint8_t* data, unsigned int length);
// What a cipher path under test does to such a frame, with the test key of a 128- or 256-bit
// suite: encrypting seals the payload after the 4 header bytes into cipher text and tag,
// decrypting opens it again. Empty for another suite, a frame too short, or one that does not
// open.
std::string selfTestCipherPath(CryptoLibCipherSuite suite, bool encrypt, const uint8_t* data, size_t length);
// The frame that a cipher path under `test` sends back for a test frame: its addresses as they
// came, its payload through the path. Empty for a frame with no payload.
std::string selfTestLoopedBack(const POSTTest& test, const std::string& frame);

// AES-CMAC (RFC 4493) with a 16- or 32-byte key. Empty for any other key length.
KeyBytes aesCmac(const KeyBytes& key, const uint8_t* message, size_t length);
// The key derivation function of IEEE 802.1X-2010 clause 6.2.1: counter mode with AES-CMAC,
// `bits` long.
KeyBytes kdf(const KeyBytes& key, std::string_view label, const KeyBytes& context, int bits);

}  // namespace Macsec
