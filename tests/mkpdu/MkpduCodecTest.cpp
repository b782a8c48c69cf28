#include "mkpdu/MkpduCodec.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

#include "mkpdu/MkaPdu.h"
#include "model/CloakLib.h"
#include "model/Crypto.h"
#include "platform/Exception.h"

namespace Macsec {
namespace {

// The published 128-bit CAK/CKN vector: ICK and KEK below.
constexpr const char* kCkn = "96437a93ccf10d9dfe347846cce52c7d";
constexpr const char* kIck = "8f1c5cb1c8ed2e5f047906e0473aad4d";
constexpr const char* kKek = "8f5a384c15d6ae9302b462e363d03ca6";

std::string hexOf(const std::string& bytes) {
  return bytesToHex(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()).stdString();
}

ActorKeys keys128() { return ActorKeys{StoredKey::ofHex(kIck), StoredKey::ofHex(kKek), cipherSuiteGcmAes128}; }

KeyLookup lookupOf(const ActorKeys& keys) {
  return [keys](const Ckn& ckn) -> std::optional<ActorKeys> {
    if (ckn == Ckn::fromHex(kCkn)) return keys;
    return std::nullopt;
  };
}

// A message of a key server with one live peer, a SAK in use and a SAK in distribution.
DecodedMkpdu typicalMessage(CipherSuite cipher = cipherSuiteGcmAes128) {
  DecodedMkpdu m;
  m.baseInfo = BasicInfo{16,
                         true,
                         true,
                         2,
                         Sci{Lanx::EthAddr::fromText("02:00:00:00:00:01"), 1},
                         "0102030405060708090a0b0c"_mi,
                         7,
                         Ckn::fromHex(kCkn)};
  m.livePeers = {{"a1a2a3a4a5a6a7a8a9aaabac"_mi, 5}};
  m.sakUseInfo.latestKey = KeyInfo{1, false, true, "0102030405060708090a0b0c"_mi, 2, 0};
  m.sakUseInfo.oldKey = KeyInfo{0, true, true, "0102030405060708090a0b0c"_mi, 1, 100};
  m.sakUseInfo.delayProtect = true;
  const char* sak = cipher == cipherSuiteGcmAes256 ? "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff"
                                                   : "00112233445566778899aabbccddeeff";
  m.sakDistInfo = SakDistInfo{1, 0, 2, cipher, StoredKey::ofHex(sak)};
  return m;
}

// Stored keys differ each time they are encoded: compare the clear keys instead.
void expectSameMessage(const DecodedMkpdu& a, const DecodedMkpdu& b) {
  EXPECT_EQ(a.baseInfo, b.baseInfo);
  EXPECT_EQ(a.sakUseInfo, b.sakUseInfo);
  EXPECT_EQ(a.livePeers, b.livePeers);
  EXPECT_EQ(a.potentialPeers, b.potentialPeers);
  SakDistInfo da = a.sakDistInfo;
  SakDistInfo db = b.sakDistInfo;
  EXPECT_EQ(CloakLib::doDecodeKey(da.wrappedSak.storedText()), CloakLib::doDecodeKey(db.wrappedSak.storedText()));
  da.wrappedSak = db.wrappedSak = StoredKey();
  EXPECT_EQ(da, db);
}

TEST(MkpduCoding, AFrameForFixedInputsHasTheBytesOfTheStandard) {
  DecodedMkpdu m;
  m.baseInfo = BasicInfo{
      16, true,        true, 2, Sci{Lanx::EthAddr::fromText("02:00:00:00:00:01"), 1}, "0102030405060708090a0b0c"_mi,
      7,  "112233"_ckn};
  m.potentialPeers = {{"a1a2a3a4a5a6a7a8a9aaabac"_mi, 5}};
  std::string frame;
  ASSERT_TRUE(encodeMkpdu(m, Lanx::EthAddr::fromText("02:00:00:00:00:01"), keys128(), frame));
  const std::string expected =
      "0180c2000003"  // to the PAE group address
      "020000000001"  // from the interface
      "888e"
      "03"
      "05"
      "0048"  // EAPOL version 3, MKA, body of 72 octets
      "01"
      "10"
      "e01f"  // MKA version 1, priority 16; key server, desired, capability 2, 31
      "020000000001"
      "0001"  // SCI
      "0102030405060708090a0b0c"
      "00000007"  // member identifier and number
      "0080c201"  // algorithm agility
      "11223300"  // the CKN, 3 octets, and one of padding that the length leaves out
      "02"
      "00"
      "0010"  // potential peer list, one entry
      "a1a2a3a4a5a6a7a8a9aaabac"
      "00000005";                      // its member identifier and number
  ASSERT_EQ(frame.size(), 18u + 72u);  // basic set 36, potential peers 20, ICV 16
  EXPECT_EQ(hexOf(frame.substr(0, frame.size() - 16)), expected);
  // The ICV: AES-CMAC with the ICK over everything before it.
  KeyBytes ick;
  hexToBytes(kIck, ick);
  const KeyBytes icv = aesCmac(ick, reinterpret_cast<const uint8_t*>(frame.data()), frame.size() - 16);
  EXPECT_EQ(hexOf(frame.substr(frame.size() - 16)), bytesToHex(icv.data(), icv.size()).stdString());
}

TEST(MkpduCoding, DecodingAnEncodedMessageGivesItBack) {
  for (CipherSuite cipher : {cipherSuiteGcmAes128, cipherSuiteGcmAes256}) {
    SCOPED_TRACE(cipher);
    const StoredKey kek = cipher == cipherSuiteGcmAes256
                              ? StoredKey::ofHex("71340e454c84a1232aa7977d5ed86f78f250f3f9d53584b9337ff0c6dfdc9f96")
                              : StoredKey::ofHex(kKek);
    const ActorKeys keys{StoredKey::ofHex(kIck), kek, cipher};
    DecodedMkpdu m = typicalMessage(cipher);
    m.potentialPeers = {{"b1b2b3b4b5b6b7b8b9babbbc"_mi, 9}, {"c1c2c3c4c5c6c7c8c9cacbcc"_mi, 0}};
    m.cakDistInfo = CakDistInfo{
        "0102"_ckn, StoredKey::ofHex(cipher == cipherSuiteGcmAes256 ? std::string(64, 'a') : std::string(32, 'b'))};
    std::string frame;
    ASSERT_TRUE(encodeMkpdu(m, m.baseInfo.sci.addr, keys, frame));
    // The distributed SAK set: 28 octets for the default suite, 52 with the 256-bit suite named.
    DecodedMkpdu back;
    ASSERT_EQ(decodeMkpdu(reinterpret_cast<const uint8_t*>(frame.data()), frame.size(), lookupOf(keys), back),
              DecodeResult::accepted);
    expectSameMessage(back, m);
    EXPECT_EQ(back.cakDistInfo.ckn, "0102"_ckn);
    EXPECT_EQ(CloakLib::doDecodeKey(back.cakDistInfo.cak.storedText()),
              CloakLib::doDecodeKey(m.cakDistInfo.cak.storedText()));
  }
}

// A frame changed by `edit`, with its ICV made good again when `reseal` is set, so that the
// change itself is what the decoder sees.
std::string edited(std::function<void(std::string&)> edit, bool reseal,
                   const DecodedMkpdu& message = typicalMessage()) {
  std::string frame;
  EXPECT_TRUE(encodeMkpdu(message, Lanx::EthAddr::fromText("02:00:00:00:00:01"), keys128(), frame));
  edit(frame);
  if (reseal && frame.size() >= 18 + 16) {
    KeyBytes ick;
    hexToBytes(kIck, ick);
    const KeyBytes icv = aesCmac(ick, reinterpret_cast<const uint8_t*>(frame.data()), frame.size() - 16);
    frame.replace(frame.size() - 16, 16, reinterpret_cast<const char*>(icv.data()), 16);
  }
  return frame;
}

DecodedMkpdu basicOnly() {
  DecodedMkpdu m;
  m.baseInfo = typicalMessage().baseInfo;
  return m;
}

void setBodyLength(std::string& f, size_t length) {
  f[16] = static_cast<char>(length >> 8);
  f[17] = static_cast<char>(length);
}

// The codec of an agent with one interface and an actor of the test CKN, whose status holds the
// keys and which records the messages it is handed.
class Codec : public ::testing::Test {
 protected:
  Codec() {
    status->intfStatusIs(eth1, MacsecParams());
    Zef::Ptr<MkaPortStatus> port = status->portStatusIs(eth1);
    port->mySciIs(Sci{Lanx::EthAddr::fromText("02:00:00:00:00:02"), 1});
    Zef::Ptr<MkaActorStatus> actor = port->actorStatusIs(Ckn::fromHex(kCkn));
    actor->ickIs(StoredKey::ofHex(kIck));
    actor->kekIs(StoredKey::ofHex(kKek));
    pamManager->mkaIntfIs(eth1);
    pamManager->interfaces().receiverIs(eth1, Ckn::fromHex(kCkn),
                                        MessageReceiver{this, [this](const DecodedMkpdu& m) { received.push_back(m); },
                                                        nullptr, nullptr, std::nullopt});
  }
  DecodeResult feed(const std::string& frame) {
    return codec->receive(*pamManager->interfaces().interfaceOf(eth1), reinterpret_cast<const uint8_t*>(frame.data()),
                          frame.size());
  }

