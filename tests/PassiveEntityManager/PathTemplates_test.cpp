// Template substitution in paths and template conditions, and the values cut from an agent string.
#include "PassiveEntityManager/PathTemplates.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Trace/CaptureSink.h"
#include "Trace/Facilities.h"
#include "tests/support/LeakCheck.h"

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
  EXPECT_EQ(canon("/x/%a%b"), "/x/AB");
  EXPECT_EQ(canon("/x/%a-%b"), "/x/A-B");
  EXPECT_EQ(canon("/a/%unknown/b"), "/a//b");
  EXPECT_EQ(canon("/%cellId"), "/own");
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
  std::pair<char const*, bool> const cases[] = {{"%a == %a", true},
                                                {"%none == NULL", true},
                                                {"%cellPath notin cell/1", false},
                                                {"  %b   ==   B ", true}};
  for (auto const& [condition, result] : cases)
    EXPECT_EQ(evaluateTemplateCondition(condition, status_), result) << condition;
}

// ---- The values cut from the agent string

using AgentTemplateValuesTest = PathTemplatesTest;

TEST_F(AgentTemplateValuesTest, KeysTakeFieldsByPositionThenAliasesReadWhatWasToldBefore) {
  auto const profile = PassiveAgentProfile::agentProfileNew("p-");
  std::map<Qel::String, Qel::String> values;
  std::vector<std::string> told;
  // Keeps what is told as the engine does: an alias reads the values told so far, then the
  // reserved ones. Shown as "key=value field" ("$" when it runs to the end) or "alias of key".
  auto const cut = [&](char const* agentString) {
    auto const valueOf = [&](Qel::String const& key) {
      auto it = values.find(key);
      return it != values.end() ? it->second : templateValue(key, nullptr);
    };
    auto const sink = [&](TemplateValueSetting const& s) {
      bool const alias = s.source == TemplateValueSetting::Source::alias;
      told.push_back(s.key + "=" + s.value + " " +
                     (alias ? "alias of " + s.aliasOf : std::to_string(s.field)) +
                     (s.tillEnd ? "$" : ""));
      values[s.key] = s.value;
    };
    return agentTemplateValues(agentString, *profile, valueOf, sink);
  };
  profile->templateKeyIs(7, "%tail$");
  profile->templateKeyIs(3, "%bay");
  profile->templateKeyIs(1, "%slot");
  profile->templateKeyIs(9, "%gone");
  profile->aliasKeyIs(" %s ", "%slot ");
  profile->aliasKeyIs("%c", "%cellPath");
  // An empty field is no value; the "$" key runs to the end, the next key still takes one field.
  EXPECT_EQ(cut("p-3--x-y"), "");
  std::vector<std::string> const keys = {"%slot=3 1", "%bay= 2", "%tail=x-y 3$", "%gone=y 4"};
  ASSERT_EQ(told.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(told.begin(), told.begin() + 4), keys);
  // Aliases come after every key, stripped, with the value of a key told before or a reserved one.
  std::vector<std::string> aliases(told.begin() + 4, told.end());
  std::sort(aliases.begin(), aliases.end());
  EXPECT_EQ(aliases,
            (std::vector<std::string>{"%c=cell/1 alias of %cellPath", "%s=3 alias of %slot"}));
}

using TemplateConditionDeathTest = PathTemplatesTest;

TEST_F(TemplateConditionDeathTest, OrderingOperatorsAreFatal) {
  EXPECT_DEATH(evaluateTemplateCondition("%a < B", status_),
               "\\( logicalOp == Orn::EQ \\) \\|\\| \\( logicalOp == Orn::NEQ \\)");
}

}  // namespace
}  // namespace Ledra
