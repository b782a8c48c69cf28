#pragma once

// The framing of EAP-TLS (RFC 5216 section 3.1, kept by RFC 9190 for TLS 1.3): after the method
// type, a flags octet, the length of the whole TLS message when the L flag says so, and a piece
// of TLS data. A TLS message longer than an EAP packet may carry goes in fragments, each but the
// last with the M flag, each answered by an empty one; the reassembly and the fragmenting here
// are pure, so that the method above them only moves whole messages.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Dot1x {

// The flags octet.
inline constexpr uint8_t kEapTlsLengthIncluded = 0x80;
inline constexpr uint8_t kEapTlsMoreFragments = 0x40;
inline constexpr uint8_t kEapTlsStart = 0x20;

// The longest TLS message taken in: a handshake flight with a long certificate chain fits many
// times over, and a peer cannot make the port hold more.
inline constexpr size_t kEapTlsMaxMessageOctets = 64 * 1024;

// What follows the method type. `data` points into the octets read.
struct EapTlsFragment {
  bool start = false;
  bool more = false;
  std::optional<uint32_t> messageLength;
  std::string_view data;
};

// Why a fragment, or the message it belongs to, was refused.
enum class EapTlsRefusal : uint8_t {
  none,
  tooShort,     // no flags octet, or the L flag without four octets of length
  tooLong,      // a message longer than this port takes in
  badLength,    // fragments that add up to another length than the message's
  badFragment,  // a start among fragments, or a length that changes from one fragment to the next
};
inline constexpr size_t kEapTlsRefusals = 5;
const char* eapTlsRefusalText(EapTlsRefusal refusal);

EapTlsRefusal decodeEapTls(std::string_view octets, EapTlsFragment& out);
std::string encodeEapTls(const EapTlsFragment& fragment);

// Joins the fragments of one incoming TLS message.
class EapTlsReassembly {
 public:
  // Takes the next fragment. After `none`, either more fragments are awaited (the fragment is to
  // be acknowledged) or the message is complete. A refusal forgets the message.
  EapTlsRefusal add(const EapTlsFragment& fragment);
  bool awaitingMore() const noexcept { return awaitingMore_; }
  // The message once complete; taking it leaves nothing behind.
  std::string take();

 private:
  std::string message_;
  std::optional<uint32_t> expected_;
  bool awaitingMore_ = false;
};

// Cuts an outgoing TLS message into fragments of at most `fragmentOctets` of TLS data each. A
// message that needs more than one fragment gives its length in the first.
class EapTlsFragmenter {
 public:
  explicit EapTlsFragmenter(size_t fragmentOctets) : fragmentOctets_(fragmentOctets > 0 ? fragmentOctets : 1) {}
  void messageIs(std::string message);
  bool pending() const noexcept { return sent_ < message_.size(); }
  // The next fragment; its data points into the message held here, until the next messageIs().
  EapTlsFragment next();

 private:
  size_t fragmentOctets_;
  std::string message_;
  size_t sent_ = 0;
};

}  // namespace Dot1x
