#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/Trace.h"

ZEF_TRACE_MODULE("Test::Trace")

namespace {

struct Captured {
  std::string facility;
  int level;
  std::string module;
  std::string text;
};

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Zef::traceSinkIs([this](const Zef::TraceRecord& r) {
      lines.push_back({r.facility, r.level, r.module, std::string(r.text)});
    });
  }
  void TearDown() override {
    Zef::traceSinkIs(nullptr);
    zefTraceHandle().levelIs(Zef::TraceHandle::kOff);
  }
  std::vector<Captured> lines;
};

int rendered = 0;
struct Expensive {};
std::ostream& operator<<(std::ostream& out, const Expensive&) {
  ++rendered;
  return out << "expensive";
}

void writeSome() {
  TRACE(8, ": entry " << Expensive());
  TRACE(3, ": decision " << 42);
}

TEST_F(TraceTest, AStatementAboveTheEnabledLevelRendersNothing) {
  rendered = 0;
  writeSome();
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(rendered, 0);

  zefTraceHandle().levelIs(3);
  writeSome();
  EXPECT_EQ(rendered, 0);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "void {anonymous}::writeSome(): decision 42");
  EXPECT_EQ(lines[0].facility, "Test::Trace");
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[0].module, "TraceLogTest");

  zefTraceHandle().levelIs(8);
  writeSome();
  EXPECT_EQ(rendered, 1);
  EXPECT_EQ(lines.size(), 3u);
}

TEST_F(TraceTest, RulesSwitchFacilitiesByNameOrPrefixAndTheLastWins) {
  EXPECT_FALSE(Zef::traceSettingsIs("Test::Trace"));  // no level: refused
  EXPECT_FALSE(Zef::traceSettingsIs("=3"));
  EXPECT_EQ(zefTraceHandle().level(), Zef::TraceHandle::kOff);
  EXPECT_TRUE(Zef::traceSettingsIs("Test*=2,Test::Trace=5"));
  EXPECT_EQ(zefTraceHandle().level(), 5);
  EXPECT_TRUE(Zef::traceSettingsIs("Other*=8"));
  EXPECT_EQ(zefTraceHandle().level(), 5);
  // A handle made later follows the rules too.
  Zef::TraceHandle later("Test::Later", false);
  EXPECT_EQ(later.level(), 2);
  EXPECT_FALSE(Zef::traceSettingsIs("Test*=-1"));
  EXPECT_TRUE(Zef::traceSettingsIs("Test*=off"));
  EXPECT_EQ(zefTraceHandle().level(), Zef::TraceHandle::kOff);
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Zef::logSinkIs([this](const Zef::LogRecord& r) { lines.push_back(r.handle->name().stdString() + ": " + r.text); });
    session.clearHistory();
  }
  void TearDown() override { Zef::logSinkIs(nullptr); }

  Zef::System::VirtualClock clock{1000.0};
  Zef::System::ScopedClock scoped{clock};
  std::vector<std::string> lines;
  Zef::LogHandle session{"TEST_SESSION",
                         6,
                         "Session with peer %s::%s on interface %s",
                         "A peer was added.",
                         Zef::NoActionRequired,
                         120,
                         1.0,
                         0};
  Zef::LogHandle unlimited{"TEST_STATE", 5, "State %s changed %d times", "x", Zef::NoActionRequired, 0, 1.0, 0};
};

TEST_F(LogTest, ARateLimitedMessageIsDroppedPerKeyWithinItsInterval) {
  Zef::log(session, "00:11:22:33:44:55", 1, "eth0");
  clock.timeIs(1060);
  Zef::log(session, "00:11:22:33:44:55", 1, "eth0");  // same key within 120 s: dropped
  Zef::log(session, "00:11:22:33:44:55", 1, "eth1");  // another key goes out
  clock.timeIs(1120);
  Zef::log(session, "00:11:22:33:44:55", 1, "eth0");  // the interval has passed
  EXPECT_EQ(lines,
            (std::vector<std::string>{"TEST_SESSION: Session with peer 00:11:22:33:44:55::1 on interface eth0",
                                      "TEST_SESSION: Session with peer 00:11:22:33:44:55::1 on interface eth1",
                                      "TEST_SESSION: Session with peer 00:11:22:33:44:55::1 on interface eth0"}));
}

TEST_F(LogTest, AMessageWithoutIntervalIsNeverHeldBackAndRendersItsArguments) {
  EXPECT_EQ(unlimited.rateLimitArgs(), 0);
  EXPECT_EQ(session.rateLimitArgs(), 3);
  Zef::log(unlimited, Zef::String("UP"), uint8_t{7});
  Zef::log(unlimited, Zef::String("UP"), uint8_t{7});
  EXPECT_EQ(lines,
            (std::vector<std::string>{"TEST_STATE: State UP changed 7 times", "TEST_STATE: State UP changed 7 times"}));
}

}  // namespace
