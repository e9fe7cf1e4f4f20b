// Ledrad::runDaemon: ledrad from start to end.
//
// Start: apply the trace levels; build the Database (cell, system name, tree, root manager);
// list both folders, then load every *.state file of the state folder and every *.profile file of
// the profile folder, in name order. A bad file is not applied and the others are still read, so
// that every problem is told, each as "<file>:<line>: <reason>" on `err`; any problem ends the
// start with "ledrad: not started" and exit status 1. With --check, ledrad stops there: it tells
// "ledrad: check passed: ..." (status 0) or "ledrad: check failed: N problems in M of K files"
// (status 1) and serves nothing. Otherwise it goes on to listen for agents (AgentListener) and for
// the control program (ControlServer), each with the bounds of the options; print "ledrad: ready
// ..." with both socket paths. Then serve on the event loop until SIGTERM or SIGINT, printing one
// line per agent event (AgentEvents) and per change made through the control socket, and pushing
// each agent's changed record to the `watch` subscribers (WatchFeed). Stop: close
// the sockets (agents are told "database shutting down"), let the connections go, release
// everything, exit status 0.
//
// `out` receives the event lines and `err` the errors, each line flushed at once. Runs on the
// calling thread, which owns the process's event loop; call it once per process.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "apps/ledrad/Options.h"

namespace Ledrad {

int runDaemon(Options const& options, std::FILE* out, std::FILE* err);

// The files of `dir` whose names end in `suffix`, in name order; throws std::runtime_error when
// `dir` is no readable folder.
std::vector<std::string> configFilesIn(std::string const& dir, std::string const& suffix);

}  // namespace Ledrad
