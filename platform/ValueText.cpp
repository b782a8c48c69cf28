#include "platform/ValueText.h"

#include <charconv>

#include "platform/Exception.h"

namespace Zef {

unsigned numberFromText(std::string_view text, const char* field) {
  unsigned value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
    throwRangeException(String("bad ") + field + " in '" + text + "'");
  }
  return value;
}

}  // namespace Zef
