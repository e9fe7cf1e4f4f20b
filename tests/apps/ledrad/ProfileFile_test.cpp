// The profile file format: every field, every refusal with its file, line and reason, and
// applying a file to the profile directory (minimal changes, groups replaced, never deleted).
#include "apps/ledrad/ProfileFile.h"

#include <gtest/gtest.h>

#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/DynamicEntity.h"
#include "apps/ledrad/FileError.h"
#include "support/LeakCheck.h"

namespace Ledrad {
namespace {

constexpr char const* kFull = R"(# every field of the format
profile fan-
  rootFlags N
  noDefaultMountGroup true
  hybridMount true
  lowMountPrio true
  templateKey 1 %slot
  templateKey 2 %rest$
  aliasKey %s %slot

  group base 10
    mount /%sysname/Ledra/hw Qel::Dir
    mount /%sysname/Ledra/hw/fan/%slot Demo::Fan wi
  group late 20
    blocking true
    condition on == /%sysname/Ledra/hw/chassis.power
    condition 2 <= len( /%sysname/Ledra/hw/chassis.ready )
    templateCondition %slot != NULL
    templateCondition %slot notin 9
    mount /%sysname/Ledra/status/%slot Demo::Status "wc"

profile other
  group only 99
    entireCondition everything
    condition 1 == /x.y
    mount /a Qel::Dir fwciSDB
)";

TEST(ProfileFileParse, ReadsEveryField) {
  ProfileFile const pf = ProfileFile::parse(kFull, "full.profile");
  ASSERT_EQ(pf.profiles().size(), 2u);
  StagedProfile const& p = pf.profiles()[0];
  EXPECT_EQ(p.name, "fan-");
  EXPECT_EQ(p.line, 2);
  EXPECT_EQ(p.rootFlags, "N");
  EXPECT_TRUE(p.noDefaultMountGroup);
  EXPECT_TRUE(p.hybridMount);
  EXPECT_TRUE(p.lowMountPrio);
  EXPECT_EQ(p.templateKeys, (std::map<unsigned, std::string>{{1, "%slot"}, {2, "%rest$"}}));
  EXPECT_EQ(p.aliasKeys, (std::map<std::string, std::string>{{"%s", "%slot"}}));
  ASSERT_EQ(p.groups.size(), 2u);
  StagedGroup const& base = p.groups[0];
  EXPECT_EQ(base.name, "base");
  EXPECT_EQ(base.priority, 10u);
  EXPECT_FALSE(base.blocking);
  EXPECT_TRUE(base.conditions.empty());
  EXPECT_EQ(base.entireCondition, "");
  ASSERT_EQ(base.mounts.size(), 2u);
  EXPECT_EQ(base.mounts[0].path, "/%sysname/Ledra/hw");
  EXPECT_EQ(base.mounts[0].type, "Qel::Dir");
  EXPECT_EQ(base.mounts[0].flags, "");
  EXPECT_EQ(base.mounts[1].flags, "wi");
  EXPECT_EQ(base.mounts[1].line, 13);
  StagedGroup const& late = p.groups[1];
  EXPECT_TRUE(late.blocking);
  EXPECT_EQ(late.conditions,
            (std::vector<std::string>{"on == /%sysname/Ledra/hw/chassis.power",
                                      "2 <= len( /%sysname/Ledra/hw/chassis.ready )"}));
  EXPECT_EQ(late.conditionLines, (std::vector<int>{16, 17}));
  // Without an entireCondition line the conditions joined make the group's whole condition.
  EXPECT_EQ(
      late.entireCondition,
      "on == /%sysname/Ledra/hw/chassis.power && 2 <= len( /%sysname/Ledra/hw/chassis.ready )");
  EXPECT_EQ(late.templateConditions,
            (std::map<std::string, bool>{{"%slot != NULL", true}, {"%slot notin 9", true}}));
  EXPECT_EQ(late.mounts[0].flags, "wc");
  StagedGroup const& only = pf.profiles()[1].groups[0];
  EXPECT_EQ(only.priority, 99u);
  EXPECT_EQ(only.entireCondition, "everything");
  EXPECT_EQ(only.mounts[0].flags, "fwciSDB");
}

TEST(ProfileFileParse, EmptyRootFlagsAndCrLfLines) {
  ProfileFile const pf =
      ProfileFile::parse("profile a\r\n  rootFlags\r\n  group g 1\r\n  mount /a Qel::Dir\r\n", "f");
  EXPECT_EQ(pf.profiles()[0].rootFlags, "");
  EXPECT_EQ(pf.profiles()[0].groups[0].mounts[0].type, "Qel::Dir");
}

struct Refusal {
  char const* text;
  char const* error;
};

class ProfileFileRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(ProfileFileRefusal, NamesFileLineAndReason) {
  try {
    ProfileFile::parse(GetParam().text, "bad.profile");
    FAIL() << "accepted";
  } catch (FileError const& e) {
    EXPECT_STREQ(e.what(), GetParam().error);
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Lines, ProfileFileRefusal, ::testing::Values(
  Refusal{"profile a\n  grup g 1\n", "bad.profile:2: unknown keyword 'grup'"},
  Refusal{"group g 1\n", "bad.profile:1: 'group' outside a profile"},
  Refusal{"mount /a Qel::Dir\n", "bad.profile:1: 'mount' outside a group"},
  Refusal{"rootFlags N\n", "bad.profile:1: 'rootFlags' outside a profile"},
  Refusal{"profile\n", "bad.profile:1: expected: profile NAME"},
  Refusal{"profile a b\n", "bad.profile:1: expected: profile NAME"},
  Refusal{"profile a/b\n", "bad.profile:1: profile name 'a/b' may not hold '/'"},
  Refusal{"profile a\n group g 1\n  mount /a T\nprofile a\n",
          "bad.profile:4: profile 'a' is defined twice (first at line 1)"},
  Refusal{"profile a\n", "bad.profile:1: profile 'a' has no mount group"},
  Refusal{"profile a\nprofile b\n group g 1\n", "bad.profile:1: profile 'a' has no mount group"},
  Refusal{"profile a\n group g 0\n", "bad.profile:2: priority must be a whole number from 1 to 99, not '0'"},
  Refusal{"profile a\n group g 100\n", "bad.profile:2: priority must be a whole number from 1 to 99, not '100'"},
  Refusal{"profile a\n group g x\n", "bad.profile:2: priority must be a whole number from 1 to 99, not 'x'"},
  Refusal{"profile a\n group g\n", "bad.profile:2: expected: group NAME PRIORITY"},
  Refusal{"profile a\n group g 1\n group g 2\n",
          "bad.profile:3: group 'g' is defined twice in profile 'a' (first at line 2)"},
  Refusal{"profile a\n group g 1\n rootFlags N\n",
          "bad.profile:3: profile setting 'rootFlags' must come before the first group of profile 'a'"},
  Refusal{"profile a\n rootFlags N\n rootFlags N\n", "bad.profile:3: rootFlags is set twice in profile 'a'"},
  Refusal{"profile a\n rootFlags x\n", "bad.profile:2: unknown root flag letter 'x' in 'x' (letters: w f c i S N)"},
  Refusal{"profile a\n hybridMount yes\n", "bad.profile:2: 'yes' is not a boolean (true or false)"},
  Refusal{"profile a\n lowMountPrio\n", "bad.profile:2: expected: lowMountPrio true|false"},
  Refusal{"profile a\n templateKey x %k\n", "bad.profile:2: template key position must be a whole number, not 'x'"},
  Refusal{"profile a\n templateKey 1 k\n", "bad.profile:2: template key 'k' must begin with '%' and name a key"},
  Refusal{"profile a\n templateKey 1 %\n", "bad.profile:2: template key '%' must begin with '%' and name a key"},
  Refusal{"profile a\n templateKey 1 %a-b\n", "bad.profile:2: template key '%a-b' may not hold '/', '-' or a second '%'"},
  Refusal{"profile a\n templateKey 1 %k\n templateKey 1 %j\n", "bad.profile:3: template key position 1 is used twice"},
  Refusal{"profile a\n templateKey 1 %k\n templateKey 2 %k$\n", "bad.profile:3: template key '%k' is given twice"},
  Refusal{"profile a\n aliasKey s %k\n", "bad.profile:2: alias 's' must begin with '%' and name a key"},
  Refusal{"profile a\n aliasKey %s k\n", "bad.profile:2: alias target 'k' must begin with '%' and name a key"},
  Refusal{"profile a\n aliasKey %s %k\n aliasKey %s %j\n", "bad.profile:3: alias '%s' is given twice"},
  Refusal{"profile a\n group g 1\n  blocking maybe\n", "bad.profile:3: 'maybe' is not a boolean (true or false)"},
  Refusal{"profile a\n group g 1\n  blocking true\n  blocking false\n", "bad.profile:4: blocking is set twice in group 'g'"},
  Refusal{"profile a\n group g 1\n  mount a Qel::Dir\n", "bad.profile:3: mount path 'a' does not begin with '/'"},
  Refusal{"profile a\n group g 1\n  mount /a/ Qel::Dir\n", "bad.profile:3: mount path '/a/' ends with '/'"},
  Refusal{"profile a\n group g 1\n  mount /a\n", "bad.profile:3: expected: mount PATH TYPE [FLAGS]"},
  Refusal{"profile a\n group g 1\n  mount /a T w x\n", "bad.profile:3: expected: mount PATH TYPE [FLAGS]"},
  Refusal{"profile a\n group g 1\n  mount /a \"\"\n", "bad.profile:3: mount type is empty"},
  Refusal{"profile a\n group g 1\n  mount /a T wr\n", "bad.profile:3: unknown flag letter 'r' in 'wr' (letters: w f c i S D B)"},
  Refusal{"profile a\n group g 1\n  mount /a T\n  mount /a T w\n",
          "bad.profile:4: mount path '/a' is listed twice in group 'g' (first at line 3)"},
  Refusal{"profile a\n group g 1\n  mount /a T\n group h 2\n  mount /a/b T\n",
          "bad.profile:3: mount '/a' of type 'T' holds the mount '/a/b' (line 5); a parent mount must be of type Qel::Dir"},
  Refusal{"profile a\n group g 1\n  condition 1 =~ /a.b\n",
          "bad.profile:3: condition: unknown operator '=~' (one of == != <= >= < > in notin)"},
  Refusal{"profile a\n group g 1\n  condition 1.5 == /a.b\n",
          "bad.profile:3: condition: the constant '1.5' holds a dot, which ends a token"},
  Refusal{"profile a\n group g 1\n  condition 1 == /a\n",
          "bad.profile:3: condition: condition '1 == /a' is incomplete (expected CONSTANT OPERATOR [len(] PATH.ATTRIBUTE)"},
  Refusal{"profile a\n group g 1\n  condition 1 == len( /a\n",
          "bad.profile:3: condition: condition '1 == len( /a' is incomplete (expected CONSTANT OPERATOR [len(] PATH.ATTRIBUTE)"},
  Refusal{"profile a\n group g 1\n  condition 1 == a.b\n",
          "bad.profile:3: condition: the entity path 'a' does not begin with '/'"},
  Refusal{"profile a\n group g 1\n  condition\n",
          "bad.profile:3: expected: condition CONSTANT OPERATOR [len(] PATH.ATTRIBUTE"},
  Refusal{"profile a\n group g 1\n  templateCondition %a < 1\n",
          "bad.profile:3: template condition operator '<' is not one of == != in notin"},
  Refusal{"profile a\n group g 1\n  templateCondition %a ==\n",
          "bad.profile:3: template condition '%a ==' needs exactly TEMPLATE OPERATOR VALUE"},
  Refusal{"profile a\n group g 1\n  templateCondition %a == 1\n  templateCondition %a == 1\n",
          "bad.profile:4: template condition '%a == 1' is given twice"},
  Refusal{"profile a\n group g 1\n  entireCondition x\n  entireCondition y\n",
          "bad.profile:4: entireCondition is set twice in group 'g'"},
  Refusal{"profile \"a\n", "bad.profile:1: unterminated quoted text"},
  Refusal{"profile \"a\"b\n", "bad.profile:1: text after a closing quote"},
  Refusal{"profile \"a\\qb\"\n", "bad.profile:1: unknown escape \\q in quoted text"}));
// clang-format on

TEST(ProfileFileLoad, UnreadableFileIsRefusedWithoutLine) {
  try {
    ProfileFile::load("/nonexistent/x.profile");
    FAIL() << "accepted";
  } catch (FileError const& e) {
    EXPECT_EQ(e.line(), 0);
    EXPECT_STREQ(e.what(), "/nonexistent/x.profile: cannot read: No such file or directory");
  }
}

// A run-time type whose attributes exercise every check of the conditions against the tree.
Qel::QelType const* gadgetType() {
  static Qel::QelType const* t = [] {
    Qel::defineEnum("ProfileFileTest::Power", {{"off", 0}, {"on", 1}});
    return Qel::defineType("ProfileFileTest::Gadget", {{"power", "ProfileFileTest::Power"},
                                                       {"count", "U32"},
                                                       {"ready", "bool", "string"},
                                                       {"peer", "Qel::Dir"}});
  }();
  return t;
}

class ProfileFileConditions : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    auto gadget = gadgetType()->newEntity("gadget");
    Qel::globalDir()->dirIs("profileFileTest")->entryIs(gadget);
  }
  void TearDown() override {
    Qel::globalDir()->entryDel("profileFileTest");
    LeakCheckedTest::TearDown();
  }
  static std::string check(std::string const& condition) {
    std::string const text =
        "profile a\n group g 1\n  condition " + condition + "\n  mount /a Qel::Dir\n";
    try {
      ProfileFile::parse(text, "c.profile").checkConditions();
      return "accepted";
    } catch (FileError const& e) {
      return e.what();
    }
  }
};

