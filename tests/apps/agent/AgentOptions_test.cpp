// The command line of ledra-agent: both value forms, repetition, and the reasons for what it
// refuses (the bounds of --version among them).
#include "apps/agent/AgentOptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using LedraAgent::parseAgentOptions;
using Args = std::vector<std::string>;

TEST(AgentOptionsTest, BothValueFormsRepetitionAndDefaults) {
  auto const o =
      parseAgentOptions({"--socket=/s", "--name", "a", "--version=4294967295", "--fail", "/p=1",
                         "--fail=/q=a=b", "--fail", "/p=2", "--hold", "/h1", "--hold=/h2"});
  EXPECT_EQ(o.socketPath + " " + o.name + " " + o.agentString, "/s a a");
  EXPECT_EQ(o.version, 4294967295u);
  EXPECT_EQ(o.failures, (std::map<std::string, std::string>{{"/p", "2"}, {"/q", "a=b"}}));
  EXPECT_EQ(o.holds, (std::set<std::string>{"/h1", "/h2"}));
  EXPECT_EQ(parseAgentOptions({"--socket", "/s", "--name", "a"}).version, 5u);
}

TEST(AgentOptionsTest, RefusalsSayWhy) {
  std::string const version = "--version needs a number from 1 to 4294967295, not '";
  // Each command line after the two options every accepted one needs, unless it starts with "-".
  std::pair<Args, std::string> const cases[] = {
      {{"-", "--name", "a"}, "missing --socket PATH"},
      {{"-", "--socket", "/s", "--name"}, "--name needs a value"},
      {{"--a\nb"}, "unknown option --a\\x0ab"},
      {{"extra"}, "unexpected argument 'extra'"},
      {{"--fail", "/p="}, "--fail needs PATH=TEXT, not '/p='"},
      {{"--fail", "=t"}, "--fail needs PATH=TEXT, not '=t'"},
      {{"--hold="}, "--hold needs a path"},
      {{"--version", "0"}, version + "0'"},
      {{"--version", "4294967296"}, version + "4294967296'"}};
  for (auto const& [args, reason] : cases) {
    Args full = args.front() == "-" ? Args(args.begin() + 1, args.end())
                                    : Args{"--socket", "/s", "--name", "a"};
    if (args.front() != "-") full.insert(full.end(), args.begin(), args.end());
    try {
      parseAgentOptions(full);
      ADD_FAILURE() << "accepted " << reason;
    } catch (LedraAgent::AgentOptionsError const& e) {
      EXPECT_EQ(e.what(), reason);
    }
  }
}

}  // namespace
