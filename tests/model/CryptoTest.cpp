#include "model/Crypto.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "model/PreparedKeys.h"

namespace Macsec {
namespace {

KeyBytes bytes(const char* hex) {
  KeyBytes out;
  EXPECT_TRUE(hexToBytes(hex, out)) << hex;
  return out;
}

std::string hexOf(const KeyBytes& b) { return bytesToHex(b.data(), b.size()).stdString(); }

TEST(Crypto, TheKeyDerivationFunctionMatchesThePublishedVectors) {
  const KeyBytes context = bytes("01020104");
  EXPECT_EQ(hexOf(kdf(bytes("1ab9024fa04a03feb9024fa04a03fe11"), "HI THERE", context, 128)),
            "b57a0b05f43e9600c3c4d15c1e3c26e8");
  EXPECT_EQ(
      hexOf(kdf(bytes("3946ec36f59017f1267e914abed2dbf6633f52ae7e20309d3eefdda4073adfad"), "HI THERE", context, 256)),
      "0efd01e5b03a0951a6df9bbffe419016ee40fdbfc3335ebf92ea03802214a307");
}

TEST(Crypto, IckAndKekMatchThePublishedVectorsForBothKeyLengths) {
  const KeyBytes cak128 = bytes("135bd758b0ee5c11c55ff6ab19fdb199");
  const KeyBytes ckn128 = bytes("96437a93ccf10d9dfe347846cce52c7d");
  EXPECT_EQ(hexOf(deriveIck(cak128, ckn128, 128)), "8f1c5cb1c8ed2e5f047906e0473aad4d");
  EXPECT_EQ(hexOf(deriveKek(cak128, ckn128, 128)), "8f5a384c15d6ae9302b462e363d03ca6");
  const KeyBytes cak256 = bytes("a29efdb63d6fba73c65daab2295340a837a8886e94a905b5c9c7ef1d9dbb297e");
  const KeyBytes ckn256 = bytes("7888f5d48ba8b24e96bb95bd8c7304ec");
  EXPECT_EQ(hexOf(deriveIck(cak256, ckn256, 256)), "98b8544d7390a41e50ef72e25b4a036523c919e812918871949b48123eab526e");
  EXPECT_EQ(hexOf(deriveKek(cak256, ckn256, 256)), "71340e454c84a1232aa7977d5ed86f78f250f3f9d53584b9337ff0c6dfdc9f96");
  // A short CKN is padded with zeros to sixteen octets, and a long one cut to them.
  EXPECT_EQ(deriveIck(cak128, bytes("abcd"), 128), deriveIck(cak128, bytes("abcd0000000000000000000000000000"), 128));
  EXPECT_EQ(deriveIck(cak128, bytes("96437a93ccf10d9dfe347846cce52c7d0102030405060708"), 128),
            deriveIck(cak128, ckn128, 128));
  // A CAK too short for the key length, or a key length no cipher has, gives no key.
  EXPECT_TRUE(deriveIck(bytes("135bd758"), ckn128, 128).empty());
  EXPECT_TRUE(deriveSak(cak128, bytes("01"), 192).empty());
}

TEST(Crypto, SakMatchesThePublishedVectorsForBothKeyLengths) {
  EXPECT_EQ(hexOf(deriveSak(bytes("135bd758b0ee5c11c55ff6ab19fdb199"),
                            bytes("0102030405060708090a0b0c0d0e0f10cd421cf86ba457938657675b01020304050607080d1f36cf"
                                  "00000001"),
                            128)),
            "045205925831ae59c14550ed59cc003d");
  EXPECT_EQ(hexOf(deriveSak(bytes("a29efdb63d6fba73c65daab2295340a837a8886e94a905b5c9c7ef1d9dbb297e"),
                            bytes("0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f00"
                                  "cd421cf86ba457938657675b01020304050607080d1f36cf00000001"),
                            256)),
            "bb692568b287484a5f3f4793b09732270d13dd818373c15b3f2793fdc1948a37");
}

TEST(Crypto, EapDerivedCakAndCknMatchTheVectorsAndAgreeOnBothEnds) {
  const KeyBytes msk = bytes("e68a1ab90313024fda7a04a03fea010f");
  // The lower address first, so that both ends of the link use the same context.
  const KeyBytes macs = bytes("001b6393fcbc00d0b71a7717");
  EXPECT_EQ(hexOf(deriveCak(msk, macs, 128)), "135bd758b0ee5c11c55ff6ab19fdb199");
  const KeyBytes context = bytes(
      "0dd075693f54b2b2eb01da61f0af5d429b65b1ebcaf536fba350777598571728f630c5c8da5475489ad47b6e3489a97372e5a8fd55061797"
      "2c020d42a3b13a4eae001b6393fcbc00d0b71a7717");
  EXPECT_EQ(hexOf(deriveCkn(msk, 128, context, 128)), "96437a93ccf10d9dfe347846cce52c7d");
  // A key longer than the cipher needs is cut to its first octets.
  EXPECT_EQ(deriveCak(bytes("e68a1ab90313024fda7a04a03fea010fffffffff"), macs, 128), deriveCak(msk, macs, 128));

  // A 256-bit CAK takes the first 32 octets of a 64-octet master session key; its CKN stays 128
  // bits. Computed apart from this code, with AES-CMAC of Python's cryptography package.
  KeyBytes msk64;
  for (uint8_t octet = 0x40; octet < 0x80; ++octet) msk64.append(&octet, 1);
  EXPECT_EQ(hexOf(deriveCak(msk64, macs, 256)), "7dec937123f2650acb40b406370473a759fdf7110d04c94fe71a3495ace56c81");
  EXPECT_EQ(hexOf(deriveCkn(msk64, 256, context, 128)), "99e100adafff62d431b7c6c691486f7d");
}

// Keys made ready once serve frame after frame: each use restarts the context with its key kept,
// wrapping and unwrapping keep apart, and the wrapped form kept for a key is that key's.
TEST(Crypto, PreparedKeysGiveTheRfcResultsOnEveryUse) {
  const KeyBytes message = bytes(
      "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e5130c81c46a35ce411e5fbc1191a0a52ef"
      "f69f2445df4f9b17ad2b417be66c3710");
  const StoredKey kek = StoredKey::ofHex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
  PreparedKeys keys(StoredKey::ofHex("2b7e151628aed2a6abf7158809cf4f3c"), kek);
  uint8_t icv[PreparedKeys::icvSize];
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(keys.icvOf(message.data(), 0, icv));
    EXPECT_EQ(bytesToHex(icv, sizeof icv), "bb1d6929e95937287fa37d129b756746");
    ASSERT_TRUE(keys.icvOf(message.data(), 16, icv));
    EXPECT_EQ(bytesToHex(icv, sizeof icv), "070a16b46b4d4144f79bdd9dd04a287c");
    // A padded last block after whole ones, and whole blocks only.
    ASSERT_TRUE(keys.icvOf(message.data(), 40, icv));
    EXPECT_EQ(bytesToHex(icv, sizeof icv), "dfa66747de9ae63030ca32611497c827");
    ASSERT_TRUE(keys.icvOf(message.data(), 64, icv));
    EXPECT_EQ(bytesToHex(icv, sizeof icv), "51f0bebf7e3b9d92fc49741779363cfe");
  }

