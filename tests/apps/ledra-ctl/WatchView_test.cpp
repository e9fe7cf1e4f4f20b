// What ledra-ctl watch shows and when --until-complete ends: the lines of the stream taken in
// order, the agents waited for fixed at "synced", completion (every request answered too) that a
// departure does not undo, and
// the terminal's lines (bar, padding, agents not known yet, cut to the width, agents left out
// when they outnumber the rows).
#include "apps/ledra-ctl/WatchView.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using LedraCtl::WatchView;
using Lines = std::vector<std::string>;

WatchView fed(Lines const& named, Lines const& stream) {
  WatchView v(named);
  for (auto const& l : stream)
    v.take(l);
  return v;
}

TEST(WatchViewTest, TheAgentsWaitedForAreFixedAtSyncAndStayCompleteOnceComplete) {
  // None named: those known at the start, except one already gone then.
  WatchView all = fed({}, {"agent\ta\t0\t3\tinit\t0\tconnected\t-",
                           "agent\tgone\t1\t1\tmountComplete\t0\tclosed: bye\t-", "synced"});
  EXPECT_EQ(all.waitedFor(), (std::set<std::string>{"a"}));
  EXPECT_FALSE(all.complete());
  all.take("agent\tlate\t0\t9\tinit\t0\tconnected\t-");
  all.take("agent\ta\t3\t3\tmountComplete\t0\tconnected\t-");
  all.take("agent\ta\t3\t3\tmountComplete\t0\tclosed: agent stops\t-");
  EXPECT_TRUE(all.complete()) << "a late agent is not waited for; a departure undoes nothing";
  EXPECT_TRUE(fed({}, {"synced"}).complete());

  // Named: complete only once each named agent was; no record before "synced" counts as synced.
  WatchView named = fed({"x", "y"}, {"agent\tx\t2\t2\tmountComplete\t0\tconnected\t-"});
  EXPECT_FALSE(named.complete());
  named.take("synced");
  EXPECT_FALSE(named.complete());
  named.take("gone\ty");
  // The engine completes before the answers to its last requests come.
  named.take("agent\ty\t1\t3\tmountComplete\t2\tconnected\t-");
  EXPECT_FALSE(named.complete());
  named.take("agent\ty\t3\t3\tmountComplete\t0\tconnected\t-");
  EXPECT_TRUE(named.complete());
  for (char const* bad : {"agent\tx\t1\t2\tinit\t0\tconnected", "agent\tx\t-1\t2\tinit\t0\tc\t-",
                          "agent\tx\t1\t2x\tinit\t0\tc\t-", "agent\tx\t1\t2\tinit\t\tc\t-", "gone",
                          "synced\t", "hello"})
    EXPECT_THROW(named.take(bad), std::runtime_error) << bad;
}

TEST(WatchViewTest, TheTerminalShowsOnePaddedLinePerAgentCutToItsSize) {
  WatchView v =
      fed({"zz-named"},
          {"agent\tfan-1\t7\t20\treadyMountGroupPending\t0\tconnected\t2 unanswered mount "
           "request(s)",
           "agent\tgate\t1\t2\tconditionalMountGroupPending\t0\tnot connected\t-",
           "agent\tstranger\t0\t0\t-\t0\tclosed: no agent profile\t-",
           "agent\t\xc3\xa9t\xc3\xa9\t3\t3\tmountComplete\t0\tconnected\t-", "synced"});
  EXPECT_EQ(v.screen(0, 0),
            (Lines{"fan-1    [#######-------------] 7/20 readyMountGroupPending waits for: 2 "
                   "unanswered mount request(s)",
                   "gate     [##########----------] 1/2 conditionalMountGroupPending (not "
                   "connected)",
                   "stranger [--------------------] 0/0 closed: no agent profile",
                   "zz-named [--------------------] 0/0 not known to ledrad yet",
                   "\xc3\xa9t\xc3\xa9      [####################] 3/3 mountComplete"}));
  // The last column stays free; five rows hold three agents, the count of the others and the
  // cursor's row.
  EXPECT_EQ(v.screen(13, 5),
            (Lines{"fan-1    [##", "gate     [##", "stranger [--", "... and 2 mo"}));
  // Code points are never cut in two.
  EXPECT_EQ(WatchView::fit("\xc3\xa9t\xc3\xa9!", 3), "\xc3\xa9t\xc3\xa9");
  EXPECT_EQ(fed({}, {"synced"}).screen(80, 24), Lines{"no agent known to ledrad yet"});
}

}  // namespace
