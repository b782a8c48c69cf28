// The engine assembly through its own surface, with no harness: two engines whose frames are
// carried by hand, on a virtual clock, as a daemon would drive one with a socket and a timer.

#include "engine/Engine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <set>
#include <string>

#include "platform/Clock.h"
#include "platform/Log.h"

namespace Macsec {
namespace {

TEST(Engine, TwoEnginesCarryingEachOthersFramesSecureTheLinkAndNameThemselvesInTheLog) {
  Zef::System::VirtualClock clock(0.0);
  Zef::System::ScopedClock scoped(clock);
  std::set<std::string> speakers;
  Zef::logSinkIs([&](const Zef::LogRecord& record) { speakers.insert(record.source); });
  {
    Engine a(EngineOptions{"a", true, 1});
    Engine b(EngineOptions{"b", true, 2});
    const Lanx::IntfId eth1("eth1");
    struct InFlight {
      Engine* to;
      std::string frame;
    };
    std::deque<InFlight> wire;
    a.frameTransmitterIs([&](const Lanx::IntfId&, std::string_view frame) {
      wire.push_back({&b, std::string(frame)});
    });
    b.frameTransmitterIs([&](const Lanx::IntfId&, std::string_view frame) {
      wire.push_back({&a, std::string(frame)});
    });
    int sent = 0;
    a.messageTransmitterIs([&](const Lanx::IntfId& intf, const DecodedMkpdu& message) {
      EXPECT_EQ(intf, eth1);
      EXPECT_EQ(message.baseInfo.ckn, "96437a93ccf10d9dfe347846cce52c7d"_ckn);
      ++sent;
    });
    for (auto [engine, last] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
      InterfaceSettings settings;
      settings.mac = Lanx::EthAddr({2, 0, 0, 0, 0, static_cast<uint8_t>(last)});
      engine->interfaceIs(eth1, settings);
      engine->keyIs(eth1,
                    Cak{"96437a93ccf10d9dfe347846cce52c7d"_ckn, StoredKey::ofHex("135bd758b0ee5c11c55ff6ab19fdb199")});
    }

    // Frames are delivered as soon as they are sent; otherwise time moves to the next timer.
    while (clock.monotonicTime() < 30) {
      if (!wire.empty()) {
        InFlight next = std::move(wire.front());
        wire.pop_front();
        next.to->frameIs(eth1, reinterpret_cast<const uint8_t*>(next.frame.data()), next.frame.size());
        continue;
      }
      clock.timeIs(std::min({a.nextDeadline(), b.nextDeadline(), 30.0}));
      while (a.serviceOneTimer() || b.serviceOneTimer()) {
      }
    }

    EXPECT_GT(sent, 10);

    // What names an interface the engine does not have changes nothing.
    const Lanx::IntfId eth9("eth9");
    a.keyIs(eth9, Cak{"01"_ckn, StoredKey::ofHex("135bd758b0ee5c11c55ff6ab19fdb199")});
    const std::string frame(64, '\x01');
    a.frameIs(eth9, reinterpret_cast<const uint8_t*>(frame.data()), frame.size());
    EXPECT_FALSE(a.port(eth9));
    EXPECT_FALSE(a.status()->intfStatus(eth9));
    for (Engine* engine : {&a, &b}) {
      SCOPED_TRACE(engine->name());
      const Zef::Ptr<CpStatus> cp = engine->status()->cpStatus(eth1);
      EXPECT_TRUE(cp->controlledPortEnabled());
      EXPECT_TRUE(cp->oldSakContext().txInstalled);
      EXPECT_EQ(engine->hw(eth1)->txSaStatus().keyNum, 1u);
      // Every frame of the session was taken by the other side's codec.
      const Memtab::MessageCounterData counts = engine->counters()->row(eth1);
      EXPECT_GT(counts.inMkpdus, 5u);
      EXPECT_EQ(counts, (Memtab::MessageCounterData{eth1, counts.inMkpdus, counts.outMkpdus}));
    }
    EXPECT_EQ(a.status()->cpStatus(eth1)->oldSakContext().sak.mi, b.status()->cpStatus(eth1)->oldSakContext().sak.mi);
  }
  Zef::logSinkIs(nullptr);
  EXPECT_EQ(speakers, (std::set<std::string>{"a", "b"}));
}

}  // namespace
}  // namespace Macsec
