// The process's connection status directory and the status record of one connection: appearance
// and departure notified by name, fields notified once per change.
#include <gtest/gtest.h>

#include <vector>

#include "Ledra/ConnMgrHelper.h"
#include "Qel/Exception.h"
#include "support/LeakCheck.h"

namespace {

using Ledra::ConnMgrHelper;
using Ledra::PassiveConnectionStatus;
using Log = std::vector<std::string>;

class ConnectionDirsTest : public Ledra::test::LeakCheckedTest {
 protected:
  void TearDown() override {
    ConnMgrHelper::connectionStatusDir()->passiveConnectionStatusDelAll();
    LeakCheckedTest::TearDown();
  }
};

// Tells appearance from departure the way a watcher must: by looking the name up.
class StatusDirWatch : public Ledra::ConnectionStatusDir::NotifieeConst {
 public:
  Log events;
  void onPassiveConnectionStatus(Qel::Name const& n) override {
    events.push_back((notifier()->passiveConnectionStatus(n) ? "+" : "-") + n);
  }
};

TEST_F(ConnectionDirsTest, StatusRecordsAppearAndLeaveNotifiedByName) {
  auto const& dir = ConnMgrHelper::connectionStatusDir();
  StatusDirWatch watch;
  watch.notifierIs(dir);
  auto record = PassiveConnectionStatus::passiveConnectionStatusNew("agentA");
  dir->passiveConnectionStatusIs(record);
  dir->passiveConnectionStatusIs(record);
  auto created = dir->passiveConnectionStatusIs(Qel::Name("agentB"));
  EXPECT_EQ(dir->passiveConnectionStatusIs(Qel::Name("agentB")), created);
  try {
    dir->passiveConnectionStatusIs(PassiveConnectionStatus::passiveConnectionStatusNew("agentA"));
    ADD_FAILURE() << "a second record under a listed name was taken";
  } catch (Qel::NameInUseException const& e) {
    EXPECT_STREQ(e.what(), "Reinstantiating the connection status with name agentA not allowed");
  }
  dir->passiveConnectionStatusDel("agentA");
  dir->passiveConnectionStatusDel("agentA");
  EXPECT_EQ(watch.events, (Log{"+agentA", "+agentB", "-agentA"}));
}

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

TEST_F(ConnectionDirsTest, StatusRecordFieldsNotifyOncePerChange) {
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
