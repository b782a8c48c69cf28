#include "dot1x/Radius.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <memory>

namespace Dot1x {

const char* radiusCodeText(RadiusCode code) {
  switch (code) {
    case RadiusCode::accessRequest:
      return "Access-Request";
    case RadiusCode::accessAccept:
      return "Access-Accept";
    case RadiusCode::accessReject:
      return "Access-Reject";
    case RadiusCode::accessChallenge:
      return "Access-Challenge";
  }
  return "unknown";
}

const char* radiusRefusalText(RadiusRefusal refusal) {
  switch (refusal) {
    case RadiusRefusal::none:
      return "none";
    case RadiusRefusal::tooShort:
      return "shorter than its header";
    case RadiusRefusal::badLength:
      return "a length that does not fit";
    case RadiusRefusal::badAttribute:
      return "an attribute that does not fit";
    case RadiusRefusal::notAnAnswer:
      return "not an answer to an Access-Request";
    case RadiusRefusal::badAuthenticator:
      return "a Response Authenticator that does not check";
    case RadiusRefusal::noMessageAuthenticator:
      return "EAP without a Message-Authenticator";
    case RadiusRefusal::badMessageAuthenticator:
      return "a Message-Authenticator that does not check";
  }
  return "unknown";
}

namespace {

constexpr size_t kHeaderOctets = 20;
constexpr size_t kAuthenticatorAt = 4;
constexpr size_t kHashOctets = 16;

using Hash = std::array<uint8_t, kHashOctets>;

uint32_t be32(const uint8_t* v) {
  return (uint32_t{v[0]} << 24) | (uint32_t{v[1]} << 16) | (uint32_t{v[2]} << 8) | v[3];
}

std::string_view bytesOf(const uint8_t* data, size_t size) { return {reinterpret_cast<const char*>(data), size}; }
std::string_view bytesOf(const Macsec::KeyBytes& key) { return bytesOf(key.data(), key.size()); }
std::string_view bytesOf(const RadiusAuthenticator& a) { return bytesOf(a.data(), a.size()); }

// RADIUS's MD5 is its framing, not what protects it where protection is asked for: FIPS mode allows
// RADIUS over TLS alone, which carries the packets whole. So MD5 is taken from a provider that is
// not the FIPS one (the property query "-fips" lifts FIPS mode's default "fips=yes"); where there
// is none, every packet is refused.
constexpr char kMd5Properties[] = "-fips";

// MD5 of the parts, one after another; false where OpenSSL has no MD5 to give.
bool md5(std::initializer_list<std::string_view> parts, Hash& out) {
  const std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)> digest(EVP_MD_fetch(nullptr, "MD5", kMd5Properties),
                                                               EVP_MD_free);
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!digest || !ctx || EVP_DigestInit_ex(ctx.get(), digest.get(), nullptr) != 1) return false;
  for (std::string_view part : parts) {
    if (EVP_DigestUpdate(ctx.get(), part.data(), part.size()) != 1) return false;
  }
  unsigned int size = 0;
  return EVP_DigestFinal_ex(ctx.get(), out.data(), &size) == 1 && size == kHashOctets;
}

bool hmacMd5(const Macsec::KeyBytes& secret, std::string_view data, Hash& out) {
  const std::unique_ptr<EVP_MAC, decltype(&EVP_MAC_free)> mac(EVP_MAC_fetch(nullptr, "HMAC", kMd5Properties),
                                                              EVP_MAC_free);
  if (!mac) return false;
  const std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)> ctx(EVP_MAC_CTX_new(mac.get()), EVP_MAC_CTX_free);
  char digestName[] = "MD5";
  char properties[] = "-fips";
  const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digestName, 0),
                               OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_PROPERTIES, properties, 0),
                               OSSL_PARAM_construct_end()};
  size_t size = 0;
  return ctx && EVP_MAC_init(ctx.get(), secret.data(), secret.size(), params) == 1 &&
         EVP_MAC_update(ctx.get(), reinterpret_cast<const uint8_t*>(data.data()), data.size()) == 1 &&
         EVP_MAC_final(ctx.get(), out.data(), &size, out.size()) == 1 && size == kHashOctets;
}

