#include "platform/Exception.h"

#include <string>

#include "platform/Fatal.h"

namespace Zef {

void throwRangeException(const String& text) { throw RangeException(text); }

void throwNameInUseException(const Name& name) { throw NameInUseException(String("name in use: ") + name); }

void onNotificationException(const std::exception_ptr& exception) {
  std::string text = "unhandled exception in a notification handler";
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& e) {
    text += ": ";
    text += e.what();
  } catch (...) {
    text += " of unknown type";
  }
  fatal(text);
}

}  // namespace Zef
