#include "dot1x/EapTls.h"

#include <algorithm>

namespace Dot1x {

const char* eapTlsRefusalText(EapTlsRefusal refusal) {
  switch (refusal) {
    case EapTlsRefusal::none:
      return "accepted";
    case EapTlsRefusal::tooShort:
      return "too short";
    case EapTlsRefusal::tooLong:
      return "TLS message too long";
    case EapTlsRefusal::badLength:
      return "fragments disagree with the message length";
    case EapTlsRefusal::badFragment:
      return "fragment out of order";
  }
  return "unknown";
}

EapTlsRefusal decodeEapTls(std::string_view octets, EapTlsFragment& out) {
  if (octets.empty()) return EapTlsRefusal::tooShort;
  const auto flags = static_cast<uint8_t>(octets[0]);
  out.start = (flags & kEapTlsStart) != 0;
  out.more = (flags & kEapTlsMoreFragments) != 0;
  out.messageLength.reset();
  size_t at = 1;
  if ((flags & kEapTlsLengthIncluded) != 0) {
    if (octets.size() < 5) return EapTlsRefusal::tooShort;
    const auto* bytes = reinterpret_cast<const uint8_t*>(octets.data());
    out.messageLength = static_cast<uint32_t>(bytes[1]) << 24 | static_cast<uint32_t>(bytes[2]) << 16 |
                        static_cast<uint32_t>(bytes[3]) << 8 | bytes[4];
    at = 5;
  }
  out.data = octets.substr(at);
  return EapTlsRefusal::none;
}

std::string encodeEapTls(const EapTlsFragment& fragment) {
  uint8_t flags = 0;
  if (fragment.start) flags |= kEapTlsStart;
  if (fragment.more) flags |= kEapTlsMoreFragments;
  if (fragment.messageLength) flags |= kEapTlsLengthIncluded;
  std::string out(1, static_cast<char>(flags));
  if (const std::optional<uint32_t>& length = fragment.messageLength) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(*length >> shift));
  }
  out.append(fragment.data);
  return out;
}

EapTlsRefusal EapTlsReassembly::add(const EapTlsFragment& fragment) {
  const EapTlsRefusal refusal = [&] {
    if (fragment.start && awaitingMore_) return EapTlsRefusal::badFragment;
    // A fragment after a complete message begins the next one.
    if (!awaitingMore_) {
      message_.clear();
      expected_.reset();
    }
    if (fragment.messageLength) {
      if (*fragment.messageLength > kEapTlsMaxMessageOctets) return EapTlsRefusal::tooLong;
      // Later fragments may give the length again, but not another one.
      if (awaitingMore_ && expected_ != fragment.messageLength) return EapTlsRefusal::badFragment;
      expected_ = fragment.messageLength;
    }
    const size_t bound = expected_ ? *expected_ : kEapTlsMaxMessageOctets;
    if (fragment.data.size() > bound - std::min(bound, message_.size())) {
      return expected_ ? EapTlsRefusal::badLength : EapTlsRefusal::tooLong;
    }
    message_.append(fragment.data);
    awaitingMore_ = fragment.more;
    if (!awaitingMore_ && expected_ && message_.size() != *expected_) return EapTlsRefusal::badLength;
    return EapTlsRefusal::none;
  }();
  if (refusal != EapTlsRefusal::none) {
    message_.clear();
    expected_.reset();
    awaitingMore_ = false;
  }
  return refusal;
}

std::string EapTlsReassembly::take() {
  std::string message;
  message.swap(message_);
  expected_.reset();
  awaitingMore_ = false;
  return message;
}

void EapTlsFragmenter::messageIs(std::string message) {
  message_ = std::move(message);
  sent_ = 0;
}

EapTlsFragment EapTlsFragmenter::next() {
  EapTlsFragment fragment;
  const size_t size = std::min(fragmentOctets_, message_.size() - sent_);
  if (sent_ == 0 && size < message_.size()) fragment.messageLength = static_cast<uint32_t>(message_.size());
  fragment.data = std::string_view(message_).substr(sent_, size);
  sent_ += size;
  fragment.more = sent_ < message_.size();
  return fragment;
}

}  // namespace Dot1x