// Where the Message-Authenticator's value lies in a packet's bytes, or 0 if it has none.
size_t messageAuthenticatorAt(std::string_view bytes) {
  for (size_t at = kHeaderOctets; at + 2 <= bytes.size();) {
    const auto length = static_cast<uint8_t>(bytes[at + 1]);
    if (length < 2) return 0;
    if (static_cast<uint8_t>(bytes[at]) == static_cast<uint8_t>(RadiusType::messageAuthenticator)) return at + 2;
    at += length;
  }
  return 0;
}

// The bytes of a packet with the given authenticator field, and a Message-Authenticator of zeros
// first among its attributes if it has none; empty if it does not fit.
std::string layout(const RadiusPacket& packet, const RadiusAuthenticator& authenticator) {
  std::string bytes(kHeaderOctets, '\0');
  bytes[0] = static_cast<char>(packet.code);
  bytes[1] = static_cast<char>(packet.identifier);
  std::memcpy(bytes.data() + kAuthenticatorAt, authenticator.data(), authenticator.size());
  const auto put = [&](uint8_t type, std::string_view value) {
    bytes.push_back(static_cast<char>(type));
    bytes.push_back(static_cast<char>(value.size() + 2));
    bytes.append(value);
  };
  const bool hasOne = std::any_of(packet.attributes.begin(), packet.attributes.end(), [](const RadiusAttribute& a) {
    return a.type == static_cast<uint8_t>(RadiusType::messageAuthenticator);
  });
  if (!hasOne) put(static_cast<uint8_t>(RadiusType::messageAuthenticator), std::string(kHashOctets, '\0'));
  for (const RadiusAttribute& attribute : packet.attributes) {
    if (attribute.value.size() > kRadiusMaxValueOctets) return std::string();
    const bool zeroed = attribute.type == static_cast<uint8_t>(RadiusType::messageAuthenticator);
    put(attribute.type, zeroed ? std::string(kHashOctets, '\0') : attribute.value);
  }
  if (bytes.size() > kRadiusMaxOctets) return std::string();
  bytes[2] = static_cast<char>(bytes.size() >> 8);
  bytes[3] = static_cast<char>(bytes.size());
  return bytes;
}

// Fills in the Message-Authenticator of laid out bytes: HMAC-MD5 of them as they stand.
bool signMessage(std::string& bytes, const Macsec::KeyBytes& secret) {
  Hash mac{};
  const size_t at = messageAuthenticatorAt(bytes);
  if (at == 0 || !hmacMd5(secret, bytes, mac)) return false;
  std::memcpy(bytes.data() + at, mac.data(), mac.size());
  return true;
}

}  // namespace

void RadiusPacket::add(RadiusType type, std::string_view value) {
  attributes.push_back({static_cast<uint8_t>(type), std::string(value)});
}

void RadiusPacket::addInteger(RadiusType type, uint32_t value) {
  const char octets[] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16), static_cast<char>(value >> 8),
                         static_cast<char>(value)};
  add(type, std::string_view(octets, sizeof octets));
}

std::optional<uint32_t> RadiusPacket::integerAttribute(RadiusType type) const {
  const std::string* value = attribute(type);
  if (value == nullptr || value->size() != 4) return std::nullopt;
  return be32(reinterpret_cast<const uint8_t*>(value->data()));
}

void RadiusPacket::addEapMessage(std::string_view eap) {
  for (size_t at = 0; at < eap.size(); at += kRadiusMaxValueOctets) {
    add(RadiusType::eapMessage, eap.substr(at, kRadiusMaxValueOctets));
  }
}

const std::string* RadiusPacket::attribute(RadiusType type) const {
  for (const RadiusAttribute& a : attributes) {
    if (a.type == static_cast<uint8_t>(type)) return &a.value;
  }
  return nullptr;
}

