// Template substitution in paths and template conditions.
#include "PassiveEntityManager/PathTemplates.h"

#include <gtest/gtest.h>

#include "Trace/CaptureSink.h"
#include "Trace/Facilities.h"
#include "support/LeakCheck.h"

namespace Ledra {
namespace {

class PathTemplatesTest : public test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    Trace::Facilities::instance().levelsAre("PassiveEntityManager=9");
    saved_ = globalReservedTemplateKeyDict();
    globalReservedTemplateKeyDict() = {{"%cellId", "1"},
                                       {"%cellPath", "cell/1"},
                                       {"%peerCellId", "2"},
                                       {"%peerCellPath", "cell/2"},
                                       {"%sysname", "sys"}};
    status_ = PassiveAgentStatus::agentStatusNew("agent");
    status_->templateValueDictIs("%a", "A");
    status_->templateValueDictIs("%b", "B");
    status_->templateValueDictIs("%cellId", "own");  // the agent's value wins
  }
  void TearDown() override {
    status_.reset();
    globalReservedTemplateKeyDict() = saved_;
    Trace::Facilities::instance().reset();
    LeakCheckedTest::TearDown();
  }
  Qel::String canon(char const* p) { return canonicalizePath(p, status_); }

  ReservedTemplateKeyDict saved_;
  PassiveAgentStatus::Ptr status_;
  Trace::CaptureSink capture_;
};

TEST_F(PathTemplatesTest, Substitution) {
  EXPECT_EQ(canon("/x/%cellPath/y"), "/x/cell/1/y");
  EXPECT_EQ(canon("/x/%peerCellId"), "/x/2");
  EXPECT_EQ(canon("/x/%a%b"), "/x/AB");
  EXPECT_EQ(canon("/x/%a-%b"), "/x/A-B");
  EXPECT_EQ(canon("/x/%a/%b/z"), "/x/A/B/z");
  EXPECT_EQ(canon("/a/%unknown/b"), "/a//b");
  EXPECT_EQ(canon("/%cellId"), "/own");
  EXPECT_EQ(canon("%sysname/Ledra"), "sys/Ledra");
}

TEST_F(PathTemplatesTest, PathWithoutKeysIsNotCached) {
  EXPECT_EQ(canon("/plain/path"), "/plain/path");
  EXPECT_TRUE(status_->templateCache().empty());
  EXPECT_FALSE(capture_.contains("incoming path"));
}

TEST_F(PathTemplatesTest, SecondSubstitutionComesFromTheCache) {
  EXPECT_EQ(canon("/x/%a"), "/x/A");
  EXPECT_TRUE(capture_.contains("incoming path /x/%a real path /x/A"));
  EXPECT_EQ(*status_->templateCache("/x/%a"), "/x/A");
  status_->templateValueDictIs("%a", "changed");  // a cached path is never recomputed
  EXPECT_EQ(canon("/x/%a"), "/x/A");
  EXPECT_TRUE(capture_.contains("template path exists /x/%a in cache /x/A"));
}

struct ConditionCase {
  char const* condition;
  bool result;
};
class TemplateConditionTest : public PathTemplatesTest,
                              public ::testing::WithParamInterface<ConditionCase> {};

TEST_P(TemplateConditionTest, Evaluates) {
  EXPECT_EQ(evaluateTemplateCondition(GetParam().condition, status_), GetParam().result)
      << GetParam().condition;
}

INSTANTIATE_TEST_SUITE_P(
    Conditions, TemplateConditionTest,
    ::testing::Values(ConditionCase{"%a == A", true}, ConditionCase{"%a != A", false},
                      ConditionCase{"%a == %a", true}, ConditionCase{"%none == NULL", true},
                      ConditionCase{"%a == NULL", false}, ConditionCase{"%none != NULL", false},
                      ConditionCase{"%a != NULL", true}, ConditionCase{"%peerCellId in 2", true},
                      ConditionCase{"%cellPath notin cell/1", false},
                      ConditionCase{"  %b   ==   B ", true}));

using TemplateConditionDeathTest = PathTemplatesTest;

TEST_F(TemplateConditionDeathTest, OrderingOperatorsAreFatal) {
  EXPECT_DEATH(evaluateTemplateCondition("%a < B", status_),
               "\\( logicalOp == Orn::EQ \\) \\|\\| \\( logicalOp == Orn::NEQ \\)");
}

}  // namespace
}  // namespace Ledra
