#include "model/LogMessages.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Clock.h"

namespace Macsec {
namespace {

TEST(LogMessages, SessionEstablishedIsHeldBackPerPeerAndInterface) {
  Zef::System::VirtualClock clock(50.0);
  Zef::System::ScopedClock scoped(clock);
  std::vector<std::string> lines;
  Zef::logSinkIs([&](const Zef::LogRecord& r) { lines.push_back(r.text); });
  MKA_SESSION_ESTABLISHED.clearHistory();
  Zef::log(MKA_SESSION_ESTABLISHED, "02:00:00:00:00:01", 1, "abcd", "eth1");
  clock.timeIs(100);
  Zef::log(MKA_SESSION_ESTABLISHED, "02:00:00:00:00:01", 1, "abcd", "eth1");
  Zef::log(MKA_SESSION_ESTABLISHED, "02:00:00:00:00:01", 1, "abcd", "eth2");
  Zef::logSinkIs(nullptr);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "MKA session established with peer SCI 02:00:00:00:00:01::1 and CKN abcd on interface eth1",
                       "MKA session established with peer SCI 02:00:00:00:00:01::1 and CKN abcd on interface eth2"}));
}

}  // namespace
}  // namespace Macsec
