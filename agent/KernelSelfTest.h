#pragma once

// The kernel data plane's side of the power-on self test, as the hardware emulator is the
// emulated plane's. A test frame for a stage runs the kernel's known-answer test of that key length
// and direction (agent/KernelKnownAnswer.h), once per run of mkad: the kernel's cipher is the same
// for every interface. Only a kernel that gave the known answer gets the test frame back through
// the cipher path; one that did not, or could not be tested, gets back a frame that cannot match,
// so that the self test fails at once and the port stays closed, and the log says why.

#include <functional>
#include <map>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "agent/KernelKnownAnswer.h"
#include "model/HwStatus.h"

namespace Macsec {

class KernelSelfTest {
 public:
  using Runner = std::function<KnownAnswer(int keyBits, bool encrypt)>;
  explicit KernelSelfTest(Zef::Ptr<MacSecIntfStatusPtrDir const> hardware, Runner runner = kernelKnownAnswer)
      : hardware_(std::move(hardware)), runner_(std::move(runner)) {}

  // The engine's self-test loop on the kernel data plane.
  bool frameIs(const Lanx::IntfId& intf, const std::string& frame,
               const std::function<void(const std::string&)>& answer);
  // Each known-answer test run so far, as "passed" or why not; empty before the first.
  nlohmann::json report() const;

 private:
  const KnownAnswer& knownAnswer(int keyBits, bool encrypt);

  Zef::Ptr<MacSecIntfStatusPtrDir const> hardware_;
  Runner runner_;
  std::map<std::pair<int, bool>, KnownAnswer> answers_;
};

}  // namespace Macsec
