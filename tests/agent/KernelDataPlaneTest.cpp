// The kernel data plane against a fake kernel, on a machine without MACsec. Each row is a run of
// engine requests (the controlled port's keys, its peer, its state) and kernel answers (refusals,
// a link that vanishes, a link left by an earlier run); the expected columns are the calls the
// kernel got, the SAs confirmed back in the hardware status, the SAs the kernel holds at the end
// and the errors counted. The VM test then shows that the real kernel agrees.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "agent/KernelDataPlane.h"
#include "hw/HwStatusSlices.h"
#include "tests/fakes/FakeMacsecKernel.h"

namespace Macsec {
namespace {

const Lanx::IntfId eth1("eth1");
const char* const kLinkName = "mka-eth1";
constexpr int kLowerIfindex = 7;

struct Bench;
using Step = std::function<void(Bench&)>;

struct Bench {
  Zef::Ptr<Status> status = Status::StatusIs();
  Zef::Ptr<HwStatusSlices> hardware = HwStatusSlices::HwStatusSlicesIs();
  FakeMacsecKernel kernel;
  Zef::Ptr<KernelDataPlane> plane;
  Zef::Ptr<CpStatus> cp;

  Bench() {
    planeIs();
    cp = status->cpStatusIs(eth1, MacsecParams{});
  }
  void planeIs() {
    hardware->interfaceIs(eth1);
    plane = KernelDataPlane::KernelDataPlaneIs(status, hardware, &kernel);
    plane->lowerIfindexOfIs([](const Lanx::IntfId&) { return kLowerIfindex; });
    plane->linkNameOfIs([](const Lanx::IntfId& intf) { return "mka-" + intf.stringValue(); });
  }
  // As the daemon does: the data plane hears nothing more before the kernel it calls goes.
  ~Bench() { plane->hasNotificationActiveIs(false); }
  // A step, and then the kernel is told all it asked, as the daemon's loop does between frames.
  void run(const Step& step) {
    step(*this);
    while (plane->programNext()) {
    }
  }

