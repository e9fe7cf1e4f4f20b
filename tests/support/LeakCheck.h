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

}  // namespace Ledra::test
