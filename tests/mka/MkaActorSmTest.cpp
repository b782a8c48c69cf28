// An actor on its own, outside the harness: what it leaves behind when it goes. (Its identity,
// keys, messages and timing are the scenarios' and the fault program's.)

#include "mka/MkaActorSm.h"

#include <gtest/gtest.h>

#include "platform/Clock.h"

namespace Macsec {
namespace {

constexpr const char* kCak = "135bd758b0ee5c11c55ff6ab19fdb199";
constexpr const char* kCkn = "96437a93ccf10d9dfe347846cce52c7d";

TEST(MkaActorSm, CleanUpStopsTheTimerAndLeavesTheStatusToThePort) {
  Zef::System::VirtualClock clock{1000.0};
  Zef::System::ScopedClock scoped{clock};
  const Lanx::IntfId eth1{"eth1"};
  Zef::Ptr<Status> status = Status::StatusIs();
  status->intfStatusIs(eth1, MacsecParams());
  status->cpStatusIs(eth1, MacsecParams());
  const Zef::Ptr<MkaActorStatus> actorStatus = status->portStatusIs(eth1)->actorStatusIs(kCkn);
  Zef::Ptr<Orb::TimerWheel> wheel = Orb::TimerWheel::TimerWheelIs();
  Zef::Ptr<MkaActorSm> actor =
      MkaActorSm::MkaActorSmIs(kCkn, StoredKey::ofHex(kCak), eth1, status, MkaPamManager::MkaPamManagerIs(nullptr),
                               MacSecIntfStatusPtrDir::MacSecIntfStatusPtrDirIs(), wheel);
  actorStatus->principalIs(true);
  EXPECT_EQ(wheel->armedTimers(), 1u);
  actor = nullptr;
  EXPECT_EQ(wheel->armedTimers(), 0u);
  EXPECT_EQ(status->portStatus(eth1)->actorStatus(kCkn), actorStatus);
  EXPECT_EQ(actorStatus->msgId().size(), 24u);
}

}  // namespace
}  // namespace Macsec
