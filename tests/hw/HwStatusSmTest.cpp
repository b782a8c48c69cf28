// The hardware's status slices folded into the one flat directory that the engine reads: slices
// come, grow, shrink and go, and a reader of the directory holds the very objects that the
// slice's writer changes.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hw/HwStatusSlices.h"
#include "hw/HwStatusSm.h"

namespace Macsec {
namespace {

// Records each interface whose entry leaves the flat directory, as a reader sees it.
class Departures : public MacSecIntfStatusPtrDir::NotifieeConst {
 public:
  explicit Departures(const Zef::Ptr<MacSecIntfStatusPtrDir>& dir) : NotifieeConst(dir) {
    hasNotificationActiveIs(true);
  }
  void onStatus(const Lanx::IntfId& intf) override {
    if (!notifier()->statusHas(intf)) gone.push_back(intf.stringValue());
  }
  std::vector<std::string> gone;
};

TEST(HwStatusSlices, TheFlatDirectoryFollowsEverySlice) {
  const auto flat = MacSecIntfStatusPtrDir::MacSecIntfStatusPtrDirIs();
  const auto slices = Zef::Dir::DirIs("hwStatusSliceDir");
  const Lanx::IntfId eth1("eth1"), eth2("eth2"), eth3("eth3");

  // A slice that is there before the aggregation starts, with an interface in it, and an entity
  // that is no slice.
  const auto first = MacSecStatus::MacSecStatusIs("first");
  first->statusIs(eth1);
  slices->entityPtrIs(first);
  slices->entityPtrIs(Zef::Dir::DirIs("stray"));
  const auto sm = HwStatusSm::HwStatusSmIs(flat, slices);
  EXPECT_EQ(flat->statusSize(), 1u);
  EXPECT_EQ(sm->sliceMap(eth1), Zef::Name("first"));

  // A reader of the directory watches the slice's own object.
  const Zef::Ptr<MacSecIntfStatus const> read = flat->status(eth1);
  EXPECT_EQ(read, first->status(eth1));
  first->status(eth1)->hwPostStatusIs(postComplete);
  EXPECT_EQ(read->hwPostStatus(), postComplete);

  // The slice grows and shrinks; a second slice arrives with interfaces already in it.
  first->statusIs(eth2);
  EXPECT_EQ(flat->status(eth2), first->status(eth2));
  const auto second = MacSecStatus::MacSecStatusIs("second");
  second->statusIs(eth3);
  second->statusIs(eth2);  // supplied by both: the later one has it
  slices->entityPtrIs(second);
  EXPECT_EQ(flat->status(eth3), second->status(eth3));
  EXPECT_EQ(flat->status(eth2), second->status(eth2));
  EXPECT_EQ(sm->sliceMap(eth2), Zef::Name("second"));
  first->statusDel(eth1);
  EXPECT_FALSE(flat->statusHas(eth1));
  EXPECT_EQ(sm->sliceMap(eth1), Zef::Name());

  // A slice that goes takes only the interfaces it supplied last.
  slices->entityPtrDel("first");
  EXPECT_TRUE(flat->statusHas(eth2));
  EXPECT_TRUE(flat->statusHas(eth3));
  slices->entityPtrDel("second");
  EXPECT_EQ(flat->statusSize(), 0u);

  // A slice replaced by another object under its name: the directory holds the new objects. An
  // interface of both never leaves it, so that its port carries on; one the new slice lacks goes.
  slices->entityPtrIs(first);
  first->statusIs(eth1);
  const auto renewed = MacSecStatus::MacSecStatusIs("first");
  renewed->statusIs(eth2);
  renewed->statusIs(eth3);
  const Zef::Ptr<Departures> departures(new Departures(flat));
  slices->entityPtrIs(renewed);
  EXPECT_EQ(departures->gone, (std::vector<std::string>{"eth1"}));
  EXPECT_EQ(flat->status(eth2), renewed->status(eth2));
  EXPECT_EQ(flat->status(eth3), renewed->status(eth3));
  EXPECT_EQ(sm->sliceMap(eth2), Zef::Name("first"));
}

TEST(HwStatusSlices, TheHardwarePublishesSixteenInterfacesASlice) {
  const auto hardware = HwStatusSlices::HwStatusSlicesIs();
  const auto intf = [](int i) { return Lanx::IntfId("eth" + std::to_string(i)); };
  const auto slice = [&](const char* name) { return Zef::ptrCast<MacSecStatus>(hardware->sliceDir()->entry(name)); };
  for (int i = 1; i <= 20; ++i) hardware->interfaceIs(intf(i));
  ASSERT_TRUE(slice("slice0"));
  ASSERT_TRUE(slice("slice1"));
  EXPECT_EQ(slice("slice0")->statusSize(), HwStatusSlices::kInterfacesPerSlice);
  EXPECT_EQ(slice("slice1")->statusSize(), 4u);
  EXPECT_EQ(hardware->flat()->statusSize(), 20u);
  // The reader's status and the writer's are the slice's own object.
  EXPECT_EQ(hardware->flat()->status(intf(18)), slice("slice1")->status(intf(18)));
  EXPECT_EQ(hardware->status(intf(18)), slice("slice1")->status(intf(18)));

  // The last slice empties and goes; a place freed in the first is taken by the next interface.
  for (int i = 17; i <= 20; ++i) hardware->interfaceDel(intf(i));
  EXPECT_FALSE(slice("slice1"));
  EXPECT_FALSE(hardware->status(intf(18)));
  hardware->interfaceDel(intf(3));
  hardware->interfaceIs(intf(21));
  EXPECT_EQ(hardware->status(intf(21)), slice("slice0")->status(intf(21)));
  EXPECT_FALSE(slice("slice1"));
}

}  // namespace
}  // namespace Macsec
