#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Clock.h"
#include "tests/platform/Garden.h"

namespace Garden {
namespace {

using Lines = std::vector<std::string>;

// Hears the tree's title from outside the garden, to prove a change really happened.
class TitleWatch : public Tree::NotifieeConst {
 public:
  explicit TitleWatch(const Zef::Ptr<Tree>& tree) : NotifieeConst(tree) { hasNotificationActiveIs(true); }
  void onTitle() override { heard.push_back(notifier()->title().stdString()); }
  Lines heard;
};

class StateMachineTest : public ::testing::Test {
 protected:
  void SetUp() override { journal().clear(); }
  Lines take() { return std::exchange(journal(), {}); }

  Zef::Ptr<Tree> tree = Tree::TreeIs("oak");
};

TEST_F(StateMachineTest, ConstructionBuildsArgumentReactorsFirstAndSwitchesOnLast) {
  tree->titleIs("Oak");  // present before the gardener: construction does not replay it
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  EXPECT_EQ(take(), (Lines{"gardener initialized, tree watched, notification off"}));
  EXPECT_TRUE(gardener->hasNotificationActive());
  EXPECT_TRUE(gardener->initialized());
  EXPECT_EQ(gardener->references(), 1u);  // the constructor's own hold is given back
  tree->titleIs("Old oak");
  EXPECT_EQ(take(), (Lines{"title Old oak"}));
}

TEST_F(StateMachineTest, MovingAReactorReplaysItsReactionButBuildingOneDoesNot) {
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  Zef::Ptr<Tree> a = Tree::TreeIs("a");
  Zef::Ptr<Tree> b = Tree::TreeIs("b");
  a->titleIs("A");
  b->titleIs("B");
  take();

  gardener->spareIs(a);  // built on a: no replay
  EXPECT_EQ(take(), Lines{});
  gardener->spareIs(b);  // moved to b: replays in the declared order
  EXPECT_EQ(take(), (Lines{"spare weight 1.500000", "spare title B"}));
  gardener->spareIs(b);  // already there
  EXPECT_EQ(take(), Lines{});
  a->titleIs("A2");  // the reactor no longer listens to a
  b->titleIs("B2");
  EXPECT_EQ(take(), (Lines{"spare title B2"}));
  gardener->spareIs(Zef::Ptr<Tree const>());  // dropped
  EXPECT_FALSE(gardener->spare());
  b->titleIs("B3");
  EXPECT_EQ(take(), Lines{});

  // The main reactor replays its handlers in table order, the keyless form for a collection, and
  // reconciles its mirror.
  b->leafIs("l1");
  gardener->treeIs(b);
  EXPECT_EQ(take(), (Lines{"title B3", "visits 0", "score all"}));
  EXPECT_EQ(gardener->treeReactor()->leafSize(), 1u);
}

TEST_F(StateMachineTest, AMirrorKeepsOneNestedReactorPerMember) {
  // A member that is there before the gardener is watched from the start, but nothing runs for it.
  Zef::Ptr<Leaf> early = tree->leafIs("early");
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  auto watch = gardener->treeReactor();
  EXPECT_EQ(watch->leafSize(), 1u);
  EXPECT_EQ(take(), (Lines{"gardener initialized, tree watched, notification off"}));

  Zef::Ptr<Leaf> a = tree->leafIs("a");
  EXPECT_EQ(take(), (Lines{"leaf a"}));
  ASSERT_TRUE(watch->leaf("a"));
  a->labelIs("green");
  a->hitsInc(1);
  early->labelIs("watched");
  EXPECT_EQ(take(), (Lines{"label a green", "hits a", "label early watched"}));

  tree->leafDel("a");
  EXPECT_FALSE(watch->leaf("a"));
  a->labelIs("gone");
  EXPECT_EQ(take(), (Lines{"leaf a"}));

  // The immediate form reconciles with the whole collection: here it removes the nested reactor
  // of a member that went while the mirror was not listening.
  watch->hasNotificationActiveIs(false);
  tree->leafDel("early");
  watch->hasNotificationActiveIs(true);
  EXPECT_EQ(watch->leafSize(), 1u);
  watch->onLeafzefImmediate();
  EXPECT_EQ(watch->leafSize(), 0u);
  early->labelIs("unwatched");
  EXPECT_EQ(take(), Lines{});

  EXPECT_THROW(watch->leafIs("x", Zef::Ptr<Leaf>()), Zef::RangeException);  // a null member
}

TEST_F(StateMachineTest, ACollectionOfReactorsWatchesChosenEntries) {
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  take();
  Zef::Ptr<Leaf> leaf = tree->leafIs("w");
  take();
  gardener->watchedIs(leaf);
  EXPECT_EQ(gardener->watched("w")->key(), "w");
  leaf->labelIs("seen");
  EXPECT_EQ(take(), (Lines{"label w seen", "watched w seen"}));
  gardener->watchedDel("w");
  leaf->labelIs("unseen");
  EXPECT_EQ(take(), (Lines{"label w unseen"}));
  EXPECT_THROW(gardener->watchedIs(Zef::Ptr<Leaf const>()), Zef::RangeException);  // a null notifier
}

TEST_F(StateMachineTest, DataWithAHandlerRunsItOnEveryChangeOnly) {
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  take();
  gardener->pokesIs(1);
  gardener->pokesIs(1);
  gardener->pokesInc(0);
  EXPECT_EQ(gardener->pokesInc(2), 3u);
  EXPECT_EQ(take(), (Lines{"poke 1", "poke 3"}));
}

TEST_F(StateMachineTest, ATimerAttributeFiresItsHandlerAndReplaysWhenMoved) {
  Zef::System::VirtualClock clock(100.0);
  Zef::System::ScopedClock scoped(clock);
  Zef::Ptr<Orb::TimerWheel> wheel = Orb::TimerWheel::TimerWheelIs();
  Zef::Ptr<Orb::TimerWheel> other = Orb::TimerWheel::TimerWheelIs();
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  take();
  gardener->alarmIs(wheel);
  gardener->alarm()->timeMinIs(105.0);
  Orb::advanceVirtualTime(clock, 104.0, {wheel.ptr(), other.ptr()});
  EXPECT_EQ(take(), Lines{});
  gardener->alarmIs(other);  // moving replays, and the deadline moves along
  EXPECT_EQ(take(), (Lines{"alarm"}));
  EXPECT_EQ(wheel->armedTimers(), 0u);
  Orb::advanceVirtualTime(clock, 110.0, {wheel.ptr(), other.ptr()});
  EXPECT_EQ(take(), (Lines{"alarm"}));
  EXPECT_EQ(clock.monotonicTime(), 110.0);
}

TEST_F(StateMachineTest, ChildStateMachinesAreKeptReplacedOrRefusedByTheirArguments) {
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  Zef::Ptr<Tree> other = Tree::TreeIs("elm");
  take();

  Zef::Ptr<Sprout> first = gardener->sproutIs("s", tree);
  EXPECT_EQ(gardener->sproutIs("s", tree), first);
  Zef::Ptr<Sprout> second = gardener->sproutIs("s", other);  // other arguments: replaced
  EXPECT_NE(second, first);
  EXPECT_FALSE(first->hasNotificationActive());
  first = nullptr;
  // The replaced sprout's cleanup changes the tree, which the live gardener hears.
  EXPECT_EQ(take(),
            (Lines{"sprout s initialized", "sprout s initialized", "sprout s cleanup", "title left by sprout s"}));

  Zef::Ptr<Sprout> keyed = gardener->sproutsIs("k", tree);
  EXPECT_EQ(gardener->sproutsIs("k", tree), keyed);
  // Rebuilding a keyed child with other arguments is refused.
  EXPECT_THROW(gardener->sproutsIs("k", other), Zef::RangeException);
  keyed = nullptr;
  gardener->sproutsDel("k");
  EXPECT_FALSE(gardener->sprouts("k"));
  EXPECT_EQ(take(), (Lines{"sprout k initialized", "sprout k cleanup", "title left by sprout k"}));
}

TEST_F(StateMachineTest, TeardownCleansUpThenSilencesReactorsThenDeletesChildren) {
  Zef::Ptr<TitleWatch> outsider(new TitleWatch(tree));
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  gardener->sproutsIs("one", tree);
  gardener->sproutIs("solo", tree);
  auto reactor = gardener->treeReactor();  // outlives its state machine
  take();

  gardener = nullptr;
  // The gardener cleans up first. The sprouts' cleanups change the tree's title: the dying
  // gardener's reactor is a zombie by then and does not hear it, while the outsider does, and so
  // do the solo sprout's reactors, which are alive until its own destructor is past its cleanup.
  // The collection of sprouts is emptied before the attributes go, the solo sprout last.
  EXPECT_EQ(take(), (Lines{"gardener cleanup", "sprout one cleanup", "sprout solo title left by sprout one",
                           "sprout solo cleanup", "sprout solo title left by sprout solo"}));
  EXPECT_EQ(outsider->heard, (Lines{"left by sprout one", "left by sprout solo"}));
  EXPECT_TRUE(reactor->isZombie());
  EXPECT_EQ(reactor->owner(), nullptr);
  tree->titleIs("after");  // a late notification cannot reach the dead state machine
  EXPECT_EQ(take(), Lines{});
}

TEST_F(StateMachineTest, SwitchingAStateMachineOffSilencesItsReactorsAndChildren) {
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  Zef::Ptr<Sprout> sprout = gardener->sproutIs("s", tree);
  take();
  gardener->hasNotificationActiveIs(false);
  tree->titleIs("quiet");
  EXPECT_EQ(take(), Lines{});
  EXPECT_FALSE(sprout->hasNotificationActive());
  gardener->hasNotificationActiveIs(true);
  tree->titleIs("loud");
  EXPECT_EQ(take(), (Lines{"title loud", "sprout s title loud"}));
}

TEST_F(StateMachineTest, AnExceptionThatReachesThePlatformEndsTheAgent) {
  Zef::Ptr<Gardener> gardener = Gardener::GardenerIs("g", tree);
  EXPECT_DEATH(tree->visitsIs(13), "unhandled exception in a notification handler: unlucky visit count");
}

}  // namespace
}  // namespace Garden
