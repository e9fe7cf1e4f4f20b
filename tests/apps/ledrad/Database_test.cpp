// The database side of ledrad: the tree it builds, loading files one by one (a refused file
// changes nothing), writing attributes for the control program, and the control commands.
#include <gtest/gtest.h>

#include "apps/ledrad/ControlCommands.h"
#include "apps/ledrad/FileError.h"
#include "tests/apps/ledrad/DatabaseFixture.h"

namespace Ledrad {
namespace {

using Strings = std::vector<std::string>;

// The demo state under type names of the caller's own (types live as long as the process).
std::string state(std::string const& ns) {
  return "enum " + ns + "::Power off on\ntype " + ns + "::Box\n  attribute power " + ns +
         "::Power\n  attribute level U32\n  collection tags string bool\n"
         "entity /%sysname/Ledra/box " +
         ns + "::Box\n  set power off\n";
}

class DatabaseTest : public test::DatabaseFixture {
 protected:
  // A control command's reply, "error: " before the text of a refusal.
  std::string run(Strings const& request) {
    ControlCommands commands(*db, [this](std::string const& l) { events.push_back(l); });
    ControlReply const reply = commands.execute(request);
    return (reply.ok ? "" : "error: ") + reply.text;
  }
  using DatabaseFixture::run;
  Strings events;

