// LedraCtl::runWatch: `ledra-ctl watch [--until-complete] [AGENT...]`, a live view of the agents
// ledrad serves (WatchView), fed by the records ledrad pushes over one control connection
// (ControlProtocol): nothing is polled.
//
// On a terminal the view is redrawn in place after each batch of records (ANSI cursor movement,
// the cursor hidden meanwhile; the size from TIOCGWINSZ, read again on SIGWINCH). Otherwise one
// plain line is printed per record as it comes ("NAME gone" for an agent ledrad no longer
// reports). --until-complete ends the watch once every agent waited for has completed (WatchView).
//
// Exit status: 0 complete (at once when no agent is named and ledrad knows none); 1 ledrad
// refused the watch (its reason on standard error); 2 bad command line; 3 ledrad not reachable,
// not answering within the timeout, closing the watch (it stopped, or dropped this client) or
// sending what is no watch line, with the reason on standard error; 130 and 143 on SIGINT and
// SIGTERM, after which the terminal is left with its cursor shown on a fresh line.
//
// runWatch blocks SIGINT, SIGTERM and SIGWINCH in the calling thread (they are read from a
// signalfd) and writes to the standard output's descriptor. Call it from the main thread.
#pragma once

#include <string>
#include <vector>

#include "apps/ledra-ctl/CtlArguments.h"

namespace LedraCtl {

struct WatchArguments {
  bool untilComplete = false;
  std::vector<std::string> agents;
};

// `words`: the command's words, "watch" first. Throws CtlArgumentsError for an unknown option.
WatchArguments parseWatchArguments(std::vector<std::string> const& words);

// The paragraph of the usage about watch.
std::string watchUsage();

int runWatch(CtlArguments const& options);

}  // namespace LedraCtl
