#include "platform/IntfId.h"

#include <deque>
#include <mutex>
#include <ostream>
#include <unordered_map>

#include "platform/String.h"

namespace Lanx {

namespace {

// Names by identifier and identifiers by name. Entries are never removed: a name once seen keeps
// its identifier for the life of the process.
struct NameTable {
  std::mutex lock;
  std::deque<std::string> names;  // identifier n is names[n - 1]
  std::unordered_map<std::string_view, uint64_t> ids;

  static NameTable& instance() {
    static NameTable* table = new NameTable;
    return *table;
  }
};

}  // namespace

void IntfId::handleInitialized(std::string_view name) {
  if (name.empty()) {
    id_ = 0;
    return;
  }
  NameTable& table = NameTable::instance();
  std::lock_guard<std::mutex> guard(table.lock);
  auto it = table.ids.find(name);
  if (it != table.ids.end()) {
    id_ = it->second;
    return;
  }
  table.names.emplace_back(name);
  id_ = table.names.size();
  table.ids.emplace(table.names.back(), id_);
}

std::string IntfId::stringValue() const {
  if (id_ == 0) return std::string();
  NameTable& table = NameTable::instance();
  std::lock_guard<std::mutex> guard(table.lock);
  return table.names[id_ - 1];
}

uint32_t IntfId::hash() const noexcept { return Zef::hashMix(id_); }

std::ostream& operator<<(std::ostream& out, const IntfId& id) { return out << id.stringValue(); }

bool SubIntfId::isSubIntfId(const IntfId& id) { return id.stringValue().find('.') != std::string::npos; }

}  // namespace Lanx
