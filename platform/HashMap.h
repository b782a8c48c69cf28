#pragma once

#include "platform/HashTable.h"
#include "platform/Ptr.h"

namespace Zef {

// A keyed collection of counted members. Walks are safe under any mutation: see HashTable.
template <class K, class V>
class HashMap {
  using Table = detail::HashTable<K, Ptr<V>>;

 public:
  // Stands on one member; holds a counted reference to it, so a member deleted under the
  // iterator stays readable until the iterator moves on.
  class Iterator {
   public:
    Iterator() = default;
    explicit Iterator(const Table& table) : cursor_(table) {}
    explicit operator bool() const noexcept { return !cursor_.done(); }
    const K& key() const noexcept { return cursor_.node()->key_; }
    const Ptr<V>& ptr() const noexcept { return cursor_.node()->value_; }
    V* operator->() const noexcept { return ptr().ptr(); }
    Iterator& operator++() {
      cursor_.advance();
      return *this;
    }
    // For range-for: compares equal to end() once the walk is over.
    bool operator!=(const Iterator&) const noexcept { return !cursor_.done(); }
    const Ptr<V>& operator*() const noexcept { return ptr(); }

   private:
    detail::HashCursor<K, Ptr<V>> cursor_;
  };

  size_t size() const noexcept { return table_.size(); }
  bool empty() const noexcept { return table_.size() == 0; }
  uint64_t version() const noexcept { return table_.version(); }

  Ptr<V> find(const K& key) const {
    const auto* node = table_.find(key);
    return node ? node->value_ : Ptr<V>();
  }
  bool contains(const K& key) const { return table_.find(key) != nullptr; }

  // Adds a member under a key that is not present yet. Returns false, and changes nothing, if
  // the key is present.
  bool insert(const K& key, const Ptr<V>& member) {
    if (table_.find(key)) return false;
    table_.insert(key, member);
    return true;
  }

  // Makes a member under a key that is not present yet, from `args`, with the table's node inside
  // it: a lookup or a walk finds the member in the lines of its own node, not one pointer further.
  template <class... Args>
  Ptr<V> emplace(const K& key, Args&&... args) {
    auto* node = table_.insertMade(key, [&](uint32_t order) -> typename Table::Node* {
      return new Member(order, key, std::forward<Args>(args)...);
    });
    return node->value_;
  }

  // Removes and returns the member of a key; null if the key is absent.
  Ptr<V> erase(const K& key) {
    auto node = table_.unlink(key);
    return node ? node->value_ : Ptr<V>();
  }

  void clear() noexcept { table_.clear(); }

  Iterator iterator() const { return Iterator(table_); }
  Iterator begin() const { return iterator(); }
  Iterator end() const { return Iterator(); }

 private:
  // A member made by emplace: the node first, so that its key and link lead the member's lines.
  // The node holds the member, as any node does, until the table and every walk have let go of it.
  struct Member final : Table::Node, V {
    template <class... Args>
    Member(uint32_t order, const K& key, Args&&... args)
        : Table::Node(order, key, Ptr<V>()), V(std::forward<Args>(args)...) {
      this->inMember = true;
      this->value_ = Ptr<V>(static_cast<V*>(this));
    }
  };

  Table table_;
};

}  // namespace Zef
