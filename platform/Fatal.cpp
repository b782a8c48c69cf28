#include "platform/Fatal.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace Zef {

namespace {

FatalHandler& fatalHandler() {
  static FatalHandler handler;
  return handler;
}

}  // namespace

void fatalHandlerIs(FatalHandler handler) { fatalHandler() = std::move(handler); }

void fatal(std::string_view message) {
  std::fprintf(stderr, "fatal: %.*s\n", static_cast<int>(message.size()), message.data());
  std::fflush(stderr);
  if (const FatalHandler& handler = fatalHandler()) handler(message);
  std::abort();
}

}  // namespace Zef