TEST_F(ProfileFileConditions, AcceptsWhatTheEngineCanWatch) {
  EXPECT_EQ(check("on == /profileFileTest/gadget.power"), "accepted");
  EXPECT_EQ(check("5 < /profileFileTest/gadget.count"), "accepted");
  EXPECT_EQ(check("x in /profileFileTest/gadget.ready"), "accepted");
  EXPECT_EQ(check("2 <= len( /profileFileTest/gadget.ready )"), "accepted");
  EXPECT_EQ(check("0 == /profileFileTest/gadget.peer"), "accepted");
  // An entity that is not there yet is waited for at run time.
  EXPECT_EQ(check("1 == /profileFileTest/absent.count"), "accepted");
}

TEST_F(ProfileFileConditions, RefusesWhatWouldStopTheProcess) {
  EXPECT_EQ(check("1 == /profileFileTest/gadget.nothing"),
            "c.profile:3: condition: the ProfileFileTest::Gadget at /profileFileTest/gadget has no "
            "attribute 'nothing'");
  EXPECT_EQ(check("maybe == /profileFileTest/gadget.power"),
            "c.profile:3: condition: 'maybe' is not an enumerator of ProfileFileTest::Power");
  EXPECT_EQ(check("0 < /profileFileTest/gadget.peer"),
            "c.profile:3: condition: the pointer attribute 'peer' compares only with == and !=");
  EXPECT_EQ(check("x < /profileFileTest/gadget.ready"),
            "c.profile:3: condition: the collection 'ready' compares only with == != in notin or "
            "len(");
  EXPECT_EQ(check("1 == len( /profileFileTest/gadget.count )"),
            "c.profile:3: condition: len( needs a collection, and 'count' is none");
}