  const Lanx::IntfId eth1{"eth1"};
  Zef::Ptr<Status> status = Status::StatusIs();
  Zef::Ptr<Interface::EthDevPamCollection> pams = Interface::EthDevPamCollection::EthDevPamCollectionIs("pams");
  Zef::Ptr<MkaPamManager> pamManager = MkaPamManager::MkaPamManagerIs(pams);
  Zef::Ptr<Memtab::MessageCounters> table = Memtab::MessageCounters::MessageCountersIs();
  Zef::Ptr<MkpduCodec> codec = MkpduCodec::MkpduCodecIs(status, pamManager, pams, table);
  std::vector<DecodedMkpdu> received;
};

TEST_F(Codec, MalformedFramesAreRefusedAndCountedAndChangeNothing) {
  struct Row {
    const char* what;
    std::string frame;
    DecodeResult result;
  };
  const std::string good = edited([](std::string&) {}, false);
  // The live peer list once more, right after itself.
  auto liveListTwice = [](std::string& f) {
    const size_t at = 18 + 48;
    const size_t length =
        (static_cast<size_t>(static_cast<uint8_t>(f[at + 2]) & 0x0f) << 8) | static_cast<uint8_t>(f[at + 3]);
    f.insert(at + 4 + length, f.substr(at, 4 + length));
    setBodyLength(f, f.size() - 18);
  };
  DecodedMkpdu namelessCak = basicOnly();
  namelessCak.cakDistInfo = CakDistInfo{Ckn(), StoredKey::ofHex("135bd758b0ee5c11c55ff6ab19fdb199")};
  const Row rows[] = {
      {"empty", std::string(), DecodeResult::tooShort},
      {"short", good.substr(0, 49), DecodeResult::tooShort},
      {"truncated", good.substr(0, good.size() - 4), DecodeResult::badBodyLength},
      {"body length past the frame", edited([](std::string& f) { setBodyLength(f, f.size() - 18 + 4); }, true),
       DecodeResult::badBodyLength},
      {"another EtherType", edited([](std::string& f) { f[13] = 0x00; }, true), DecodeResult::notMka},
      {"another EAPOL type", edited([](std::string& f) { f[15] = 0x00; }, true), DecodeResult::notMka},
      {"an individual destination", edited([](std::string& f) { f[0] = 0x00; }, true), DecodeResult::notMka},
      {"EAPOL version 0", edited([](std::string& f) { f[14] = 0; }, true), DecodeResult::badVersion},
      {"MKA version 0", edited([](std::string& f) { f[18] = 0; }, true), DecodeResult::badVersion},
      {"body length not a multiple of 4", edited([](std::string& f) { setBodyLength(f, f.size() - 18 - 2); }, true),
       DecodeResult::badBodyLength},
      {"basic set longer than the body", edited([](std::string& f) { f[21] = 28 + 32; }, true, basicOnly()),
       DecodeResult::badParameterSet},
      {"CKN of 33 octets",
       edited(
           [](std::string& f) {
             f[20] = static_cast<char>((f[20] & 0xf0) | 0x00);
             f[21] = 61;
           },
           true),
       DecodeResult::badCkn},
      {"another algorithm", edited([](std::string& f) { f[18 + 31] = 0x02; }, true), DecodeResult::unsupported},
      {"a CKN no actor has", edited([](std::string& f) { f[18 + 32] ^= 0x01; }, true), DecodeResult::unknownCkn},
      {"bad ICV", edited([](std::string& f) { f[f.size() - 1] ^= 0x01; }, false), DecodeResult::badIcv},
      {"changed without a new ICV", edited([](std::string& f) { f[18 + 27] ^= 0x01; }, false), DecodeResult::badIcv},
      {"peer list of 15 octets", edited([](std::string& f) { f[18 + 48 + 3] = 15; }, true),
       DecodeResult::badParameterSet},
      {"a 256-bit key said to be of GCM-AES-128",
       edited(
           [](std::string& f) {
             const size_t at = f.find(std::string("\x00\x80\xc2\x00\x01\x00\x00\x02", 8));  // GCM-AES-256
             if (at != std::string::npos) f[at + 7] = 0x01;
           },
           true, typicalMessage(cipherSuiteGcmAes256)),
       DecodeResult::badParameterSet},
      {"peer list past the body", edited([](std::string& f) { f[18 + 48 + 2] = 0x0f; }, true),
       DecodeResult::badParameterSet},
      {"SAK use set of 36 octets", edited([](std::string& f) { f[18 + 68 + 3] = 36; }, true),
       DecodeResult::badParameterSet},
      {"wrapped SAK changed", edited([](std::string& f) { f[18 + 112 + 10] ^= 0x01; }, true), DecodeResult::badKeyWrap},
      {"a live peer list twice", edited(liveListTwice, true), DecodeResult::badParameterSet},
      {"a distributed CAK without its name", edited([](std::string&) {}, true, namelessCak),
       DecodeResult::badParameterSet},
  };
  // Every frame the codec refuses, whatever the reason.
  auto refused = [&] {
    const Memtab::MessageCounterData row = table->row(eth1);
    return row.inMalformed + row.inNotMka + row.inBadVersion + row.inUnsupportedAgility + row.inUnknownCkn +
           row.inBadIcv + row.inBadKeyWrap + row.inReplayed;
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const uint64_t before = refused();
    const size_t count = received.size();
    const DecodeResult result = feed(row.frame);
    EXPECT_EQ(result, row.result) << decodeResultText(result);
    EXPECT_EQ(refused(), before + 1);
    EXPECT_EQ(received.size(), count);
  }
  EXPECT_EQ(table->row(eth1).inMkpdus, 0u);

  // The good frame passes once; heard again, it is a replay.
  EXPECT_EQ(feed(good), DecodeResult::accepted);
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received.back().baseInfo.msgNum, 7u);
  EXPECT_EQ(received.back().livePeers,
            (std::vector<std::pair<MemberId, uint32_t>>{{"a1a2a3a4a5a6a7a8a9aaabac"_mi, 5}}));
  EXPECT_EQ(feed(good), DecodeResult::replayed);
  EXPECT_EQ(received.size(), 1u);

