// Template substitution in paths and template conditions.
#include "PassiveEntityManager/PathTemplates.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

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

// ---- The values cut from the agent string

using Source = TemplateValueSetting::Source;

class AgentTemplateValuesTest : public PathTemplatesTest {
 protected:
  void SetUp() override {
    PathTemplatesTest::SetUp();
    profile_ = PassiveAgentProfile::agentProfileNew("p-");
  }
  void TearDown() override {
    profile_.reset();
    PathTemplatesTest::TearDown();
  }
  // agentTemplateValues over `agentString`, keeping what it tells as the engine does: `valueOf`
  // reads the values told so far, then the reserved ones.
  Qel::String cut(char const* agentString) {
    auto const valueOf = [this](Qel::String const& key) {
      auto it = values_.find(key);
      return it != values_.end() ? it->second : templateValue(key, nullptr);
    };
    auto const sink = [this](TemplateValueSetting const& s) {
      told_.push_back(s.key + "=" + s.value + " " + sourceText(s));
      if (s.source != Source::missing) values_[s.key] = s.value;
    };
    return agentTemplateValues(agentString, *profile_, valueOf, sink);
  }
  static std::string sourceText(TemplateValueSetting const& s) {
    std::string const end = s.tillEnd ? "$" : "";
    switch (s.source) {
      case Source::field:
        return "field " + std::to_string(s.field) + end;
      case Source::empty:
        return "empty " + std::to_string(s.field) + end;
      case Source::missing:
        return "missing " + std::to_string(s.field) + end;
      case Source::alias:
        return "alias of " + s.aliasOf;
    }
    return "?";
  }

  PassiveAgentProfile::Ptr profile_;
  std::map<Qel::String, Qel::String> values_;
  std::vector<std::string> told_;
};

TEST_F(AgentTemplateValuesTest, KeysTakeFieldsByPositionThenAliasesReadWhatWasToldBefore) {
  profile_->templateKeyIs(7, "%tail$");
  profile_->templateKeyIs(3, "%bay");
  profile_->templateKeyIs(1, "%slot");
  profile_->templateKeyIs(9, "%gone");
  profile_->aliasKeyIs(" %s ", "%slot ");
  profile_->aliasKeyIs("%c", "%cellPath");
  // An empty field is no value; the "$" key runs to the end, the next key still takes one field.
  EXPECT_EQ(cut("p-3--x-y"), "");
  std::vector<std::string> const keys = {"%slot=3 field 1", "%bay= empty 2", "%tail=x-y field 3$",
                                         "%gone=y field 4"};
  ASSERT_EQ(told_.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(told_.begin(), told_.begin() + 4), keys);
  // Aliases come after every key, stripped, with the value of a key told before or a reserved one.
  std::vector<std::string> aliases(told_.begin() + 4, told_.end());
  std::sort(aliases.begin(), aliases.end());
  EXPECT_EQ(aliases,
            (std::vector<std::string>{"%c=cell/1 alias of %cellPath", "%s=3 alias of %slot"}));
  // A key beyond the last field is empty too.
  told_.clear();
  values_.clear();
  EXPECT_EQ(cut("p-3"), "");
  EXPECT_EQ(std::vector<std::string>(told_.begin(), told_.begin() + 4),
            (std::vector<std::string>{"%slot=3 field 1", "%bay= empty 2", "%tail= empty 3$",
                                      "%gone= empty 4"}));
}

TEST_F(AgentTemplateValuesTest, AStringWithoutFieldsFailsOnTheFirstKeyAndSetsNothing) {
  profile_->templateKeyIs(2, "%slot");
  profile_->templateKeyIs(1, "%rest$");
  profile_->aliasKeyIs("%s", "%slot");
  EXPECT_EQ(cut("p"), "No template value found for %rest");
  EXPECT_EQ(told_, (std::vector<std::string>{"%rest= missing 1$"}));
  // Without template keys nothing is cut, and the aliases are not set either.
  told_.clear();
  profile_->templateKeyDelAll();
  EXPECT_EQ(cut("p-1"), "");
  EXPECT_TRUE(told_.empty());
}

using TemplateConditionDeathTest = PathTemplatesTest;

TEST_F(TemplateConditionDeathTest, OrderingOperatorsAreFatal) {
  EXPECT_DEATH(evaluateTemplateCondition("%a < B", status_),
               "\\( logicalOp == Orn::EQ \\) \\|\\| \\( logicalOp == Orn::NEQ \\)");
}

}  // namespace
}  // namespace Ledra