  // What the hardware status confirms: "tx AN:KEY rx AN:KEY ...", a dash for no transmit SA.
  std::string reported() const {
    const Zef::Ptr<MacSecIntfStatus const> hw = hardware->flat()->status(eth1);
    std::string text = "tx ";
    text += hw->txSaStatus().empty()
                ? "-"
                : std::to_string(hw->txSaStatus().an.value()) + ":" + std::to_string(hw->txSaStatus().keyNum);
    text += " rx";
    for (auto it = hw->rxSaStatusIter(); it; ++it) {
      text += " " + std::to_string(it.value().an.value()) + ":" + std::to_string(it.value().keyNum);
    }
    return text;
  }
  // What the kernel holds: "LINK tx AN rx AN ..." for each link.
  std::string held() const {
    std::string text;
    for (const auto& [index, link] : kernel.links()) {
      text += (text.empty() ? "" : "; ") + link.name + " " + std::to_string(index) + " tx";
      for (const uint8_t an : link.txSas) text += " " + std::to_string(an);
      text += " rx";
      for (const uint8_t an : link.rxSas) text += " " + std::to_string(an);
    }
    return text;
  }
  uint64_t errors() const {
    const auto link = plane->links().find(eth1);
    return link == plane->links().end() ? 0 : link->second.errors;
  }
};

Sak sak(uint8_t an, uint32_t keyNum) {
  return Sak{an, "0102030405060708090a0b0c"_mi, keyNum, StoredKey::ofHex("000102030405060708090a0b0c0d0e0f"), {}};
}
Sci sci(uint8_t last) { return Sci{Lanx::EthAddr({2, 0, 0, 0, 0, last}), 1}; }

// Engine requests.
const Step addressed = [](Bench& b) { b.status->portStatusIs(eth1)->mySciIs(sci(1)); };
const Step opened = [](Bench& b) { b.cp->controlledPortEnabledIs(true); };
Step peer(uint8_t last) {
  return [last](Bench& b) { b.cp->peerSsciIs(Ssci{sci(last), 0}); };
}
Step rx(uint8_t an, uint32_t keyNum) {
  return [an, keyNum](Bench& b) { b.cp->rxSakIs(sak(an, keyNum)); };
}
Step rxGone(uint8_t an) {
  return [an](Bench& b) { b.cp->rxSakDel(AssociationNumber(an)); };
}
Step tx(uint8_t an, uint32_t keyNum) {
  return [an, keyNum](Bench& b) { b.cp->txSakIs(sak(an, keyNum)); };
}
const Step txGone = [](Bench& b) { b.cp->txSakIs(Sak{}); };
const Step macsecGone = [](Bench& b) { b.status->cpStatusDel(eth1); };
// Kernel answers.
Step refuse(const char* verb) {
  return [verb](Bench& b) { b.kernel.refuseNext(verb, "Invalid argument"); };
}
// The lower interface goes, and the kernel takes the MACsec link along, as the daemon reports.
const Step linkVanishes = [](Bench& b) {
  b.kernel.linkVanishes(b.kernel.linkIndex(kLinkName));
  b.plane->lowerGone(eth1);
};
const Step leftByEarlierRun = [](Bench& b) { b.kernel.linkExists(kLinkName, 50, kLinkMark); };
const Step madeByOthers = [](Bench& b) { b.kernel.linkExists(kLinkName, 50); };
// The daemon's process restarts: a new data plane takes the link over, while the status is put back
// as it stood, its keys known by their identifiers alone.
const Step restarted = [](Bench& b) {
  b.plane->hasNotificationActiveIs(false);
  const Zef::Ptr<CpStatus> before = b.cp;
  b.status = Status::StatusIs();
  b.hardware = HwStatusSlices::HwStatusSlicesIs();
  b.planeIs();
  b.plane->adopt(eth1, *b.kernel.linkView(kLinkName));
  b.status->portStatusIs(eth1)->mySciIs(sci(1));
  b.cp = b.status->cpStatusIs(eth1, MacsecParams{});
  const auto withoutOctets = [](Sak sak) {
    sak.key = StoredKey();
    return sak;
  };
  b.cp->peerSsciIs(before->peerSsci());
  for (auto it = before->rxSakIter(); it; ++it) b.cp->rxSakIs(withoutOctets(it.value()));
  b.cp->txSakIs(withoutOctets(before->txSak()));
  b.cp->controlledPortEnabledIs(before->controlledPortEnabled());
  b.plane->adopted(eth1);
};
const Step notTakenOver = [](Bench& b) { b.plane->abandon(eth1); };

struct Row {
  const char* name;
  std::vector<Step> steps;
  std::vector<std::string> calls;
  std::string reported;
  std::string held;
  uint64_t errors = 0;
};

const std::vector<Row>& rows() {
  static const std::vector<Row> table = {
      {"a rekey moves transmit and retires the old keys",
       {addressed, opened, peer(2), rx(0, 1), tx(0, 1), rx(1, 2), tx(1, 2), rxGone(0)},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "linkUpdate 100 up", "rxScAdd 100 sci 0200000000020001",
        "rxSaAdd 100 an 0 key 1", "txSaAdd 100 an 0 key 1", "linkUpdate 100 up encoding 0", "rxSaAdd 100 an 1 key 2",
        "txSaAdd 100 an 1 key 2", "linkUpdate 100 up encoding 1", "txSaDel 100 an 0", "rxSaDel 100 an 0"},
       "tx 1:2 rx 0:1 1:2",
       "mka-eth1 100 tx 1 rx 1"},
      {"a key refused for receive is never confirmed",
       {addressed, peer(2), refuse("rxSaAdd"), rx(0, 1)},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "rxScAdd 100 sci 0200000000020001",
        "rxSaAdd 100 an 0 key 1 refused: Invalid argument"},
       "tx - rx",
       "mka-eth1 100 tx rx",
       1},
      {"a key refused for transmit leaves the link on the key it has",
       {addressed, opened, tx(0, 1), refuse("txSaAdd"), tx(1, 2)},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "linkUpdate 100 up", "txSaAdd 100 an 0 key 1",
        "linkUpdate 100 up encoding 0", "txSaAdd 100 an 1 key 2 refused: Invalid argument"},
       "tx 0:1 rx",
       "mka-eth1 100 tx 0 rx",
       1},
      {"another key on a number in use replaces the SA",
       {addressed, peer(2), rx(0, 1), rx(0, 5)},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "rxScAdd 100 sci 0200000000020001", "rxSaAdd 100 an 0 key 1",
        "rxSaDel 100 an 0", "rxSaAdd 100 an 0 key 5"},
       "tx - rx 0:5",
       "mka-eth1 100 tx rx 0"},
      {"another peer gets a channel of its own with the keys",
       {addressed, peer(2), rx(0, 1), peer(3)},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "rxScAdd 100 sci 0200000000020001", "rxSaAdd 100 an 0 key 1",
        "rxScDel 100 sci 0200000000020001", "rxScAdd 100 sci 0200000000030001", "rxSaAdd 100 an 0 key 1"},
       "tx - rx 0:1",
       "mka-eth1 100 tx rx 0"},
      {"no key to send with leaves none in the kernel",
       {addressed, opened, tx(0, 1), txGone},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "linkUpdate 100 up", "txSaAdd 100 an 0 key 1",
        "linkUpdate 100 up encoding 0", "txSaDel 100 an 0"},
       "tx 0:1 rx",
       "mka-eth1 100 tx rx"},
      {"a link that vanished is made again for the next key",
       {addressed, opened, tx(0, 1), linkVanishes, tx(1, 2)},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "linkUpdate 100 up", "txSaAdd 100 an 0 key 1",
        "linkUpdate 100 up encoding 0", "linkAdd mka-eth1 on 7", "txSaAdd 101 an 1 key 2",
        "linkUpdate 101 up encoding 1"},
       "tx 1:2 rx",
       "mka-eth1 101 tx 1 rx"},
      {"a link left by an earlier run goes with its keys",
       {leftByEarlierRun, addressed},
       {"linkDel 50", "linkAdd mka-eth1 on 7", "linkUpdate 100 down"},
       "tx - rx",
       "mka-eth1 100 tx rx"},
      {"a link of the name that mkad did not make stays, and the interface gets none",
       {madeByOthers, addressed, opened, tx(0, 1)},
       {},
       "tx - rx",
       "mka-eth1 50 tx rx",
       3},
      {"a link taken over after a restart keeps its SAs, and is only told what it has",
       {addressed, opened, peer(2), rx(0, 1), tx(0, 1), restarted},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "linkUpdate 100 up", "rxScAdd 100 sci 0200000000020001",
        "rxSaAdd 100 an 0 key 1", "txSaAdd 100 an 0 key 1", "linkUpdate 100 up encoding 0", "linkUpdate 100 up",
        "linkUpdate 100 up encoding 0"},
       "tx 0:1 rx 0:1",
       "mka-eth1 100 tx 0 rx 0"},
      {"a link not taken over after all goes with its SAs",
       {addressed, opened, peer(2), rx(0, 1), tx(0, 1), restarted, notTakenOver},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "linkUpdate 100 up", "rxScAdd 100 sci 0200000000020001",
        "rxSaAdd 100 an 0 key 1", "txSaAdd 100 an 0 key 1", "linkUpdate 100 up encoding 0", "linkUpdate 100 up",
        "linkUpdate 100 up encoding 0", "linkDel 100"},
       "tx - rx",
       ""},
      {"a link the kernel refused is made with the next request",
       {refuse("linkAdd"), addressed, opened, tx(0, 1)},
       {"linkAdd mka-eth1 on 7 refused: Invalid argument", "linkAdd mka-eth1 on 7", "linkUpdate 100 up",
        "txSaAdd 100 an 0 key 1", "linkUpdate 100 up encoding 0"},
       "tx 0:1 rx",
       "mka-eth1 100 tx 0 rx",
       1},
      {"secured, then MACsec leaving the interface takes the link and every key",
       {addressed, opened, peer(2), rx(0, 1), tx(0, 1), macsecGone},
       {"linkAdd mka-eth1 on 7", "linkUpdate 100 down", "linkUpdate 100 up", "rxScAdd 100 sci 0200000000020001",
        "rxSaAdd 100 an 0 key 1", "txSaAdd 100 an 0 key 1", "linkUpdate 100 up encoding 0", "linkDel 100"},
       "tx 0:1 rx 0:1",
       ""},
  };
  return table;
}

