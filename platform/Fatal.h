#pragma once

#include <functional>
#include <string_view>

namespace Zef {

// Ends the process with a message. Used for programming faults (a broken invariant, a null
// pointer read) and for exceptions that reach the platform; nothing returns from it.
[[noreturn]] void fatal(std::string_view message);

// Replaces what fatal() does before the process ends, for example to flush the agent's logs.
// The handler must not return; if it does, the process aborts anyway.
using FatalHandler = std::function<void(std::string_view)>;
void fatalHandlerIs(FatalHandler handler);

}  // namespace Zef

#define ZEF_ASSERT(expr)                                                                        \
  do {                                                                                          \
    if (__builtin_expect(!(expr), 0)) ::Zef::fatal("assertion failed: " #expr " at " __FILE__); \
  } while (0)
