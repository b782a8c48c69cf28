#pragma once

#include <exception>

#include "platform/String.h"

namespace Zef {

// The platform's one error channel for programming faults: a value outside its declared range,
// a null given where an object is required, a unique name used twice. Nothing in the engine
// catches these; one that reaches the platform ends the agent with its text.
class Exception : public std::exception {
 public:
  explicit Exception(String text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.charPtr(); }
  const String& text() const noexcept { return text_; }

 private:
  String text_;
};

class RangeException : public Exception {
 public:
  using Exception::Exception;
};

class NameInUseException : public Exception {
 public:
  using Exception::Exception;
};

[[noreturn]] void throwRangeException(const String& text);
[[noreturn]] void throwNameInUseException(const Name& name);

// What happens to an exception that a handler let escape into a notification: the agent
// terminates with the exception's text.
[[noreturn]] void onNotificationException(const std::exception_ptr& exception);

}  // namespace Zef
