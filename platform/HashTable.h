#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/String.h"

namespace Zef::detail {

// The chained hash table under both collections.
//
// Walk order is (bit-reversed hash, key). A bucket is the top bits of the bit-reversed hash, so
// buckets in rising order are that order's prefix, and growing the table never reorders the
// members. A cursor holds a counted reference to its node and the table's version; if the
// version moved, it seeks the first node after its own position instead of following a link
// that may be stale. So a walk survives deletion of any member (including the one under it),
// never visits a member twice, and sees a member added during the walk if and only if it lies
// ahead of the cursor.
template <class K, class V>
class HashTable {
 public:
  struct Node {
    template <class KK, class VV>
    Node(uint32_t o, KK&& k, VV&& v) : order(o), key_(std::forward<KK>(k)), value_(std::forward<VV>(v)) {}

    const K& key() const noexcept { return key_; }
    const V& value() const noexcept { return value_; }

    uint32_t refs = 1;  // the table's reference, plus one per cursor standing on the node
    bool deleted = false;
    // Made inside the member it holds (see HashMap::emplace): the member's hold on itself is let go
    // when the node is, rather than the node deleted.
    bool inMember = false;
    uint32_t order;
    Node* next = nullptr;
    K key_;
    V value_;
  };

  // A counted hold on a node, so that a removed node stays readable.
  class NodeRef {
   public:
    NodeRef() noexcept = default;
    explicit NodeRef(Node* n, bool adopt = false) noexcept : n_(n) {
      if (n_ && !adopt) ++n_->refs;
    }
    NodeRef(const NodeRef& o) noexcept : NodeRef(o.n_) {}
    NodeRef(NodeRef&& o) noexcept : n_(std::exchange(o.n_, nullptr)) {}
    NodeRef& operator=(NodeRef o) noexcept {
      std::swap(n_, o.n_);
      return *this;
    }
    ~NodeRef() { HashTable::release(std::exchange(n_, nullptr)); }
    Node* get() const noexcept { return n_; }
    Node* operator->() const noexcept { return n_; }
    explicit operator bool() const noexcept { return n_ != nullptr; }

   private:
    Node* n_ = nullptr;
  };

  HashTable() = default;
  HashTable(const HashTable&) = delete;
  HashTable& operator=(const HashTable&) = delete;
  ~HashTable() { clear(); }

  size_t size() const noexcept { return size_; }
  uint64_t version() const noexcept { return version_; }

  Node* find(const K& key) const {
    if (size_ == 0) return nullptr;
    const uint32_t order = orderOf(key);
    for (Node* n = buckets()[bucketOf(order)]; n; n = n->next) {
      if (n->order == order && n->key_ == key) return n;
      if (before(order, key, n)) return nullptr;
    }
    return nullptr;
  }

  // Adds a node for a key that is not present.
  template <class KK, class VV>
  Node* insert(KK&& key, VV&& value) {
    return insertMade(key,
                      [&](uint32_t order) { return new Node(order, std::forward<KK>(key), std::forward<VV>(value)); });
  }

  // Adds, for a key that is not present, the node that `make(order)` returns.
  template <class Make>
  Node* insertMade(const K& key, Make&& make) {
    if (size_ + 1 > bucketCount()) grow();
    const uint32_t order = orderOf(key);
    Node* node = make(order);
    Node** link = &buckets()[bucketOf(order)];
    while (*link && !before(order, node->key_, *link)) link = &(*link)->next;
    node->next = *link;
    *link = node;
    ++size_;
    ++version_;
    return node;
  }

  // Takes the node of a key out of the table. The caller gets the table's reference, so the
  // value is destroyed only when the caller lets go, after the table is consistent again.
  NodeRef unlink(const K& key) {
    if (size_ == 0) return {};
    const uint32_t order = orderOf(key);
    for (Node** link = &buckets()[bucketOf(order)]; *link; link = &(*link)->next) {
      Node* n = *link;
      if (n->order == order && n->key_ == key) {
        *link = n->next;
        n->next = nullptr;
        n->deleted = true;
        --size_;
        ++version_;
        return NodeRef(n, true);
      }
    }
    return {};
  }

  void clear() noexcept {
    std::vector<Node*> buckets;
    buckets.swap(buckets_);
    buckets.push_back(std::exchange(single_, nullptr));
    bits_ = 0;
    size_ = 0;
    ++version_;
    for (Node* head : buckets) {
      while (head) {
        Node* n = std::exchange(head, head->next);
        n->next = nullptr;
        n->deleted = true;
        release(n);
      }
    }
  }

  // An empty table does not read its buckets: walks of empty collections are frequent.
  Node* first() const noexcept { return size_ == 0 ? nullptr : firstFromBucket(0); }

