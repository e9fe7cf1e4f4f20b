// Agent profiles, mount groups and mount profiles: their rules, orders and error texts.
#include <gtest/gtest.h>

#include "PassiveEntityManager/PassiveAgentProfileDir.h"
#include "Qel/Exception.h"
#include "Qel/GenericValue.h"
#include "support/LeakCheck.h"

namespace Ledra {
namespace {

class GroupWatcher : public PassiveMountGroup::NotifieeConst {
 public:
  std::vector<std::string> seen;
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
  std::vector<std::string> seen;
  void onMountGroup(Qel::Name const& name) override { seen.push_back("mountGroup " + name); }
  void onRootFlags() override { seen.push_back("rootFlags"); }
  void onLowMountPrio() override { seen.push_back("lowMountPrio"); }
};

class ProfileTest : public test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    dir_ = PassiveAgentProfileDir::agentProfileDirNew("profiles");
  }
  void TearDown() override {
    dir_.reset();
    LeakCheckedTest::TearDown();
  }
  PassiveAgentProfileDir::Ptr dir_;
};

class PriorityTest : public ProfileTest, public ::testing::WithParamInterface<Qel::U32> {};

TEST_P(PriorityTest, OutsideOneToNinetyNineIsRefused) {
  auto profile = dir_->agentProfileIs("agent");
  try {
    profile->mountGroupIs("g", GetParam());
    FAIL() << "priority " << GetParam() << " accepted";
  } catch (Qel::RangeException const& e) {
    EXPECT_STREQ(e.what(), "PassiveMountGroup::priority < 1 or > 99 not allowed");
  }
  EXPECT_EQ(profile->mountGroups(), 0u);
}
INSTANTIATE_TEST_SUITE_P(Bounds, PriorityTest, ::testing::Values(0u, 100u, 4000000000u));

TEST_F(ProfileTest, BoundaryPrioritiesAreAccepted) {
  auto profile = dir_->agentProfileIs("agent");
  EXPECT_EQ(profile->mountGroupIs("first", 1)->priority(), 1u);
  EXPECT_EQ(profile->mountGroupIs("last", 99)->priority(), 99u);
}

TEST_F(ProfileTest, SameGroupTwiceNotifiesOnceAndOtherPriorityIsNameInUse) {
  auto profile = dir_->agentProfileIs("agent");
  ProfileWatcher w;
  w.notifierIs(profile);
  auto g = profile->mountGroupIs("g", 10);
  EXPECT_EQ(profile->mountGroupIs("g", 10), g);
  EXPECT_EQ(w.seen, (std::vector<std::string>{"mountGroup g"}));
  try {
    profile->mountGroupIs("g", 20);
    FAIL();
  } catch (Qel::NameInUseException const& e) {
    EXPECT_STREQ(e.what(),
                 "Reinstantiating the entity with name g where constructor parameter attribute "
                 "_priority has a different value of 20 than the current value of 10 not allowed");
  }
  EXPECT_EQ(profile->mountGroup("g"), g);
  EXPECT_EQ(g->priority(), 10u);
}

TEST_F(ProfileTest, AddProfileNotifiesOnlyOnChangeAndReplacesInPlace) {
  auto g = dir_->agentProfileIs("agent")->mountGroupIs("g", 5);
  GroupWatcher w;
  w.notifierIs(g);
  g->addProfile("/a", "Qel::Dir", "r");
  g->addProfile("/a", "Qel::Dir", "r");
  g->addProfile("/a", "Qel::Dir", "w");
  EXPECT_EQ(w.seen, (std::vector<std::string>{"mountProfile /a", "mountProfile /a"}));
  EXPECT_EQ(g->mountProfiles(), 1u);
  EXPECT_EQ(g->mountProfile("/a")->flags(), "w");
  g->mountProfileDel("/a");
  g->mountProfileDel("/a");
  EXPECT_EQ(w.seen.size(), 3u);
  EXPECT_EQ(g->mountProfile("/a"), nullptr);
}

TEST_F(ProfileTest, OrdersOfMountProfilesAndTemplateKeys) {
  auto profile = dir_->agentProfileIs("agent");
  auto g = profile->mountGroupIs("g", 5);
  for (char const* p : {"/b", "/a/b", "/a", "/a-b"})
    g->addProfile(p, "", "");
  std::vector<std::string> paths;
  for (auto const& [path, m] : g->mountProfile())
    paths.push_back(path);
  EXPECT_EQ(paths, (std::vector<std::string>{"/a", "/a-b", "/a/b", "/b"}));
  profile->templateKeyIs(10, "%z");
  profile->templateKeyIs(2, "%y");
  profile->templateKeyIs(7, "%x");
  std::vector<unsigned> positions;
  for (auto const& [pos, key] : profile->templateKey())
    positions.push_back(pos);
  EXPECT_EQ(positions, (std::vector<unsigned>{2, 7, 10}));
}