  // The table counts each kind of refusal on its own.
  const Memtab::MessageCounterData counts = table->row(eth1);
  EXPECT_EQ(counts.inMkpdus, 1u);
  EXPECT_EQ(counts.inMalformed, 13u);
  EXPECT_EQ(counts.inNotMka, 3u);
  EXPECT_EQ(counts.inBadVersion, 2u);
  EXPECT_EQ(counts.inUnsupportedAgility, 1u);
  EXPECT_EQ(counts.inUnknownCkn, 1u);
  EXPECT_EQ(counts.inBadIcv, 2u);
  EXPECT_EQ(counts.inBadKeyWrap, 1u);
  EXPECT_EQ(counts.inReplayed, 1u);
}

// What IEEE 802.1X peers may send and a liberal receiver takes, as long as the ICV verifies: each
// row is a good frame changed so, with a message number of its own so that none is a replay.
TEST_F(Codec, UnusualButSoundFramesAreAccepted) {
  enum class Edit { sealed, afterTheIcv };
  struct Row {
    const char* what;
    std::function<void(std::string&)> edit;
    Edit when = Edit::sealed;
    DecodedMkpdu message = typicalMessage();
  };
  // A SAK use set with an empty body (no key in use) whose header's flags still say something.
  auto emptySakUse = [](std::string& f) {
    SakUsePlainTxAndLengthSet flags;
    flags.plainTxIs(true);
    flags.plainRxIs(true);
    flags.delayProtectIs(true);
    flags.parameterSetBodyLengthIs(0);
    const char set[4] = {3, 0, static_cast<char>(flags.value() >> 8), static_cast<char>(flags.value())};
    f.insert(f.size() - 16, set, 4);
    setBodyLength(f, f.size() - 18);
  };
  const Row rows[] = {
      {"EAPOL version 1", [](std::string& f) { f[14] = 1; }},
      {"EAPOL version 2", [](std::string& f) { f[14] = 2; }},
      {"EAPOL version 4", [](std::string& f) { f[14] = 4; }},
      {"the bridge group address", [](std::string& f) { f[5] = 0x00; }},
      {"the LLDP group address", [](std::string& f) { f[5] = 0x0E; }},
      {"MKA version 4", [](std::string& f) { f[18] = 4; }},
      {"padding after the body", [](std::string& f) { f += std::string(4, '\0'); }, Edit::afterTheIcv},
      {"a trailer after the body", [](std::string& f) { f += "trailer"; }, Edit::afterTheIcv},
      {"an empty SAK use set", emptySakUse, Edit::sealed, basicOnly()},
  };
  uint8_t number = 20;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ++number;
    std::string frame = edited(
        [&](std::string& f) {
          f[18 + 27] = static_cast<char>(number);  // the low octet of the message number
          if (row.when == Edit::sealed) row.edit(f);
        },
        true, row.message);
    if (row.when == Edit::afterTheIcv) row.edit(frame);
    const DecodeResult result = feed(frame);
    EXPECT_EQ(result, DecodeResult::accepted) << decodeResultText(result);
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(received.back().baseInfo.msgNum, number);
  }
  const SakUseInfo use = received.back().sakUseInfo;
  EXPECT_TRUE(use.plainTx);
  EXPECT_TRUE(use.plainRx);
  EXPECT_TRUE(use.delayProtect);
  EXPECT_EQ(use.latestKey, KeyInfo());
  EXPECT_EQ(table->row(eth1).inMkpdus, std::size(rows));
}

