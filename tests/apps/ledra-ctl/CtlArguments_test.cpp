// The command line of ledra-ctl: where options end, file names made absolute, the timeout in
// whole milliseconds, and the reasons for what it refuses.
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

TEST(CtlArgumentsTest, OptionsComeBeforeTheCommandAndFileNamesAreMadeAbsolute) {
  CtlArguments const d = parseCtlArguments({"status"});
  EXPECT_EQ(d.socket + " " + std::to_string(d.timeoutMillis()),
            Ledrad::defaultControlSocket() + " 30000");
  CtlArguments const o = parseCtlArguments(
      {"--control-socket", "/s", "--timeout=2.5", "status", "--timeout", "1", "-h"});
  EXPECT_EQ(o.socket + " " + std::to_string(o.timeoutMillis()), "/s 2500");
  // From the command on everything is the request's, options and empty words included.
  EXPECT_EQ(o.words, (Args{"status", "--timeout", "1", "-h"}));
  std::string const cwd = std::filesystem::current_path().string();
  EXPECT_EQ(parseCtlArguments({"load-state", "a/../b.state", "", "/x/./y"}).words,
            (Args{"load-state", cwd + "/b.state", "", "/x/y"}));
  EXPECT_EQ(parseCtlArguments({"trace", "dump", "r.bin"}).words,
            (Args{"trace", "dump", cwd + "/r.bin"}));
  EXPECT_EQ(parseCtlArguments({"status", "a/../b"}).words, (Args{"status", "a/../b"}));
  // The exchange waits in whole milliseconds: at least one, at most what the wait can take.
  auto const millis = [](char const* seconds) {
    return parseCtlArguments({"--timeout", seconds, "status"}).timeoutMillis();
  };
  EXPECT_EQ(millis("0.0001"), 1);
  EXPECT_EQ(millis("0.0025"), 2);
  EXPECT_EQ(millis("1e300"), 2147483647);
}

TEST(CtlArgumentsTest, RefusalsSayWhyOnOneLine) {
  std::pair<Args, char const*> const cases[] = {
      {{"--timeout", "3"}, "no command given"},
      {{"--", "status"}, "unknown option --"},
      {{"--a\nb=1", "status"}, "unknown option --a\\x0ab"},
      {{"--timeout"}, "option needs a value"},
      {{"--control-socket", "", "status"}, "--control-socket needs a path"},
      {{"--timeout", "0", "status"}, "--timeout takes a positive number"},
      {{"--timeout", "nan", "status"}, "--timeout takes a positive number"},
      {{"set", "/a", "b\tc", "d"}, "argument 'b\\x09c' holds a tab or a newline"},
      {{"status", std::string(70000, 'a')}, "request too long"}};
  for (auto const& [args, reason] : cases) {
    std::string got = "<accepted>";
    try {
      parseCtlArguments(args);
    } catch (LedraCtl::CtlArgumentsError const& e) {
      got = e.what();
    }
    EXPECT_EQ(got, reason) << args.front();
  }
}

}  // namespace
