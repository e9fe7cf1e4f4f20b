// The database side of ledrad: the tree it builds, loading files one by one (a refused file
// changes nothing), writing attributes for the control program, and the control commands.
#include <gtest/gtest.h>

#include "Trace/RingDump.h"

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
         "  attribute peer Qel::Dir\n  collection peers string Qel::Dir\n"
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
  Strings events;
};

TEST_F(DatabaseTest, BuildsTheTreeAndTheRootManagerAndRemovesWhatItAdded) {
  EXPECT_EQ(db->ledraRoot()->fullName(), "/dbTest/Ledra");
  EXPECT_EQ(db->templateVars(), (std::map<std::string, std::string>{{"%sysname", "dbTest"},
                                                                    {"%cellId", "2"},
                                                                    {"%cellPath", "cell/2"},
                                                                    {"%peerCellId", "1"},
                                                                    {"%peerCellPath", "cell/1"}}));
  EXPECT_TRUE(db->root()->initialized());
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
  EXPECT_EQ(db->profileDir()->agentProfile("a")->rootFlags(), "");
  EXPECT_FALSE(db->profileDir()->agentProfile("b"));
  EXPECT_FALSE(db->profileDir()->agentProfile("c"));
  EXPECT_EQ(db->loadProfiles({good, never}),
            (Strings{good + ": 1 profile (0 new, 0 changed, 1 unchanged)",
                     never + ": 1 profile (1 new, 0 changed, 0 unchanged)"}));
}

// A profile's conditions are checked against the entities the state has: what the engine can
// watch is accepted (also an entity still absent, or a path known only when an agent connects),
// what would stop the process is refused.
TEST_F(DatabaseTest, ProfileConditionsAreCheckedAgainstTheLoadedState) {
  db->loadState({file("s.state", state("DbCondTest"))});
  std::string const box = "/dbTest/Ledra/box.";
  // clang-format off
  std::pair<std::string, std::string> const cases[] = {
      {"1 == /dbTest/Ledra/absent.level", ""},
      {"1 == /dbTest/Ledra/%n.nothing", ""},
      {"1 == /%sysname/Ledra/box.nothing", "the DbCondTest::Box at /dbTest/Ledra/box has no attribute 'nothing'"},
      {"dim == " + box + "power", "'dim' is not an enumerator of DbCondTest::Power"},
      {"0 < " + box + "peer", "the pointer attribute 'peer' compares only with == and !="},
      {"x < " + box + "tags", "the collection 'tags' compares only with == != in notin or len("},
      {"1 == len( " + box + "level )", "len( needs a collection, and 'level' is none"}};
  // clang-format on
  for (auto const& [condition, reason] : cases) {
    auto const f = file("c.profile", "profile a\n group g 1\n  condition " + condition + "\n");
    EXPECT_EQ(outcome([&] { db->loadProfiles({f}); }),
              reason.empty() ? "accepted" : f + ":3: condition: " + reason);
  }
}

TEST_F(DatabaseTest, SetWritesThroughTheGenericViewOrSaysWhyNot) {
  db->loadState({file("s.state", state("DbSetTest"))});
  auto const set = [&](char const* attribute, char const* value, char const* path = "box") {
    return outcome(
        [&] { events.push_back(db->set(std::string("/dbTest/Ledra/") + path, attribute, value)); });
  };
  std::string const box = "/dbTest/Ledra/box";
  EXPECT_EQ(set("power", "on"), "accepted");
  EXPECT_EQ(set("tags[x]", "true"), "accepted");
  EXPECT_EQ(set("peer", "/dbTest/Ledra"), "accepted");
  EXPECT_EQ(set("peers[a]", "/dbTest/Ledra"), "accepted");
  EXPECT_EQ(set("peer", "null"), "accepted");
  EXPECT_EQ(set("peers[a]", "null"), "accepted");
  EXPECT_EQ(events, (Strings{box + " power: off -> on", box + " tags[x]: (none) -> true",
                             box + " peer: (none) -> /dbTest/Ledra",
                             box + " peers[a]: (none) -> /dbTest/Ledra",
                             box + " peer: /dbTest/Ledra -> (none)",
                             box + " peers[a]: /dbTest/Ledra -> (none)"}));
  EXPECT_EQ(set("power", "on", "none"), "no entity at /dbTest/Ledra/none");
  EXPECT_EQ(set("volume", "1"), "DbSetTest::Box at " + box + " has no attribute 'volume'");
  EXPECT_EQ(set("tags", "true"), "'tags' is a collection: write tags[KEY]");
  EXPECT_EQ(set("level[x]", "1"), "'level' is no collection");
  EXPECT_EQ(set("level", "lots"), box + " level: cannot read \"lots\" as U32: not a number");
  EXPECT_EQ(set("name", "x"), box + " name: attribute name of DbSetTest::Box is read-only");
  EXPECT_EQ(set("peer", "dbTest/Ledra/box"),
            box + " peer: a pointer takes the path of an entity or null, not 'dbTest/Ledra/box'");
  EXPECT_EQ(set("peer", "/dbTest/Ledra/none"), box + " peer: no entity at /dbTest/Ledra/none");
}