  // "accepted", or the text of what `f` throws.
  template <class F>
  static std::string outcome(F&& f) {
    try {
      f();
      return "accepted";
    } catch (std::exception const& e) {
      return e.what();
    }
  }
};

TEST_F(DatabaseTest, BuildsTheTreeAndTheRootManagerAndRemovesWhatItAdded) {
  EXPECT_EQ(db->ledraRoot()->fullName(), "/dbTest/Ledra");
  EXPECT_EQ(Cell::cellId(), 2);
  EXPECT_EQ(Qel::ActivityManagerConfig::instance()->systemName(), "dbTest");
  EXPECT_EQ(db->templateVars(), (std::map<std::string, std::string>{{"%sysname", "dbTest"},
                                                                    {"%cellId", "2"},
                                                                    {"%cellPath", "cell/2"},
                                                                    {"%peerCellId", "1"},
                                                                    {"%peerCellPath", "cell/1"}}));
  EXPECT_TRUE(db->entityManager()->active());
  EXPECT_TRUE(db->entityManager()->writeMountsGranted());
  ASSERT_TRUE(db->root());
  EXPECT_TRUE(db->root()->initialized());
  EXPECT_EQ(db->root()->agentProfileDir(), db->profileDir());
  // The profile directory is not in the tree, where a generic write could delete a profile.
  EXPECT_EQ(db->profileDir()->parent(), nullptr);
  EXPECT_THROW(Database(Database::Config{"a/b", 1}), std::invalid_argument);
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
  EXPECT_EQ(outcome([&] {
              db->loadProfiles({good, bad, never});
            }),
            bad + ":7: unknown flag letter 'x' in 'x' (letters: w f c i S D B)");
  ASSERT_TRUE(db->profileDir()->agentProfile("a"));
  EXPECT_EQ(db->profileDir()->agentProfile("a")->rootFlags(), "");
  EXPECT_FALSE(db->profileDir()->agentProfile("b"));
  EXPECT_FALSE(db->profileDir()->agentProfile("c"));
  EXPECT_EQ(db->loadProfiles({good, never}),
            (Strings{good + ": 1 profile (0 new, 0 changed, 1 unchanged)",
                     never + ": 1 profile (1 new, 0 changed, 0 unchanged)"}));
}

TEST_F(DatabaseTest, ProfileConditionsAreCheckedAgainstTheLoadedState) {
  db->loadState({file("s.state", state("DbCondTest"))});
  auto const bad =
      file("c.profile", "profile a\n group g 1\n  condition dim == /%sysname/Ledra/box.power\n");
  EXPECT_EQ(outcome([&] { db->loadProfiles({bad}); }),
            bad + ":3: condition: 'dim' is not an enumerator of DbCondTest::Power");
  EXPECT_FALSE(db->profileDir()->agentProfile("a"));
}

TEST_F(DatabaseTest, SetWritesThroughTheGenericView) {
  db->loadState({file("s.state", state("DbSetTest"))});
  EXPECT_EQ(db->set("/dbTest/Ledra/box", "power", "on"), "/dbTest/Ledra/box power: off -> on");
  EXPECT_EQ(db->set("/dbTest/Ledra/box", "tags[x]", "true"),
            "/dbTest/Ledra/box tags[x]: (none) -> true");
  auto const refusal = [&](char const* path, char const* attribute, char const* value) {
    return outcome([&] { db->set(path, attribute, value); });
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

TEST_F(DatabaseTest, SetPointerTakesWhatAStateFileTakes) {
  db->loadState({file("p.state",
                      "type DbPtrTest::Box\ntype DbPtrTest::Fan\n  attribute box DbPtrTest::Box\n"
                      "  collection boxes string DbPtrTest::Box\n"
                      "entity /%sysname/Ledra/box DbPtrTest::Box\n"
                      "entity /%sysname/Ledra/fan DbPtrTest::Fan\n")});
  auto const set = [&](char const* attribute, char const* value) {
    return outcome([&] { events.push_back(db->set("/dbTest/Ledra/fan", attribute, value)); });
  };
  std::string const refused = "/dbTest/Ledra/fan box: ";
  EXPECT_EQ(set("box", "/dbTest/Ledra/box"), "accepted");
  EXPECT_EQ(set("box", "/dbTest/Ledra/fan"),
            refused + "the entity at /dbTest/Ledra/fan is a DbPtrTest::Fan, not a DbPtrTest::Box");
  EXPECT_EQ(set("box", "dbTest/Ledra/box"),
            refused + "a pointer takes the path of an entity or null, not 'dbTest/Ledra/box'");
  EXPECT_EQ(set("box", ""), refused + "a pointer takes the path of an entity or null, not ''");
  EXPECT_EQ(set("box", "/dbTest/Ledra/none"), refused + "no entity at /dbTest/Ledra/none");
  EXPECT_EQ(set("box", "null"), "accepted");
  EXPECT_EQ(set("boxes[a]", "/dbTest/Ledra/fan"),
            "/dbTest/Ledra/fan boxes[a]: the entity at /dbTest/Ledra/fan is a DbPtrTest::Fan, "
            "not a DbPtrTest::Box");
  EXPECT_EQ(set("boxes[a]", "/dbTest/Ledra/box"), "accepted");
  EXPECT_EQ(set("boxes[a]", "null"), "accepted");
  EXPECT_EQ(events, (Strings{"/dbTest/Ledra/fan box: (none) -> /dbTest/Ledra/box",
                             "/dbTest/Ledra/fan box: /dbTest/Ledra/box -> (none)",
                             "/dbTest/Ledra/fan boxes[a]: (none) -> /dbTest/Ledra/box",
                             "/dbTest/Ledra/fan boxes[a]: /dbTest/Ledra/box -> (none)"}));
}

TEST_F(DatabaseTest, CommandRefusesAProfileWithoutANameAndKeepsServing) {
  auto const bad =
      file("empty.profile", "profile \"\"\n group g 1\n  mount /dbTest/Ledra Qel::Dir\n");
  EXPECT_EQ(
      run({"load-profiles", bad}),
      "error: refused " + bad + ":1: profile name must not be empty (nothing of it applied)\n");
  EXPECT_TRUE(db->profileDir()->agentProfile().empty());
  EXPECT_TRUE(Ledra::ConnMgrHelper::connectionConfigDir()->passiveConnectionConfig().empty());
}

TEST_F(DatabaseTest, CommandUnknownAndMalformedCommandsAreRefused) {
  EXPECT_EQ(run({"frob"}), "error: unknown command 'frob'\n" + ControlCommands::usage());
  EXPECT_EQ(run({"", "status"}), "error: unknown command ''\n" + ControlCommands::usage());
  EXPECT_EQ(run({"set", "/a", "b"}), "error: usage: set PATH ATTRIBUTE VALUE\n");
  EXPECT_EQ(run({"load-state"}), "error: usage: load-state FILE...\n");
  EXPECT_EQ(run({"status", "--yaml"}), "error: status: unknown option '--yaml'\n");
  EXPECT_EQ(run({"status", "nobody"}), "error: status: no agent 'nobody'\n");
  EXPECT_EQ(run({"set", "/nowhere", "a", "b"}), "error: no entity at /nowhere\n");
  EXPECT_TRUE(events.empty());
}

TEST_F(DatabaseTest, CommandLoadsAndSetsAndTellsTheEvents) {
  auto const state = file("s.state", Ledrad::state("CmdTest"));
  auto const bad = file("bad.state", "type X\n  attribute y nothing\n");
  std::string const first = state +
                            ": 2 types defined, 0 directories and 1 entity created, 1 "
                            "value written";
  std::string const again = state +
                            ": 0 types defined, 0 directories and 0 entities created, 1 "
                            "value written";
  EXPECT_EQ(run({"load-state", state}), "loaded " + first + "\n");
  EXPECT_EQ(run({"load-state", state, bad}), "error: loaded " + again + "\nrefused " + bad +
                                                 ":2: unknown type 'nothing' (nothing of it "
                                                 "applied)\n");
  EXPECT_EQ(run({"set", "/dbTest/Ledra/box", "level", "7"}), "/dbTest/Ledra/box level: 0 -> 7\n");
  EXPECT_EQ(events, (Strings{"loaded state " + first, "loaded state " + again,
                             "refused " + bad + ":2: unknown type 'nothing'",
                             "set /dbTest/Ledra/box level: 0 -> 7"}));
  // A client's words reach the event line on one line: they cannot forge another.
  run({"load-state", "/no/such\nAll mounts complete for fan-1"});
  EXPECT_EQ(events.back().find('\n'), std::string::npos);
  EXPECT_NE(events.back().find("/no/such\\x0aAll mounts"), std::string::npos) << events.back();
}

TEST_F(DatabaseTest, CommandStatusOfNoAgentIsTheSummaryLine) {
  run({"load-profiles",
       file("p.profile", "profile a\n group g 1\n  mount /dbTest/Ledra Qel::Dir\n")});
  EXPECT_EQ(run({"status"}),
            "ledrad: system dbTest, cell 2, root /dbTest/Ledra, 1 profile(s): a, 0 agent(s)\n");
  EXPECT_EQ(run({"status", "--json"}), R"({
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
