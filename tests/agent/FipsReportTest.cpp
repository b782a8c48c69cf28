// What the daemon reports of FIPS mode is what the host says, read from a /proc of the test's own.

#include "agent/FipsReport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace Macsec {
namespace {

TEST(FipsReport, TheKernelsModeAndSelfTestAreReadAsTheKernelWritesThem) {
  const std::string root = ::testing::TempDir() + std::to_string(::getpid()) + "-proc";
  ::mkdir(root.c_str(), 0700);
  // Nothing written yet: nothing is claimed.
  nlohmann::json report = fipsReport(true, root);
  EXPECT_EQ(report["requested"], true);
  EXPECT_EQ(report["kernel-fips-mode"], "unknown");
  EXPECT_EQ(report["kernel-gcm-aes-self-test"], "unknown");

  ::mkdir((root + "/sys").c_str(), 0700);
  ::mkdir((root + "/sys/crypto").c_str(), 0700);
  std::ofstream(root + "/sys/crypto/fips_enabled") << "1\n";
  std::ofstream(root + "/crypto")
      << "name         : gcm(aes)\ndriver       : generic-gcm-aesni\nselftest     : passed\n\n"
         "name         : sha256\nselftest     : unknown\n\n"
         "name         : gcm(aes)\ndriver       : gcm_base(ctr(aes-aesni),ghash)\n"
         "selftest     : passed\n";
  report = fipsReport(true, root);
  EXPECT_EQ(report["kernel-fips-mode"], "on");
  EXPECT_EQ(report["kernel-gcm-aes-self-test"], "passed");

  // One implementation registered without its self test is enough to say so; a kernel out of FIPS
  // mode says 0.
  std::ofstream(root + "/sys/crypto/fips_enabled") << "0\n";
  std::ofstream(root + "/crypto", std::ios::app) << "\nname         : gcm(aes)\nselftest     : unknown\n";
  report = fipsReport(false, root);
  EXPECT_EQ(report["kernel-fips-mode"], "off");
  EXPECT_EQ(report["kernel-gcm-aes-self-test"], "not run");
}

}  // namespace
}  // namespace Macsec
