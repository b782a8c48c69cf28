#pragma once

// The addresses that EAPOL frames go to (IEEE 802.1X-2010 11.1.1): MKPDUs and the frames of
// 802.1X authentication alike.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "platform/EthAddr.h"

namespace Dot1x {

// The PAE group address, where a port sends when it does not know its peer's address.
inline constexpr Lanx::EthAddr kPaeGroupAddress{{0x01, 0x80, 0xC2, 0x00, 0x00, 0x03}};

// Whether a destination (six octets) is one that IEEE 802.1X lets a port use as its group
// address: the PAE group address itself, the bridge group address or the nearest-bridge address.
inline bool isPaeGroupAddress(const uint8_t* destination) noexcept {
  static constexpr uint8_t kLastOctets[] = {0x03, 0x00, 0x0E};
  if (std::memcmp(destination, kPaeGroupAddress.data(), 5) != 0) return false;
  return std::find(std::begin(kLastOctets), std::end(kLastOctets), destination[5]) != std::end(kLastOctets);
}

}  // namespace Dot1x
