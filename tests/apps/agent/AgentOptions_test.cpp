// The command line of ledra-agent: both value forms, defaults, repetition, and the exact reasons
// for what it refuses.
#include "apps/agent/AgentOptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using LedraAgent::AgentOptions;
using LedraAgent::parseAgentOptions;
using Args = std::vector<std::string>;

// The options every accepted command line needs, followed by `more`.
Args withBase(Args const& more) {
  Args args{"--socket", "/s", "--name", "a"};
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

TEST(AgentOptionsTest, TheAgentStringDefaultsToTheName) {
  AgentOptions const o = parseAgentOptions({"--socket", "/tmp/s", "--name", "node-1"});
  EXPECT_EQ(o.socketPath, "/tmp/s");
  EXPECT_EQ(o.name, "node-1");
  EXPECT_EQ(o.agentString, "node-1");
  EXPECT_EQ(o.version, 5u);
  EXPECT_TRUE(o.failures.empty() && o.holds.empty() && !o.help);
  EXPECT_EQ(parseAgentOptions(withBase({"--agent-string", ""})).agentString, "");
}

TEST(AgentOptionsTest, ValuesMayFollowAnEqualsSign) {
  AgentOptions const o = parseAgentOptions({"--socket=/s", "--name=a", "--agent-string=a-b-c",
                                            "--version=4", "--fail=/x=no such entity: /x"});
  EXPECT_EQ(o.socketPath, "/s");
  EXPECT_EQ(o.agentString, "a-b-c");
  EXPECT_EQ(o.version, 4u);
  EXPECT_EQ(o.failures.at("/x"), "no such entity: /x");
  EXPECT_EQ(parseAgentOptions(withBase({"--version", "4294967295"})).version, 4294967295u);
}

TEST(AgentOptionsTest, FailuresAndHoldsRepeatAndTheLastFailureOfAPathWins) {
  AgentOptions const o =
      parseAgentOptions(withBase({"--fail", "/p=first", "--fail", "/q=a=b", "--fail", "/p=second",
                                  "--hold", "/h1", "--hold", "/h2"}));
  EXPECT_EQ(o.failures, (std::map<std::string, std::string>{{"/p", "second"}, {"/q", "a=b"}}));
  EXPECT_EQ(o.holds, (std::set<std::string>{"/h1", "/h2"}));
}

TEST(AgentOptionsTest, HelpNeedsNothingElse) {
  EXPECT_TRUE(parseAgentOptions({"--help"}).help);
  EXPECT_TRUE(parseAgentOptions({"-h"}).help);
  EXPECT_NE(std::string(LedraAgent::agentUsage()).find("--fail PATH=TEXT"), std::string::npos);
}

struct Refused {
  char const* name;  // the test's name
  Args args;
  std::string reason;
};

void PrintTo(Refused const& r, std::ostream* os) {
  for (std::string const& arg : r.args)
    *os << "'" << arg << "' ";
}

class AgentOptionsRefusalTest : public ::testing::TestWithParam<Refused> {};

TEST_P(AgentOptionsRefusalTest, SaysWhy) {
  try {
    parseAgentOptions(GetParam().args);
    FAIL() << "accepted";
  } catch (LedraAgent::AgentOptionsError const& e) {
    EXPECT_EQ(e.what(), GetParam().reason);
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(CommandLines, AgentOptionsRefusalTest, ::testing::Values(
    Refused{"NoArguments", {}, "missing --socket PATH"},
    Refused{"NoName", {"--socket", "/s"}, "missing --name NAME"},
    Refused{"NoSocket", {"--name", "a"}, "missing --socket PATH"},
    Refused{"NameWithoutValue", {"--socket", "/s", "--name"}, "--name needs a value"},
    Refused{"UnknownOption", withBase({"--colour", "red"}), "unknown option --colour"},
    Refused{"ReasonOnOneLine", withBase({"--a\nb"}), "unknown option --a\\x0ab"},
    Refused{"ExtraArgument", withBase({"extra"}), "unexpected argument 'extra'"},
    Refused{"FailWithoutText", withBase({"--fail", "/p"}), "--fail needs PATH=TEXT, not '/p'"},
    Refused{"FailWithoutPath", withBase({"--fail", "=text"}), "--fail needs PATH=TEXT, not '=text'"},
    Refused{"FailWithEmptyText", withBase({"--fail", "/p="}), "--fail needs PATH=TEXT, not '/p='"},
    Refused{"HoldWithEmptyPath", withBase({"--hold="}), "--hold needs a path"},
    Refused{"VersionZero", withBase({"--version", "0"}), "--version needs a number from 1 to 4294967295, not '0'"},
    Refused{"VersionTooLarge", withBase({"--version", "4294967296"}), "--version needs a number from 1 to 4294967295, not '4294967296'"},
    Refused{"VersionNegative", withBase({"--version", "-1"}), "--version needs a number from 1 to 4294967295, not '-1'"},
    Refused{"VersionNotANumber", withBase({"--version", "5x"}), "--version needs a number from 1 to 4294967295, not '5x'"}),
    [](testing::TestParamInfo<Refused> const& info) { return std::string(info.param.name); });
// clang-format on

}  // namespace
