#include "agent/KernelSelfTest.h"

#include "agent/DaemonLog.h"
#include "model/Crypto.h"
#include "platform/Log.h"

namespace Macsec {

bool KernelSelfTest::frameIs(const Lanx::IntfId& intf, const std::string& frame,
                             const std::function<void(const std::string&)>& answer) {
  const Zef::Ptr<MacSecIntfStatus const> hw = hardware_->status(intf);
  const std::optional<POSTTest> test = hw ? postTestOf(hw->hwPostStatus()) : std::nullopt;
  std::string back = test ? selfTestLoopedBack(*test, frame) : std::string();
  if (back.empty()) return false;
  const int keyBits = test->suite == cryptoLibGcmAes256 ? 256 : 128;
  if (!knownAnswer(keyBits, test->encrypt).passed) back.back() = static_cast<char>(back.back() ^ 0x01);
  answer(back);
  return true;
}

const KnownAnswer& KernelSelfTest::knownAnswer(int keyBits, bool encrypt) {
  const auto [it, first] = answers_.try_emplace({keyBits, encrypt});
  if (first) {
    it->second = runner_(keyBits, encrypt);
    if (!it->second.passed) Zef::log(MKAD_KERNEL_SELF_TEST_FAILED, it->second.detail);
  }
  return it->second;
}

nlohmann::json KernelSelfTest::report() const {
  nlohmann::json report = nlohmann::json::array();
  for (const auto& [test, answer] : answers_) report.push_back(answer.detail);
  return report;
}

}  // namespace Macsec
