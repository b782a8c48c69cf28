#include "hw/POSTSm.h"

#include <cstdio>
#include <cstring>

#include "model/Crypto.h"
#include "model/LogMessages.h"
#include "platform/Clock.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Macsec::POSTSm")

namespace Macsec {

namespace {

constexpr uint16_t kEapolEthType = 0x888E;
constexpr uint8_t kPaeGroupAddress[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x03};
constexpr size_t kAddresses = 12;  // destination and source, before the test data
constexpr size_t kShortestTestFrame = 28;

const char* directionOf(bool encrypt) { return encrypt ? "encryption" : "decryption"; }

}  // namespace

void POSTSm::handleInitialized() {
  TRACE(8, ": intf " << intfId());
  // The test's own access point on the interface, for EAPOL frames.
  desiredIntfDirIs(Interface::PamDesiredIntfDir::PamDesiredIntfDirIs("desiredIntfDir"));
  desiredIntfDir()->intfDesiredIs(intfId(), true);
  pamCollectionIs(Interface::EthDevPamCollection::EthDevPamCollectionIs("pamCollection"));
  pamManIs(Interface::EthDevPamManager::EthDevPamManagerIs(desiredIntfDir(), pamCollection(), deviceIntfStatusDir()));
  pamMan()->ethProtocolIs(kEapolEthType);
  pamMan()->enabledIs(true);
  intfPamIs(pamCollection()->pam(intfId()));
  postTimerIs(timerWheel());
  initializedIs(true);
  startTests();
}

void POSTSm::startTests() {
  TRACE(2, "startTests " << intfId());
  postTimer()->timeMinIs(Zef::System::currentTime() + timeoutDelay());
  cpStatus()->postStatusIs(postTesting128Encryption);
}

void POSTSm::handleHwPostStatus() {
  if (!initialized() || cpStatus()->postStatus() == postFailed) return;
  const POSTStage stage = hwStatus()->hwPostStatus();
  TRACE(2, "handleHwPostStatus " << intfId() << " hwPostStatus is: " << stage);
  // The hardware is set up for a test: its frame goes out. After a reset for a retry, the tests
  // start again.
  if (const std::optional<POSTTest> test = postTestOf(stage)) {
    txTestPkt(test->suite, test->encrypt);
  } else if (stage == postRetry) {
    startTests();
  }
}

void POSTSm::txTestPkt(CryptoLibCipherSuite cipher, bool encrypt) {
  if (!initialized()) return;
  TRACE(8, intfId() << ": sending a POST packet with cipher " << static_cast<unsigned>(cipher));
  // The encryption test sends the plain frame, the decryption test the cipher text.
  Zef::String data;
  unsigned int length = 0;
  selfTestPktData(encrypt ? cryptoLibPlainText : cipher, data, length);
  postInfoIs(POSTInfo{0, encrypt, static_cast<uint32_t>(cipher)});
  const Zef::Ptr<Lanx::Pkt> pkt = Lanx::globalPktManager().newPkt();
  uint8_t* frame = pkt->newHeadData(kAddresses + length);
  std::memcpy(frame, kPaeGroupAddress, 6);
  const Zef::Ptr<Interface::EthIntfStatus const> eth = ethIntfStatusDir()->intfStatus(intfId());
  const Lanx::EthAddr source = eth ? eth->addr() : Lanx::EthAddr();
  std::memcpy(frame + 6, source.data(), 6);
  std::memcpy(frame + kAddresses, data.charPtr(), length);
  TRACE(0, "txTestPkt"
               << ": size: " << pkt->size());
  if (intfPam()) intfPam()->txPkt(pkt);
}

void POSTSm::handleReadableCount() {
  if (!initialized()) return;
  // The stage written below can make the device delete this test.
  const Zef::Ptr<POSTSm> self(this);
  TRACE(8, ": intf " << intfId());
  const Zef::Ptr<Lanx::Pkt> pkt = intfPam()->rxPkt();
  if (!pkt) {
    TRACE(3, "Error receiving packet");
    return;
  }
  TRACE(8, "Received packet: " << pkt->stringValue());
  // A foreign frame is dropped; the test goes on waiting for its own.
  if (!isTestPkt(pkt)) {
    TRACE(3, "Received packet is not a POST packet.");
    return;
  }
  if (!verifyTestPkt(pkt)) {
    Zef::log(MACSEC_POST_FAILURE, directionOf(postInfo().encrypt), postInfo().keySize, "unexpected payload", intfId());
    cpStatus()->postStatusIs(postFailed);
    return;
  }
  const POSTStage stage = hwStatus()->hwPostStatus();
  TRACE(2, "hwPostStatus is " << stage);
  switch (stage) {
    case postTesting128Encryption:
      cpStatus()->postStatusIs(postTesting128Decryption);
      break;
    case postTesting128Decryption:
      cpStatus()->postStatusIs(postTesting256Encryption);
      break;
    case postTesting256Encryption:
      cpStatus()->postStatusIs(postTesting256Decryption);
      break;
    case postTesting256Decryption:
      cpStatus()->postStatusIs(postComplete);
      TRACE(2, "POSTSm " << intfId() << " testing is complete.");
      break;
    default:
      break;
  }
}

bool POSTSm::isTestPkt(const Zef::Ptr<Lanx::Pkt>& pkt) {
  const std::string frame = pkt->bytes();
  if (frame.size() < kShortestTestFrame) return false;
  const auto* bytes = reinterpret_cast<const uint8_t*>(frame.data());
  if (std::memcmp(bytes, kPaeGroupAddress, 6) != 0) return false;
  const Zef::Ptr<Interface::EthIntfStatus const> eth = ethIntfStatusDir()->intfStatus(intfId());
  if (!eth || std::memcmp(bytes + 6, eth->addr().data(), 6) != 0) return false;
  return (bytes[12] << 8 | bytes[13]) == kEapolEthType && bytes[14] == 0xAB && bytes[15] == 0xCD;
}

bool POSTSm::verifyTestPkt(const Zef::Ptr<Lanx::Pkt>& pkt) {
  const std::string frame = pkt->bytes();
  const auto* payload = reinterpret_cast<const uint8_t*>(frame.data()) + kAddresses;
  const auto length = static_cast<unsigned int>(frame.size() - kAddresses);
  // An encryption test's frame must come back encrypted, a decryption test's decrypted.
  const bool encrypt = postInfo().encrypt;
  const auto suite = static_cast<CryptoLibCipherSuite>(encrypt ? postInfo().keySize : 0);
  const bool passed = selfTestPktCheck(suite, payload, length);
  char text[64];
  std::snprintf(text, sizeof text, ": %s for %s with AES-GCM-%d key ", passed ? "passed" : "failed",
                directionOf(encrypt), static_cast<int>(postInfo().keySize));
  TRACE(2, "SelfTest-" << intfId() << text);
  return passed;
}

void POSTSm::handleTimer() {
  if (!initialized()) return;
  const Zef::Ptr<POSTSm> self(this);
  if (attemptNumber() < 3) {
    TRACE(2, "handleTimer" << intfId() << " starting retry attempt " << attemptNumber() + 1);
    attemptNumberIs(attemptNumber() + 1);
    // The attempt has its own deadline: hardware that never takes the retry up fails it too,
    // rather than holding the test for good. Taken up, the retry starts the tests and their
    // deadline anew.
    postTimer()->timeMinIs(Zef::System::currentTime() + timeoutDelay());
    cpStatus()->postStatusIs(postRetry);
    return;
  }
  TRACE(0, "handleTimer" << intfId() << " test failed!");
  Zef::log(MACSEC_POST_FAILURE, directionOf(postInfo().encrypt), postInfo().keySize, "timeout", intfId());
  cpStatus()->postStatusIs(postFailed);
}

}  // namespace Macsec
