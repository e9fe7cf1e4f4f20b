// Agent profiles, mount groups and mount profiles: their rules, notifications and error texts.
#include <tuple>

#include <gtest/gtest.h>

#include "EngineHarness.h"
#include "PassiveEntityManager/AgentProfileChoice.h"
#include "PassiveEntityManager/PassiveAgentProfileDir.h"
#include "Qel/Exception.h"
#include "Qel/GenericValue.h"

namespace Ledra {
namespace {

using Strings = std::vector<std::string>;

class GroupWatcher : public PassiveMountGroup::NotifieeConst {
 public:
  Strings seen;
  void onEntireCondition() override { seen.push_back("entireCondition"); }
  void onConditionCol(unsigned index) override {
    seen.push_back("conditionCol " + std::to_string(index));
  }
  void onConditionColqelImmediate() override { seen.push_back("conditionCol immediate"); }
  void onTemplateConditionCol(Qel::String const& key) override {
    seen.push_back("templateConditionCol " + key);
  }
  void onBlockingConditional() override { seen.push_back("blockingConditional"); }
  void onMountProfile(Qel::String const& path) override { seen.push_back("mountProfile " + path); }
};

class ProfileWatcher : public PassiveAgentProfile::NotifieeConst {
 public:
  Strings seen;
  void onMountGroup(Qel::Name const& name) override { seen.push_back("mountGroup " + name); }
  void onRootFlags() override { seen.push_back("rootFlags"); }
  void onLowMountPrio() override { seen.push_back("lowMountPrio"); }
};

// A profile "agent" in the directory "profiles", with a group "g" of priority 5, both watched.
class ProfileTest : public test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    dir = PassiveAgentProfileDir::agentProfileDirNew("profiles");
    profile = dir->agentProfileIs("agent");
    g = profile->mountGroupIs("g", 5);
    pw.notifierIs(profile);
    gw.notifierIs(g);
  }
  void TearDown() override {
    gw.notifierIs(nullptr);
    pw.notifierIs(nullptr);
    g = nullptr;
    profile = nullptr;
    dir = nullptr;
    LeakCheckedTest::TearDown();
  }
  PassiveAgentProfileDir::Ptr dir;
  PassiveAgentProfile::Ptr profile;
  PassiveMountGroup::Ptr g;
  ProfileWatcher pw;
  GroupWatcher gw;
};

TEST_F(ProfileTest, PrioritiesFromOneToNinetyNineAreAccepted) {
  for (Qel::U32 priority : {0u, 1u, 99u, 100u, 4000000000u}) {
    std::string const name = "p" + std::to_string(priority);
    bool const valid = priority >= 1 && priority <= 99;
    try {
      EXPECT_EQ(profile->mountGroupIs(name, priority)->priority(), priority);
      EXPECT_TRUE(valid) << priority << " accepted";
    } catch (Qel::RangeException const& e) {
      EXPECT_FALSE(valid) << priority << " refused";
      EXPECT_STREQ(e.what(), "PassiveMountGroup::priority < 1 or > 99 not allowed");
      EXPECT_FALSE(profile->mountGroup(name));
    }
  }
}

TEST_F(ProfileTest, SameGroupTwiceNotifiesOnceAndOtherPriorityIsNameInUse) {
  auto const g10 = profile->mountGroupIs("g10", 10);
  EXPECT_EQ(profile->mountGroupIs("g10", 10), g10);
  EXPECT_EQ(pw.seen, Strings{"mountGroup g10"});
  EXPECT_EQ(test::errorOf<Qel::NameInUseException>([&] { profile->mountGroupIs("g10", 20); }),
            "Reinstantiating the entity with name g10 where constructor parameter attribute "
            "_priority has a different value of 20 than the current value of 10 not allowed");
  EXPECT_EQ(profile->mountGroup("g10"), g10);
  EXPECT_EQ(g10->priority(), 10u);
}

TEST_F(ProfileTest, AddProfileNotifiesOnlyOnChangeAndReplacesInPlace) {
  g->addProfile("/a", "Qel::Dir", "r");
  g->addProfile("/a", "Qel::Dir", "r");
  g->addProfile("/a", "Qel::Dir", "w");
  EXPECT_EQ(gw.seen, (Strings{"mountProfile /a", "mountProfile /a"}));
  EXPECT_EQ(g->mountProfiles(), 1u);
  EXPECT_EQ(g->mountProfile("/a")->flags(), "w");
  g->mountProfileDel("/a");
  g->mountProfileDel("/a");
  EXPECT_EQ(gw.seen.size(), 3u);
  EXPECT_EQ(g->mountProfile("/a"), nullptr);
}

