#pragma once

#include "platform/HashTable.h"

namespace Zef {

// A keyed collection of nodes, each a key with a value of any copyable type. Walks are safe
// under any mutation: see HashTable. A node deleted under the iterator stays readable through
// currNodeMaybeStale(), which is what delete loops use:
//
//   for (auto it = map.iterator(); !it.done(); it.advance()) map.erase(it.currNodeMaybeStale()->key());
template <class K, class V>
class ValueMap {
  using Table = detail::HashTable<K, V>;

 public:
  using Node = typename Table::Node;

  class Iterator {
   public:
    Iterator() = default;
    explicit Iterator(const Table& table) : cursor_(table) {}
    bool done() const noexcept { return cursor_.done(); }
    explicit operator bool() const noexcept { return !cursor_.done(); }
    // The node under the iterator, or null if it has been deleted since the iterator came to it.
    const Node* currNodeNonStale() const noexcept {
      const Node* n = cursor_.node();
      return n && !n->deleted ? n : nullptr;
    }
    // The node under the iterator, readable even when it has been deleted.
    const Node* currNodeMaybeStale() const noexcept { return cursor_.node(); }
    // The key and value under the iterator, readable even when the node has been deleted.
    const K& key() const noexcept { return cursor_.node()->key(); }
    const V& value() const noexcept { return cursor_.node()->value(); }
    void advance() { cursor_.advance(); }
    Iterator& operator++() {
      cursor_.advance();
      return *this;
    }
    bool operator!=(const Iterator&) const noexcept { return !cursor_.done(); }
    const Node& operator*() const noexcept { return *currNodeMaybeStale(); }

   private:
    detail::HashCursor<K, V> cursor_;
  };

  size_t size() const noexcept { return table_.size(); }
  bool empty() const noexcept { return table_.size() == 0; }

  // The value of a key, or null if the key is absent.
  const V* find(const K& key) const {
    const auto* node = table_.find(key);
    return node ? &node->value_ : nullptr;
  }
  V* find(const K& key) {
    auto* node = table_.find(key);
    return node ? &node->value_ : nullptr;
  }
  bool contains(const K& key) const { return table_.find(key) != nullptr; }

  // Sets the value of a key. Returns true if the key was new or its value differed, which is
  // when a collection attribute notifies; an equal value is no change.
  template <class VV>
  bool assign(const K& key, VV&& value) {
    if (auto* node = table_.find(key)) {
      if (node->value_ == value) return false;
      node->value_ = std::forward<VV>(value);
      return true;
    }
    table_.insert(key, std::forward<VV>(value));
    return true;
  }

  // The value of a key for a change in place, made with the type's default if the key is absent.
  // The caller notifies, as a collection attribute would.
  V& valueFor(const K& key) {
    auto* node = table_.find(key);
    return (node ? node : table_.insert(key, V()))->value_;
  }

  // A counted hold on the node of one key, for a caller that changes its value in place again and
  // again without looking the key up each time. A node erased since stays readable and writable
  // through the hold, but is no longer the map's: current() tells.
  class Hold {
   public:
    Hold() = default;
    bool current() const noexcept { return ref_ && !ref_->deleted; }
    const K& key() const noexcept { return ref_->key_; }
    V& value() const noexcept { return ref_->value_; }

   private:
    friend class ValueMap;
    explicit Hold(Node* node) : ref_(node) {}
    typename Table::NodeRef ref_;
  };

  // A hold on the node of a key, made with the type's default if the key is absent. The caller
  // notifies changes through it, as a collection attribute would.
  Hold holdFor(const K& key) {
    auto* node = table_.find(key);
    return Hold(node ? node : table_.insert(key, V()));
  }

  // Removes a key. Returns true and fills *old (if given) if the key was present.
  bool erase(const K& key, V* old = nullptr) {
    auto node = table_.unlink(key);
    if (!node) return false;
    if (old) *old = node->value_;
    return true;
  }

  void clear() noexcept { table_.clear(); }

  Iterator iterator() const { return Iterator(table_); }
  Iterator begin() const { return iterator(); }
  Iterator end() const { return Iterator(); }

 private:
  Table table_;
};

}  // namespace Zef
