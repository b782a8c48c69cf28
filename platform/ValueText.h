#pragma once

#include <sstream>
#include <type_traits>

#include "platform/Ptr.h"
#include "platform/String.h"

namespace Zef {

// The text form of any value: its stream form where it has one. Counted pointers print the
// address of their object, and null as "null".
template <class T>
String valueToString(const T& value) {
  std::ostringstream out;
  if constexpr (std::is_same_v<T, bool>) {
    out << (value ? "true" : "false");
  } else if constexpr (requires { value.ptr(); }) {
    if (value.ptr() == nullptr) {
      out << "null";
    } else {
      out << static_cast<const void*>(value.ptr());
    }
  } else if constexpr (std::is_integral_v<T>) {
    out << +value;
  } else {
    out << value;
  }
  return String(out.str());
}

}  // namespace Zef
