// Agent status records and mount references.
#include <gtest/gtest.h>

#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/PassiveAgentStatusDir.h"
#include "Qel/Dir.h"
#include "support/LeakCheck.h"

namespace Ledra {
namespace {

class StatusTest : public test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    dir_ = PassiveAgentStatusDir::agentStatusDirNew("status");
  }
  void TearDown() override {
    dir_.reset();
    Qel::globalDir()->entryDel("statustest");
    LeakCheckedTest::TearDown();
  }
  PassiveAgentStatusDir::Ptr dir_;
};

TEST_F(StatusTest, RecreatedRecordStartsEmpty) {
  auto s = dir_->agentStatusIs("agent");
  s->agentStringIs("agent-1-2");
  s->templateValueDictIs("%a", "1");
  s->templateCacheIs("/x/%a", "/x/1");
  s->mountReferenceIs("/x/1")->completeIs(true);
  EXPECT_EQ(dir_->agentStatusIs("agent"), s);
  dir_->agentStatusDel("agent");
  auto fresh = dir_->agentStatusIs("agent");
  EXPECT_NE(fresh, s);
  EXPECT_EQ(fresh->agentString(), "");
  EXPECT_TRUE(fresh->templateValueDict().empty());
  EXPECT_TRUE(fresh->templateCache().empty());
  EXPECT_EQ(fresh->mountReferences(), 0u);
}

TEST_F(StatusTest, CompletionFollowsTheMountedEntity) {
  auto ref = dir_->agentStatusIs("agent")->mountReferenceIs("/statustest/a");
  EXPECT_EQ(ref->completion(), PassiveMountReference::Completion::incomplete);
  auto top = Qel::globalDir()->dirIs("statustest");
  auto a = top->dirIs("a");
  ref->entityIs(a);
  EXPECT_EQ(ref->completion(), PassiveMountReference::Completion::incomplete);
  ref->completeIs(true);
  EXPECT_EQ(ref->completion(), PassiveMountReference::Completion::complete);
  top->entryDel("a");  // cut off from the tree
  EXPECT_EQ(ref->completion(), PassiveMountReference::Completion::orphaned);
  Qel::globalDir()->entryDel("statustest");
  top->entryIs(a);  // back under a directory that is itself cut off
  EXPECT_EQ(ref->completion(), PassiveMountReference::Completion::orphaned);
}

class EnabledWatcher : public ConditionRes::NotifieeConst {
 public:
  int calls = 0;
  void onEnabled() override { ++calls; }
};

TEST_F(StatusTest, EnabledTwiceNotifiesOnce) {
  auto res = ConditionRes::conditionResNew("g");
  EnabledWatcher w;
  w.notifierIs(res);
  res->enabledIs(true);
  res->enabledIs(true);
  EXPECT_EQ(w.calls, 1);
}

class StatusWatcher : public PassiveAgentStatus::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onTemplateValueDict(Qel::String const& k) override { seen.push_back("dict " + k); }
  void onMountReference(Qel::Name const& p) override { seen.push_back("ref " + p); }
};

TEST_F(StatusTest, ChangesNotifyWithTheirKeys) {
  auto s = dir_->agentStatusIs("agent");
  StatusWatcher w;
  w.notifierIs(s);
  s->templateValueDictIs("%a", "1");
  s->templateValueDictIs("%a", "1");
  s->mountReferenceIs("/p");
  s->mountReferenceIs("/p");
  s->mountReferenceDel("/p");
  EXPECT_EQ(w.seen, (std::vector<std::string>{"dict %a", "ref /p", "ref /p"}));
  EXPECT_EQ(dir_->entity("agent")->name(), "agent");
}

}  // namespace
}  // namespace Ledra
