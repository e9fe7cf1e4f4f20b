#include "Qel/ActivityManagerConfig.h"

#include <gtest/gtest.h>

#include "support/ExactText.h"
#include "support/LeakCheck.h"

#include "Qel/Exception.h"

namespace {

using Qel::ActivityManagerConfig;
using Qel::AttributeId;
using Qel::String;

// Every test starts without a process configuration and leaves none behind; the live instances
// are counted after the first reset and checked after the last.
class ActivityManagerConfigTest : public ::testing::Test {
 protected:
  ~ActivityManagerConfigTest() override { ActivityManagerConfig::instanceIs(nullptr); }

  struct Forget {
    Forget() { ActivityManagerConfig::instanceIs(nullptr); }
  } forget_;
  Ledra::test::LiveInstanceCheck check_;
};

class Watcher : public ActivityManagerConfig::NotifieeConst {
 public:
  std::vector<String> seen;
  void onSystemName() override { seen.push_back(notifier()->systemName()); }
};

class GenericWatcher : public Qel::GenericIf::NotifieeConst {
 public:
  std::vector<AttributeId> seen;
  void onAttribute(AttributeId aid, Qel::GenericIf::PtrConst&) override { seen.push_back(aid); }
};

TEST_F(ActivityManagerConfigTest, SystemNameNotifiesOnlyRealChangesAndIsWritableByName) {
  auto c = ActivityManagerConfig::instance();
  Watcher typed;
  GenericWatcher generic;
  typed.notifierIs(c);
  generic.notifierIs(c);
  c->systemNameIs("ledra");  // unchanged
  c->systemNameIs("rack7");
  c->systemNameIs("rack7");
  EXPECT_EQ(typed.seen, (std::vector<String>{"rack7"}));
  EXPECT_EQ(generic.seen, (std::vector<AttributeId>{ActivityManagerConfig::kSystemName}));

  c->attributeIs("systemName", String("lab"));
  EXPECT_EQ(typed.seen, (std::vector<String>{"rack7", "lab"}));
  EXPECT_THROW_TEXT(ActivityManagerConfig::PtrConst(c)->attributeIs("systemName", String("x")),
                    Qel::ConstInstanceException, "attempting to modify a const instance");
  EXPECT_THROW(c->attributeIs("name", String("renamed")), Qel::TypeException);
  EXPECT_EQ(c->systemName(), "lab");
}

using ActivityManagerConfigDeathTest = ActivityManagerConfigTest;

TEST_F(ActivityManagerConfigDeathTest, TheClockIsNeverNull) {
  EXPECT_DEATH(ActivityManagerConfig::instance()->clockIs(nullptr),
               "\"the activity manager needs a clock\"");
}

}  // namespace
