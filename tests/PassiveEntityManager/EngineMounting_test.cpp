// Mount execution (the simulation checks the flag letters and types of every request): repeated
// and hybrid mounts; the parent states that make a
// mount wait; automatic parent mounts; the table of mount paths; the agent's template values.
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

TEST_F(EngineMountingTest, UnchangedMountIsServedAndCompletesTheReference) {
  dir("a");
  startEngine();
  rootMounted();
  engine->doPassiveMount("/ledra/Ledra/a", "r", "");
  std::size_t const sent = requests().size();
  engine->doPassiveMount("/ledra/Ledra/a", "r", "");
  EXPECT_EQ(requests().size(), sent);
  EXPECT_TRUE(status->mountReference("/ledra/Ledra/a")->complete());
  EXPECT_EQ(agent->demuxer()->pathServed("/ledra/Ledra/a"), true);
  // A path mounted "C" counts as unchanged for a later mount without 'w'.
  engine->doPassiveMount("/ledra/Ledra/a", "i", "");
  EXPECT_EQ(requests().size(), sent);
}

TEST_F(EngineMountingTest, HybridAgentRemountsWithOtherFlagsAndJustSetsEntityWithSameFlags) {
  profile->hybridMountIs(true);
  entMgr->writeMountsGrantedIs(true);
  dir("h");
  startEngine();
  rootMounted();
  engine->doPassiveMount("/ledra/Ledra/h", "wc", "Qel::Dir");
  engine->doPassiveMount("/ledra/Ledra/h", "wci", "Qel::Dir");
  expectTraced({"Already mounted entity for /ledra/Ledra/h", "Hence remounting."});
  EXPECT_EQ(requests().back(), "/ledra/Ledra/h?flags=winp Qel::Dir");
  EXPECT_TRUE(status->mountReference("/ledra/Ledra/h")->complete());
  std::size_t const sent = requests().size();
  // Same flags, another type: nothing is sent, the entity is set.
  engine->doPassiveMount("/ledra/Ledra/h", "wci", "Other::Type");
  EXPECT_TRUE(capture.contains(
      "Hybrid mount already mount entity for /ledra/Ledra/h with the same flag 0x"));
  EXPECT_EQ(requests().size(), sent);
  EXPECT_EQ(status->mountReference("/ledra/Ledra/h")->entity(), dir("h"));
}

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

TEST_F(EngineMountingTest, ReferenceToAnEntityCutOffFromTheTreeIsNoCompleteMount) {
  auto const ref = status->mountReferenceIs("/ledra/Ledra/o");
  ref->entityIs(dir("o"));
  ref->completeIs(true);
  startEngine();
  rootMounted();
  engine->doNestedPassiveMount(Mount("/ledra/Ledra/o", "Qel::Dir", "r"));
  EXPECT_TRUE(capture.contains("mount already complete for /ledra/Ledra/o"));
  root->entryDel("o");
  capture.clear();
  stderrOf([&] { engine->doNestedPassiveMount(Mount("/ledra/Ledra/o", "Qel::Dir", "r")); });
  EXPECT_EQ(capture.count("mount reference holding orphaned entity: o"), 1u);
  EXPECT_FALSE(capture.contains("mount already complete"));
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
        ParentCase{{.mounted = true},
                   "parent sa /ledra/Ledra/p not a mountpoint and  unsynchronized"},
        ParentCase{{.mounted = true,
                    .complete = true,
                    .mountPoint = true,
                    .synced = true,
                    .monitoring = true},
                   "parent sa /ledra/Ledra/p synced but is monitoring eid=7"},
        ParentCase{{.mounted = true, .mountPoint = true},
                   "parent sa /ledra/Ledra/p not synced yet "},
        ParentCase{{.mounted = true, .complete = true, .mountPoint = true, .synced = true}, ""}));

TEST_F(EngineMountingTest, ParentWithoutMountIsMountedFromItsProfileFirst) {
  dir("p/q");
  profile->mountGroupIs("g", 1)->addProfile("/ledra/Ledra/p", "Qel::Dir", "r");
  startEngine();
  rootMounted();
  engine->doNestedPassiveMount(Mount("/ledra/Ledra/p/q", "Qel::Dir", "r"));
  expectTraced(
      {"no sa for /ledra/Ledra/p auto mounting", "no sa for parent, mount profile found "});
  EXPECT_EQ(requestPaths().back(), "/ledra/Ledra/p");
  EXPECT_TRUE(engine->pendingMountProfile("/ledra/Ledra/p/q"));
}

TEST_F(EngineMountingTest, ParentProfileOfAnotherTypeIsAProgrammingError) {
  dir("p");
  profile->mountGroupIs("g", 1)->addProfile("/ledra/Ledra/p", "Ledra::Thing", "r");
  startEngine();
  rootMounted();
  EXPECT_DEATH(engine->doNestedPassiveMount(Mount("/ledra/Ledra/p/q", "Qel::Dir", "r")),
               "parentMount.type\\(\\) == \"Qel::Dir\"");
}