std::string RadiusPacket::eapMessage() const {
  std::string eap;
  for (const RadiusAttribute& a : attributes) {
    if (a.type == static_cast<uint8_t>(RadiusType::eapMessage)) eap += a.value;
  }
  return eap;
}

std::optional<std::string_view> RadiusPacket::vendorAttribute(uint32_t vendor, uint8_t type) const {
  // A Vendor-Specific value: the vendor's number in four octets, then the vendor's own attributes,
  // each its type, length and value.
  for (const RadiusAttribute& a : attributes) {
    if (a.type != static_cast<uint8_t>(RadiusType::vendorSpecific) || a.value.size() < 4) continue;
    const auto* v = reinterpret_cast<const uint8_t*>(a.value.data());
    if (be32(v) != vendor) continue;
    for (size_t at = 4; at + 2 <= a.value.size() && v[at + 1] >= 2 && at + v[at + 1] <= a.value.size();
         at += v[at + 1]) {
      if (v[at] == type) return std::string_view(a.value).substr(at + 2, v[at + 1] - 2u);
    }
  }
  return std::nullopt;
}

RadiusRefusal decodeRadius(std::string_view bytes, RadiusPacket& out) {
  if (bytes.size() < kHeaderOctets) return RadiusRefusal::tooShort;
  const auto* b = reinterpret_cast<const uint8_t*>(bytes.data());
  const size_t length = (size_t{b[2]} << 8) | b[3];
  // Octets after the length are padding, and not part of the packet.
  if (length < kHeaderOctets || length > kRadiusMaxOctets || length > bytes.size()) return RadiusRefusal::badLength;
  RadiusPacket packet;
  packet.code = static_cast<RadiusCode>(b[0]);
  packet.identifier = b[1];
  std::memcpy(packet.authenticator.data(), b + kAuthenticatorAt, packet.authenticator.size());
  for (size_t at = kHeaderOctets; at < length;) {
    if (at + 2 > length || b[at + 1] < 2 || at + b[at + 1] > length) return RadiusRefusal::badAttribute;
    packet.attributes.push_back({b[at], std::string(bytes.substr(at + 2, b[at + 1] - 2u))});
    at += b[at + 1];
  }
  out = std::move(packet);
  return RadiusRefusal::none;
}

std::string encodeRadiusRequest(const RadiusPacket& request, const Macsec::KeyBytes& secret) {
  std::string bytes = layout(request, request.authenticator);
  if (bytes.empty() || !signMessage(bytes, secret)) return std::string();
  return bytes;
}

RadiusRefusal decodeRadiusAnswer(std::string_view bytes, const RadiusAuthenticator& requestAuthenticator,
                                 const Macsec::KeyBytes& secret, RadiusPacket& out) {
  RadiusPacket answer;
  if (const RadiusRefusal refusal = decodeRadius(bytes, answer); refusal != RadiusRefusal::none) return refusal;
  if (answer.code != RadiusCode::accessAccept && answer.code != RadiusCode::accessReject &&
      answer.code != RadiusCode::accessChallenge) {
    return RadiusRefusal::notAnAnswer;
  }
  const size_t length = (size_t{static_cast<uint8_t>(bytes[2])} << 8) | static_cast<uint8_t>(bytes[3]);
  // What the server hashed: the answer with the request's authenticator in place of its own.
  std::string signedBytes(bytes.substr(0, length));
  std::memcpy(signedBytes.data() + kAuthenticatorAt, requestAuthenticator.data(), requestAuthenticator.size());
  Hash response{};
  if (!md5({signedBytes, bytesOf(secret)}, response) ||
      CRYPTO_memcmp(response.data(), answer.authenticator.data(), response.size()) != 0) {
    return RadiusRefusal::badAuthenticator;
  }
  if (const size_t at = messageAuthenticatorAt(signedBytes); at != 0) {
    if (static_cast<uint8_t>(signedBytes[at - 1]) != kHashOctets + 2) return RadiusRefusal::badMessageAuthenticator;
    Hash given{};
    std::memcpy(given.data(), signedBytes.data() + at, given.size());
    std::memset(signedBytes.data() + at, 0, kHashOctets);
    Hash mac{};
    if (!hmacMd5(secret, signedBytes, mac) || CRYPTO_memcmp(mac.data(), given.data(), mac.size()) != 0) {
      return RadiusRefusal::badMessageAuthenticator;
    }
  } else if (answer.attribute(RadiusType::eapMessage)) {
    return RadiusRefusal::noMessageAuthenticator;
  }
  out = std::move(answer);
  return RadiusRefusal::none;
}

