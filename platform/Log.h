#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/String.h"

namespace Zef {

// A syslog severity number: 3 error, 4 warning, 5 notice, 6 info.
using LogSeverity = uint8_t;

// Recommended actions shared by many messages.
extern const char* const NoActionRequired;
extern const char* const CallSupportIfPersists;

// One message of the operators' catalogue, a static object per message. A message whose rate key
// was logged less than `minInterval` seconds ago is dropped; the rate key is made of the
// message's arguments, so a flood of one message for one interface is held back while the same
// message for other interfaces goes on.
class LogHandle {
 public:
  LogHandle(String name, LogSeverity severity, String format, String explanation, String recommendedAction,
            double minInterval, double rateParameter, uint8_t flags);
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  const String& name() const noexcept { return name_; }
  LogSeverity severity() const noexcept { return severity_; }
  const String& format() const noexcept { return format_; }
  const String& explanation() const noexcept { return explanation_; }
  const String& recommendedAction() const noexcept { return recommendedAction_; }
  double minInterval() const noexcept { return minInterval_; }

  // How many leading arguments make up the rate key: all of them for a rate-limited message,
  // none for one that is never held back.
  int rateLimitArgs() const noexcept { return minInterval_ > 0 ? placeholders_ : 0; }
  uint32_t idHash() const noexcept { return idHash_; }
  // Whether a message with this key may go out now; remembers that it did.
  bool okToLog(uint32_t hash);
  // Formats the message from its rendered arguments and hands it to the log sink.
  void log(uint32_t key, const String* strings, int count);

  // Forgets the rate-limit history, as a restarted agent would.
  void clearHistory();

 private:
  String name_;
  LogSeverity severity_;
  String format_;
  String explanation_;
  String recommendedAction_;
  double minInterval_;
  double rateParameter_;
  uint8_t flags_;
  int placeholders_;
  uint32_t idHash_;
  std::unordered_map<uint32_t, double> lastLogged_;
  size_t pruneAt_;
};

// One message as it reaches the sink.
struct LogRecord {
  const LogHandle* handle;
  double time;  // Zef::System::currentTimeUtc()
  std::string text;
  const char* source;  // who speaks: the log source when the message was written, or ""
};

// Names who speaks from now on: a process that runs several engines (a simulation of many
// switches) sets the engine whose event it is processing. Each source has its own rate-limit
// history. Null or empty is the process itself.
void logSourceIs(const char* source);
const char* logSource();

using LogSink = std::function<void(const LogRecord&)>;

// Where messages go; null restores the default, which writes them to standard error.
void logSinkIs(LogSink sink);

namespace detail {
template <class T>
String renderLogArg(const T& value) {
  if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    return String(std::string_view(value));
  } else if constexpr (std::is_same_v<T, String> || std::is_same_v<T, Name>) {
    return value;
  } else if constexpr (std::is_integral_v<T>) {
    return String(std::to_string(+value));
  } else {
    std::ostringstream out;
    out << value;
    return String(out.str());
  }
}
uint32_t rateKeyOf(const String* strings, int count);
}  // namespace detail

// Logs a message of the catalogue. The arguments fill the format's %s and %d in order, each in
// its text form (an interface prints its name, numbers their decimal form).
template <class... Args>
void log(LogHandle& handle, const Args&... args) {
  constexpr int count = sizeof...(Args);
  String strings[count == 0 ? 1 : count];
  int rendered = 0;
  const int keyArgs = std::min(handle.rateLimitArgs(), count);
  // Only the arguments of the rate key are rendered before the decision; the rest only if the
  // message goes out.
  auto render = [&](const auto& arg, int index, bool keyPart) {
    if ((index < keyArgs) == keyPart) strings[rendered++] = detail::renderLogArg(arg);
  };
  int index = 0;
  (render(args, index++, true), ...);
  const uint32_t key = keyArgs > 0 ? detail::rateKeyOf(strings, keyArgs) : 0;
  if (!handle.okToLog(handle.idHash() ^ key)) return;
  index = 0;
  (render(args, index++, false), ...);
  handle.log(key, strings, count);
}

}  // namespace Zef