TEST_F(ProfileFileConditions, ReservedTemplateKeysAreResolvedOthersSkipped) {
  auto& reserved = Ledra::globalReservedTemplateKeyDict();
  auto const saved = reserved;
  reserved["%sysname"] = "profileFileTest";
  EXPECT_EQ(check("1 == /%sysname/gadget.nothing"),
            "c.profile:3: condition: the ProfileFileTest::Gadget at /profileFileTest/gadget has no "
            "attribute 'nothing'");
  // An agent's own key is known only when the agent connects.
  EXPECT_EQ(check("1 == /profileFileTest/%slot.nothing"), "accepted");
  reserved = saved;
}

class ProfileFileApply : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    dir_ = Ledra::PassiveAgentProfileDir::agentProfileDirNew("profiles");
  }
  void TearDown() override {
    dir_.reset();
    LeakCheckedTest::TearDown();
  }
  Ledra::PassiveAgentProfileDir::Ptr dir_;
};

TEST_F(ProfileFileApply, CreatesProfilesWithEveryField) {
  auto const applied = ProfileFile::parse(kFull, "full.profile").applyTo(*dir_);
  EXPECT_EQ(applied.profilesCreated, 2u);
  auto p = dir_->agentProfile("fan-");
  ASSERT_TRUE(p);
  EXPECT_EQ(p->rootFlags(), "N");
  EXPECT_TRUE(p->noDefaultMountGroup());
  EXPECT_TRUE(p->hybridMount());
  EXPECT_TRUE(p->lowMountPrio());
  EXPECT_EQ(*p->templateKey(2), "%rest$");
  EXPECT_EQ(*p->aliasKey("%s"), "%slot");
  auto late = p->mountGroup("late");
  ASSERT_TRUE(late);
  EXPECT_EQ(late->priority(), 20u);
  EXPECT_TRUE(late->blockingConditional());
  ASSERT_EQ(late->conditionCols(), 2u);
  EXPECT_EQ(*late->conditionCol(0), "on == /%sysname/Ledra/hw/chassis.power");
  EXPECT_EQ(late->templateConditionCol("%slot notin 9"), std::optional<bool>(true));
  ASSERT_NE(late->mountProfile("/%sysname/Ledra/status/%slot"), nullptr);
  EXPECT_EQ(*late->mountProfile("/%sysname/Ledra/status/%slot"),
            Ledra::Mount("/%sysname/Ledra/status/%slot", "Demo::Status", "wc"));
  EXPECT_EQ(dir_->agentProfile("other")->mountGroup("only")->entireCondition(), "everything");
}

