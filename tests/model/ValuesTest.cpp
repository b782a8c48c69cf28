#include "model/Values.h"

#include <gtest/gtest.h>

#include <sstream>

#include "model/CloakLib.h"
#include "model/Status.h"
#include "platform/Exception.h"
#include "platform/NetInt.h"

namespace Macsec {
namespace {

template <class T>
std::string text(const T& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

TEST(Values, AssociationNumbersRunFromZeroToThreeAndSciOrdersAddressFirst) {
  EXPECT_EQ(AssociationNumber(3).value(), 3);
  EXPECT_THROW(AssociationNumber(4), Zef::RangeException);
  const Sci low{Lanx::EthAddr::fromText("02:00:00:00:00:01"), 9};
  const Sci high{Lanx::EthAddr::fromText("02:00:00:00:00:02"), 1};
  EXPECT_LT(low, high);
  EXPECT_EQ(text(low), "02:00:00:00:00:01::9");
}

// Identifiers are octets, read from either case of hexadecimal and written in lower case; they
// order as their text does.
TEST(Values, IdentifiersAreOctetsThatOrderAsTheirText) {
  const MemberId mi = MemberId::fromHex("A1A2A3A4A5A6A7A8A9AAABAC");
  EXPECT_EQ(text(mi), "a1a2a3a4a5a6a7a8a9aaabac");
  for (const char* wrong : {"a1a2a3a4a5a6a7a8a9aaab", "a1a2a3a4a5a6a7a8a9aaabaczz", "a1a2a3a4a5a6a7a8a9aaabzz"}) {
    EXPECT_TRUE(MemberId::fromHex(wrong).empty()) << wrong;
  }
  EXPECT_TRUE("0000000000000000000000ff"_mi < "00000000000000000000ff00"_mi);

  EXPECT_EQ(Ckn::fromHex("96437A93"), "96437a93"_ckn);
  EXPECT_EQ("96437a93"_ckn.size(), 4u);
  const std::string tooLong(66, 'a');
  for (std::string_view wrong :
       {std::string_view(), std::string_view("964"), std::string_view("96437a9z"), std::string_view(tooLong)}) {
    EXPECT_TRUE(Ckn::fromHex(wrong).empty()) << wrong;
  }
  EXPECT_EQ(Ckn::fromHex(std::string(64, 'a')).size(), 32u);
  // As the text compares: a name before the longer names it begins, octet by octet otherwise.
  EXPECT_TRUE("9643"_ckn < "964300"_ckn);
  EXPECT_TRUE("964300"_ckn < "9644"_ckn);
  EXPECT_NE("9643"_ckn, "964300"_ckn);
  // A name and a longer one that only adds zero octets are two keys of a collection.
  EXPECT_NE("9643"_ckn.hash(), "964300"_ckn.hash());
}

TEST(Values, StreamFormsNeverShowKeys) {
  const char* clear[] = {"5a4b0011", "5a4b0022", "5a4b0033", "5a4b0044"};
  const StoredKey stored[] = {StoredKey::ofHex(clear[0]), StoredKey::ofHex(clear[1]), StoredKey::ofHex(clear[2]),
                              StoredKey::ofHex(clear[3])};
  const Sak sak{2, "000000000000000000000001"_mi, 3, stored[0], Salt::fromHex("5a4b00550000000000000000")};
  const Cak cak{"abcd"_ckn, stored[1]};
  const std::string all = text(sak) + text(cak) + text(SakDistInfo{1, 0, 3, cipherSuiteGcmAes128, stored[2]}) +
                          text(CakDistInfo{"abcd"_ckn, stored[3]}) + text(SakContext{sak, 0, true, true, false, false});
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(all.find(clear[i]), std::string::npos) << clear[i];
    EXPECT_EQ(all.find(stored[i].storedText().stdString()), std::string::npos) << i;
  }
  EXPECT_EQ(all.find("5a4b0055"), std::string::npos);  // nor the salt
  EXPECT_NE(all.find("ckn=abcd"), std::string::npos);
  EXPECT_NE(all.find("key set"), std::string::npos);
}

TEST(Values, AStoredKeyOpensOnlyForOneCallAndComparesByItsClearOctets) {
  const StoredKey a = StoredKey::ofHex("135bd758b0ee5c11c55ff6ab19fdb199");
  const StoredKey b = StoredKey::ofHex("135BD758B0EE5C11C55FF6AB19FDB199");
  EXPECT_NE(a, b);  // two stored forms of one key differ as text
  EXPECT_TRUE(a.sameKeyAs(b));
  EXPECT_FALSE(a.sameKeyAs(StoredKey::ofHex("135bd758b0ee5c11c55ff6ab19fdb198")));
  EXPECT_FALSE(a.sameKeyAs(StoredKey()));
  EXPECT_TRUE(StoredKey::ofHex("not hex").empty());

  // The text adapter of interfaces that carry keys as text goes the same way.
  EXPECT_EQ(CloakLib::doDecodeKey(CloakLib::doEncodeKey("135BD758B0EE5C11C55FF6AB19FDB199")),
            "135bd758b0ee5c11c55ff6ab19fdb199");
  EXPECT_EQ(CloakLib::doDecodeKey(a.storedText()), "135bd758b0ee5c11c55ff6ab19fdb199");
  // The call gets the clear octets and gives back what it returns.
  EXPECT_EQ(a.withClear([](const KeyBytes& clear) { return bytesToHex(clear); }), "135bd758b0ee5c11c55ff6ab19fdb199");

  // A stored form from elsewhere, or one that was tampered with, opens to nothing.
  std::string tampered = a.storedText().stdString();
  tampered.back() = tampered.back() == '0' ? '1' : '0';
  EXPECT_TRUE(StoredKey::fromStoredText(Zef::String(tampered)).withClear([](const KeyBytes& k) { return k.empty(); }));
  EXPECT_TRUE(StoredKey::fromStoredText("135bd758b0ee5c11c55ff6ab19fdb199").withClear([](const KeyBytes& k) {
    return k.empty();
  }));
}

TEST(NetworkValues, AddressesReadInEveryFormAndIntegersAreInNetworkOrder) {
  const Lanx::EthAddr addr = Lanx::EthAddr::fromText("02:00:00:0a:0b:0c");
  EXPECT_EQ(addr.stringValue(), "02:00:00:0a:0b:0c");
  EXPECT_EQ(Lanx::EthAddr::fromText("0200.000a.0b0c"), addr);
  EXPECT_EQ(Lanx::EthAddr::fromText("02-00-00-0a-0b-0c"), addr);
  EXPECT_LT(Lanx::EthAddr::fromText("02:00:00:0a:0b:0b"), addr);
  EXPECT_THROW(Lanx::EthAddr::fromText("02:00:00:0a:0b"), Zef::RangeException);
  EXPECT_TRUE(Lanx::SubIntfId::isSubIntfId(Lanx::IntfId("eth0.100")));
  EXPECT_FALSE(Lanx::SubIntfId::isSubIntfId(Lanx::IntfId("eth0")));

  Lanx::NetU32 m;
  m.valueIs(0xc0001234u);
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(&m)[0], 0xc0);
  EXPECT_EQ(reinterpret_cast<const uint8_t*>(&m)[3], 0x34);
  EXPECT_EQ(m.value(), 0xc0001234u);
}

// A key server's distributed key is wiped in every copy of it, the actor's and those handed out.
TEST(Entities, WipingTheDistributedKeyWipesEveryCopy) {
  Zef::Ptr<Status> status = Status::StatusIs();
  Zef::Ptr<MkaActorStatus> actor = status->portStatusIs(Lanx::IntfId("eth1"))->actorStatusIs("abcd"_ckn);
  actor->distSakIs(Sak{1, "000000000000000000000001"_mi, 1, StoredKey::ofHex("0102"), {}});
  Sak copy = actor->distSak();
  actor->zeroDistSakKeyForced();
  for (char c : copy.key.storedText()) EXPECT_EQ(c, '\0');
}

}  // namespace
}  // namespace Macsec