  const StoredKey short16 = StoredKey::ofHex("00112233445566778899aabbccddeeff");
  const StoredKey long32 = StoredKey::ofHex("00112233445566778899aabbccddeeff000102030405060708090a0b0c0d0e0f");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(hexOf(keys.wrapped(short16)), "64e8c3f9ce0f5ba263e9777905818a2a93c8191e7d6e8ae7");
    EXPECT_EQ(hexOf(keys.wrapped(long32)),
              "28c9f404c4b810f4cbccb35cfb87f8263f5786e2d80ed326cbc7f0e71a99f43bfb988b9b7a02dd21");
  }
  const KeyBytes wrapped = bytes("64e8c3f9ce0f5ba263e9777905818a2a93c8191e7d6e8ae7");
  // The same octets again give the same key, each time in a stored form of its own: wiping one in
  // place leaves the next.
  for (int round = 0; round < 3; ++round) {
    const StoredKey key = keys.unwrapped(wrapped.data(), wrapped.size());
    EXPECT_TRUE(key.sameKeyAs(short16));
    key.wipeStoredForm();
  }
  KeyBytes tampered = wrapped;
  tampered.data()[5] ^= 1;
  EXPECT_TRUE(keys.unwrapped(tampered.data(), tampered.size()).empty());
  const KeyBytes wrappedLong =
      bytes("28c9f404c4b810f4cbccb35cfb87f8263f5786e2d80ed326cbc7f0e71a99f43bfb988b9b7a02dd21");
  EXPECT_TRUE(keys.unwrapped(wrappedLong.data(), wrappedLong.size()).sameKeyAs(long32));
  EXPECT_TRUE(keys.unwrapped(wrapped.data(), wrapped.size()).sameKeyAs(short16));
  EXPECT_EQ(hexOf(keys.wrapped(short16)), "64e8c3f9ce0f5ba263e9777905818a2a93c8191e7d6e8ae7");
  // A key wiped in place is not sent again from what was kept of it.
  short16.wipeStoredForm();
  EXPECT_TRUE(keys.wrapped(short16).empty());

