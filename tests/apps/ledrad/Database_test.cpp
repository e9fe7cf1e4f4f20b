// The database side of ledrad: the tree it builds, loading files one by one (a refused file
// changes nothing), writing attributes for the control program, and the control commands.
#include <gtest/gtest.h>

#include "apps/ledrad/ControlCommands.h"
#include "apps/ledrad/FileError.h"
#include "tests/apps/ledrad/DatabaseFixture.h"

namespace Ledrad {
namespace {

// The demo state under type names of the caller's own (types live as long as the process).
std::string state(std::string const& ns) {
  return "enum " + ns + "::Power off on\ntype " + ns + "::Box\n  attribute power " + ns +
         "::Power\n  attribute level U32\n  collection tags string bool\n"
         "entity /%sysname/Ledra/box " +
         ns + "::Box\n  set power off\n";
}

class DatabaseTest : public test::DatabaseFixture {};

TEST_F(DatabaseTest, BuildsTheTreeAndTheRootManager) {
  EXPECT_EQ(db->ledraRoot()->fullName(), "/dbTest/Ledra");
  EXPECT_EQ(Cell::cellId(), 2);
  EXPECT_EQ(Qel::ActivityManagerConfig::instance()->systemName(), "dbTest");
  auto const vars = db->templateVars();
  EXPECT_EQ(vars.at("%sysname"), "dbTest");
  EXPECT_EQ(vars.at("%cellId"), "2");
  EXPECT_EQ(vars.at("%peerCellPath"), "cell/1");
  EXPECT_TRUE(db->entityManager()->active());
  EXPECT_TRUE(db->entityManager()->writeMountsGranted());
  ASSERT_TRUE(db->root());
  EXPECT_TRUE(db->root()->initialized());
  EXPECT_EQ(db->root()->agentProfileDir(), db->profileDir());
  // The profile directory is not in the tree, where a generic write could delete a profile.
  EXPECT_EQ(db->profileDir()->parent(), nullptr);
}

TEST_F(DatabaseTest, RefusesASystemNameThatCannotNameADirectory) {
  EXPECT_THROW(Database(Database::Config{"a/b", 1}), std::invalid_argument);
}

TEST_F(DatabaseTest, DestructionRemovesWhatItAddedToTheTree) {
  db->loadState({file("top.state", "dir /elsewhere/x\n")});
  EXPECT_TRUE(Qel::globalDir()->entry("elsewhere"));
  db.reset();
  EXPECT_FALSE(Qel::globalDir()->entry("elsewhere"));
  EXPECT_FALSE(Qel::globalDir()->entry("dbTest"));
}

TEST_F(DatabaseTest, LoadsFilesOneByOneAndStopsAtTheFirstRefusal) {
  auto const good = file("a.profile", "profile a\n group g 1\n  mount /dbTest/Ledra Qel::Dir\n");
  // A valid change of profile a, then a profile b with a mistake on its last line.
  auto const bad = file("b.profile",
                        "profile a\n rootFlags N\n group g 1\n  mount /dbTest/Ledra Qel::Dir\n"
                        "profile b\n group g 1\n  mount /dbTest/Ledra Qel::Dir x\n");
  auto const never = file("c.profile", "profile c\n group g 1\n  mount /dbTest/Ledra Qel::Dir\n");
  try {
    db->loadProfiles({good, bad, never});
    FAIL() << "accepted";
  } catch (FileError const& e) {
    EXPECT_EQ(e.what(), bad + ":7: unknown flag letter 'x' in 'x' (letters: w f c i S D B)");
  }
  ASSERT_TRUE(db->profileDir()->agentProfile("a"));
  EXPECT_EQ(db->profileDir()->agentProfile("a")->rootFlags(), "");
  EXPECT_FALSE(db->profileDir()->agentProfile("b"));
  EXPECT_FALSE(db->profileDir()->agentProfile("c"));
  EXPECT_EQ(db->loadProfiles({good, never}),
            (std::vector<std::string>{good + ": 1 profile (0 new, 0 changed, 1 unchanged)",
                                      never + ": 1 profile (1 new, 0 changed, 0 unchanged)"}));
}

TEST_F(DatabaseTest, LoadsStateWithTemplatePaths) {
  auto const path = file("s.state", state("DbLoadTest"));
  EXPECT_EQ(db->loadState({path}),
            (std::vector<std::string>{path + ": 2 types defined, 0 directories and 1 entity "
                                             "created, 1 value written"}));
  EXPECT_TRUE(Qel::globalDir()->entity("/dbTest/Ledra/box"));
  // Loading it again defines nothing new and creates nothing.
  EXPECT_EQ(db->loadState({path}),
            (std::vector<std::string>{path + ": 0 types defined, 0 directories and 0 entities "
                                             "created, 1 value written"}));
}

TEST_F(DatabaseTest, ProfileConditionsAreCheckedAgainstTheLoadedState) {
  db->loadState({file("s.state", state("DbCondTest"))});
  auto const bad =
      file("c.profile", "profile a\n group g 1\n  condition dim == /%sysname/Ledra/box.power\n");
  try {
    db->loadProfiles({bad});
    FAIL() << "accepted";
  } catch (FileError const& e) {
    EXPECT_EQ(e.what(), bad + ":3: condition: 'dim' is not an enumerator of DbCondTest::Power");
  }
  EXPECT_FALSE(db->profileDir()->agentProfile("a"));
}

TEST_F(DatabaseTest, SetWritesThroughTheGenericView) {
  db->loadState({file("s.state", state("DbSetTest"))});
  EXPECT_EQ(db->set("/dbTest/Ledra/box", "power", "on"), "/dbTest/Ledra/box power: off -> on");
  EXPECT_EQ(db->set("/dbTest/Ledra/box", "tags[x]", "true"),
            "/dbTest/Ledra/box tags[x]: (none) -> true");
  auto refusal = [&](char const* path, char const* attribute, char const* value) {
    try {
      db->set(path, attribute, value);
      return std::string("accepted");
    } catch (std::runtime_error const& e) {
      return std::string(e.what());
    }
  };
  EXPECT_EQ(refusal("/dbTest/Ledra/none", "power", "on"), "no entity at /dbTest/Ledra/none");
  EXPECT_EQ(refusal("/dbTest/Ledra/box", "volume", "1"),
            "DbSetTest::Box at /dbTest/Ledra/box has no attribute 'volume'");
  EXPECT_EQ(refusal("/dbTest/Ledra/box", "tags", "true"),
            "'tags' is a collection: write tags[KEY]");
  EXPECT_EQ(refusal("/dbTest/Ledra/box", "level[x]", "1"), "'level' is no collection");
  EXPECT_EQ(refusal("/dbTest/Ledra/box", "level", "lots"),
            "/dbTest/Ledra/box level: cannot read \"lots\" as U32: not a number");
  EXPECT_EQ(refusal("/dbTest/Ledra/box", "name", "x"),
            "/dbTest/Ledra/box name: attribute name of DbSetTest::Box is read-only");
}

class CommandsTest : public test::DatabaseFixture {
 protected:
  ControlReply run(std::vector<std::string> const& request) {
    ControlCommands commands(*db, [this](std::string const& l) { events.push_back(l); });
    return commands.execute(request);
  }
  std::vector<std::string> events;
};

TEST_F(CommandsTest, UnknownAndMalformedCommandsAreRefused) {
  auto const unknown = run({"frob"});
  EXPECT_FALSE(unknown.ok);
  EXPECT_EQ(unknown.text, "unknown command 'frob'\n" + ControlCommands::usage());
  EXPECT_EQ(run({"set", "/a", "b"}).text, "usage: set PATH ATTRIBUTE VALUE\n");
  EXPECT_EQ(run({"load-state"}).text, "usage: load-state FILE...\n");
  EXPECT_EQ(run({"status", "--yaml"}).text, "status: unknown option '--yaml'\n");
  EXPECT_EQ(run({"status", "nobody"}).text, "status: no agent 'nobody'\n");
  EXPECT_EQ(run({"set", "/nowhere", "a", "b"}).text, "no entity at /nowhere\n");
  EXPECT_TRUE(events.empty());
}

TEST_F(CommandsTest, LoadsAndSetsAndTellsTheEvents) {
  auto const state = file("s.state", Ledrad::state("CmdTest"));
  auto const bad = file("bad.state", "type X\n  attribute y nothing\n");
  auto const loaded = run({"load-state", state});
  EXPECT_TRUE(loaded.ok);
  EXPECT_EQ(loaded.text, "loaded " + state +
                             ": 2 types defined, 0 directories and 1 entity created, 1 value "
                             "written\n");
  auto const refused = run({"load-state", state, bad});
  EXPECT_FALSE(refused.ok);
  EXPECT_EQ(refused.text, "loaded " + state +
                              ": 0 types defined, 0 directories and 0 entities created, 1 value "
                              "written\nrefused " +
                              bad + ":2: unknown type 'nothing' (nothing of it applied)\n");
  auto const set = run({"set", "/dbTest/Ledra/box", "level", "7"});
  EXPECT_TRUE(set.ok);
  EXPECT_EQ(set.text, "/dbTest/Ledra/box level: 0 -> 7\n");
  EXPECT_EQ(events, (std::vector<std::string>{
                        "loaded state " + state +
                            ": 2 types defined, 0 directories and 1 entity created, 1 value "
                            "written",
                        "loaded state " + state +
                            ": 0 types defined, 0 directories and 0 entities created, 1 value "
                            "written",
                        "refused " + bad + ":2: unknown type 'nothing'",
                        "set /dbTest/Ledra/box level: 0 -> 7"}));
}

TEST_F(CommandsTest, StatusOfNoAgentIsTheSummaryLine) {
  file("p.profile", "profile a\n group g 1\n  mount /dbTest/Ledra Qel::Dir\n");
  run({"load-profiles", (dir_ / "p.profile").string()});
  auto const status = run({"status"});
  EXPECT_TRUE(status.ok);
  EXPECT_EQ(status.text,
            "ledrad: system dbTest, cell 2, root /dbTest/Ledra, 1 profile(s): a, 0 agent(s)\n");
  EXPECT_EQ(run({"status", "--json"}).text, R"({
  "system": "dbTest",
  "cell": 2,
  "root": "/dbTest/Ledra",
  "profiles": [
    "a"
  ],
  "agents": []
}
)");
}

}  // namespace
}  // namespace Ledrad
