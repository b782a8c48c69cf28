#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Lanx {

// An interface identifier, 64 bits wide. It stands for an interface name such as "eth0",
// "enp3s0f1" or "Ethernet1/1": names are interned in a table of the process, so that every
// engine of the process gives one name the same identifier. The default is the empty identifier.
class IntfId {
 public:
  constexpr IntfId() noexcept = default;
  explicit IntfId(std::string_view name) { handleInitialized(name); }

  // Builds the identifier from a name; an empty text gives the empty identifier.
  void handleInitialized(std::string_view name);

  bool empty() const noexcept { return id_ == 0; }
  uint64_t value() const noexcept { return id_; }
  std::string stringValue() const;
  uint32_t hash() const noexcept;

  bool operator==(const IntfId&) const noexcept = default;
  std::strong_ordering operator<=>(const IntfId&) const noexcept = default;

 private:
  uint64_t id_ = 0;
};

std::ostream& operator<<(std::ostream& out, const IntfId& id);

namespace SubIntfId {
// A subinterface is named after its parent with a '.' and a number, as in "eth0.100".
bool isSubIntfId(const IntfId& id);
}  // namespace SubIntfId

}  // namespace Lanx

template <>
struct std::hash<Lanx::IntfId> {
  size_t operator()(const Lanx::IntfId& id) const noexcept { return id.hash(); }
};
