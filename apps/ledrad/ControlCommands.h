// Ledrad::ControlCommands: the commands of ledrad's control socket, run against the Database.
//
//   status [--json] [AGENT...]        the status report as a table or as JSON (StatusFormat)
//   explain [--json] AGENT             what the agent gets and why, connected or not (Explain,
//                                      ExplainFormat); a name no profile serves is no error
//   get PATH [ATTRIBUTE]               an entity's type and attributes, or one value
//                                      (ATTRIBUTE[KEY] for a collection element)
//   ls PATH                            the entries of a directory and their types
//   metrics                            the Metrics as OpenMetrics text
//   set PATH ATTRIBUTE VALUE           write one attribute (ATTRIBUTE[KEY] for a collection
//                                      element)
//   load-profiles FILE|DIR...          load profile files (a refused file changes nothing); a
//                                      folder stands for its *.profile files in name order
//   load-state FILE|DIR...             load state files (likewise, *.state)
//   trace dump FILE                    write the trace ring to FILE (absolute, not yet there)
//   watch [AGENT...]                   a subscription to the agents' records (WatchFeed); refused
//                                      when no feed is given (watchFeedIs)
//
// execute() never throws: every failure becomes an error reply with its reason, and ledrad keeps
// serving. File names are used as given, so the control program sends absolute paths.
// `events` (may be empty) is told one line for each change made, so that ledrad can print it.
// Single-threaded: the event loop's thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "apps/ledrad/ControlProtocol.h"
#include "apps/ledrad/Database.h"
#include "apps/ledrad/Metrics.h"

namespace Ledrad {

class WatchFeed;

class ControlCommands {
 public:
  using Events = std::function<void(std::string const& line)>;

  // `metrics` (may be null: the command says so) must outlive this.
  ControlCommands(Database& db, Events events, Metrics const* metrics = nullptr)
      : db_(db), events_(std::move(events)), metrics_(metrics) {}

  ControlReply execute(std::vector<std::string> const& request);
  // The feed that answers `watch` (may be null); it must outlive this.
  void watchFeedIs(WatchFeed* feed) { watchFeed_ = feed; }

  static std::string usage();

 private:
  ControlReply status(std::vector<std::string> const& args);
  ControlReply explain(std::vector<std::string> const& args);
  ControlReply set(std::vector<std::string> const& args);
  ControlReply load(std::vector<std::string> const& args, bool profiles);
  ControlReply trace(std::vector<std::string> const& args);
  void event(std::string const& line) const;

  Database& db_;
  Events events_;
  Metrics const* metrics_;
  WatchFeed* watchFeed_ = nullptr;
};

}  // namespace Ledrad
