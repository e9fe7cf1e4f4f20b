// ledrad --check: the folders read as a start reads them, every problem told, nothing served.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "apps/ledrad/Daemon.h"
#include "tests/apps/ledrad/DatabaseFixture.h"

namespace Ledrad {
namespace {

namespace fs = std::filesystem;

// runDaemon sets process-wide state as a start does; each test puts it back.
class CheckTest : public test::ProcessStateTest {
 protected:
  void SetUp() override {
    ProcessStateTest::SetUp();
    fs::create_directory(dir_ / "state");
    fs::create_directory(dir_ / "profiles");
  }

  void write(std::string const& name, std::string const& text) {
    std::ofstream(dir_ / name) << text;
  }
  std::string path(std::string const& name) const { return (dir_ / name).string(); }

  // Runs ledrad --check on the folders; returns its exit status and keeps what it printed.
  int check(std::string const& state = "state") {
    Options o;
    o.check = true;
    o.state = path(state);
    o.profiles = path("profiles");
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    int const status = runDaemon(o, out, err);
    out_ = contents(out);
    err_ = contents(err);
    return status;
  }

  static std::string contents(std::FILE* f) {
    std::string text;
    std::rewind(f);
    for (int c; (c = std::fgetc(f)) != EOF;)
      text.push_back(static_cast<char>(c));
    std::fclose(f);
    return text;
  }

  std::string out_;
  std::string err_;
};

TEST_F(CheckTest, TellsEveryProblemOfEveryFileAndTheConditionsAgainstTheStateThatLoaded) {
  write("state/a.state",
        "type Check::Box\n  attribute v U32\nentity /ledra/box Check::Box\n  set v 1\n");
  write("state/b.state", "entity /ledra/x Check::None\n  set v 1\nbogus\n");
  write("profiles/a.profile",
        "profile a\n  group g 0\n    mount /a Qel::Dir\n"
        "profile b\n  group g 1\n    mount /b Qel::Dir\n    condition 1 == /ledra/box.w\n");
  write("profiles/b.profile", "profile c\n  group g 1\n    mount /c Qel::Dir\n");
  EXPECT_EQ(check(), 1);
  EXPECT_EQ(err_, path("state/b.state") + ":1: unknown type 'Check::None'\n" +
                      path("state/b.state") + ":3: unknown keyword 'bogus'\n" +
                      path("profiles/a.profile") +
                      ":2: priority must be a whole number from 1 to 99, not '0'\n" +
                      path("profiles/a.profile") +
                      ":7: condition: the Check::Box at /ledra/box has no attribute 'w'\n"
                      "ledrad: check failed: 4 problems in 2 of 4 files\n");
  EXPECT_NE(out_.find("ledrad: loaded state " + path("state/a.state")), std::string::npos);
  EXPECT_NE(out_.find("ledrad: loaded profiles " + path("profiles/b.profile")), std::string::npos);
  EXPECT_EQ(out_.find("ready"), std::string::npos) << out_;
}

// A mount of a type that nothing defines yet is told, but a later state file may define it: the
// file still passes.
TEST_F(CheckTest, GoodFilesPassAndAMountOfATypeNothingDefinesIsWarnedOf) {
  write("state/a.state", "dir /ledra/d\ntype Check::Known\n  attribute v U32\n");
  write("profiles/a.profile",
        "profile c\n  group g 1\n    mount /c Qel::Dir\n    mount /c/k Check::Known\n"
        "    mount /c/l Check::Later\n");
  EXPECT_EQ(check(), 0) << err_;
  EXPECT_EQ(err_, path("profiles/a.profile") +
                      ":5: warning: mount type 'Check::Later' is not known: no built-in type and "
                      "no state loaded so far defines it\n");
  EXPECT_NE(out_.find("ledrad: check passed: 2 files without a problem\n"), std::string::npos);
}

TEST_F(CheckTest, AMissingFolderIsRefusedBeforeAnythingIsLoaded) {
  write("profiles/a.profile", "profile c\n  group g 1\n    mount /c Qel::Dir\n");
  EXPECT_EQ(check("none"), 1);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_, "ledrad: no folder " + path("none") + "\nledrad: check failed: 1 problem\n");
}

}  // namespace
}  // namespace Ledrad
