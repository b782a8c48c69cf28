#pragma once

#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

namespace Zef {

// One trace facility, such as "Macsec::MkaActorSm". Each source module holds one as a
// function-local static. A handle is enabled up to a level: larger levels mean more detail, and
// a statement at a level above the handle's renders nothing at all.
//
// Levels are switched on by the environment variable MKA_TRACE, read once when the first handle
// is built, or by traceSettingsIs() at any time. Both take a comma-separated list of
// `facility=level` rules; a facility ending in '*' matches every facility that starts with what
// stands before it, a later rule wins over an earlier one, and the level `off` switches a
// facility off:
//
//   MKA_TRACE='Macsec*=3,Macsec::MkaActorSm=8,Macsec::HwEmulator=off'
class TraceHandle {
 public:
  TraceHandle(const char* facility, bool enabled);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const char* facility() const noexcept { return facility_; }
  int level() const noexcept { return level_; }
  void levelIs(int level) noexcept { level_ = level; }
  bool isEnabled(int level) const noexcept { return level <= level_; }

  static constexpr int kOff = -1;

 private:
  const char* facility_;
  int level_;
};

// One line of trace as it reaches the sink.
struct TraceRecord {
  const char* facility;
  int level;
  const char* module;  // the source file's base name without its extension
  int line;
  double time;            // Zef::System::currentTime()
  std::string_view text;  // the writing function's signature followed by the statement's text
};

using TraceSink = std::function<void(const TraceRecord&)>;

// Where trace lines go; null restores the default, which writes them to standard error.
void traceSinkIs(TraceSink sink);

// Applies `facility=level` rules (see TraceHandle) to every handle, present and future. Returns
// false, changing nothing, if the text is not a list of such rules.
bool traceSettingsIs(std::string_view rules);

// The text of one trace statement while it is being written.
class TraceBuffer {
 public:
  std::ostringstream& stream() { return stream_; }
  const TraceHandle* handle = nullptr;
  int level = 0;

 private:
  std::ostringstream stream_;
};

class TraceHelper {
 public:
  // The stream to write into if the handle is enabled at the level, else null.
  static std::ostream* createIfEnabled(const TraceHandle& handle, int level, TraceBuffer& buffer);
  // Ends the line and emits it with the source module, line number and function name.
  static void trace(TraceBuffer& buffer, const char* file, int line, const char* function);
};

}  // namespace Zef

// Writes one trace line if `handle` is enabled at `level`; `args` is a chain of stream
// insertions and is not evaluated otherwise.
#define ZEF_TRACE(handle, level, args) ZEF_TRACE_FN(handle, level, __PRETTY_FUNCTION__, args)

// The same with the writing function's signature given as text, for a trace line whose signature
// is part of its words.
#define ZEF_TRACE_FN(handle, level, function, args)                                             \
  do {                                                                                          \
    const ::Zef::TraceHandle& zefTraceHandle_ = (handle);                                       \
    if (__builtin_expect(zefTraceHandle_.isEnabled(level), 0)) {                                \
      ::Zef::TraceBuffer zefTraceBuffer_;                                                       \
      if (std::ostream* zefTraceStream_ =                                                       \
              ::Zef::TraceHelper::createIfEnabled(zefTraceHandle_, (level), zefTraceBuffer_)) { \
        *zefTraceStream_ << args;                                                               \
        ::Zef::TraceHelper::trace(zefTraceBuffer_, __FILE__, __LINE__, function);               \
      }                                                                                         \
    }                                                                                           \
  } while (0)

// Defines the module's trace handle, zefTraceHandle(), for the facility given. Always inlined:
// every trace statement asks for it, most of them on paths that run for every MKPDU.
#define ZEF_TRACE_MODULE(facility)                                                   \
  namespace {                                                                        \
  [[maybe_unused, gnu::always_inline]] inline ::Zef::TraceHandle& zefTraceHandle() { \
    static ::Zef::TraceHandle handle(facility, false);                               \
    return handle;                                                                   \
  }                                                                                  \
  }

// A trace line in the module's own facility.
#define TRACE(level, args) ZEF_TRACE(zefTraceHandle(), level, args)
