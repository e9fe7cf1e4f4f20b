#include "Qel/ActivityManagerConfig.h"

#include <gtest/gtest.h>

#include "support/LeakCheck.h"

#include "Qel/Exception.h"
#include "Qel/GenericValue.h"
#include "Qel/MonotonicClock.h"
#include "Qel/QelType.h"
#include "Qel/SimulatedClock.h"

namespace {

using Qel::ActivityManagerConfig;
using Qel::AttributeId;
using Qel::GenericIf;
using Qel::String;

using Ledra::test::LiveInstanceCheck;

struct ForgetInstance {
  ForgetInstance() { ActivityManagerConfig::instanceIs(nullptr); }
};

// Every test starts without a process configuration and leaves none behind; the live instances
// are counted after the first reset and checked after the last.
class ActivityManagerConfigTest : public ::testing::Test, private ForgetInstance {
 protected:
  ~ActivityManagerConfigTest() override { ActivityManagerConfig::instanceIs(nullptr); }

  LiveInstanceCheck check_;
};

class SystemNameWatcher : public ActivityManagerConfig::NotifieeConst {
 public:
  int changes = 0;
  String seen;
  void onSystemName() override {
    ++changes;
    seen = notifier()->systemName();
  }
};

class GenericWatcher : public GenericIf::NotifieeConst {
 public:
  std::vector<AttributeId> seen;
  void onAttribute(AttributeId aid, GenericIf::PtrConst&) override { seen.push_back(aid); }
};

TEST_F(ActivityManagerConfigTest, TheDefaultInstanceIsMadeOnFirstUse) {
  ActivityManagerConfig::Ptr c = ActivityManagerConfig::instance();
  EXPECT_EQ(c->name(), "activityManagerConfig");
  EXPECT_EQ(c->systemName(), "ledra");
  EXPECT_NE(dynamic_cast<Qel::MonotonicClock*>(c->clock().ptr()), nullptr);
  EXPECT_EQ(ActivityManagerConfig::instance(), c);

  ActivityManagerConfig::instanceIs(nullptr);
  EXPECT_EQ(c->refCount(), 1u);  // only the test holds it now
  ActivityManagerConfig::Ptr fresh = ActivityManagerConfig::instance();
  EXPECT_NE(fresh, c);
}

TEST_F(ActivityManagerConfigTest, NowReadsTheInstalledClock) {
  auto clock = Qel::SimulatedClock::simulatedClockNew(42);
  auto c = ActivityManagerConfig::activityManagerConfigNew("test");
  c->clockIs(clock);
  ActivityManagerConfig::instanceIs(c);
  EXPECT_EQ(Qel::now(), 42);
  clock->advance(0.5);
  EXPECT_EQ(Qel::now(), 42.5);

  auto other = Qel::SimulatedClock::simulatedClockNew(7);
  c->clockIs(other);
  EXPECT_EQ(Qel::now(), 7);
}

TEST_F(ActivityManagerConfigTest, TheDefaultProcessClockIsMonotonic) {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  double const before = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
  double const t = Qel::now();
  EXPECT_GE(t, before);
  EXPECT_LT(t - before, 1.0);
}

TEST_F(ActivityManagerConfigTest, ChangingTheSystemNameNotifiesOnlyRealChanges) {
  auto c = ActivityManagerConfig::instance();
  SystemNameWatcher typed;
  GenericWatcher generic;
  typed.notifierIs(c);
  generic.notifierIs(c);

  c->systemNameIs("ledra");  // unchanged
  EXPECT_EQ(typed.changes, 0);
  c->systemNameIs("rack7");
  EXPECT_EQ(typed.changes, 1);
  EXPECT_EQ(typed.seen, "rack7");
  EXPECT_EQ(generic.seen, (std::vector<AttributeId>{ActivityManagerConfig::kSystemName}));
  c->systemNameIs("rack7");
  EXPECT_EQ(typed.changes, 1);
}

TEST_F(ActivityManagerConfigTest, TheSystemNameIsAGenericAttribute) {
  auto c = ActivityManagerConfig::instance();
  AttributeId const aid = c->attributeId("systemName");
  EXPECT_EQ(aid, ActivityManagerConfig::kSystemName);
  EXPECT_EQ(c->attributeName(aid), "systemName");
  EXPECT_EQ(c->attribute(aid)->text(), "ledra");

  c->attributeIs("systemName", String("lab"));
  EXPECT_EQ(c->systemName(), "lab");

  ActivityManagerConfig::PtrConst readOnly = c;
  try {
    readOnly->attributeIs("systemName", String("other"));
    FAIL() << "a const instance was written";
  } catch (Qel::ConstInstanceException const& e) {
    EXPECT_STREQ(e.what(), "attempting to modify a const instance");
  }
  EXPECT_EQ(c->systemName(), "lab");
  EXPECT_THROW(c->attributeIs("name", String("renamed")), Qel::TypeException);
}

TEST_F(ActivityManagerConfigTest, TheTypeIsRegisteredAndCreatesConfigurations) {
  Qel::QelType const* t = Qel::QelType::type("Qel::ActivityManagerConfig");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t, ActivityManagerConfig::staticType());
  EXPECT_EQ(t->kind(), Qel::QelType::Kind::entity);
  ASSERT_EQ(t->attributes(), 2u);
  EXPECT_EQ(t->attribute(0u)->name(), "name");
  EXPECT_EQ(t->attribute(1u)->name(), "systemName");
  EXPECT_EQ(t->attribute(1u)->type(), Qel::QelType::builtin(Qel::Builtin::string));

  Qel::Entity::Ptr e = t->newEntity("fromSchema");
  auto* c = dynamic_cast<ActivityManagerConfig*>(e.ptr());
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->name(), "fromSchema");
  EXPECT_EQ(c->systemName(), "ledra");
  EXPECT_NE(c->clock(), nullptr);
  EXPECT_EQ(c->fwkType(), t);
  EXPECT_NE(ActivityManagerConfig::instance().ptr(), c);  // not installed by creation
}

using ActivityManagerConfigDeathTest = ActivityManagerConfigTest;

TEST_F(ActivityManagerConfigDeathTest, TheClockIsNeverNull) {
  auto c = ActivityManagerConfig::instance();
  EXPECT_DEATH(c->clockIs(nullptr), "\"the activity manager needs a clock\"");
}

}  // namespace
