#pragma once

#include <cstdint>
#include <ostream>

namespace Interface {

// The state of an Ethernet interface's link, as the interface layer reports it. Only linkUp (the
// interface is up and has its carrier) lets MKA run on it.
enum LinkStatus : uint8_t {
  linkUnknown = 0,
  linkDown = 1,
  linkUp = 2,
};

inline std::ostream& operator<<(std::ostream& out, LinkStatus status) {
  switch (status) {
    case linkUnknown:
      return out << "unknown";
    case linkDown:
      return out << "down";
    case linkUp:
      return out << "up";
  }
  return out << "linkStatus(" << static_cast<unsigned>(status) << ")";
}

}  // namespace Interface
