// The RADIUS codec against published and independent bytes: RFC 2865's own example, and a request's
// Message-Authenticator and an MPPE key computed with Python's hashlib and hmac. Every tampered or
// malformed answer is refused with its reason.

#include "dot1x/Radius.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <string>

namespace Dot1x {
namespace {

std::string bytes(std::string_view hex) {
  Macsec::KeyBytes octets;
  EXPECT_TRUE(Macsec::hexToBytes(hex, octets));
  return std::string(reinterpret_cast<const char*>(octets.data()), octets.size());
}

Macsec::KeyBytes secret(std::string_view text) {
  return Macsec::KeyBytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

// An answer's Response Authenticator computed anew over its bytes as they stand, as a server
// that signs whatever it sends would.
std::string resigned(std::string packet, const RadiusAuthenticator& requestAuthenticator,
                     const Macsec::KeyBytes& secret) {
  std::string hashed = packet;
  std::copy(requestAuthenticator.begin(), requestAuthenticator.end(), hashed.begin() + 4);
  hashed.append(reinterpret_cast<const char*>(secret.data()), secret.size());
  unsigned char digest[16];
  unsigned int size = 0;
  EXPECT_EQ(EVP_Digest(hashed.data(), hashed.size(), digest, &size, EVP_md5(), nullptr), 1);
  std::copy(digest, digest + 16, packet.begin() + 4);
  return packet;
}

RadiusAuthenticator authenticatorOf(const std::string& packet) {
  RadiusAuthenticator a{};
  std::copy(packet.begin() + 4, packet.begin() + 20, a.begin());
  return a;
}

TEST(Radius, TheExampleOfRfc2865ChecksAndATamperedAnswerDoesNot) {
  // RFC 2865 section 7.1: nemo's Access-Request, and the server's Access-Accept, under the secret
  // "xyzzy5461".
  const std::string request = bytes(
      "010000380f403f9473978057bd83d5cb98f4227a01066e656d6f02120dbe708d93d413ce3196e43f782a0aee0406c0a8011005060000000"
      "3");
  const std::string accept = bytes("0200002686fe220e7624ba2a1005f6bf9b55e0b20606000000010f06000000000e06c0a80103");
  RadiusPacket read;
  ASSERT_EQ(decodeRadius(request, read), RadiusRefusal::none);
  EXPECT_EQ(read.code, RadiusCode::accessRequest);
  EXPECT_EQ(*read.attribute(RadiusType::userName), "nemo");
  ASSERT_EQ(read.attributes.size(), 4u);

  RadiusPacket answer;
  ASSERT_EQ(decodeRadiusAnswer(accept, authenticatorOf(request), secret("xyzzy5461"), answer), RadiusRefusal::none);
  EXPECT_EQ(answer.code, RadiusCode::accessAccept);
  EXPECT_EQ(answer.identifier, 0);
  EXPECT_EQ(answer.attributes.size(), 3u);
  EXPECT_EQ(decodeRadiusAnswer(accept, authenticatorOf(request), secret("xyzzy5462"), answer),
            RadiusRefusal::badAuthenticator);
  std::string tampered = accept;
  tampered.back() ^= 1;
  EXPECT_EQ(decodeRadiusAnswer(tampered, authenticatorOf(request), secret("xyzzy5461"), answer),
            RadiusRefusal::badAuthenticator);
}

TEST(Radius, ARequestCarriesItsEapAndAMessageAuthenticatorOverTheWholePacket) {
  RadiusPacket request;
  request.identifier = 7;
  for (uint8_t i = 0; i < 16; ++i) request.authenticator[i] = i;
  request.add(RadiusType::userName, "host.example");
  request.addEapMessage(bytes("0201001101686f73742e6578616d706c65"));
  // Computed with Python's hmac: HMAC-MD5 under the secret of the packet with the
  // Message-Authenticator, first among the attributes, as zeros.
  EXPECT_EQ(encodeRadiusRequest(request, secret("xyzzy5461")),
            bytes("01070047000102030405060708090a0b0c0d0e0f501209a097a265a7dc7fa184b7f01845ed2b010e686f73742e6578616d"
                  "706c654f130201001101686f73742e6578616d706c65"));
  // The same in FIPS mode, whose default "fips=yes" finds no MD5 (nor anything else, here, where
  // there is no FIPS provider): RADIUS's MD5 frames packets over TLS and is taken elsewhere.
  ASSERT_EQ(EVP_default_properties_enable_fips(nullptr, 1), 1);
  EXPECT_EQ(EVP_MD_fetch(nullptr, "MD5", nullptr), nullptr);
  const std::string underFips = encodeRadiusRequest(request, secret("xyzzy5461"));
  ASSERT_EQ(EVP_default_properties_enable_fips(nullptr, 0), 1);
  EXPECT_EQ(underFips,
            bytes("01070047000102030405060708090a0b0c0d0e0f501209a097a265a7dc7fa184b7f01845ed2b010e686f73742e"
                  "6578616d706c654f130201001101686f73742e6578616d706c65"));
  // A value longer than an attribute holds makes no packet.
  request.add(RadiusType::state, std::string(254, 's'));
  EXPECT_EQ(encodeRadiusRequest(request, secret("xyzzy5461")), "");
}

TEST(Radius, AnAnswerIsTakenOnlyWithBothAuthenticatorsAndItsEapJoinedAgain) {
  const Macsec::KeyBytes key = secret("a shared secret");
  const RadiusAuthenticator requestAuthenticator{9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6};
  std::string eap(600, '\0');
  for (size_t i = 0; i < eap.size(); ++i) eap[i] = static_cast<char>(i);
  RadiusPacket challenge;
  challenge.code = RadiusCode::accessChallenge;
  challenge.identifier = 3;
  challenge.addEapMessage(eap);
  challenge.add(RadiusType::state, "state-1");
  EXPECT_EQ(challenge.attributes.size(), 4u);  // 253 + 253 + 94 octets of EAP, and the state
  const std::string sent = encodeRadiusAnswer(challenge, requestAuthenticator, key);

  RadiusPacket read;
  ASSERT_EQ(decodeRadiusAnswer(sent, requestAuthenticator, key, read), RadiusRefusal::none);
  EXPECT_EQ(read.code, RadiusCode::accessChallenge);
  EXPECT_EQ(read.eapMessage(), eap);
  EXPECT_EQ(*read.attribute(RadiusType::state), "state-1");
  // Octets after the length are padding.
  EXPECT_EQ(decodeRadiusAnswer(sent + "pad", requestAuthenticator, key, read), RadiusRefusal::none);

  // The Message-Authenticator is checked on its own: a server that computed it wrong, or left it
  // out of an answer carrying EAP, is refused even with a Response Authenticator that checks.
  std::string wrongMac = sent;
  wrongMac[22] ^= 1;  // the Message-Authenticator's first octet, first among the attributes
  EXPECT_EQ(decodeRadiusAnswer(resigned(wrongMac, requestAuthenticator, key), requestAuthenticator, key, read),
            RadiusRefusal::badMessageAuthenticator);
  std::string noMac = sent.substr(0, 20) + sent.substr(38);
  noMac[3] = static_cast<char>(noMac.size() & 0xff);
  noMac[2] = static_cast<char>(noMac.size() >> 8);
  EXPECT_EQ(decodeRadiusAnswer(resigned(noMac, requestAuthenticator, key), requestAuthenticator, key, read),
            RadiusRefusal::noMessageAuthenticator);
  const struct {
    const char* name;
    std::string packet;
    RadiusRefusal refusal;
  } cases[] = {
      {"another secret", sent, RadiusRefusal::badAuthenticator},
      {"short", sent.substr(0, 19), RadiusRefusal::tooShort},
      {"a length past the bytes", sent.substr(0, sent.size() - 1), RadiusRefusal::badLength},
      {"an attribute past the packet", bytes("0b0300170000000000000000000000000000000050ff00"),
       RadiusRefusal::badAttribute},
      {"an attribute of length 1", bytes("0b030016000000000000000000000000000000004f01"), RadiusRefusal::badAttribute},
      {"a request", encodeRadiusRequest(RadiusPacket{}, key), RadiusRefusal::notAnAnswer},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Macsec::KeyBytes used = std::string(c.name) == "another secret" ? secret("another") : key;
    EXPECT_EQ(decodeRadiusAnswer(c.packet, requestAuthenticator, used, read), c.refusal);
  }
}

TEST(Radius, TheMppeKeysOfAnAcceptRevealTheirKeyUnderTheSecretAndTheRequestAuthenticator) {
  RadiusAuthenticator requestAuthenticator{};
  for (uint8_t i = 0; i < 16; ++i) requestAuthenticator[i] = i;
  // Computed with Python's hashlib, as RFC 2548 hides it: salt 0x8001, a key of 32 octets 0x20 to
  // 0x3f, its length first and zeros after it to 48 octets.
  const std::string hidden =
      bytes("8001d1c6378c4cd597f8624c0caf2ef622b4cf2128b94054a3e17222837bc15d0fe45f11a56dece3aea23021e7f2ae40c87d");
  Macsec::KeyBytes key;
  ASSERT_TRUE(revealMppeKey(hidden, secret("xyzzy5461"), requestAuthenticator, key));
  ASSERT_EQ(key.size(), 32u);
  for (uint8_t i = 0; i < 32; ++i) EXPECT_EQ(key.data()[i], 0x20 + i);
  // Under another secret the length it reads cannot be right, or the key is another.
  Macsec::KeyBytes other;
  EXPECT_TRUE(!revealMppeKey(hidden, secret("xyzzy5462"), requestAuthenticator, other) || other.size() != 32 ||
              other.data()[0] != 0x20);
  EXPECT_FALSE(revealMppeKey(hidden.substr(0, 17), secret("xyzzy5461"), requestAuthenticator, other));

  // In an Accept, the key sits in a Vendor-Specific attribute of Microsoft's.
  RadiusPacket accept;
  accept.code = RadiusCode::accessAccept;
  accept.add(RadiusType::vendorSpecific, bytes("00000137") + "\x11" + static_cast<char>(hidden.size() + 2) + hidden);
  ASSERT_TRUE(accept.vendorAttribute(kMicrosoftVendor, kMsMppeRecvKey));
  EXPECT_EQ(*accept.vendorAttribute(kMicrosoftVendor, kMsMppeRecvKey), hidden);
  EXPECT_FALSE(accept.vendorAttribute(kMicrosoftVendor, kMsMppeSendKey));
  EXPECT_FALSE(accept.vendorAttribute(9, kMsMppeRecvKey));
}

}  // namespace
}  // namespace Dot1x
