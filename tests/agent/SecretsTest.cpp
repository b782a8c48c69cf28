// No key in clear, nor its stored form, reaches the debug trace at any level, the operators' log,
// a dump of the status or the saved state kept for restarts, over a session with rekeys on real
// frames.

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "model/Crypto.h"
#include "platform/Log.h"
#include "platform/Trace.h"
#include "sim/Simulation.h"

namespace Macsec {
namespace {

// The published 128-bit vector: the CAK and CKN, and the ICK and KEK every peer derives from them.
constexpr const char* kCkn = "96437a93ccf10d9dfe347846cce52c7d";
constexpr const char* kCak = "135bd758b0ee5c11c55ff6ab19fdb199";
constexpr const char* kIck = "8f1c5cb1c8ed2e5f047906e0473aad4d";
constexpr const char* kKek = "8f5a384c15d6ae9302b462e363d03ca6";

// Every key the key server distributes, in clear, as the test learns it from the status.
class SakWatch : public MkaActorStatus::NotifieeConst {
 public:
  SakWatch(const Zef::Ptr<MkaActorStatus>& actor, std::set<std::string>& saks) : NotifieeConst(actor), saks_(saks) {
    hasNotificationActiveIs(true);
  }
  void onDistSak() override {
    notifier()->distSak().key.withClear([&](const KeyBytes& clear) {
      if (!clear.empty()) saks_.insert(bytesToHex(clear).stdString());
    });
  }

 private:
  std::set<std::string>& saks_;
};

// What an operator's status dump would show of an engine: every value that holds a key.
std::string dumpOf(Sim::Agent& agent) {
  std::ostringstream out;
  const Zef::Ptr<Status>& status = agent.status();
  for (auto it = status->intfStatusIter(); it; ++it) {
    out << it->key() << it->defaultKey() << it->txStaticSak() << it->rxStaticSak() << it->macsecParams() << "\n";
  }
  for (auto it = status->cpStatusIter(); it; ++it) {
    out << it->oldSakContext() << it->latestSakContext() << it->txSak() << "\n";
    for (auto rx = it->rxSakIter(); rx; ++rx) out << rx.value() << "\n";
  }
  for (auto port = status->portStatusIter(); port; ++port) {
    for (auto it = port->actorStatusIter(); it; ++it) {
      out << it->cak() << it->ick() << it->kek() << it->distSak() << it->distCak() << "\n";
    }
  }
  return out.str();
}

TEST(Secrets, NoKeyReachesTheTraceTheLogTheStatusOrTheSavedState) {
  std::string seen;
  Zef::traceSettingsIs("*=9");
  Zef::traceSinkIs([&](const Zef::TraceRecord& r) { seen += std::string(r.text) + "\n"; });
  Zef::logSinkIs([&](const Zef::LogRecord& r) { seen += r.text + "\n"; });
  std::set<std::string> saks;
  {
    Sim::Simulation sim(0.0, 1, Sim::Wire::bytes);
    Sim::Agent& a = sim.agentIs("a");
    Sim::Agent& b = sim.agentIs("b");
    const Lanx::IntfId eth1("eth1");
    sim.linkIs(a, eth1, b, eth1);
    for (auto [agent, last] : {std::pair{&a, 1}, std::pair{&b, 2}}) {
      Sim::InterfaceConfig config;
      config.mac = Lanx::EthAddr({2, 0, 0, 0, 0, static_cast<uint8_t>(last)});
      config.runPort = true;
      agent->interfaceIs(eth1, config);
      agent->keyIs(eth1, Sim::Key{kCkn, kCak});
      agent->savedStateKept();
    }
    a.profile(eth1)->sessionReKeyPeriodIs(5);
    const Zef::Ptr<SakWatch> watch(new SakWatch(a.status()->portStatus(eth1)->actorStatus(Ckn::fromHex(kCkn)), saks));
    sim.runFor(30);
    seen += dumpOf(a) + dumpOf(b) + a.savedState() + b.savedState();
    ASSERT_TRUE(b.status()->cpStatus(eth1)->controlledPortEnabled());
  }
  Zef::traceSinkIs(nullptr);
  Zef::logSinkIs(nullptr);
  Zef::traceSettingsIs("*=off");

  // The trace, the log and the dump were really written, and several keys were made.
  EXPECT_NE(seen.find("Installing SAK from peer"), std::string::npos);
  EXPECT_NE(seen.find("Activated SAK"), std::string::npos);
  EXPECT_NE(seen.find("key set"), std::string::npos);
  EXPECT_NE(seen.find("\"dist-sak\""), std::string::npos);
  EXPECT_GE(saks.size(), 3u);
  for (const std::string& secret : std::set<std::string>{kCak, kIck, kKek}) {
    EXPECT_EQ(seen.find(secret), std::string::npos) << secret;
  }
  for (const std::string& sak : saks) EXPECT_EQ(seen.find(sak), std::string::npos) << "a SAK";
  EXPECT_EQ(seen.find("$mka1$"), std::string::npos) << "a stored form";
}

}  // namespace
}  // namespace Macsec