TEST_F(DatabaseTest, CommandsLoadSetAndTellTheEventsOrSayWhyNot) {
  auto const state = file("s.state", Ledrad::state("CmdTest"));
  auto const bad = file("bad.state", "type X\n  attribute y nothing\n");
  std::string const first =
      state + ": 2 types defined, 0 directories and 1 entity created, 1 value written";
  std::string const again =
      state + ": 0 types defined, 0 directories and 0 entities created, 1 value written";
  EXPECT_EQ(run({"load-state", state}), "loaded " + first + "\n");
  EXPECT_EQ(run({"load-state", state, bad, state}),
            "error: loaded " + again + "\nrefused " + bad +
                ":2: unknown type 'nothing' (nothing of it applied)\n");
  EXPECT_EQ(run({"set", "/dbTest/Ledra/box", "level", "7"}), "/dbTest/Ledra/box level: 0 -> 7\n");
  EXPECT_EQ(events, (Strings{"loaded state " + first, "loaded state " + again,
                             "refused " + bad + ":2: unknown type 'nothing'",
                             "set /dbTest/Ledra/box level: 0 -> 7"}));
  // A client's words reach the event line on one line: they cannot forge another.
  run({"load-state", "/no/such\nAll mounts complete for fan-1"});
  EXPECT_EQ(events.back(),
            "refused /no/such\\x0aAll mounts complete for fan-1: cannot read: No such file or "
            "directory");
  EXPECT_EQ(run({"frob"}), "error: unknown command 'frob'\n" + ControlCommands::usage());
  EXPECT_EQ(run({"set", "/a", "b", "c", "d"}), "error: usage: set PATH ATTRIBUTE VALUE\n");
  EXPECT_EQ(events.size(), 5u);
  // A folder stands for its state files, in name order; other files are passed over.
  std::filesystem::create_directory(dir_ / "more");
  file("more/b.state", Ledrad::state("CmdTest"));
  file("more/a.state", Ledrad::state("CmdTest"));
  file("more/notes.txt", "not a state file");
  std::filesystem::create_directory(dir_ / "more/c.state");
  std::string const more = (dir_ / "more").string();
  EXPECT_EQ(run({"load-state", more}), "loaded " + more + "/a.state" + again.substr(state.size()) +
                                           "\nloaded " + more + "/b.state" +
                                           again.substr(state.size()) + "\n");
  EXPECT_EQ(run({"load-profiles", more}), more + ": no *.profile file\n");
  // A mount of a type nothing defines yet is applied, and told.
  auto const later = file("later.profile", "profile l\n group g 1\n  mount /l CmdTest::Later\n");
  EXPECT_EQ(run({"load-profiles", later}),
            "loaded " + later + ": 1 profile (1 new, 0 changed, 0 unchanged)\n" + later +
                ":3: warning: mount type 'CmdTest::Later' is not known: no built-in type and no "
                "state loaded so far defines it\n");
  EXPECT_EQ(events.back(), later +
                               ":3: warning: mount type 'CmdTest::Later' is not known: no "
                               "built-in type and no state loaded so far defines it");
  // The trace ring is written where the client says, never over a file that stands.
  std::string const ring = (dir_ / "ring.bin").string();
  EXPECT_EQ(run({"trace", "dump", ring}),
            "trace ring dumped to " + ring + " (read it with ringlog-decode)\n");
  EXPECT_NO_THROW(Trace::RingDump::read(ring));
  EXPECT_EQ(run({"trace", "dump", ring}), "error: trace dump: " + ring + " exists\n");
  EXPECT_EQ(run({"trace", "dump", "ring.bin"}),
            "error: trace dump: 'ring.bin' is no absolute path\n");
}

}  // namespace
}  // namespace Ledrad
