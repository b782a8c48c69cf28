#pragma once

#include <cstdint>
#include <ostream>

namespace Interface {

// What a protocol asks of the interface layer's forwarding on an interface. The other values
// belong to the interface layer; a protocol that holds an interface back writes `unauthorized`.
enum class IntfForwardingModel : uint8_t {
  unauthorized = 2,
};

constexpr IntfForwardingModel intfForwardingModelUnauthorized() { return IntfForwardingModel::unauthorized; }

inline std::ostream& operator<<(std::ostream& out, IntfForwardingModel model) {
  if (model == IntfForwardingModel::unauthorized) return out << "unauthorized";
  return out << "intfForwardingModel(" << static_cast<unsigned>(model) << ")";
}

}  // namespace Interface