TEST_F(EngineMountingTest, WholePathIsMountedWithInstantiatingFlags) {
  dir("x");
  startEngine();
  rootMounted();
  engine->doNestedPassiveMount(Mount("/ledra/Ledra/x/y/z", "Ledra::Thing", "wc"));
  expectTraced({"mounting the entire path with instantiating flag",
                "Component y not found in /ledra/Ledra/x", "final component name is z",
                "/ledra/Ledra already mounted "});
  // x stands and is mounted as the creating child needs it; y does not and is instantiated.
  EXPECT_EQ(requests(),
            (std::vector<std::string>{"/ledra/Ledra?flags=Cnp", "/ledra/Ledra/x?flags=Cnp Qel::Dir",
                                      "/ledra/Ledra/x/y?flags=wnp Qel::Dir"}));
  EXPECT_TRUE(engine->pendingMountProfile("/ledra/Ledra/x/y/z"));
}

TEST_F(EngineMountingTest, MountPathsAreExpandedAndCreatingMountsGetAWritableParent) {
  dir("cell/1");
  profile->templateKeyIs(1, "%slot");
  status->agentStringIs("agentA-7");
  auto g = profile->mountGroupIs("g", 1);
  g->addProfile("/ledra/Ledra/cell/1/%slot", "Ledra::Thing", "wc");
  g->addProfile("/ledra/Ledra/cell/1", "Qel::Dir", "r");
  // An entry already present keeps its flags.
  dir("a");
  profile->mountGroupIs("g1", 1)->addProfile("/ledra/Ledra/a", "Qel::Dir", "r");
  profile->mountGroupIs("g2", 2)->addProfile("/ledra/Ledra/a", "Qel::Dir", "w");
  startEngine();
  ASSERT_NE(engine->allMountPaths("/ledra/Ledra/cell/1/7"), nullptr);
  ASSERT_NE(engine->allMountPaths("/ledra/Ledra/cell/1"), nullptr);
  EXPECT_EQ(engine->allMountPaths("/ledra/Ledra/cell/1/7")->type(), "Ledra::Thing");
  EXPECT_EQ(engine->allMountPaths("/ledra/Ledra/cell/1")->flags(), "rw");
  expectTraced({"Adding path  /ledra/Ledra/cell/1/7 to allMountPaths ",
                "upgrading flags for /ledra/Ledra/cell/1 from r to rw"});
  EXPECT_EQ(*status->templateCache("/ledra/Ledra/cell/1/%slot"), "/ledra/Ledra/cell/1/7");
  EXPECT_TRUE(capture.contains("not upgrading flags for /ledra/Ledra/a from "));
  EXPECT_EQ(engine->allMountPaths().size(), 3u);
}

// --- template values from the agent string

class EngineTemplateTest : public EngineHarness {};

TEST_F(EngineTemplateTest, FieldsFollowKeyPositionsAndDollarTakesTheRest) {
  profile->templateKeyIs(2, "%rest$");
  profile->templateKeyIs(1, "%slot");
  profile->aliasKeyIs(" %s ", " %slot");
  status->agentStringIs("agentA-3-x-y");
  startEngine();
  EXPECT_EQ(*status->templateValueDict("%slot"), "3");
  EXPECT_EQ(*status->templateValueDict("%rest"), "x-y");
  EXPECT_EQ(*status->templateValueDict("%s"), "3");
  expectTraced({"Matching till EOL %rest", "template val %slot val - 3",
                "setting alias key %s to 3", "agentTmpString : agentA-3-x-y"});
}

TEST_F(EngineTemplateTest, WithoutTemplateKeysTheAliasKeysAreNotSet) {
  profile->aliasKeyIs("%c", "%cellId");
  status->agentStringIs("agentA-3");
  startEngine();
  EXPECT_TRUE(capture.contains("agent has no template keys"));
  EXPECT_FALSE(status->templateValueDict("%c"));
  EXPECT_FALSE(capture.contains("setting alias key"));
}

TEST_F(EngineTemplateTest, MissingFieldIsEmptyAndNoFieldAtAllClosesTheAgent) {
  profile->templateKeyIs(1, "%slot");
  profile->templateKeyIs(2, "%bay");
  status->agentStringIs("agentA-3");
  startEngine();
  EXPECT_EQ(*status->templateValueDict("%bay"), "");
  EXPECT_TRUE(capture.contains("setting template key %bay to empty string"));
  EXPECT_TRUE(engine->initialized());
}

TEST_F(EngineTemplateTest, AgentStringWithoutFieldsClosesTheAgent) {
  profile->templateKeyIs(1, "%slot");
  status->agentStringIs("agentA");
  profile->mountGroupIs("g", 1)->addProfile("/ledra/Ledra/%slot", "Qel::Dir", "r");
  std::string const err = stderrOf([&] { startEngine(); });
  EXPECT_TRUE(capture.contains("No template value found for %slot"));
  EXPECT_NE(err.find("Processed an invalid mount profile. No template value found for %slot"),
            std::string::npos);
  EXPECT_FALSE(engine->initialized());
  EXPECT_TRUE(requests().empty());
  run();
  EXPECT_FALSE(agent->connected());
}

}  // namespace
}  // namespace Ledra::test
