#include "platform/Trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <utility>
#include <vector>

#include "platform/Clock.h"

namespace Zef {

namespace {

struct Rule {
  std::string pattern;
  int level;
};

// Every live handle and the rules that set their levels. Built on first use and never destroyed,
// so that handles that are function-local statics can unregister at exit in any order.
struct Registry {
  std::vector<TraceHandle*> handles;
  std::vector<Rule> rules;
  TraceSink sink;

  static Registry& instance() {
    static Registry* registry = [] {
      auto* r = new Registry;
      if (const char* env = std::getenv("MKA_TRACE")) {
        if (!r->parse(env, r->rules)) std::fprintf(stderr, "MKA_TRACE: ignoring malformed rules '%s'\n", env);
      }
      return r;
    }();
    return *registry;
  }

  static bool matches(const std::string& pattern, std::string_view facility) {
    if (!pattern.empty() && pattern.back() == '*') {
      return facility.substr(0, pattern.size() - 1) == std::string_view(pattern).substr(0, pattern.size() - 1);
    }
    return facility == pattern;
  }

  int levelFor(std::string_view facility, int fallback) const {
    int level = fallback;
    for (const Rule& rule : rules) {
      if (matches(rule.pattern, facility)) level = rule.level;
    }
    return level;
  }

  static bool parse(std::string_view text, std::vector<Rule>& out) {
    std::vector<Rule> parsed;
    while (!text.empty()) {
      const size_t comma = text.find(',');
      std::string_view item = text.substr(0, comma);
      text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
      if (item.empty()) continue;
      const size_t eq = item.find('=');
      if (eq == std::string_view::npos || eq == 0) return false;
      std::string_view number = item.substr(eq + 1);
      int level = TraceHandle::kOff;
      if (number != "off") {
        if (number.empty() || number.size() > 3 || !std::all_of(number.begin(), number.end(), ::isdigit)) return false;
        level = std::stoi(std::string(number));
      }
      parsed.push_back({std::string(item.substr(0, eq)), level});
    }
    out.insert(out.end(), parsed.begin(), parsed.end());
    return true;
  }
};

std::string moduleOf(const char* file) {
  std::string_view path(file);
  const size_t slash = path.rfind('/');
  if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
  const size_t dot = path.find('.');
  return std::string(path.substr(0, dot));
}

void writeToStderr(const TraceRecord& r) {
  std::cerr << std::fixed << std::setprecision(6) << r.time << ' ' << r.facility << '/' << r.level << ' ' << r.module
            << ':' << r.line << ' ' << r.text << '\n';
}

}  // namespace

TraceHandle::TraceHandle(const char* facility, bool enabled) : facility_(facility) {
  Registry& registry = Registry::instance();
  level_ = registry.levelFor(facility, enabled ? 0 : kOff);
  registry.handles.push_back(this);
}

TraceHandle::~TraceHandle() { std::erase(Registry::instance().handles, this); }

void traceSinkIs(TraceSink sink) { Registry::instance().sink = std::move(sink); }

bool traceSettingsIs(std::string_view rules) {
  Registry& registry = Registry::instance();
  std::vector<Rule> parsed;
  if (!Registry::parse(rules, parsed)) return false;
  registry.rules.insert(registry.rules.end(), parsed.begin(), parsed.end());
  for (TraceHandle* handle : registry.handles) handle->levelIs(registry.levelFor(handle->facility(), handle->level()));
  return true;
}

std::ostream* TraceHelper::createIfEnabled(const TraceHandle& handle, int level, TraceBuffer& buffer) {
  if (!handle.isEnabled(level)) return nullptr;
  buffer.handle = &handle;
  buffer.level = level;
  return &buffer.stream();
}

void TraceHelper::trace(TraceBuffer& buffer, const char* file, int line, const char* function) {
  const std::string body = buffer.stream().str();
  std::string text;
  text.reserve(std::char_traits<char>::length(function) + body.size());
  text += function;
  text += body;
  const std::string module = moduleOf(file);
  const TraceRecord record{buffer.handle->facility(), buffer.level, module.c_str(), line, System::currentTime(), text};
  Registry& registry = Registry::instance();
  if (registry.sink) {
    registry.sink(record);
  } else {
    writeToStderr(record);
  }
}

}  // namespace Zef
