// The control commands that show the database: get (an entity, one value, one element) and ls.
#include <gtest/gtest.h>

#include "apps/ledrad/ControlCommands.h"
#include "tests/apps/ledrad/DatabaseFixture.h"

namespace Ledrad {
namespace {

class BrowseTest : public test::DatabaseFixture {
 protected:
  void SetUp() override {
    DatabaseFixture::SetUp();
    db->loadState({file("b.state",
                        "enum Browse::Power off on\n"
                        "type Browse::Box\n"
                        "  attribute power Browse::Power\n"
                        "  attribute label string\n"
                        "  collection tags string bool\n"
                        "type Browse::Link\n"
                        "  attribute next Browse::Box\n"
                        "entity /%sysname/Ledra/a Browse::Box\n"
                        "  set power on\n"
                        "  set label \"two\\nlines\"\n"
                        "  put tags red true\n"
                        "  put tags blue false\n"
                        "entity /%sysname/Ledra/b Browse::Link\n"
                        "  set next /%sysname/Ledra/a\n")});
  }

  // A control command's reply, "error: " before the text of a refusal.
  std::string command(std::vector<std::string> const& request) {
    ControlReply const reply = ControlCommands(*db, {}).execute(request);
    return (reply.ok ? "" : "error: ") + reply.text;
  }
};

TEST_F(BrowseTest, GetShowsAnEntityOneValueOrOneElementInPrintableForm) {
  EXPECT_EQ(command({"get", "/dbTest/Ledra/a"}),
            "/dbTest/Ledra/a Browse::Box\n"
            "  power = on\n"
            "  label = two\\x0alines\n"
            "  tags: 2 elements\n");
  EXPECT_EQ(command({"get", "/dbTest/Ledra/b", "next"}), "/dbTest/Ledra/a\n");
  EXPECT_EQ(command({"get", "/dbTest/Ledra/a", "tags"}), "2 elements\n");
  EXPECT_EQ(command({"get", "/dbTest/Ledra/a", "tags[blue]"}), "false\n");
  EXPECT_EQ(command({"get", "/dbTest/Ledra/a", "tags[green]"}), "(none)\n");
  EXPECT_EQ(command({"get", "/", "dbTest"}), "error: Qel::Dir at / has no attribute 'dbTest'\n");
}

TEST_F(BrowseTest, LsListsADirectorysEntriesInNameOrder) {
  EXPECT_EQ(command({"ls", "/dbTest/Ledra"}), "a Browse::Box\nb Browse::Link\n");
  EXPECT_NE(command({"ls", "/"}).find("dbTest Qel::Dir\n"), std::string::npos);
}

TEST_F(BrowseTest, RefusalsSayWhy) {
  struct Case {
    std::vector<std::string> request;
    char const* reply;
  };
  Case const cases[] = {
      {{"get"}, "usage: get PATH [ATTRIBUTE]"},
      {{"get", "/a", "b", "c"}, "usage: get PATH [ATTRIBUTE]"},
      {{"ls"}, "usage: ls PATH"},
      {{"get", "/dbTest/none"}, "no entity at /dbTest/none"},
      {{"ls", "/dbTest/none"}, "no entity at /dbTest/none"},
      {{"ls", "/dbTest/Ledra/a"}, "/dbTest/Ledra/a is a Browse::Box, not a directory"},
      {{"get", "/dbTest/Ledra/a", "size"},
       "Browse::Box at /dbTest/Ledra/a has no attribute 'size'"},
      {{"get", "/dbTest/Ledra/a", "power[x]"}, "'power' is no collection"},
  };
  for (auto const& c : cases)
    EXPECT_EQ(command(c.request), std::string("error: ") + c.reply + "\n") << c.request[0];
}

}  // namespace
}  // namespace Ledrad