// The guard tells members by both names, whatever their lengths, and wherever one ends and the
// other begins.
// An XPN suite's packet numbers are 64 bits: the SAK use set carries the low halves and the XPN set
// after it the high ones, and a receiver puts them together in whichever order the sets came. A
// 32-bit suite's numbers need no XPN set.
TEST_F(Codec, TheXpnSetCarriesTheHighHalvesOfThePacketNumbers) {
  DecodedMkpdu m = basicOnly();
  m.livePeers = typicalMessage().livePeers;
  m.sakUseInfo.latestKey = KeyInfo{1, true, true, "0102030405060708090a0b0c"_mi, 2, 0x0000000200000010u};
  m.sakUseInfo.oldKey = KeyInfo{0, true, true, "0102030405060708090a0b0c"_mi, 1, 0xc000000000000005u};
  const ActorKeys xpn{StoredKey::ofHex(kIck), StoredKey::ofHex(kKek), cipherSuiteGcmAesXpn128};
  std::string frame;
  ASSERT_TRUE(encodeMkpdu(m, m.baseInfo.sci.addr, xpn, frame));
  const size_t sakUse = 18 + 48 + 20;                          // after the basic set and the live peer list
  EXPECT_EQ(hexOf(frame.substr(sakUse + 20, 4)), "00000010");  // the latest key's low half
  EXPECT_EQ(hexOf(frame.substr(sakUse + 40, 4)), "00000005");  // the old key's
  EXPECT_EQ(hexOf(frame.substr(sakUse + 44, 12)),
            "08000008"
            "00000002"
            "c0000000");
  EXPECT_EQ(frame.size(), sakUse + 44 + 12 + 16);
  ASSERT_EQ(feed(frame), DecodeResult::accepted);
  EXPECT_EQ(received.back().sakUseInfo, m.sakUseInfo);

  // The XPN set first.
  m.baseInfo.msgNum = 8;
  const std::string xpnFirst = edited(
      [&](std::string& f) {
        const std::string set = f.substr(sakUse + 44, 12);
        f.erase(sakUse + 44, 12);
        f.insert(sakUse, set);
      },
      true, m);
  ASSERT_EQ(feed(xpnFirst), DecodeResult::accepted);
  EXPECT_EQ(received.back().sakUseInfo, m.sakUseInfo);

  // An XPN set too short for both halves is malformed.
  m.baseInfo.msgNum = 9;
  const std::string shortSet = edited(
      [&](std::string& f) {
        f[sakUse + 44 + 3] = 4;
        f.erase(sakUse + 44 + 8, 4);
        setBodyLength(f, f.size() - 18);
      },
      true, m);
  EXPECT_EQ(feed(shortSet), DecodeResult::badParameterSet);

  m.sakUseInfo.latestKey.lpn = 0x10;
  m.sakUseInfo.oldKey.lpn = 5;
  ASSERT_TRUE(encodeMkpdu(m, m.baseInfo.sci.addr, keys128(), frame));
  EXPECT_EQ(frame.size(), sakUse + 44 + 16);
}

