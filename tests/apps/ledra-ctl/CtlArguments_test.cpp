// The command line of ledra-ctl: both value forms, where options end, file names made absolute,
// the timeout in whole milliseconds, and the exact reasons for what it refuses.
#include "apps/ledra-ctl/CtlArguments.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "apps/ledrad/Options.h"

namespace {

using LedraCtl::CtlArguments;
using LedraCtl::parseCtlArguments;
using Args = std::vector<std::string>;

std::string refusal(Args const& args) {
  try {
    parseCtlArguments(args);
  } catch (LedraCtl::CtlArgumentsError const& e) {
    return e.what();
  }
  return "<accepted>";
}

TEST(CtlArgumentsTest, OptionsComeBeforeTheCommandInEitherForm) {
  CtlArguments const d = parseCtlArguments({"status"});
  EXPECT_EQ(d.socket, Ledrad::defaultControlSocket());
  EXPECT_EQ(d.timeoutMillis(), 30000);
  CtlArguments const o = parseCtlArguments(
      {"--control-socket", "/s", "--timeout=2.5", "status", "--timeout", "1", "-h"});
  EXPECT_EQ(o.socket + " " + std::to_string(o.timeoutMillis()), "/s 2500");
  // From the command on everything is the request's, options and empty words included.
  EXPECT_EQ(o.words, (Args{"status", "--timeout", "1", "-h"}));
  EXPECT_EQ(parseCtlArguments({"--control-socket=/a=b", "", "x"}).words, (Args{"", "x"}));
  EXPECT_TRUE(parseCtlArguments({"--timeout", "1", "--help", "--bogus"}).help);
  // The file names of the load commands are made absolute; an empty one is sent as it is.
  std::string const cwd = std::filesystem::current_path().string();
  EXPECT_EQ(parseCtlArguments({"load-state", "a/../b.state", "", "/x/./y"}).words,
            (Args{"load-state", cwd + "/b.state", "", "/x/y"}));
  EXPECT_EQ(parseCtlArguments({"trace", "dump", "r.bin"}).words,
            (Args{"trace", "dump", cwd + "/r.bin"}));
  EXPECT_EQ(parseCtlArguments({"status", "a/../b"}).words, (Args{"status", "a/../b"}));
  EXPECT_EQ(parseCtlArguments({"trace", "a/../b"}).words, (Args{"trace", "a/../b"}));
}

// The exchange waits in whole milliseconds: a timeout below one still waits one, and one beyond
// what the wait can take waits as long as it can.
TEST(CtlArgumentsTest, EveryPositiveTimeoutWaits) {
  auto const millis = [](char const* seconds) {
    return parseCtlArguments({"--timeout", seconds, "status"}).timeoutMillis();
  };
  EXPECT_EQ(millis("0.0001"), 1);
  EXPECT_EQ(millis("0.0025"), 2);
  EXPECT_EQ(millis("2147483.647"), 2147483647);
  EXPECT_EQ(millis("1e300"), 2147483647);
}

TEST(CtlArgumentsTest, RefusalsSayWhyOnOneLine) {
  std::pair<Args, char const*> const cases[] = {
      {{"--timeout", "3"}, "no command given"},
      {{"--json=1", "status"}, "unknown option --json"},
      {{"--", "status"}, "unknown option --"},
      {{"--timeout"}, "option needs a value"},
      {{"--control-socket", "", "status"}, "--control-socket needs a path"},
      {{"--timeout", "0", "status"}, "--timeout takes a positive number"},
      {{"--timeout", "5s", "status"}, "--timeout takes a positive number"},
      {{"--timeout", "nan", "status"}, "--timeout takes a positive number"},
      {{"--timeout", "1e999", "status"}, "--timeout takes a positive number"},
      {{"set", "/a", "b\tc", "d"}, "argument 'b\\x09c' holds a tab or a newline"},
      {{"--a\nb=1", "status"}, "unknown option --a\\x0ab"},
      {{"status", std::string(70000, 'a')}, "request too long"}};
  for (auto const& [args, reason] : cases)
    EXPECT_EQ(refusal(args), reason) << args.front();
}

}  // namespace