  // The node after n; only valid while the version has not moved since n was reached.
  Node* successor(const Node* n) const noexcept { return n->next ? n->next : firstFromBucket(bucketOf(n->order) + 1); }

  // The first node that lies after the position (order, key) in walk order.
  Node* firstAfter(uint32_t order, const K& key) const {
    const size_t bucket = bucketOf(order);
    for (Node* n = buckets()[bucket]; n; n = n->next) {
      if (before(order, key, n)) return n;
    }
    return firstFromBucket(bucket + 1);
  }

  static void release(Node* n) noexcept {
    if (n == nullptr || --n->refs != 0) return;
    if (n->inMember) {
      // The member may go with this, and the node inside it.
      [[maybe_unused]] const V self = std::move(n->value_);
      return;
    }
    delete n;
  }

 private:
  static uint32_t orderOf(const K& key) noexcept { return reverseBits(hashOf(key)); }

  static uint32_t reverseBits(uint32_t x) noexcept {
    x = ((x >> 1) & 0x55555555u) | ((x & 0x55555555u) << 1);
    x = ((x >> 2) & 0x33333333u) | ((x & 0x33333333u) << 2);
    x = ((x >> 4) & 0x0f0f0f0fu) | ((x & 0x0f0f0f0fu) << 4);
    x = ((x >> 8) & 0x00ff00ffu) | ((x & 0x00ff00ffu) << 8);
    return (x >> 16) | (x << 16);
  }

  // True if position (order, key) lies before node n.
  static bool before(uint32_t order, const K& key, const Node* n) {
    return order < n->order || (order == n->order && key < n->key_);
  }

  size_t bucketOf(uint32_t order) const noexcept { return bits_ == 0 ? 0 : order >> (32 - bits_); }

  Node* firstFromBucket(size_t bucket) const noexcept {
    for (; bucket < bucketCount(); ++bucket) {
      if (buckets()[bucket]) return buckets()[bucket];
    }
    return nullptr;
  }

  void grow() {
    const unsigned newBits = buckets_.empty() ? 3 : bits_ + 1;
    std::vector<Node*> fresh(size_t{1} << newBits, nullptr);
    std::vector<Node**> tails(fresh.size());
    for (size_t i = 0; i < fresh.size(); ++i) tails[i] = &fresh[i];
    // Walk order is kept by appending each node, in order, to the tail of its new bucket.
    if (buckets_.empty()) buckets_.push_back(std::exchange(single_, nullptr));
    for (Node* head : buckets_) {
      while (head) {
        Node* n = std::exchange(head, head->next);
        const size_t b = n->order >> (32 - newBits);
        n->next = nullptr;
        *tails[b] = n;
        tails[b] = &n->next;
      }
    }
    buckets_.swap(fresh);
    bits_ = newBits;
    ++version_;
  }

  // A table of one member keeps its one chain in place of an array of buckets: most collections
  // hold one member or none, and a lookup then reads no memory but the member's.
  Node* const* buckets() const noexcept { return buckets_.empty() ? &single_ : buckets_.data(); }
  Node** buckets() noexcept { return buckets_.empty() ? &single_ : buckets_.data(); }
  size_t bucketCount() const noexcept { return buckets_.empty() ? 1 : buckets_.size(); }

  std::vector<Node*> buckets_;
  Node* single_ = nullptr;
  unsigned bits_ = 0;
  size_t size_ = 0;
  uint64_t version_ = 0;
};

// A walk over a HashTable with the rules above.
template <class K, class V>
class HashCursor {
 public:
  using Table = HashTable<K, V>;
  using Node = typename Table::Node;

  HashCursor() = default;
  explicit HashCursor(const Table& table) : table_(&table), node_(table.first()), version_(table.version()) {}

  bool done() const noexcept { return !node_; }
  Node* node() const noexcept { return node_.get(); }

  void advance() {
    if (!node_) return;
    Node* next = (version_ == table_->version()) ? table_->successor(node_.get())
                                                 : table_->firstAfter(node_->order, node_->key_);
    version_ = table_->version();
    node_ = typename Table::NodeRef(next);
  }

 private:
  const Table* table_ = nullptr;
  typename Table::NodeRef node_;
  uint64_t version_ = 0;
};

}  // namespace Zef::detail

namespace Zef {

// The keys of a collection's walk, copied out, for a loop that may delete any member, including
// the one it is at, and must visit exactly the members there were when it started.
template <class Key, class Iterator>
std::vector<Key> keysOf(Iterator it) {
  std::vector<Key> keys;
  for (; it; ++it) keys.emplace_back(it.key());
  return keys;
}

}  // namespace Zef