TEST(ReplayGuard, TellsMembersByBothNames) {
  ReplayGuard guard;
  const MemberId member = "b1b2b3b4b5b6b7b8b9babbbc"_mi;
  EXPECT_TRUE(guard.accept("aaaa"_ckn, member, 5));
  EXPECT_FALSE(guard.accept("aaaa"_ckn, member, 5));
  // A longer name that begins with the same octets is another name.
  EXPECT_TRUE(guard.accept("aaaaaa"_ckn, member, 5));
  EXPECT_TRUE(guard.accept("aaaa"_ckn, "c1c2c3c4c5c6c7c8c9cacbcc"_mi, 5));
  EXPECT_EQ(guard.size(), 3u);
}

// The replay guard's memory is bounded, but a crowd of other members never makes it forget a
// member that the actor holds as a peer: that member's old numbers stay refused.
TEST_F(Codec, AMemberHeldAsAPeerIsNeverForgottenByTheReplayGuard) {
  auto frameOf = [](const MemberId& member, uint32_t number) {
    DecodedMkpdu m = basicOnly();
    m.baseInfo.msgId = member;
    m.baseInfo.msgNum = number;
    std::string frame;
    EXPECT_TRUE(encodeMkpdu(m, m.baseInfo.sci.addr, keys128(), frame));
    return frame;
  };
  const MemberId peer = "a1a2a3a4a5a6a7a8a9aaabac"_mi;
  const MemberId stranger = "b1b2b3b4b5b6b7b8b9babbbc"_mi;
  status->portStatus(eth1)->actorStatus(Ckn::fromHex(kCkn))->livePeerIs(peer);
  ASSERT_EQ(feed(frameOf(peer, 10)), DecodeResult::accepted);
  ASSERT_EQ(feed(frameOf(stranger, 10)), DecodeResult::accepted);
  // A thousand members heard once each, after both.
  for (uint32_t i = 0; i < 1000; ++i) {
    char member[25];
    std::snprintf(member, sizeof member, "c0c0c0c0c0c0c0c0%08x", i);
    ASSERT_EQ(feed(frameOf(MemberId::fromHex(member), 1)), DecodeResult::accepted);
  }
  EXPECT_EQ(feed(frameOf(peer, 9)), DecodeResult::replayed);
  // The stranger was forgotten to keep the memory bounded: its old number passes the guard, and
  // the actor, which does not know it, takes it as a new member.
  EXPECT_EQ(feed(frameOf(stranger, 9)), DecodeResult::accepted);
  EXPECT_EQ(table->row(eth1).inReplayed, 1u);
}

TEST_F(Codec, TransmitBuildsTheFrameOfTheActorAndSendsItOnTheInterface) {
  std::vector<std::string> sent;
  pams->pam(eth1)->transmitterIs([&](std::string_view frame) { sent.emplace_back(frame); });
  const ActorKeys keys = keys128();
  Zef::Ptr<MkaMessageInfo> tx = pamManager->txMessageInfo();
  OutgoingMkpdu& out = tx->outgoing();
  out.intfId = eth1;
  out.message = typicalMessage();
  out.keys = &keys;
  out.interface = pamManager->interfaces().find(eth1);
  tx->countInc(1);
  ASSERT_EQ(sent.size(), 1u);
  // From the address of the SCI in the message, which an actor takes from its port (the message
  // itself round-trips in every scenario on bytes).
  EXPECT_EQ(hexOf(sent[0].substr(6, 6)), "020000000001");
  EXPECT_EQ(table->row(eth1).outMkpdus, 1u);

  // A message without its sender's keys cannot be sealed, nor sent.
  out.keys = nullptr;
  tx->countInc(1);
  EXPECT_EQ(sent.size(), 1u);
  EXPECT_EQ(table->row(eth1).outErrors, 1u);
}

}  // namespace
}  // namespace Macsec