std::string encodeRadiusAnswer(const RadiusPacket& answer, const RadiusAuthenticator& requestAuthenticator,
                               const Macsec::KeyBytes& secret) {
  std::string bytes = layout(answer, requestAuthenticator);
  Hash response{};
  if (bytes.empty() || !signMessage(bytes, secret) || !md5({bytes, bytesOf(secret)}, response)) return std::string();
  std::memcpy(bytes.data() + kAuthenticatorAt, response.data(), response.size());
  return bytes;
}

bool revealMppeKey(std::string_view value, const Macsec::KeyBytes& secret,
                   const RadiusAuthenticator& requestAuthenticator, Macsec::KeyBytes& key) {
  constexpr size_t kSaltOctets = 2;
  if (value.size() < kSaltOctets + kHashOctets || (value.size() - kSaltOctets) % kHashOctets != 0) return false;
  const std::string_view salt = value.substr(0, kSaltOctets);
  const std::string_view hidden = value.substr(kSaltOctets);
  // Each block is hidden with MD5 of the secret and the block before it (the request
  // authenticator and the salt before the first).
  Macsec::KeyBytes plain(hidden.size());
  Hash pad{};
  bool hashed = true;
  for (size_t at = 0; hashed && at < hidden.size(); at += kHashOctets) {
    hashed = at == 0 ? md5({bytesOf(secret), bytesOf(requestAuthenticator), salt}, pad)
                     : md5({bytesOf(secret), hidden.substr(at - kHashOctets, kHashOctets)}, pad);
    for (size_t i = 0; hashed && i < kHashOctets; ++i) {
      plain.data()[at + i] = static_cast<uint8_t>(hidden[at + i]) ^ pad[i];
    }
  }
  OPENSSL_cleanse(pad.data(), pad.size());
  // The first octet is the key's length; the padding after the key is not the key.
  if (!hashed || plain.data()[0] == 0 || plain.data()[0] > plain.size() - 1) return false;
  key = Macsec::KeyBytes(plain.data() + 1, plain.data()[0]);
  return true;
}

std::string hideMppeKey(const Macsec::KeyBytes& key, uint16_t salt, const Macsec::KeyBytes& secret,
                        const RadiusAuthenticator& requestAuthenticator) {
  const char saltOctets[] = {static_cast<char>(0x80 | (salt >> 8)), static_cast<char>(salt)};
  std::string plain(1, static_cast<char>(key.size()));
  plain.append(bytesOf(key));
  plain.resize((plain.size() + kHashOctets - 1) / kHashOctets * kHashOctets, '\0');
  std::string value(saltOctets, 2);
  Hash pad{};
  for (size_t at = 0; at < plain.size(); at += kHashOctets) {
    const bool hashed = at == 0
                            ? md5({bytesOf(secret), bytesOf(requestAuthenticator), {saltOctets, 2}}, pad)
                            : md5({bytesOf(secret), std::string_view(value).substr(value.size() - kHashOctets)}, pad);
    if (!hashed) return std::string();
    for (size_t i = 0; i < kHashOctets; ++i) value.push_back(static_cast<char>(plain[at + i] ^ pad[i]));
  }
  OPENSSL_cleanse(plain.data(), plain.size());
  OPENSSL_cleanse(pad.data(), pad.size());
  return value;
}

}  // namespace Dot1x
