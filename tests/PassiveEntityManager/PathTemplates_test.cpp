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

TEST_F(PathTemplatesTest, OnlyPathsWithKeysAreCachedAndACachedPathIsNeverRecomputed) {
  EXPECT_EQ(canon("/plain/path"), "/plain/path");
  EXPECT_TRUE(status_->templateCache().empty());
  EXPECT_FALSE(capture_.contains("incoming path"));
  EXPECT_EQ(canon("/x/%a"), "/x/A");
  EXPECT_TRUE(capture_.contains("incoming path /x/%a real path /x/A"));
  EXPECT_EQ(*status_->templateCache("/x/%a"), "/x/A");
  status_->templateValueDictIs("%a", "changed");
  EXPECT_EQ(canon("/x/%a"), "/x/A");
  EXPECT_TRUE(capture_.contains("template path exists /x/%a in cache /x/A"));
}

TEST_F(PathTemplatesTest, TemplateConditions) {
  std::pair<char const*, bool> const cases[] = {
      {"%a == A", true},       {"%a != A", false},         {"%a == %a", true},
      {"%none == NULL", true}, {"%a == NULL", false},      {"%none != NULL", false},
      {"%a != NULL", true},    {"%peerCellId in 2", true}, {"%cellPath notin cell/1", false},
      {"  %b   ==   B ", true}};
  for (auto const& [condition, result] : cases)
    EXPECT_EQ(evaluateTemplateCondition(condition, status_), result) << condition;
}

using TemplateConditionDeathTest = PathTemplatesTest;

TEST_F(TemplateConditionDeathTest, OrderingOperatorsAreFatal) {
  EXPECT_DEATH(evaluateTemplateCondition("%a < B", status_),
               "\\( logicalOp == Orn::EQ \\) \\|\\| \\( logicalOp == Orn::NEQ \\)");
}

}  // namespace
}  // namespace Ledra
