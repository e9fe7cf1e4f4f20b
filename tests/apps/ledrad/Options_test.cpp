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
  std::optional<std::string> saved_;
};

TEST_F(OptionsTest, DefaultsWorkFromTheSourceTree) {
  Options const o = parseOptions({});
  std::string const runtime = defaultRuntimeDir();
  EXPECT_EQ(runtime.rfind("/tmp/ledra-", 0), 0u) << runtime;
  EXPECT_EQ(o.socket, runtime + "/ledrad.sock");
  EXPECT_EQ(o.controlSocket, runtime + "/ledrad-control.sock");
  EXPECT_EQ(o.cell, 1);
  EXPECT_EQ(o.systemName, "ledra");
  EXPECT_EQ(o.trace, "");
  EXPECT_FALSE(o.help);
  // The bundled examples are found going up from the test program, which is built in the tree.
  std::string const examples = examplesDir();
  ASSERT_FALSE(examples.empty());
  EXPECT_TRUE(std::filesystem::is_directory(examples + "/profiles"));
  EXPECT_EQ(o.profiles, examples + "/profiles");
  EXPECT_EQ(o.state, examples + "/state");
  if (char const* data = std::getenv("LEDRA_TEST_DATA")) {
    EXPECT_EQ(std::filesystem::canonical(examples), std::filesystem::canonical(data));
  }
}

TEST_F(OptionsTest, RuntimeDirectoryComesFromTheEnvironmentWhenItIsAFolder) {
  ::setenv("XDG_RUNTIME_DIR", "/tmp", 1);
  EXPECT_EQ(defaultRuntimeDir(), "/tmp");
  EXPECT_EQ(defaultControlSocket(), "/tmp/ledrad-control.sock");
  ::setenv("XDG_RUNTIME_DIR", "/nonexistent/run", 1);
  EXPECT_EQ(defaultRuntimeDir().rfind("/tmp/ledra-", 0), 0u);
  ::setenv("XDG_RUNTIME_DIR", "relative", 1);
  EXPECT_EQ(defaultRuntimeDir().rfind("/tmp/ledra-", 0), 0u);
}

TEST_F(OptionsTest, EveryOptionInBothSpellings) {
  Options const o =
      parseOptions({"--socket", "/s/a", "--control-socket=/s/c", "--cell", "2", "--sysname=box",
                    "--trace", "*=2", "--profiles=/p", "--state", "/st", "-h"});
  EXPECT_EQ(o.socket, "/s/a");
  EXPECT_EQ(o.controlSocket, "/s/c");
  EXPECT_EQ(o.cell, 2);
  EXPECT_EQ(o.systemName, "box");
  EXPECT_EQ(o.trace, "*=2");
  EXPECT_EQ(o.profiles, "/p");
  EXPECT_EQ(o.state, "/st");
  EXPECT_TRUE(o.help);
}

struct Bad {
  std::vector<std::string> args;
  char const* error;
};

class OptionsRefusal : public ::testing::TestWithParam<Bad> {};

TEST_P(OptionsRefusal, SaysWhy) {
  try {
    parseOptions(GetParam().args);
    FAIL() << "accepted";
  } catch (UsageError const& e) {
    EXPECT_STREQ(e.what(), GetParam().error);
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Args, OptionsRefusal, ::testing::Values(
  Bad{{"--frob"}, "unknown argument '--frob'"},
  Bad{{"extra"}, "unknown argument 'extra'"},
  Bad{{"--socket"}, "option --socket needs a value"},
  Bad{{"--state="}, "option --state needs a non-empty value"},
  Bad{{"--cell", "3"}, "--cell takes 1 or 2, not '3'"},
  Bad{{"--sysname", "a/b"}, "--sysname takes a name without '/', not 'a/b'"},
  Bad{{"--socket", "/x", "--control-socket", "/x"}, "the agent and control sockets are the same"}));
// clang-format on

TEST(ConfigFilesIn, ListsMatchingRegularFilesInNameOrder) {
  char tmpl[] = "/tmp/ledrad-files-XXXXXX";
  ASSERT_NE(::mkdtemp(tmpl), nullptr);
  std::filesystem::path const dir = tmpl;
  for (char const* name : {"b.profile", "a.profile", "c.state", "profile", ".profile"})
    std::ofstream(dir / name) << "";
  std::filesystem::create_directory(dir / "d.profile");
  EXPECT_EQ(configFilesIn(dir.string(), ".profile"),
            (std::vector<std::string>{(dir / "a.profile").string(), (dir / "b.profile").string()}));
  EXPECT_THROW(configFilesIn((dir / "none").string(), ".profile"), std::runtime_error);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace Ledrad
