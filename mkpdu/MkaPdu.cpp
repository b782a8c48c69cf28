#include "mkpdu/MkaPdu.h"

#include <ostream>
#include <sstream>

#include "platform/Exception.h"
#include "platform/ValueText.h"

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

// Reads the text that stands between `before` and `after` in `text`, from `from` on; throws
// naming the attribute when a literal piece is missing.
std::string_view between(std::string_view text, std::string_view before, std::string_view after, const char* attribute,
                         size_t& from) {
  const size_t start = text.find(before, from);
  if (start == std::string_view::npos)
    Zef::throwRangeException(Zef::String("missing ") + attribute + " in '" + text + "'");
  const size_t valueStart = start + before.size();
  const size_t end = text.find(after, valueStart);
  if (end == std::string_view::npos)
    Zef::throwRangeException(Zef::String("missing ") + attribute + " in '" + text + "'");
  from = end;
  return text.substr(valueStart, end - valueStart);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, ParameterSetTypes type) {
  for (const TypeName& entry : kTypeNames) {
    if (entry.type == type) return out << entry.name;
  }
  return out << "ParameterSetTypes(" << +static_cast<uint8_t>(type) << ")";
}

ParameterSetTypes parameterSetTypesFromText(std::string_view text) {
  for (const TypeName& entry : kTypeNames) {
    if (text == entry.name) return entry.type;
  }
  Zef::throwRangeException(Zef::String("not a parameter set type: '") + text + "'");
}

EapolType::EapolType(unsigned type) {
  if (type > 8) Zef::throwRangeException("EapolType::type < 0 or > 8 not allowed");
  type_ = static_cast<uint8_t>(type);
}

std::ostream& operator<<(std::ostream& out, const EapolType& type) { return out << +type.type(); }

std::string bits16Text(const char* typeName, const Bits16& bits) {
  std::ostringstream out;
  out << "Value('Macsec::" << typeName << "', ** {'v0': " << +bits.v0() << ", 'v1': " << +bits.v1() << "})";
  return out.str();
}

void bits16FromText(const char* typeName, std::string_view text, Bits16& bits) {
  size_t from = 0;
  between(text, std::string("Value('Macsec::"), std::string(typeName) + "', ** {", "type", from);
  const unsigned v0 = Zef::numberFromText(between(text, "'v0': ", ",", "v0", from), "v0");
  const unsigned v1 = Zef::numberFromText(between(text, "'v1': ", "})", "v1", from), "v1");
  if (v0 > 255 || v1 > 255) Zef::throwRangeException(Zef::String("bad byte in '") + text + "'");
  bits.valueIs(static_cast<uint16_t>(v0 << 8 | v1));
}

std::ostream& operator<<(std::ostream& out, const SakUseAnAndOffset& v) { return out << +v.value(); }

std::ostream& operator<<(std::ostream& out, const DistSakAnAndOffset& v) { return out << +v.value(); }

std::string sciParameterSetText(const SciParameterSet& sci) {
  std::ostringstream out;
  out << "Value('Macsec::SciParameterSet', ** {'addr': " << sci.address() << ", 'portId': " << sci.portId.value()
      << "})";
  return out.str();
}

SciParameterSet sciParameterSetFromText(std::string_view text) {
  for (const char* attribute : {"addr", "portId"}) {
    if (text.find(std::string("'") + attribute + "': ") == std::string_view::npos) {
      Zef::throwRangeException(Zef::String("missing ") + attribute + " in '" + text + "'");
    }
  }
  size_t from = 0;
  between(text, "Value('Macsec::", "SciParameterSet', ** {", "type", from);
  SciParameterSet sci{};
  Lanx::EthAddr addr;
  const std::string_view addrText = between(text, "'addr': ", ",", "addr", from);
  if (!Lanx::EthAddr::parse(addrText, addr)) Zef::throwRangeException(Zef::String("bad addr '") + addrText + "'");
  sci.addressIs(addr);
  const unsigned port = Zef::numberFromText(between(text, "'portId': ", "})", "portId", from), "portId");
  if (port > 0xffff) Zef::throwRangeException("bad portId");
  sci.portId.valueIs(static_cast<uint16_t>(port));
  return sci;
}

}  // namespace Macsec
