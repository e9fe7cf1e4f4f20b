// ledrad's command line and its defaults: socket places from the environment, the bundled
// examples found from the executable, every option in both spellings, and the refusals.
#include "apps/ledrad/Options.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "apps/ledrad/Daemon.h"

namespace Ledrad {
namespace {

class OptionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (char const* x = std::getenv("XDG_RUNTIME_DIR")) saved_ = x;
    ::unsetenv("XDG_RUNTIME_DIR");
  }
  void TearDown() override {
    if (saved_) ::setenv("XDG_RUNTIME_DIR", saved_->c_str(), 1);
    if (!saved_) ::unsetenv("XDG_RUNTIME_DIR");
  }
  // "accepted", or the UsageError's text.
  static std::string refusal(std::vector<std::string> const& args) {
    try {
      parseOptions(args);
      return "accepted";
    } catch (UsageError const& e) {
      return e.what();
    }
  }
  std::optional<std::string> saved_;
};

TEST_F(OptionsTest, DefaultsComeFromTheEnvironmentAndTheSourceTree) {
  Options const o = parseOptions({});
  std::string const runtime = defaultRuntimeDir();
  EXPECT_TRUE(runtime.starts_with("/tmp/ledra-")) << runtime;
  EXPECT_EQ(o.socket + " " + o.controlSocket,
            runtime + "/ledrad.sock " + runtime + "/ledrad-control.sock");
  // The bundled examples are found going up from the test program, which is built in the tree.
  std::string const examples = examplesDir();
  ASSERT_TRUE(std::filesystem::is_directory(examples + "/profiles"));
  EXPECT_EQ(o.profiles + " " + o.state, examples + "/profiles " + examples + "/state");
  ::setenv("XDG_RUNTIME_DIR", "/tmp", 1);
  EXPECT_EQ(defaultControlSocket(), "/tmp/ledrad-control.sock");
}

TEST_F(OptionsTest, EveryOptionInBothSpellings) {
  Options const o =
      parseOptions({"--socket", "/s/a", "--control-socket=/s/c", "--cell", "2", "--sysname=box",
                    "--trace", "*=2", "--profiles=/p", "--state", "/st", "-h"});
  EXPECT_EQ(o.socket + " " + o.controlSocket + " " + o.systemName + " " + o.trace + " " +
                o.profiles + " " + o.state,
            "/s/a /s/c box *=2 /p /st");
  EXPECT_EQ(o.cell, 2);
  EXPECT_TRUE(o.help);
  Bounds const b = parseOptions({"--max-frame=64K", "--hello-timeout", "2.5", "--max-agent-name",
                                 "100", "--max-agent-output", "3M", "--max-total-output=1G",
                                 "--max-remembered-agents", "10", "--max-control-clients", "5",
                                 "--max-control-per-process=2", "--control-idle-timeout", "0.5"})
                       .bounds;
  EXPECT_EQ(std::vector<double>({double(b.maxFrame), b.helloTimeout, double(b.maxAgentName),
                                 double(b.maxAgentOutput), double(b.maxTotalOutput),
                                 double(b.maxRememberedAgents), double(b.control.maxClients),
                                 double(b.control.maxClientsPerProcess), b.control.idleTimeout}),
            std::vector<double>({64 << 10, 2.5, 100, 3 << 20, 1 << 30, 10, 5, 2, 0.5}));
  // The bounds on output may meet exactly.
  EXPECT_EQ(
      refusal({"--max-frame", "1K", "--max-agent-output", "2056", "--max-total-output", "2056"}),
      "accepted");
}

TEST_F(OptionsTest, RefusalsSayWhy) {
  EXPECT_EQ(refusal({"--socket"}), "option --socket needs a value");
  EXPECT_EQ(refusal({"--state="}), "option --state needs a non-empty value");
  EXPECT_EQ(refusal({"--cell", "3"}), "--cell takes 1 or 2, not '3'");
  EXPECT_EQ(refusal({"--sysname", "a/b"}), "--sysname takes a name without '/', not 'a/b'");
  EXPECT_EQ(refusal({"--socket", "/x", "--control-socket", "/x"}),
            "the agent and control sockets are the same");
  std::string const bytes =
      " takes a positive number of bytes (K, M or G for KiB, MiB, GiB), not '";
  for (char const* v : {"0", "3KB", "18446744073709551615G"})
    EXPECT_EQ(refusal({"--max-agent-output", v}), "--max-agent-output" + bytes + v + "'");
  EXPECT_EQ(refusal({"--max-control-clients", "4K"}),
            "--max-control-clients takes a positive whole number, not '4K'");
  EXPECT_EQ(refusal({"--control-idle-timeout", "0"}),
            "--control-idle-timeout takes a positive number of seconds, not '0'");
  EXPECT_EQ(refusal({"--hello-timeout", "inf"}),
            "--hello-timeout takes a positive number of seconds, not 'inf'");
  EXPECT_EQ(refusal({"--max-total-output", "3M", "--max-agent-output", "4M"}),
            "--max-total-output (3145728 bytes) is below --max-agent-output (4194304 bytes)");
  EXPECT_EQ(refusal({"--max-frame", "1K", "--max-agent-output", "2055"}),
            "--max-agent-output (2055 bytes) cannot hold one mount request and its state "
            "(2056 bytes with --max-frame 1024)");
}

// Whatever order the folder lists them in (the folder's own tests pass over other files).
TEST(ConfigFilesIn, ListsTheFilesInNameOrder) {
  char tmpl[] = "/tmp/ledrad-files-XXXXXX";
  ASSERT_NE(::mkdtemp(tmpl), nullptr);
  std::filesystem::path const dir = tmpl;
  std::vector<std::string> sorted;
  for (char const* name : {"h", "c", "f", "a", "g", "b", "e", "d"})
    std::ofstream(dir / (std::string(name) + ".profile")) << "";
  for (char c = 'a'; c <= 'h'; ++c)
    sorted.push_back((dir / (std::string(1, c) + ".profile")).string());
  EXPECT_EQ(configFilesIn(dir.string(), ".profile"), sorted);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace Ledrad
