// Feeds arbitrary bytes to the framing of port authentication: one EAPOL frame after another from
// the input, each EAP packet they carry, and each EAP-TLS fragment into one reassembly. Whatever
// is accepted must be written back as it came, and the reassembly must never hold more than the
// message it was told of, or than a port takes in. The same bytes go to the RADIUS reader, as a
// packet, as an answer under a secret, and as a hidden MPPE key.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "dot1x/Eap.h"
#include "dot1x/EapTls.h"
#include "dot1x/Eapol.h"
#include "dot1x/Radius.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

void takeEapTls(std::string_view typeData, Dot1x::EapTlsReassembly& reassembly) {
  Dot1x::EapTlsFragment fragment;
  if (Dot1x::decodeEapTls(typeData, fragment) != Dot1x::EapTlsRefusal::none) return;
  // Written back as it came, but for the reserved flags, which a receiver ignores.
  const std::string again = Dot1x::encodeEapTls(fragment);
  require(again.substr(1) == typeData.substr(1));
  require(static_cast<uint8_t>(again[0]) ==
          (static_cast<uint8_t>(typeData[0]) &
           (Dot1x::kEapTlsLengthIncluded | Dot1x::kEapTlsMoreFragments | Dot1x::kEapTlsStart)));
  if (reassembly.add(fragment) != Dot1x::EapTlsRefusal::none || reassembly.awaitingMore()) return;
  const std::string message = reassembly.take();
  require(message.size() <= Dot1x::kEapTlsMaxMessageOctets);
  require(!fragment.messageLength || *fragment.messageLength == message.size());
}

void takeRadius(std::string_view input) {
  Dot1x::RadiusPacket packet;
  if (Dot1x::decodeRadius(input, packet) == Dot1x::RadiusRefusal::none) {
    require(packet.eapMessage().size() <= Dot1x::kRadiusMaxOctets);
    if (const auto key = packet.vendorAttribute(Dot1x::kMicrosoftVendor, Dot1x::kMsMppeRecvKey)) {
      require(key->size() <= Dot1x::kRadiusMaxValueOctets);
    }
  }
  static const Macsec::KeyBytes secret(reinterpret_cast<const uint8_t*>("xyzzy5461"), 9);
  const Dot1x::RadiusAuthenticator requestAuthenticator{};
  Dot1x::RadiusPacket answer;
  if (Dot1x::decodeRadiusAnswer(input, requestAuthenticator, secret, answer) == Dot1x::RadiusRefusal::none) {
    require(answer.code == Dot1x::RadiusCode::accessAccept || answer.code == Dot1x::RadiusCode::accessReject ||
            answer.code == Dot1x::RadiusCode::accessChallenge);
  }
  Macsec::KeyBytes key;
  if (Dot1x::revealMppeKey(input, secret, requestAuthenticator, key)) require(key.size() < input.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  takeRadius(input);
  Dot1x::EapTlsReassembly reassembly;
  for (;;) {
    Dot1x::EapolFrame frame;
    if (Dot1x::decodeEapol(input, frame) != Dot1x::EapolRefusal::none) return 0;
    const size_t frameOctets = Dot1x::kEapolHeaderOctets + frame.body.size();
    require(Dot1x::encodeEapol(frame) == input.substr(0, frameOctets));
    input.remove_prefix(frameOctets);
    if (frame.type != Dot1x::EapolType::eapPacket) continue;

    Dot1x::EapPacket packet;
    if (Dot1x::decodeEap(frame.body, packet) != Dot1x::EapRefusal::none) continue;
    // Written back as it came; a success or failure whose length claimed more is written as the
    // header it is.
    const std::string again = Dot1x::encodeEap(packet);
    const size_t same = packet.hasType() ? again.size() : 2;
    require(frame.body.substr(0, same) == std::string_view(again).substr(0, same));
    if (packet.hasType() && packet.type == Dot1x::EapType::tls) takeEapTls(packet.data, reassembly);
  }
}
