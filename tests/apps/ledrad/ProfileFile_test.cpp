// The profile file format: every field, every refusal with its file, line and reason, and
// applying a file to the profile directory (a second time it changes nothing).
#include "apps/ledrad/ProfileFile.h"

#include <gtest/gtest.h>

#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/Reflection/DynamicEntity.h"
#include "apps/ledrad/FileError.h"
#include "tests/support/LeakCheck.h"

namespace Ledrad {
namespace {

using Strings = std::vector<std::string>;

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

// The file's text, or the FileError it raises.
template <class F>
std::string outcome(F&& f) {
  try {
    f();
    return "accepted";
  } catch (FileError const& e) {
    return e.what();
  }
}

struct Refusal {
  char const* text;
  int line;
  char const* reason;
};

class ProfileFileRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(ProfileFileRefusal, NamesFileLineAndReason) {
  try {
    ProfileFile::parse(GetParam().text, "bad.profile");
    ADD_FAILURE() << "accepted";
  } catch (FileError const& e) {
    EXPECT_EQ(e.texts().front(),
              "bad.profile:" + std::to_string(GetParam().line) + ": " + GetParam().reason);
  }
}

// Every bad line is told once; the lines that belong to a refused profile or group line are
// passed over, and a profile whose only group was refused is not told again as groupless.
TEST(ProfileFileParse, TellsEveryProblemOnceAndPassesOverWhatARefusedLineHolds) {
  char const* const text =
      "profile a\n"
      "  bogus 1\n"
      "  group g 0\n"
      "    mount /x Qel::Dir\n"
      "profile a\n"
      "  group h 1\n"
      "    mount /y Qel::Dir q\n"
      "profile b\n"
      "  group g 1\n"
      "    mount /p Demo::Leaf\n"
      "    mount /p/q Demo::Leaf\n"
      "    condition 1 ~ /p.x\n"
      "profile c\n";
  EXPECT_EQ(outcome([&] { ProfileFile::parse(text, "f"); }),
            "f:2: unknown keyword 'bogus'\n"
            "f:3: priority must be a whole number from 1 to 99, not '0'\n"
            "f:5: profile 'a' is defined twice (first at line 1)\n"
            "f:12: condition: unknown operator '~' (one of == != <= >= < > in notin)\n"
            "f:10: mount '/p' of type 'Demo::Leaf' holds the mount '/p/q' (line 11); a parent "
            "mount must be of type Qel::Dir\n"
            "f:13: profile 'c' has no mount group");
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Lines, ProfileFileRefusal, ::testing::Values(
  Refusal{"group g 1\n", 1, "'group' outside a profile"},
  Refusal{"profile a/b\n", 1, "profile name 'a/b' may not hold '/'"},
  Refusal{"profile \"a b\"\n", 1, "profile name 'a b' may not hold blanks or control characters"},
  Refusal{"profile a\n group g 100\n", 2, "priority must be a whole number from 1 to 99, not '100'"},
  Refusal{"profile a\n group g 1\n group g 2\n", 3, "group 'g' is defined twice in profile 'a' (first at line 2)"},
  Refusal{"profile a\n group g 1\n rootFlags N\n", 3, "profile setting 'rootFlags' must come before the first group of profile 'a'"},
  Refusal{"profile a\n rootFlags N\n rootFlags N\n", 3, "rootFlags is set twice in profile 'a'"},
  Refusal{"profile a\n rootFlags x\n", 2, "unknown root flag letter 'x' in 'x' (letters: w f c i S N)"},
  Refusal{"profile a\n hybridMount yes\n", 2, "'yes' is not a boolean (true or false)"},
  Refusal{"profile a\n templateKey 1 %\n", 2, "template key '%' must begin with '%' and name a key"},
  Refusal{"profile a\n templateKey 1 %a-b\n", 2, "template key '%a-b' may not hold '/', '-' or a second '%'"},
  Refusal{"profile a\n templateKey 1 %k\n templateKey 1 %j\n", 3, "template key position 1 is used twice"},
  Refusal{"profile a\n aliasKey %s k\n", 2, "alias target 'k' must begin with '%' and name a key"},
  Refusal{"profile a\n group g 1\n  mount a Qel::Dir\n", 3, "mount path 'a' does not begin with '/'"},
  Refusal{"profile a\n group g 1\n  mount /a/ Qel::Dir\n", 3, "mount path '/a/' ends with '/'"},
  Refusal{"profile a\n group g 1\n  mount /a Qel:Dir\n", 3, "mount type 'Qel:Dir' must be identifiers (a letter or '_' followed by letters, digits or '_') joined by '::'"},
  Refusal{"profile a\n group g 1\n  mount /a T\n  mount /a T w\n", 4, "mount path '/a' is listed twice in group 'g' (first at line 3)"},
  Refusal{"profile a\n group g 1\n  mount /a T\n group h 2\n  mount /a/b T\n", 3,
          "mount '/a' of type 'T' holds the mount '/a/b' (line 5); a parent mount must be of type Qel::Dir"},
  Refusal{"profile a\n group g 1\n  templateCondition %a < 1\n", 3, "template condition operator '<' is not one of == != in notin"},
  Refusal{"profile \"a\\qb\"\n", 1, "unknown escape \\q in quoted text"}));
// clang-format on

// "priority [blocking] {entire condition} [condition]... | mount path type flags...".
std::string describe(Ledra::PassiveMountGroup::Ptr const& g) {
  if (!g) return "no group";
  std::string out = std::to_string(g->priority()) + (g->blockingConditional() ? " blocking" : "") +
                    " {" + g->entireCondition() + "}";
  for (Qel::U32 i = 0; i < g->conditionCols(); ++i)
    out += " [" + *g->conditionCol(i) + "]";
  for (auto const& [path, mount] : g->mountProfile())
    out += " | " + mount.path() + " " + mount.type() + " " + mount.flags();
  return out;
}

class GroupCounter : public Ledra::PassiveAgentProfile::NotifieeConst {
 public:
  Strings seen;
  void onMountGroup(Qel::Name const& name) override { seen.push_back(name); }
  void onRootFlags() override { seen.push_back("rootFlags"); }
};

// An empty profile directory.
class ProfileFileTest : public Ledra::test::LeakCheckedTest {
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

TEST_F(ProfileFileTest, ReadsAndAppliesEveryField) {
  ProfileFile const pf = ProfileFile::parse(kFull, "full.profile");
  StagedProfile const& staged = pf.profiles()[0];
  EXPECT_EQ(staged.line, 2);
  EXPECT_EQ(staged.groups[0].mounts[1].line, 13);
  EXPECT_EQ(staged.groups[1].conditionLines, (std::vector<int>{16, 17}));
  EXPECT_EQ(pf.applyTo(*dir_).profilesCreated, 2u);
  auto p = dir_->agentProfile("fan-");
  ASSERT_TRUE(p);
  EXPECT_EQ(p->rootFlags(), "N");
  EXPECT_TRUE(p->noDefaultMountGroup() && p->hybridMount() && p->lowMountPrio());
  EXPECT_EQ(*p->templateKey(1) + " " + *p->templateKey(2), "%slot %rest$");
  EXPECT_EQ(*p->aliasKey("%s"), "%slot");
  EXPECT_EQ(p->mountGroups(), 2u);
  EXPECT_EQ(describe(p->mountGroup("base")),
            "10 {} | /%sysname/Ledra/hw Qel::Dir  | /%sysname/Ledra/hw/fan/%slot Demo::Fan wi");
  // Without an entireCondition line the conditions joined make the group's whole condition.
  EXPECT_EQ(describe(p->mountGroup("late")),
            "20 blocking {on == /%sysname/Ledra/hw/chassis.power && 2 <= len( "
            "/%sysname/Ledra/hw/chassis.ready )} [on == /%sysname/Ledra/hw/chassis.power] [2 <= "
            "len( /%sysname/Ledra/hw/chassis.ready )] | /%sysname/Ledra/status/%slot "
            "Demo::Status wc");
  auto const late = p->mountGroup("late");
  EXPECT_EQ(late->templateConditionCol("%slot != NULL"), std::optional<bool>(true));
  EXPECT_EQ(late->templateConditionCol("%slot notin 9"), std::optional<bool>(true));
  EXPECT_EQ(describe(dir_->agentProfile("other")->mountGroup("only")),
            "99 {everything} [1 == /x.y] | /a Qel::Dir fwciSDB");
  EXPECT_FALSE(dir_->agentProfile("other")->noDefaultMountGroup());
  // The same file again changes nothing: no group is replaced, nobody is told.
  GroupCounter counter;
  counter.notifierIs(p);
  auto const base = p->mountGroup("base");
  EXPECT_EQ(pf.applyTo(*dir_).profilesUnchanged, 2u);
  EXPECT_TRUE(counter.seen.empty());
  EXPECT_EQ(p->mountGroup("base"), base);
}

}  // namespace
}  // namespace Ledrad