TEST_F(ProfileTest, ConditionQueueKeepsItsIndices) {
  auto g = dir_->agentProfileIs("agent")->mountGroupIs("g", 5);
  GroupWatcher w;
  w.notifierIs(g);
  EXPECT_EQ(g->conditionColEnq("c0"), 0u);
  EXPECT_EQ(g->conditionColEnq("c1"), 1u);
  EXPECT_EQ(g->conditionColEnq("c2"), 2u);
  g->conditionColDeq();
  EXPECT_EQ(g->conditionCol(0), nullptr);
  EXPECT_EQ(*g->conditionCol(1), "c1");
  EXPECT_EQ(*g->conditionCol(2), "c2");
  EXPECT_EQ(g->conditionColEnq("c3"), 3u);
  EXPECT_EQ(g->conditionColMetadata(), (Qel::LinkQueueMetadata{1, 4}));
  EXPECT_EQ(w.seen[0], "conditionCol 0");
  EXPECT_EQ(w.seen[1], "conditionCol immediate");
  EXPECT_THROW(g->conditionColIs(0, "x"), Qel::RangeException);
}

TEST_F(ProfileTest, FullConditionQueueIsRefusedUnchanged) {
  auto g = dir_->agentProfileIs("agent")->mountGroupIs("g", 5);
  // Indices from 5 on (wrapping) count as in use: only 3 is left, since 4 would leave the next
  // index equal to the head.
  g->conditionColMetadataIs({5, 3});
  EXPECT_EQ(g->conditionColEnq("a"), 3u);
  try {
    g->conditionColEnq("b");
    FAIL();
  } catch (Qel::RangeException const& e) {
    EXPECT_STREQ(e.what(), "linkqueue index space full");
  }
  EXPECT_EQ(g->conditionCols(), 1u);
  EXPECT_EQ(g->conditionColMetadata(), (Qel::LinkQueueMetadata{5, 4}));
}

TEST_F(ProfileTest, EqualStoresNotifyNobody) {
  auto profile = dir_->agentProfileIs("agent");
  auto g = profile->mountGroupIs("g", 5);
  GroupWatcher gw;
  gw.notifierIs(g);
  ProfileWatcher pw;
  pw.notifierIs(profile);
  g->blockingConditionalIs(false);
  g->entireConditionIs("");
  g->templateConditionColIs("%a == b", true);
  g->templateConditionColIs("%a == b", true);
  profile->rootFlagsIs("");
  profile->lowMountPrioIs(true);
  profile->lowMountPrioIs(true);
  EXPECT_EQ(gw.seen, (std::vector<std::string>{"templateConditionCol %a == b"}));
  EXPECT_EQ(pw.seen, (std::vector<std::string>{"lowMountPrio"}));
}

TEST_F(ProfileTest, GroupRemovedFromItsProfileStaysReadable) {
  auto profile = dir_->agentProfileIs("agent");
  auto g = profile->mountGroupIs("g", 5);
  g->addProfile("/x", "Qel::Dir", "r");
  EXPECT_EQ(g->fullName(), "profiles/agent/g");
  profile->mountGroupDel("g");
  EXPECT_EQ(profile->mountGroup("g"), nullptr);
  EXPECT_EQ(g->parent(), nullptr);
  EXPECT_EQ(g->mountProfile("/x")->type(), "Qel::Dir");
  dir_->agentProfileDel("agent");
  EXPECT_EQ(profile->parent(), nullptr);
}

TEST_F(ProfileTest, GenericViewByName) {
  auto profile = dir_->agentProfileIs("agent");
  auto g = profile->mountGroupIs("g", 42);
  EXPECT_EQ(g->attributeName(PassiveMountGroup::kPriority), "priority");
  EXPECT_EQ(g->attributeName(PassiveMountGroup::kMountProfile), "mountProfile");
  EXPECT_EQ(g->attributeName(77), "unknown");
  EXPECT_EQ(g->attribute(PassiveMountGroup::kPriority)->valueAs<Qel::U32>(), 42u);
  g->attributeIs("blockingConditional", Qel::String("true"));
  EXPECT_TRUE(g->blockingConditional());
  g->attributeIs("addProfile", Qel::ValueTraits<Mount>::box(Mount("/p", "T", "w")));
  auto m = g->attribute(PassiveMountGroup::kMountProfile, Qel::ValueTraits<Qel::String>::box("/p"));
  EXPECT_EQ(Qel::ValueTraits<Mount>::unbox(m), Mount("/p", "T", "w"));
  EXPECT_EQ(m->qelType()->name(), "Ledra::Mount");
  EXPECT_THROW(g->attributeIs("priority", Qel::String("3")), Qel::TypeException);
  Qel::Ptr<PassiveMountGroup const> view = g;
  try {
    view->attributeIs("entireCondition", Qel::String("x"));
    FAIL();
  } catch (Qel::ConstInstanceException const& e) {
    EXPECT_STREQ(e.what(), "attempting to modify a const instance");
  }
  EXPECT_EQ(Qel::globalDir()->entity("/nothing"), nullptr);
  EXPECT_EQ(dir_->entity("agent/g"), g);
  auto byName = Qel::QelType::typeOrThrow("Ledra::PassiveAgentProfile").newEntity("made");
  EXPECT_TRUE(Qel::ptrCast<PassiveAgentProfile>(byName));
}

TEST(MountTest, ComparedByAllThreeFields) {
  Mount const m("/a", "T", "w");
  EXPECT_EQ(m, Mount("/a", "T", "w"));
  EXPECT_NE(m, Mount("/a", "T", "r"));
  EXPECT_NE(m, Mount("/a", "U", "w"));
  EXPECT_NE(m, Mount("/b", "T", "w"));
}

}  // namespace
}  // namespace Ledra
