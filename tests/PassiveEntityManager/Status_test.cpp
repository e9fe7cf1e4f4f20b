// Agent status records, mount references and condition results.
#include <gtest/gtest.h>

#include "PassiveEntityManager/ConditionRes.h"
#include "PassiveEntityManager/PassiveAgentStatusDir.h"
#include "Qel/Dir.h"
#include "support/LeakCheck.h"

namespace Ledra {
namespace {

class StatusWatcher : public PassiveAgentStatus::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onTemplateValueDict(Qel::String const& k) override { seen.push_back("dict " + k); }
  void onMountReference(Qel::Name const& p) override { seen.push_back("ref " + p); }
};

class StatusTest : public test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    dir = PassiveAgentStatusDir::agentStatusDirNew("status");
  }
  void TearDown() override {
    dir = nullptr;
    Qel::globalDir()->entryDel("statustest");
    LeakCheckedTest::TearDown();
  }
  PassiveAgentStatusDir::Ptr dir;
};

TEST_F(StatusTest, ChangesNotifyWithTheirKeysAndARecreatedRecordStartsEmpty) {
  auto s = dir->agentStatusIs("agent");
  {
    StatusWatcher w;
    w.notifierIs(s);
    s->templateValueDictIs("%a", "1");
    s->templateValueDictIs("%a", "1");
    s->mountReferenceIs("/p");
    s->mountReferenceIs("/p");
    s->mountReferenceDel("/p");
    EXPECT_EQ(w.seen, (std::vector<std::string>{"dict %a", "ref /p", "ref /p"}));
  }
  s->agentStringIs("agent-1-2");
  s->templateCacheIs("/x/%a", "/x/1");
  s->mountReferenceIs("/x/1")->completeIs(true);
  EXPECT_EQ(dir->agentStatusIs("agent"), s);
  dir->agentStatusDel("agent");
  auto fresh = dir->agentStatusIs("agent");
  EXPECT_NE(fresh, s);
  EXPECT_EQ(fresh->agentString(), "");
  EXPECT_TRUE(fresh->templateValueDict().empty());
  EXPECT_TRUE(fresh->templateCache().empty());
  EXPECT_EQ(fresh->mountReferences(), 0u);
}

TEST_F(StatusTest, CompletionFollowsTheMountedEntity) {
  using Completion = PassiveMountReference::Completion;
  auto ref = dir->agentStatusIs("agent")->mountReferenceIs("/statustest/a");
  EXPECT_EQ(ref->completion(), Completion::incomplete);
  auto top = Qel::globalDir()->dirIs("statustest");
  auto a = top->dirIs("a");
  ref->entityIs(a);
  EXPECT_EQ(ref->completion(), Completion::incomplete);
  ref->completeIs(true);
  EXPECT_EQ(ref->completion(), Completion::complete);
  top->entryDel("a");  // cut off from the tree
  EXPECT_EQ(ref->completion(), Completion::orphaned);
  Qel::globalDir()->entryDel("statustest");
  top->entryIs(a);  // back under a directory that is itself cut off
  EXPECT_EQ(ref->completion(), Completion::orphaned);
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

}  // namespace
}  // namespace Ledra
