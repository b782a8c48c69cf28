#include <gtest/gtest.h>

#include "platform/Ptr.h"
#include "platform/PtrInterface.h"
#include "platform/String.h"

namespace {

class Counted : public Zef::PtrInterface {
 public:
  explicit Counted(int* deaths) : deaths_(deaths) {}
  ~Counted() override { ++*deaths_; }
  Zef::Ptr<Counted> next;

 private:
  int* deaths_;
};

// The count shares its word with the flags of notification and teardown: neither disturbs the
// other.
TEST(Ptr, CountsReferencesBesideTheFlagsAndFreesOnTheLastOne) {
  int deaths = 0;
  struct Flagged : Counted {
    using Counted::Counted;
    void zombieIs(bool z) { zombieFlagIs(z); }
  };
  Zef::Ptr<Flagged> a(new Flagged(&deaths));
  a->hasNotificationActiveIs(true);
  a->zombieIs(true);
  EXPECT_EQ(a->references(), 1u);
  {
    Zef::Ptr<Flagged> b = a;
    Zef::Ptr<Flagged const> c = b;
    EXPECT_EQ(a->references(), 3u);
    Zef::Ptr<Flagged> moved = std::move(b);
    EXPECT_FALSE(b);
    EXPECT_EQ(a->references(), 3u);
    a->hasNotificationActiveIs(false);
  }
  EXPECT_EQ(a->references(), 1u);
  EXPECT_TRUE(a->isZombie());
  EXPECT_FALSE(a->hasNotificationActive());
  EXPECT_EQ(deaths, 0);
  a = nullptr;
  EXPECT_EQ(deaths, 1);
}

TEST(Ptr, AssignmentKeepsAnObjectAliveThatTheOldOneOwned) {
  int deaths = 0;
  Zef::Ptr<Counted> head(new Counted(&deaths));
  head->next = Zef::Ptr<Counted>(new Counted(&deaths));
  // The old object owns the new one: the new reference must be taken before the old one drops.
  head = head->next;
  EXPECT_EQ(deaths, 1);
  ASSERT_TRUE(head);
  EXPECT_EQ(head->references(), 1u);
}

TEST(PtrInterfaceDeathTest, ReadingANullPtrEndsTheProcess) {
  Zef::Ptr<Counted> empty;
  EXPECT_DEATH(empty->next = nullptr, "null Zef::Ptr");
}

TEST(String, SharesBytesComparesAndJoins) {
  const Zef::String a("abc");
  Zef::String c = a;
  EXPECT_EQ(a.charPtr(), c.charPtr());  // one shared buffer, until one of them changes
  c += "!";
  EXPECT_EQ(c, "abc!");
  EXPECT_EQ(a, "abc");
  EXPECT_LT(Zef::String("abc"), Zef::String("abd"));
  EXPECT_LT(Zef::String("ab"), Zef::String("abc"));
  EXPECT_EQ(Zef::String(std::string_view("a\0b", 3)).size(), 3u);
  EXPECT_NE(a.hash(), Zef::String("abd").hash());
  EXPECT_EQ((a + Zef::String("def")).hash(), Zef::String("abcdef").hash());  // a joined string hashes as its bytes
  EXPECT_EQ(Zef::String().hash(), Zef::hashBytes("", 0));
}

// Every octet counts, whatever the length: the last few are read in pieces of four, two and one.
TEST(String, HashReadsEveryOctet) {
  for (size_t length = 1; length <= 24; ++length) {
    std::string text(length, 'a');
    const uint32_t whole = Zef::hashBytes(text.data(), length);
    for (size_t at = 0; at < length; ++at) {
      text[at] = 'b';
      EXPECT_NE(Zef::hashBytes(text.data(), length), whole) << "octet " << at << " of " << length;
      text[at] = 'a';
    }
  }
}

TEST(String, ZeroStringDataWipesEveryCopy) {
  Zef::String key("00112233445566778899aabbccddeeff");
  Zef::String copy = key;
  key.zeroStringDataUnsafe();
  EXPECT_EQ(copy.size(), 32u);
  for (char ch : copy) EXPECT_EQ(ch, '\0');
  EXPECT_EQ(copy.hash(), Zef::String(std::string(32, '\0')).hash());  // and the hash follows
}

}  // namespace
