// The command line of ledra-agent: both value forms, defaults, repetition, and the exact reasons
// for what it refuses.
#include "apps/agent/AgentOptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using LedraAgent::AgentOptions;
using LedraAgent::AgentOptionsError;
using LedraAgent::parseAgentOptions;

std::string refusal(std::vector<std::string> const& args) {
  try {
    parseAgentOptions(args);
  } catch (AgentOptionsError const& e) {
    return e.what();
  }
  return "<accepted>";
}

TEST(AgentOptionsTest, TheAgentStringDefaultsToTheName) {
  AgentOptions const o = parseAgentOptions({"--socket", "/tmp/s", "--name", "node-1"});
  EXPECT_EQ(o.socketPath, "/tmp/s");
  EXPECT_EQ(o.name, "node-1");
  EXPECT_EQ(o.agentString, "node-1");
  EXPECT_EQ(o.version, 5u);
  EXPECT_TRUE(o.failures.empty());
  EXPECT_TRUE(o.holds.empty());
  EXPECT_FALSE(o.help);
}

TEST(AgentOptionsTest, ValuesMayFollowAnEqualsSign) {
  AgentOptions const o = parseAgentOptions({"--socket=/s", "--name=a", "--agent-string=a-b-c",
                                            "--version=4", "--fail=/x=no such entity: /x"});
  EXPECT_EQ(o.socketPath, "/s");
  EXPECT_EQ(o.agentString, "a-b-c");
  EXPECT_EQ(o.version, 4u);
  EXPECT_EQ(o.failures.at("/x"), "no such entity: /x");
}

TEST(AgentOptionsTest, AnEmptyAgentStringIsKeptWhenGiven) {
  EXPECT_EQ(parseAgentOptions({"--socket", "/s", "--name", "a", "--agent-string", ""}).agentString,
            "");
}

TEST(AgentOptionsTest, FailuresAndHoldsRepeatAndTheLastFailureOfAPathWins) {
  AgentOptions const o =
      parseAgentOptions({"--socket", "/s", "--name", "a", "--fail", "/p=first", "--fail", "/q=a=b",
                         "--fail", "/p=second", "--hold", "/h1", "--hold", "/h2"});
  EXPECT_EQ(o.failures, (std::map<std::string, std::string>{{"/p", "second"}, {"/q", "a=b"}}));
  EXPECT_EQ(o.holds, (std::set<std::string>{"/h1", "/h2"}));
}

TEST(AgentOptionsTest, HelpNeedsNothingElse) {
  EXPECT_TRUE(parseAgentOptions({"--help"}).help);
  EXPECT_TRUE(parseAgentOptions({"-h"}).help);
  EXPECT_NE(std::string(LedraAgent::agentUsage()).find("--fail PATH=TEXT"), std::string::npos);
}

struct Refused {
  std::vector<std::string> args;
  std::string reason;
};

class AgentOptionsRefusalTest : public ::testing::TestWithParam<Refused> {};

TEST_P(AgentOptionsRefusalTest, SaysWhy) {
  EXPECT_EQ(refusal(GetParam().args), GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, AgentOptionsRefusalTest,
    ::testing::Values(
        Refused{{}, "missing --socket PATH"}, Refused{{"--socket", "/s"}, "missing --name NAME"},
        Refused{{"--name", "a"}, "missing --socket PATH"},
        Refused{{"--socket", "/s", "--name"}, "--name needs a value"},
        Refused{{"--socket", "/s", "--name", "a", "--colour", "red"}, "unknown option --colour"},
        Refused{{"--socket", "/s", "--name", "a", "extra"}, "unexpected argument 'extra'"},
        Refused{{"--socket", "/s", "--name", "a", "--fail", "/p"},
                "--fail needs PATH=TEXT, not '/p'"},
        Refused{{"--socket", "/s", "--name", "a", "--fail", "=text"},
                "--fail needs PATH=TEXT, not '=text'"},
        Refused{{"--socket", "/s", "--name", "a", "--fail", "/p="},
                "--fail needs PATH=TEXT, not '/p='"},
        Refused{{"--socket", "/s", "--name", "a", "--hold="}, "--hold needs a path"},
        Refused{{"--socket", "/s", "--name", "a", "--version", "0"},
                "--version needs a number from 1 to 4294967295, not '0'"},
        Refused{{"--socket", "/s", "--name", "a", "--version", "4294967296"},
                "--version needs a number from 1 to 4294967295, not '4294967296'"},
        Refused{{"--socket", "/s", "--name", "a", "--version", "-1"},
                "--version needs a number from 1 to 4294967295, not '-1'"},
        Refused{{"--socket", "/s", "--name", "a", "--version", "5x"},
                "--version needs a number from 1 to 4294967295, not '5x'"}));

TEST(AgentOptionsTest, TheLargestVersionIsAccepted) {
  EXPECT_EQ(parseAgentOptions({"--socket", "/s", "--name", "a", "--version", "4294967295"}).version,
            4294967295u);
}

}  // namespace
