#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <vector>

#include "platform/HashMap.h"
#include "platform/PtrInterface.h"
#include "platform/ValueMap.h"

namespace {

class Member : public Zef::PtrInterface {
 public:
  explicit Member(int id) : id(id) { ++alive; }
  ~Member() override { --alive; }
  const int id;
  static inline int alive = 0;
};

using Map = Zef::HashMap<int, Member>;
using ValueMapOfInts = Zef::ValueMap<int, int>;

// Adds a member, made apart or inside its node, unless the key is present.
bool add(Map& map, int key, bool inNode) {
  if (!inNode) return map.insert(key, Zef::Ptr<Member>(new Member(key)));
  if (map.contains(key)) return false;
  map.emplace(key, key);
  return true;
}

std::vector<int> walkOrder(const Map& map) {
  std::vector<int> order;
  for (auto it = map.iterator(); it; ++it) order.push_back(it.key());
  return order;
}

TEST(HashMap, WalkOrderSurvivesGrowth) {
  // A walk's order is fixed by the keys, not by how large the table happens to be.
  Map small;
  for (int i = 0; i < 40; ++i) small.insert(i, Zef::Ptr<Member>(new Member(i)));
  std::vector<int> order = walkOrder(small);
  Map grown;
  for (int i = 0; i < 2000; ++i) grown.insert(i, Zef::Ptr<Member>(new Member(i)));
  for (int i = 40; i < 2000; ++i) grown.erase(i);
  EXPECT_EQ(walkOrder(grown), order);
}

TEST(HashMap, WalksMatchAModelUnderRandomMutation) {
  // Random mutations during walks, checked against the rules: no member twice, every member that
  // stays for the whole walk is seen, nothing erased before the iterator reaches it is seen, and a
  // member added (and kept) is seen exactly when it lies ahead of the iterator. Walk order depends
  // on the keys alone, so a map of every key gives each key its rank.
  constexpr int kKeys = 3000;
  std::map<int, size_t> rank;
  {
    Map all;
    for (int i = 0; i < kKeys; ++i) all.insert(i, Zef::Ptr<Member>(new Member(i)));
    for (int key : walkOrder(all)) rank.emplace(key, rank.size());
  }
  std::mt19937 random(7);
  for (int round = 0; round < 50; ++round) {
    Map map;
    std::set<int> present;
    for (int i = 0; i < 32; ++i) {
      const int key = random() % kKeys;
      if (add(map, key, random() % 2 == 0)) present.insert(key);
    }
    std::set<int> stayed = present;  // present from start to end
    std::set<int> erasedEarly;
    std::map<int, bool> addedAhead;  // added during the walk, unseen before, never erased after
    std::multiset<int> seen;
    for (auto it = map.iterator(); it; ++it) {
      seen.insert(it.key());
      EXPECT_EQ(erasedEarly.count(it.key()), 0u);
      // Three additions and at most one removal a step: the table grows several times during a walk.
      for (int k = 0; k < 3; ++k) {
        const int key = random() % kKeys;
        if (!add(map, key, random() % 2 == 0)) continue;
        stayed.erase(key);
        erasedEarly.erase(key);
        if (seen.count(key) == 0) addedAhead[key] = rank[key] > rank[it.key()];
      }
      const int key = random() % kKeys;
      if (random() % 2 == 0 && map.erase(key)) {
        stayed.erase(key);
        addedAhead.erase(key);
        if (seen.count(key) == 0) erasedEarly.insert(key);
      }
    }
    EXPECT_GT(map.size(), 4 * present.size());
    for (int key : stayed) EXPECT_EQ(seen.count(key), 1u) << "round " << round << " key " << key;
    for (int key : seen) EXPECT_EQ(seen.count(key), 1u);
    for (auto [key, ahead] : addedAhead) EXPECT_EQ(seen.count(key), ahead ? 1u : 0u) << round << " " << key;
  }
}

TEST(HashMap, AMemberMadeInItsNodeLastsWhileItOrItsNodeIsHeld) {
  const int before = Member::alive;
  {
    Map map;
    for (int i = 0; i < 3; ++i) map.emplace(i, i);
    auto it = map.iterator();
    const int first = it.key();
    const int other = first == 0 ? 1 : 0;
    Zef::Ptr<Member> held = map.find(other);
    map.erase(first);
    map.erase(other);
    // Out of the table, each is kept by what holds it: the walk by the node, the caller by the member.
    EXPECT_EQ(Member::alive - before, 3);
    EXPECT_EQ(it->id, first);
    ++it;
    EXPECT_EQ(Member::alive - before, 2);
    ASSERT_TRUE(it);
    EXPECT_NE(it.key(), other);
    held = nullptr;
    EXPECT_EQ(Member::alive - before, 1);
  }
  EXPECT_EQ(Member::alive, before);
}

TEST(ValueMap, ADeleteLoopReadsTheStaleNodeAndAdvances) {
  ValueMapOfInts map;
  for (int i = 0; i < 300; ++i) map.assign(i, i * 2);
  int deleted = 0;
  for (auto it = map.iterator(); !it.done(); it.advance()) {
    ASSERT_NE(it.currNodeNonStale(), nullptr);
    const int key = it.currNodeMaybeStale()->key();
    map.erase(key);
    EXPECT_EQ(it.currNodeNonStale(), nullptr);
    EXPECT_EQ(it.currNodeMaybeStale()->key(), key);
    EXPECT_EQ(it.currNodeMaybeStale()->value(), key * 2);
    ++deleted;
  }
  EXPECT_EQ(deleted, 300);
  EXPECT_TRUE(map.empty());
}

}  // namespace