TEST_F(ProfileTest, ConditionQueueKeepsItsIndicesAndNotifiesTheImmediateReactor) {
  EXPECT_EQ(g->conditionColEnq("c0"), 0u);
  EXPECT_EQ(g->conditionColEnq("c1"), 1u);
  EXPECT_EQ(g->conditionColEnq("c2"), 2u);
  g->conditionColDeq();
  EXPECT_EQ(g->conditionCol(0), nullptr);
  EXPECT_EQ(*g->conditionCol(1), "c1");
  EXPECT_EQ(*g->conditionCol(2), "c2");
  EXPECT_EQ(g->conditionColEnq("c3"), 3u);
  EXPECT_EQ(g->conditionColMetadata(), (Qel::LinkQueueMetadata{1, 4}));
  EXPECT_EQ(gw.seen[0], "conditionCol 0");
  EXPECT_EQ(gw.seen[1], "conditionCol immediate");
  EXPECT_THROW(g->conditionColIs(0, "x"), Qel::RangeException);
}

TEST_F(ProfileTest, EqualStoresNotifyNobody) {
  g->blockingConditionalIs(false);
  g->entireConditionIs("");
  g->templateConditionColIs("%a == b", true);
  g->templateConditionColIs("%a == b", true);
  profile->rootFlagsIs("");
  profile->lowMountPrioIs(true);
  profile->lowMountPrioIs(true);
  EXPECT_EQ(gw.seen, Strings{"templateConditionCol %a == b"});
  EXPECT_EQ(pw.seen, Strings{"lowMountPrio"});
}

TEST_F(ProfileTest, GroupRemovedFromItsProfileStaysReadable) {
  g->addProfile("/x", "Qel::Dir", "r");
  EXPECT_EQ(g->fullName(), "profiles/agent/g");
  profile->mountGroupDel("g");
  EXPECT_EQ(profile->mountGroup("g"), nullptr);
  EXPECT_EQ(g->parent(), nullptr);
  EXPECT_EQ(g->mountProfile("/x")->type(), "Qel::Dir");
  dir->agentProfileDel("agent");
  EXPECT_EQ(profile->parent(), nullptr);
}

TEST_F(ProfileTest, GenericViewWritesByNameButNotTheConstructorAttributes) {
  g->attributeIs("blockingConditional", Qel::String("true"));
  EXPECT_TRUE(g->blockingConditional());
  auto text = [](char const* t) { return Qel::ValueTraits<Qel::String>::box(t); };
  g->invoke("addProfile", {{"path", text("/p")}, {"qelType", text("T")}, {"flags", text("w")}});
  auto m = g->attribute(PassiveMountGroup::kMountProfile, Qel::ValueTraits<Qel::String>::box("/p"));
  EXPECT_EQ(Qel::ValueTraits<Mount>::unbox(m), Mount("/p", "T", "w"));
  EXPECT_EQ(m->qelType()->name(), "Ledra::Mount");
  EXPECT_EQ(g->attributeName(PassiveMountGroup::kAddProfile), "addProfile");
  g->conditionColEnq("a");
  g->conditionColEnq("b");
  g->conditionColDeq();
  EXPECT_EQ(g->attribute(PassiveMountGroup::kConditionColMetadata)->text(), "head 1 next 2");
  EXPECT_THROW(g->attributeIs("priority", Qel::String("3")), Qel::TypeException);
  EXPECT_EQ(test::errorOf<Qel::ConstInstanceException>([&] {
              Qel::Ptr<PassiveMountGroup const>(g)->attributeIs("entireCondition",
                                                                Qel::String("x"));
            }),
            "attempting to modify a const instance");
}

// The profile that serves a name, and whether it is the name's own or a family's (the serving
// profile itself, for every kind of name, is the root's agentProfileFor test).
TEST_F(ProfileTest, TheChoiceSaysWhetherTheOwnOrAFamilyProfileServes) {
  for (char const* name : {"a-", "a-b-", "x-y-3"})
    dir->agentProfileIs(name);
  using Match = AgentProfileChoice::Match;
  std::tuple<char const*, Match, char const*> const cases[] = {
      {"a-b-c", Match::family, "a-b-"}, {"a-b-", Match::own, "a-b-"},
      {"a-c", Match::family, "a-"},     {"agent", Match::own, "agent"},
      {"x-y-3", Match::own, "x-y-3"},   {"x-y-3-1", Match::none, ""},
      {"a", Match::none, ""},           {"", Match::none, ""}};
  for (auto const& [name, match, served] : cases) {
    AgentProfileChoice const c = agentProfileChoice(*dir, name);
    EXPECT_EQ(c.match, match) << name;
    EXPECT_EQ(c.profile ? std::string(c.profile->name()) : std::string(), served) << name;
  }
}

}  // namespace
}  // namespace Ledra
