// Directory mounts entry by entry: a directory that stands already, one that appears later, a
// blocking mounter holding its group, and one mounter per path.
#include "PassiveEntityManager/PassiveDirMounter.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "EngineHarness.h"

namespace Ledra::test {
namespace {

class PassiveDirMounterTest : public EngineHarness {
 protected:
  void SetUp() override {
    EngineHarness::SetUp();
    dir("d");
  }
  // The engine, past its root mount, mounting `path` with `flags` in its only group.
  void startWith(char const* flags, char const* path = "/ledra/Ledra/d/e") {
    profile->mountGroupIs("g", 1)->addProfile(path, "Qel::Dir", flags);
    startEngine();
    run();
  }
};

TEST_F(PassiveDirMounterTest, PresentEntriesAreMountedReadOnlyAndTheMounterEnds) {
  dir("d/e/one");
  dir("d/e/two");
  // The directory stands already: it is mounted directly, not entry by entry.
  startWith("rD");
  EXPECT_TRUE(
      capture.contains("/ledra/Ledra/d/e already is present. Skipping passive dir mounter"));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

TEST_F(PassiveDirMounterTest, DirectoryAppearingLaterIsMountedEntryByEntry) {
  entMgr->writeMountsGrantedIs(true);
  startWith("wDB");
  EXPECT_TRUE(capture.contains("Starting passive dirMounter for /ledra/Ledra/d/e"));
  EXPECT_TRUE(capture.contains("/ledra/Ledra/d/e Enabling a blocking DirMounter"));
  auto mounter = engine->passiveDirMounterCol("/ledra/Ledra/d/e");
  ASSERT_TRUE(mounter);
  EXPECT_TRUE(mounter->blocking());
  EXPECT_EQ(mounter->mountFlags(), "w");
  // The blocking mounter holds its group in progress.
  EXPECT_TRUE(engine->pendingMountProfile("/ledra/Ledra/d/e"));
  EXPECT_NE(engine->state(), PassiveEntityManagerSm::mountComplete);
  mounter = nullptr;
  auto e = Qel::Dir::dirNew("e");
  e->dirIs("one");
  dir("d")->entryIs(e);
  run(0.05);
  EXPECT_TRUE(capture.contains("handleExistingDirEntry entityPtr: 0x"));
  auto const paths = requestPaths();
  EXPECT_NE(std::find(paths.begin(), paths.end(), "/ledra/Ledra/d/e/one"), paths.end());
  EXPECT_TRUE(capture.contains("PassiveDirMounter::handleComplete: /ledra/Ledra/d/e"));
  EXPECT_TRUE(capture.contains("/ledra/Ledra/d/e Removing a blocking DirMounter"));
  run(0.05);
  EXPECT_FALSE(engine->passiveDirMounterCol("/ledra/Ledra/d/e"));
  EXPECT_EQ(engine->state(), PassiveEntityManagerSm::mountComplete);
}

TEST_F(PassiveDirMounterTest, SecondProfileForTheSamePathStartsNoSecondMounter) {
  startWith("rD");
  engine->doNestedPassiveMount(Mount("/ledra/Ledra/d/e", "Qel::Dir", "rD"));
  EXPECT_EQ(capture.count("Starting passive dirMounter for /ledra/Ledra/d/e"), 1u);
  EXPECT_TRUE(capture.contains("A passive dirMounter for /ledra/Ledra/d/e is already present"));
  EXPECT_EQ(engine->passiveDirMounterCol().size(), 1u);
}

}  // namespace
}  // namespace Ledra::test
