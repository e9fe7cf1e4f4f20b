// The status record of one connection: fields notified once per change.
#include <gtest/gtest.h>

#include <vector>

#include "Ledra/PassiveConnectionStatus.h"
#include "support/LeakCheck.h"

namespace {

using Ledra::PassiveConnectionStatus;
using Log = std::vector<std::string>;
using PassiveConnectionStatusTest = Ledra::test::LeakCheckedTest;

class RecordWatch : public PassiveConnectionStatus::NotifieeConst {
 public:
  Log events;
  void onAgentName() override { events.push_back("agentName"); }
  void onAgentString() override { events.push_back("agentString"); }
  void onWhiteList() override { events.push_back("whiteList"); }
  void onEstablished() override { events.push_back("established"); }
  void onState() override { events.push_back("state"); }
  // What the record says when it reports connected.
  void onConnected() override {
    events.push_back("connected: established " + std::to_string(notifier()->established()) +
                     " state " + std::to_string(notifier()->state()));
  }
};

TEST_F(PassiveConnectionStatusTest, FieldsNotifyOncePerChange) {
  auto record = PassiveConnectionStatus::passiveConnectionStatusNew("agentA");
  RecordWatch watch;
  watch.notifierIs(record);
  for (int i = 0; i < 2; ++i) {
    record->agentNameIs("agentA");
    record->agentStringIs("agentA slot=3");
    record->whiteListIs(true);
    record->establishedIs(true);
    record->stateIs(PassiveConnectionStatus::kStateConnected);
    record->connectedIs(true);
  }
  EXPECT_EQ(watch.events, (Log{"agentName", "agentString", "whiteList", "established", "state",
                               "connected: established 1 state 2"}));
}

}  // namespace
