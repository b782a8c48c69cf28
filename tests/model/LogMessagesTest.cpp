#include "model/LogMessages.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Clock.h"

namespace Macsec {
namespace {

TEST(LogMessages, TheCatalogueHasItsSeveritiesIntervalsAndTexts) {
  struct Row {
    Zef::LogHandle& handle;
    int severity;
    double interval;
    const char* format;
  };
  const std::vector<Row> rows = {
      {MKA_KEY_IN_USE, 5, 0, "Configured key %s currently in use on interface %s"},
      {MKA_FALLBACK_KEY_IN_USE, 4, 0, "Configured fallback key %s currently in use on interface %s"},
      {MKA_UNPROTECTED_TRAFFIC, 4, 0, "MACSec protection is disabled on interface %s"},
      {MKA_CA_CREATED, 6, 120, "Connectivity Association for CKN %s created on interface %s"},
      {MKA_STATE_CHG, 5, 0, "MKA using key %s %s on interface %s"},
      {MKA_SESSION_ESTABLISHED, 6, 120, "MKA session established with peer SCI %s::%s and CKN %s on interface %s"},
      {MKA_SAK_CREATED, 6, 120, "New SAK created with key id ending in %s:%s on interface %s"},
      {MKA_SAK_ACTIVATED, 6, 120, "Activated SAK with key id ending in %s:%s on interface %s"},
      {MACSEC_POST_FAILURE, 3, 0, "Power On Self Test failed for %s with %d-bit key due to %s on interface %s."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.handle.name().stdString());
    EXPECT_EQ(row.handle.severity(), row.severity);
    EXPECT_EQ(row.handle.minInterval(), row.interval);
    EXPECT_EQ(row.handle.format(), row.format);
  }
  EXPECT_EQ(MKA_CA_CREATED.explanation(),
            "CAK-CKN is configured on the interface for security relationship       with other peers");
  EXPECT_EQ(MKA_FALLBACK_KEY_IN_USE.recommendedAction(), "Check the primary key configuration.");
  EXPECT_EQ(MACSEC_POST_FAILURE.recommendedAction(), Zef::CallSupportIfPersists);
}

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
