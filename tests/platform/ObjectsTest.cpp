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

TEST(Ptr, CountsReferencesAndFreesOnTheLastOne) {
  int deaths = 0;
  Zef::Ptr<Counted> a(new Counted(&deaths));
  EXPECT_EQ(a->references(), 1u);
  {
    Zef::Ptr<Counted> b = a;
    Zef::Ptr<Counted const> c = b;
    EXPECT_EQ(a->references(), 3u);
    Zef::Ptr<Counted> moved = std::move(b);
    EXPECT_FALSE(b);
    EXPECT_EQ(a->references(), 3u);
  }
  EXPECT_EQ(a->references(), 1u);
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

TEST(PtrInterface, FlagsShareTheWordWithoutDisturbingTheCount) {
  int deaths = 0;
  struct Flagged : Counted {
    using Counted::Counted;
    void zombieIs(bool z) { zombieFlagIs(z); }
  };
  Zef::Ptr<Flagged> p(new Flagged(&deaths));
  EXPECT_FALSE(p->isZombie());
  EXPECT_FALSE(p->hasNotificationActive());
  p->hasNotificationActiveIs(true);
  p->zombieIs(true);
  EXPECT_TRUE(p->isZombie());
  EXPECT_TRUE(p->hasNotificationActive());
  EXPECT_EQ(p->references(), 1u);
  Zef::Ptr<Flagged> q = p;
  EXPECT_EQ(p->references(), 2u);
  p->hasNotificationActiveIs(false);
  EXPECT_TRUE(p->isZombie());
  EXPECT_FALSE(p->hasNotificationActive());
  q = nullptr;
  p = nullptr;
  EXPECT_EQ(deaths, 1);
}

TEST(String, SharesBytesComparesAndJoins) {
  const Zef::String empty;
  EXPECT_TRUE(empty.empty());
  EXPECT_STREQ(empty.charPtr(), "");
  EXPECT_EQ(empty, Zef::String(""));

  const Zef::String a("abc");
  const Zef::String b = a;
  EXPECT_EQ(a.charPtr(), b.charPtr());  // one shared buffer
  EXPECT_EQ(a, Zef::String(std::string("abc")));
  EXPECT_LT(Zef::String("abc"), Zef::String("abd"));
  EXPECT_LT(Zef::String("ab"), Zef::String("abc"));
  EXPECT_EQ(a + Zef::String("def"), "abcdef");
  Zef::String c = a;
  c += "!";
  EXPECT_EQ(c, "abc!");
  EXPECT_EQ(a, "abc");
  EXPECT_EQ(Zef::String(std::string_view("a\0b", 3)).size(), 3u);
  EXPECT_EQ(a.hash(), Zef::String("abc").hash());
  EXPECT_NE(a.hash(), Zef::String("abd").hash());
  EXPECT_EQ((a + Zef::String("def")).hash(), Zef::String("abcdef").hash());  // a joined string hashes as its bytes
  EXPECT_EQ(empty.hash(), Zef::hashBytes("", 0));
  EXPECT_EQ(std::string(a.begin(), a.end()), "abc");
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