TEST(KernelDataPlane, ProgramsTheKernelAsTheTableSays) {
  for (const Row& row : rows()) {
    SCOPED_TRACE(row.name);
    Bench bench;
    for (const Step& step : row.steps) bench.run(step);
    EXPECT_EQ(bench.kernel.takeCalls(), row.calls);
    EXPECT_EQ(bench.reported(), row.reported);
    EXPECT_EQ(bench.held(), row.held);
    EXPECT_EQ(bench.errors(), row.errors);
  }
  // What the kernel's MACsec offers peers, and the self test's stage, which its cipher path takes
  // at once (the known-answer test runs when the test frame comes).
  Bench bench;
  EXPECT_EQ(bench.hardware->flat()->capabilityOf(eth1), macsecConfidentialityAtZero);
  bench.cp->postStatusIs(postTesting256Decryption);
  EXPECT_EQ(bench.hardware->flat()->status(eth1)->hwPostStatus(), postTesting256Decryption);

  // The transmit SA's next packet number, from the one dump of every link, goes back into the
  // hardware status; another link's, or another SA's, changes nothing.
  for (const Step& step : {addressed, opened, peer(2), rx(0, 1), tx(0, 1)}) bench.run(step);
  const int ifindex = bench.kernel.linkIndex(kLinkName);
  auto txPn = [&] { return bench.hardware->flat()->status(eth1)->txSaStatus().value; };
  MacsecLinkCounters read;
  read.txNextPn[0] = 5000;
  bench.plane->txPacketNumbersAre({{ifindex, read}});
  EXPECT_EQ(txPn(), 5000u);
  read.txNextPn = {{1, 7000}};
  bench.plane->txPacketNumbersAre({{ifindex, read}, {ifindex + 1, MacsecLinkCounters{{}, {}, {}, {{0, 9000}}, {}}}});
  EXPECT_EQ(txPn(), 5000u);

  // The kernel hears of requests only when the loop gives it its turn, and of one interface a turn,
  // in the order they asked: a burst of them never holds the loop's frames back for long.
  Bench burst;
  const Lanx::IntfId eth2("eth2");
  burst.hardware->interfaceIs(eth2);
  burst.status->cpStatusIs(eth2, MacsecParams{});
  addressed(burst);
  burst.status->portStatusIs(eth2)->mySciIs(sci(3));
  EXPECT_TRUE(burst.kernel.takeCalls().empty());
  EXPECT_TRUE(burst.plane->programNext());
  EXPECT_EQ(burst.kernel.takeCalls(), (std::vector<std::string>{"linkAdd mka-eth1 on 7", "linkUpdate 100 down"}));
  EXPECT_FALSE(burst.plane->programNext());
  EXPECT_EQ(burst.kernel.takeCalls(), (std::vector<std::string>{"linkAdd mka-eth2 on 7", "linkUpdate 101 down"}));
}

}  // namespace
}  // namespace Macsec
