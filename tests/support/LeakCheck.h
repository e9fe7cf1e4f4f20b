// A test fixture that fails a test which leaves more (or fewer) reference-counted objects alive
// than there were when it started.
#pragma once

#include <gtest/gtest.h>

#include "Qel/Core/Ptr.h"
#include "Qel/Entity/Dir.h"

namespace Ledra::test {

// Checks, when it is destroyed, that every RefCounted object made since its construction died.
struct LiveInstanceCheck {
  long const before = Qel::RefCounted::liveInstances();
  ~LiveInstanceCheck() { EXPECT_EQ(Qel::RefCounted::liveInstances(), before); }
};

class LeakCheckedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Qel::globalDir();  // the process-wide root exists before counting starts
    liveAtStart_ = Qel::RefCounted::liveInstances();
  }
  void TearDown() override {
    EXPECT_EQ(Qel::RefCounted::liveInstances(), liveAtStart_) << "reference-counted objects leaked";
  }

 private:
  long liveAtStart_ = 0;
};

// A LeakCheckedTest with a fresh directory `tree` at /<name> under the process-wide root; the
// directory and all it holds are removed before the leak check.
class ScratchDirTest : public LeakCheckedTest {
 protected:
  explicit ScratchDirTest(char const* name) : name_(name) {}
  void SetUp() override {
    LeakCheckedTest::SetUp();
    tree = Qel::globalDir()->dirIs(name_);
  }
  void TearDown() override {
    tree = nullptr;
    Qel::globalDir()->entryDel(name_);
    LeakCheckedTest::TearDown();
  }

  Qel::Dir::Ptr tree;

 private:
  char const* name_;
};

}  // namespace Ledra::test
