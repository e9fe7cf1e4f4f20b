// Mount references: a reference's completion follows its entity out of the tree.
#include <gtest/gtest.h>

#include "PassiveEntityManager/PassiveAgentStatusDir.h"
#include "Qel/Entity/Dir.h"
#include "tests/support/LeakCheck.h"

namespace Ledra {
namespace {

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

TEST_F(StatusTest, CompletionFollowsTheMountedEntity) {
  using Completion = PassiveMountReference::Completion;
  auto ref = dir->agentStatusIs("agent")->mountReferenceIs("/statustest/a");
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

}  // namespace
}  // namespace Ledra
