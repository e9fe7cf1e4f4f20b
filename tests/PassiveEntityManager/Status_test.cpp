// Mount references: a reference's completion follows its entity out of the tree; the records
// the engine writes become entities only on demand, and those entities then carry every write.
#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// The paths the status's collection of references was told of, in order.
class ReferenceKeys : public PassiveAgentStatus::NotifieeConst {
 public:
  explicit ReferenceKeys(PassiveAgentStatus::Ptr const& s) { notifierIs(s); }
  void onMountReference(Qel::Name const& path) override { keys.push_back(path); }
  std::vector<std::string> keys;
};

// The writes one reference entity was told of.
class ReferenceWrites : public PassiveMountReference::NotifieeConst {
 public:
  explicit ReferenceWrites(PassiveMountReference::Ptr const& r) { notifierIs(r); }
  void onEntity() override { writes.push_back("entity"); }
  void onComplete() override { writes.push_back("complete"); }
  std::vector<std::string> writes;
};

TEST_F(StatusTest, ARecordBecomesItsEntityOnDemandAndItsEntityCarriesEveryLaterWrite) {
  using Completion = PassiveMountReference::Completion;
  auto const status = dir->agentStatusIs("agent");
  auto const a = tree->dirIs("a");
  auto const b = tree->dirIs("b");
  ReferenceKeys keys(status);
  Qel::InternedText const path("/statustest/a");

  long const live = Qel::RefCounted::liveInstances();
  status->mountRecordIs(path);
  status->mountRecordIs(path);  // present: nothing new, nobody told
  status->mountEntityIs(path, a);
  status->mountCompleteIs(path, true);
  status->mountEntityIs(Qel::InternedText("/statustest/none"), a);  // no record: nothing made
  EXPECT_EQ(Qel::RefCounted::liveInstances(), live) << "a record alone makes no entity";
  EXPECT_EQ(keys.keys, std::vector<std::string>{"/statustest/a"});
  ASSERT_NE(status->mountRecord(path), nullptr);
  EXPECT_EQ(status->mountRecord(path)->completion(), Completion::complete);
  EXPECT_EQ(status->mountReferences(), 1u);

  // Made on the first request, with the record's state, as a child of the status; the same
  // entity every time after, whichever way it is reached.
  auto const ref = status->mountReference("/statustest/a");
  ASSERT_TRUE(ref);
  EXPECT_EQ(ref->entity(), a);
  EXPECT_TRUE(ref->complete());
  EXPECT_EQ(ref->parent(), status.ptr());
  EXPECT_EQ(ref->name(), "/statustest/a");
  EXPECT_EQ(status->mountReferenceIs("/statustest/a"), ref);
  EXPECT_EQ(status->child(Qel::Name("/statustest/a")), ref);
  for (auto const& [p, r] : status->mountReference()) {
    EXPECT_EQ(p, "/statustest/a");
    EXPECT_EQ(r, ref);
  }

  // The engine's writes by path now reach the entity and its notifiees, and read back alike.
  ReferenceWrites writes(ref);
  status->mountEntityIs(path, b);
  status->mountCompleteIs(path, true);  // unchanged: nobody told
  EXPECT_EQ(writes.writes, std::vector<std::string>{"entity"});
  EXPECT_EQ(status->mountRecord(path)->entity(), b);
  ref->entityIs(a);
  EXPECT_EQ(status->mountRecord(path)->entity(), a);

  // Deleted: told by path, and the entity still held here is cut off from the status.
  status->mountReferenceDel("/statustest/a");
  EXPECT_EQ(keys.keys, (std::vector<std::string>{"/statustest/a", "/statustest/a"}));
  EXPECT_EQ(ref->parent(), nullptr);
  EXPECT_FALSE(status->mountReference("/statustest/a"));
  EXPECT_EQ(status->mountRecord(path), nullptr);
  status->mountCompleteIs(path, false);  // absent: the cut-off entity keeps its state
  EXPECT_TRUE(ref->complete());
}

// A walk of the references (a status report) makes each entity for its step and gives back the
// ones nobody kept or watches, their state back in the records; a kept one stays the same.
TEST_F(StatusTest, AWalkGivesBackTheEntitiesNobodyKept) {
  auto const status = dir->agentStatusIs("agent");
  auto const a = tree->dirIs("a");
  Qel::InternedText const path("/statustest/a");
  status->mountRecordIs(path);
  status->mountEntityIs(path, a);
  status->mountCompleteIs(path, true);

  long const live = Qel::RefCounted::liveInstances();
  std::vector<std::string> seen;
  for (auto const& [p, r] : status->mountReference()) {
    seen.emplace_back(p);
    EXPECT_EQ(r->entity(), a);
    EXPECT_TRUE(r->complete());
  }
  EXPECT_EQ(seen, std::vector<std::string>{"/statustest/a"});
  EXPECT_EQ(Qel::RefCounted::liveInstances(), live) << "the walk's entity was given back";
  ASSERT_NE(status->mountRecord(path), nullptr);
  EXPECT_EQ(status->mountRecord(path)->entity(), a);
  EXPECT_TRUE(status->mountRecord(path)->complete());

  PassiveMountReference::Ptr kept;
  for (auto const& [p, r] : status->mountReference())
    kept = r;
  ASSERT_TRUE(kept);
  EXPECT_EQ(status->mountReference("/statustest/a"), kept);
  EXPECT_EQ(kept->parent(), status.ptr());
}

}  // namespace
}  // namespace Ledra
