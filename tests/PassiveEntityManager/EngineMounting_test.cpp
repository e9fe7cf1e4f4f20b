// Mount execution where the simulation (which checks the flag letters and types of every request,
// and the close of an agent string without fields) does not look: the parent states that make a
// mount wait, automatic parent mounts and their type assertion, a mount on a closed connection.
#include <gtest/gtest.h>

#include "EngineHarness.h"

namespace Ledra::test {
namespace {

using Qel::MountTable;

// What the peer reports of one path; a field not named is false.
struct SaFlags {
  bool mounted = false;
  bool complete = false;
  bool mountPoint = false;
  bool synced = false;
  bool monitoring = false;
};

class EngineMountingTest : public EngineHarness {
 protected:
  MountTable::PathState state(SaFlags f) {
    MountTable::PathState s;
    s.mountedIs(f.mounted).completeIs(f.complete).mountPointIs(f.mountPoint);
    s.synchronisedIs(f.synced).monitoringIs(f.monitoring).monitoringEidIs(f.monitoring ? 7 : 0);
    return s;
  }
  // The peer reports the root mounted and synchronised; the loop does not run, so the engine
  // stays in its first pass (a profile without groups would complete at the root's answer).
  void rootMounted() {
    agent->pathStateIs(
        "/ledra/Ledra",
        state({.mounted = true, .complete = true, .mountPoint = true, .synced = true}));
  }
};

TEST_F(EngineMountingTest, FailedFirstMountIsReportedAndALaterAttemptClosesTheAgent) {
  startEngine();
  agent->disconnect("gone");
  run();  // the connection is closed: installing a configuration fails at once
  // The engine still holds the closed connection's table.
  std::string const err = stderrOf([&] { engine->doPassiveMount("/ledra/Ledra/f", "r", ""); });
  EXPECT_NE(err.find("/ledra/Ledra/f Error: Hit QEL Exception: connection closed: gone agent: "
                     "agentA"),
            std::string::npos)
      << err;
  stderrOf([&] { engine->doPassiveMount("/ledra/Ledra/f", "f", ""); });
  EXPECT_TRUE(capture.contains(
      "Mount path /ledra/Ledra/fnot mounted likely due to QEL Exception by agent agentA"));
  EXPECT_FALSE(engine->initialized());
}

// Paths are read as entity URIs: a "?" in one, or a path that is no absolute path, is refused
// with the parser's text before anything is recorded or sent.
TEST_F(EngineMountingTest, PathNoEntityUriCanHoldIsReportedAndNothingIsSent) {
  startEngine();
  rootMounted();
  std::size_t const sent = requests().size();
  for (std::string const path : {"/ledra/Ledra/q?flags=w", "http:/x"}) {
    std::string const err = stderrOf([&] { engine->doPassiveMount(path, "r", ""); });
    EXPECT_NE(err.find(path + " Error: Hit QEL Exception: "), std::string::npos) << err;
    EXPECT_FALSE(status->mountReference(path)) << path;
  }
  EXPECT_EQ(requests().size(), sent);
  EXPECT_TRUE(engine->initialized());
}

TEST_F(EngineMountingTest, HybridAgentRemountsWithOtherFlagsAndJustSetsEntityWithSameFlags) {
  profile->hybridMountIs(true);
  entMgr->writeMountsGrantedIs(true);
  dir("h");
  startEngine();
  rootMounted();
  engine->doPassiveMount("/ledra/Ledra/h", "wc", "Qel::Dir");
  // The agent's record names the entity from the first request on, complete or not.
  EXPECT_EQ(status->mountReference("/ledra/Ledra/h")->entity(), dir("h"));
  engine->doPassiveMount("/ledra/Ledra/h", "wci", "Qel::Dir");
  EXPECT_EQ(requests().back(), "/ledra/Ledra/h?flags=winp Qel::Dir");
  std::size_t const sent = requests().size();
  // Same flags, another type: nothing is sent, the entity is set.
  engine->doPassiveMount("/ledra/Ledra/h", "wci", "Other::Type");
  EXPECT_EQ(requests().size(), sent);
  EXPECT_EQ(status->mountReference("/ledra/Ledra/h")->entity(), dir("h"));
}

struct ParentCase {
  SaFlags parent;
  char const* trace;  // empty: the child is mounted
};

class EngineParentStateTest : public EngineMountingTest,
                              public testing::WithParamInterface<ParentCase> {};

TEST_P(EngineParentStateTest, ParentStateDecidesBetweenWaitAndMount) {
  ParentCase const& c = GetParam();
  dir("p/q");
  startEngine();
  rootMounted();
  agent->pathStateIs("/ledra/Ledra/p", state(c.parent));
  engine->doNestedPassiveMount(Mount("/ledra/Ledra/p/q", "Qel::Dir", "r"));
  if (*c.trace == '\0') {
    EXPECT_EQ(requestPaths().back(), "/ledra/Ledra/p/q");
    EXPECT_FALSE(engine->pendingMountProfile("/ledra/Ledra/p/q"));
    return;
  }
  EXPECT_TRUE(capture.contains(c.trace)) << c.trace;
  EXPECT_TRUE(engine->pendingMountProfile("/ledra/Ledra/p/q"));
  EXPECT_EQ(requestPaths().back(), "/ledra/Ledra");
}

INSTANTIATE_TEST_SUITE_P(
    States, EngineParentStateTest,
    testing::Values(
        ParentCase{{.mounted = true, .complete = true, .mountPoint = true},
                   "mount for /ledra/Ledra/p is complete but not synced"},
        ParentCase{{.mounted = true,
                    .complete = true,
                    .mountPoint = true,
                    .synced = true,
                    .monitoring = true},
                   "parent sa /ledra/Ledra/p synced but is monitoring eid=7"},
        ParentCase{{.mounted = true},
                   "parent sa /ledra/Ledra/p not a mountpoint and  unsynchronized"},
        ParentCase{{.mounted = true, .mountPoint = true},
                   "parent sa /ledra/Ledra/p not synced yet "},
        ParentCase{{.mounted = true, .complete = true, .mountPoint = true, .synced = true}, ""}));

TEST_F(EngineMountingTest, ParentProfileOfAnotherTypeIsAProgrammingError) {
  dir("p");
  profile->mountGroupIs("g", 1)->addProfile("/ledra/Ledra/p", "Ledra::Thing", "r");
  startEngine();
  rootMounted();
  EXPECT_DEATH(engine->doNestedPassiveMount(Mount("/ledra/Ledra/p/q", "Qel::Dir", "r")),
               "parentMount.type\\(\\) == \"Qel::Dir\"");
}

}  // namespace
}  // namespace Ledra::test