  // A 256-bit ICK and a 128-bit KEK, as the 256- and 128-bit cipher suites have them.
  PreparedKeys other{StoredKey::ofHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4"),
                     StoredKey::ofHex("000102030405060708090a0b0c0d0e0f")};
  ASSERT_TRUE(other.icvOf(message.data(), 16, icv));
  EXPECT_EQ(bytesToHex(icv, sizeof icv), "28a7023f452e8f82bd4bf28d8c37c35c");
  ASSERT_TRUE(other.icvOf(message.data(), 40, icv));
  EXPECT_EQ(bytesToHex(icv, sizeof icv), "aaf3d8f1de5640c232f5b169b9c911e6");
  EXPECT_EQ(hexOf(other.wrapped(StoredKey::ofHex("00112233445566778899aabbccddeeff"))),
            "1fa68b0a8112b447aef34bd8fb5a7b829d3e862371d2cfe5");

  // Keys that do not open, or of a length the algorithms do not take, serve nothing.
  PreparedKeys none{StoredKey(), StoredKey()};
  EXPECT_FALSE(none.icvOf(message.data(), 16, icv));
  EXPECT_TRUE(none.wrapped(short16).empty());
  PreparedKeys odd{StoredKey::ofHex("2b7e151628aed2a6abf7158809cf4f"), StoredKey::ofHex("0001020304050607")};
  EXPECT_FALSE(odd.icvOf(message.data(), 16, icv));
  EXPECT_TRUE(odd.unwrapped(wrapped.data(), wrapped.size()).empty());
}

// Actors with the same keys share one set of contexts, told by the keys and not by their stored
// forms, which differ between two encodings of one key.
TEST(Crypto, ActorsWithTheSameKeysShareTheirPreparedKeys) {
  SharedPreparedKeys shared;
  const char* ick = "2b7e151628aed2a6abf7158809cf4f3c";
  const char* kek = "000102030405060708090a0b0c0d0e0f";
  std::shared_ptr<PreparedKeys> first = shared.keysFor("aa"_ckn, StoredKey::ofHex(ick), StoredKey::ofHex(kek));
  EXPECT_EQ(shared.keysFor("aa"_ckn, StoredKey::ofHex(ick), StoredKey::ofHex(kek)), first);
  EXPECT_NE(shared.keysFor("bb"_ckn, StoredKey::ofHex(ick), StoredKey::ofHex(kek)), first);
  EXPECT_NE(shared.keysFor("aa"_ckn, StoredKey::ofHex(ick), StoredKey::ofHex("0f0e0d0c0b0a09080706050403020100")),
            first);
  // Once its last actor has let it go, a set is made anew.
  const std::weak_ptr<PreparedKeys> gone = first;
  first.reset();
  EXPECT_TRUE(gone.expired());
  const std::shared_ptr<PreparedKeys> again = shared.keysFor("aa"_ckn, StoredKey::ofHex(ick), StoredKey::ofHex(kek));
  ASSERT_NE(again, nullptr);
  uint8_t icv[PreparedKeys::icvSize];
  EXPECT_TRUE(again->icvOf(reinterpret_cast<const uint8_t*>(""), 0, icv));
}