class GroupCounter : public Ledra::PassiveAgentProfile::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onMountGroup(Qel::Name const& name) override { seen.push_back(name); }
  void onRootFlags() override { seen.push_back("rootFlags"); }
};

TEST_F(ProfileFileApply, SameFileAgainChangesNothing) {
  ProfileFile const pf = ProfileFile::parse(kFull, "full.profile");
  pf.applyTo(*dir_);
  auto p = dir_->agentProfile("fan-");
  auto base = p->mountGroup("base");
  GroupCounter counter;
  counter.notifierIs(p);
  auto const again = pf.applyTo(*dir_);
  EXPECT_EQ(again.profilesUnchanged, 2u);
  EXPECT_EQ(again.profilesUpdated + again.profilesCreated, 0u);
  EXPECT_TRUE(counter.seen.empty());
  EXPECT_EQ(p->mountGroup("base"), base);
}

TEST_F(ProfileFileApply, ChangedGroupIsReplacedOthersKeptStaleRemoved) {
  ProfileFile::parse(
      "profile a\n rootFlags N\n group keep 1\n  mount /k Qel::Dir\n"
      " group change 2\n  mount /c Qel::Dir\n group drop 3\n  mount /d Qel::Dir\n",
      "one")
      .applyTo(*dir_);
  auto p = dir_->agentProfile("a");
  auto const keep = p->mountGroup("keep");
  auto const change = p->mountGroup("change");
  GroupCounter counter;
  counter.notifierIs(p);
  auto const applied = ProfileFile::parse(
                           "profile a\n group keep 1\n  mount /k Qel::Dir\n"
                           " group change 5\n  mount /c Qel::Dir w\n",
                           "two")
                           .applyTo(*dir_);
  EXPECT_EQ(applied.profilesUpdated, 1u);
  EXPECT_EQ(p->mountGroup("keep"), keep);
  ASSERT_TRUE(p->mountGroup("change"));
  EXPECT_NE(p->mountGroup("change"), change);
  EXPECT_EQ(p->mountGroup("change")->priority(), 5u);
  // The engine holding the old group still reads it as it was.
  EXPECT_EQ(change->priority(), 2u);
  EXPECT_EQ(change->mountProfile("/c")->flags(), "");
  EXPECT_FALSE(p->mountGroup("drop"));
  EXPECT_EQ(p->rootFlags(), "");
  EXPECT_EQ(counter.seen, (std::vector<std::string>{"rootFlags", "drop", "change", "change"}));
}

TEST_F(ProfileFileApply, ProfilesNotInTheFileAreLeftAlone) {
  ProfileFile::parse("profile a\n group g 1\n  mount /a Qel::Dir\n", "one").applyTo(*dir_);
  ProfileFile::parse("profile b\n group g 1\n  mount /b Qel::Dir\n", "two").applyTo(*dir_);
  EXPECT_TRUE(dir_->agentProfile("a"));
  EXPECT_TRUE(dir_->agentProfile("b"));
}

}  // namespace
}  // namespace Ledrad
