// Ledrad::WatchRecord: one agent's line in a `watch` stream (WatchFeed, ControlProtocol): how far
// its mounts are, its engine's state and what it waits for.
//
//   agent<TAB>NAME<TAB>MOUNTED<TAB>PLANNED<TAB>STATE<TAB>UNANSWERED<TAB>CONNECTION<TAB>WAITS
//
// NAME is the agent's name; MOUNTED and PLANNED count the paths mounted of the paths planned
// (AgentReport::pathsMounted, pathsPlanned); STATE is the engine's state ("init",
// "readyMountGroupPending", "conditionalMountGroupPending", "mountComplete"), "no engine", or "-"
// for an agent closed before an engine served it; UNANSWERED counts the mount requests the agent
// has not answered yet (the engine completes once it has sent its last group's requests, before
// their answers come); CONNECTION is "connected", "not connected", or,
// for an agent whose connection is gone (then the other fields are those it had last),
// "closed" followed by ": REASON" when a reason was given; WAITS lists what the agent waits for,
// "; " between items (at most one item of each kind, with the count of the others), "-" for
// nothing. Every text is in its printable form, so no field holds a tab or a newline. A record
// never holds anything that changes by time alone: it changes only when the agent does.
//
// An agent is complete once its engine is (mountComplete) and every request has been answered.
//
// The other lines of the stream: "gone<TAB>NAME" (ledrad reports the agent no longer) and
// "synced" (the lines before it were the state when the watch began; changes follow).
//
// decodeWatchLine shows every text it returns in printable form, whatever the line held. Pure
// functions; decodeWatchLine throws std::runtime_error for a line that is none of these.
#pragma once

#include <string>
#include <string_view>

#include "apps/ledrad/StatusReport.h"

namespace Ledrad {

struct WatchRecord {
  std::string name;
  unsigned mounted = 0;
  unsigned planned = 0;
  std::string state;
  unsigned unanswered = 0;
  std::string connection;
  std::string waits;

  bool complete() const { return state == "mountComplete" && unanswered == 0; }
  bool closed() const { return connection.rfind("closed", 0) == 0; }
  bool operator==(WatchRecord const&) const = default;
};

WatchRecord watchRecord(AgentReport const& agent);

// The lines of the stream, each ended by its newline.
std::string watchLine(WatchRecord const& record);
std::string goneLine(std::string const& name);
inline constexpr char const* kSyncedLine = "synced\n";

struct WatchLine {
  enum Kind { agent, gone, synced };
  Kind kind = synced;
  WatchRecord record;  // for gone, only the name
};

// One line of the stream, without its newline.
WatchLine decodeWatchLine(std::string_view line);

}  // namespace Ledrad