TEST(Crypto, SaltFollowsTheExtendedPacketNumberLayout) {
  // MI 00112233 44556677 8899aabb, KN 0xccddeeff: top 16 bits 0011^eeff, next 16 2233^ccdd.
  EXPECT_EQ(saltOf("00112233445566778899aabb"_mi, 0xccddeeff).hex(), "eeeeeeee445566778899aabb");
  EXPECT_EQ(saltOf("00112233445566778899aabb"_mi, 0).hex(), "00112233445566778899aabb");
}

TEST(Crypto, RandomOctetsAreOfTheAskedLengthAndDiffer) {
  std::set<std::string> seen;
  for (int i = 0; i < 50; ++i) {
    const KeyBytes id = randomBytes(12);
    ASSERT_EQ(id.size(), 12u);
    seen.insert(hexOf(id));
  }
  EXPECT_EQ(seen.size(), 50u);
}

TEST(Crypto, SelfTestAnswersAreTheAesGcmOfThePlainFrame) {
  Zef::String plain;
  unsigned int plainLength = 0;
  selfTestPktData(cryptoLibPlainText, plain, plainLength);
  ASSERT_EQ(plainLength, 36u);
  const auto* p = reinterpret_cast<const uint8_t*>(plain.charPtr());
  EXPECT_EQ(p[0], 0x88);
  EXPECT_EQ(p[1], 0x8e);
  EXPECT_EQ(p[2], 0xab);
  EXPECT_EQ(p[3], 0xcd);
  uint8_t key[32];
  for (int i = 0; i < 32; ++i) key[i] = static_cast<uint8_t>(i);
  const uint8_t iv[12] = {0xca, 0xfe, 0xba, 0xbe, 0xfa, 0xce, 0xdb, 0xad, 0xde, 0xca, 0xf8, 0x88};
  for (CryptoLibCipherSuite suite : {cryptoLibGcmAes128, cryptoLibGcmAes256}) {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, suite == cryptoLibGcmAes128 ? EVP_aes_128_gcm() : EVP_aes_256_gcm(), nullptr, key, iv);
    uint8_t frame[4 + 32 + 16];
    std::memcpy(frame, p, 4);
    int n = 0;
    EVP_EncryptUpdate(ctx, nullptr, &n, p, 4);
    EVP_EncryptUpdate(ctx, frame + 4, &n, p + 4, 32);
    EVP_EncryptFinal_ex(ctx, frame + 4 + n, &n);
    EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, 16, frame + 36);
    EVP_CIPHER_CTX_free(ctx);
    EXPECT_TRUE(selfTestPktCheck(suite, frame, sizeof frame)) << suite;
    EXPECT_FALSE(selfTestPktCheck(suite, p, plainLength));
    frame[20] ^= 0x40;
    EXPECT_FALSE(selfTestPktCheck(suite, frame, sizeof frame));
  }
  EXPECT_TRUE(selfTestPktCheck(cryptoLibPlainText, p, plainLength));
  EXPECT_FALSE(selfTestPktCheck(cryptoLibPlainText, p, plainLength - 1));

  EXPECT_TRUE(selfTestCipherPath(cryptoLibPlainText, true, p, plainLength).empty());
}

}  // namespace
}  // namespace Macsec
