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

TEST(AgentOptionsTest, DefaultsBothValueFormsAndRepetition) {
  AgentOptions const d = parseAgentOptions({"--socket", "/tmp/s", "--name", "node-1"});
  EXPECT_EQ(d.agentString, "node-1");
  EXPECT_EQ(d.version, 5u);
  EXPECT_EQ(parseAgentOptions(withBase({"--agent-string", ""})).agentString, "");
  AgentOptions const o =
      parseAgentOptions({"--socket=/s", "--name=a", "--version=4294967295", "--fail", "/p=first",
                         "--fail=/q=a=b", "--fail", "/p=second", "--hold", "/h1", "--hold=/h2"});
  EXPECT_EQ(o.socketPath + " " + o.name, "/s a");
  EXPECT_EQ(o.version, 4294967295u);
  EXPECT_EQ(o.failures, (std::map<std::string, std::string>{{"/p", "second"}, {"/q", "a=b"}}));
  EXPECT_EQ(o.holds, (std::set<std::string>{"/h1", "/h2"}));
  EXPECT_FALSE(o.show);
  EXPECT_TRUE(parseAgentOptions(withBase({"--show"})).show);
  EXPECT_TRUE(parseAgentOptions({"-h"}).help);
}

class AgentOptionsRefusalTest : public ::testing::TestWithParam<std::pair<Args, std::string>> {};

TEST_P(AgentOptionsRefusalTest, SaysWhy) {
  try {
    parseAgentOptions(GetParam().first);
    FAIL() << "accepted";
  } catch (LedraAgent::AgentOptionsError const& e) {
    EXPECT_EQ(e.what(), GetParam().second);
  }
}

std::string const kVersion = "--version needs a number from 1 to 4294967295, not '";

// clang-format off
INSTANTIATE_TEST_SUITE_P(CommandLines, AgentOptionsRefusalTest, ::testing::Values(
    std::pair<Args, std::string>{{"--name", "a"}, "missing --socket PATH"},
    std::pair<Args, std::string>{{"--socket", "/s"}, "missing --name NAME"},
    std::pair<Args, std::string>{{"--socket", "/s", "--name"}, "--name needs a value"},
    std::pair<Args, std::string>{withBase({"--a\nb"}), "unknown option --a\\x0ab"},
    std::pair<Args, std::string>{withBase({"extra"}), "unexpected argument 'extra'"},
    std::pair<Args, std::string>{withBase({"--fail", "/p"}), "--fail needs PATH=TEXT, not '/p'"},
    std::pair<Args, std::string>{withBase({"--fail", "=text"}), "--fail needs PATH=TEXT, not '=text'"},
    std::pair<Args, std::string>{withBase({"--fail", "/p="}), "--fail needs PATH=TEXT, not '/p='"},
    std::pair<Args, std::string>{withBase({"--hold="}), "--hold needs a path"},
    std::pair<Args, std::string>{withBase({"--version", "0"}), kVersion + "0'"},
    std::pair<Args, std::string>{withBase({"--version", "4294967296"}), kVersion + "4294967296'"},
    std::pair<Args, std::string>{withBase({"--version", "-1"}), kVersion + "-1'"}));
// clang-format on

}  // namespace
