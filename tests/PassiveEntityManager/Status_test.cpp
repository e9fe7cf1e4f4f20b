// Mount references: a reference's completion follows its entity out of the tree.
#include <gtest/gtest.h>

#include "PassiveEntityManager/PassiveAgentStatusDir.h"
#include "Qel/Entity/Dir.h"
#include "tests/support/LeakCheck.h"

namespace Ledra {
namespace {

class StatusTest : public test::ScratchDirTest {
 protected:
  StatusTest() : ScratchDirTest("statustest") {}
  void SetUp() override {
    ScratchDirTest::SetUp();
    dir = PassiveAgentStatusDir::agentStatusDirNew("status");
  }
  void TearDown() override {
    dir = nullptr;
    ScratchDirTest::TearDown();
  }
  PassiveAgentStatusDir::Ptr dir;
};

TEST_F(StatusTest, CompletionFollowsTheMountedEntity) {
  using Completion = PassiveMountReference::Completion;
  auto ref = dir->agentStatusIs("agent")->mountReferenceIs("/statustest/a");
  auto a = tree->dirIs("a");
  ref->entityIs(a);
  EXPECT_EQ(ref->completion(), Completion::incomplete);
  ref->completeIs(true);
  EXPECT_EQ(ref->completion(), Completion::complete);
  tree->entryDel("a");  // cut off from the tree
  EXPECT_EQ(ref->completion(), Completion::orphaned);
  Qel::globalDir()->entryDel("statustest");
  tree->entryIs(a);  // back under a directory that is itself cut off
  EXPECT_EQ(ref->completion(), Completion::orphaned);
}

}  // namespace
}  // namespace Ledra
