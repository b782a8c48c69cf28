#include "mkpdu/MkaPdu.h"

#include <ostream>

namespace Macsec {

namespace {

struct TypeName {
  ParameterSetTypes type;
  const char* name;
};

constexpr TypeName kTypeNames[] = {
    {livePeerParameterSetType, "livePeerParameterSetType"},
    {potentialPeerParameterSetType, "potentialPeerParameterSetType"},
    {sakUseParameterSetType, "sakUseParameterSetType"},
    {distSakParameterSetType, "distSakParameterSetType"},
    {distCakParameterSetType, "distCakParameterSetType"},
    {kmdParameterSetType, "kmdParameterSetType"},
    {announcementParameterSetType, "announcementParameterSetType"},
    {xpnParameterSetType, "xpnParameterSetType"},
    {icvIndicatorParameterSetType, "icvIndicatorParameterSetType"},
};

}  // namespace

std::ostream& operator<<(std::ostream& out, ParameterSetTypes type) {
  for (const TypeName& entry : kTypeNames) {
    if (entry.type == type) return out << entry.name;
  }
  return out << "ParameterSetTypes(" << +static_cast<uint8_t>(type) << ")";
}

std::ostream& operator<<(std::ostream& out, const SakUseAnAndOffset& v) { return out << +v.value(); }

std::ostream& operator<<(std::ostream& out, const DistSakAnAndOffset& v) { return out << +v.value(); }

}  // namespace Macsec
