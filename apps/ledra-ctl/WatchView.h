// LedraCtl::WatchView: what `ledra-ctl watch` shows, from the lines of a watch stream
// (Ledrad::WatchRecord): the latest record of each agent, and whether the agents waited for have
// all completed.
//
// The agents waited for are those named, or, when none is named, those ledrad reported before
// "synced" whose connection was not closed then (an agent that had left is history, not something
// to wait for). An agent counts as complete once any record of it said "mountComplete"; a later
// record (its departure, say) does not undo that. Agents ledrad reports after "synced" are shown
// but not waited for.
//
// Rendering: an agent's line is "NAME [####----------------] 3/12 STATE", then " (not connected)"
// when so, then " waits for: ..." when it waits; an agent whose connection closed shows
// "NAME [bar] M/P closed: REASON"; a named agent ledrad has not reported shows "not known to
// ledrad yet". The bar has kBarWidth cells, full only when every planned path is mounted.
// screen() gives the terminal's lines: one per agent in name order, names padded to one width,
// each cut to fit the terminal's columns, and, when the agents outnumber its rows, a last line
// counting those left out. A plain value; every text in it came from ledrad in printable form.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "apps/ledrad/WatchRecord.h"

namespace LedraCtl {

class WatchView {
 public:
  static constexpr std::size_t kBarWidth = 20;

  explicit WatchView(std::vector<std::string> const& named);

  // Takes one line of the stream (without its newline) and returns it decoded; throws
  // std::runtime_error for a line that is no watch line.
  Ledrad::WatchLine take(std::string_view line);

  bool synced() const { return synced_; }
  // Synced, and every agent waited for has completed.
  bool complete() const;
  // The agents waited for (known once synced).
  std::set<std::string> const& waitedFor() const { return waited_; }

  // The terminal's lines for `columns` x `rows` (0: not known, no bound).
  std::vector<std::string> screen(std::size_t columns, std::size_t rows) const;

  // An agent's line, its name padded to `nameWidth` code points.
  static std::string line(Ledrad::WatchRecord const& record, std::size_t nameWidth = 0);
  // `text` cut to at most `columns` code points.
  static std::string fit(std::string const& text, std::size_t columns);

 private:
  std::set<std::string> const named_;  // printable
  std::map<std::string, Ledrad::WatchRecord> records_;
  std::set<std::string> completed_;
  std::set<std::string> waited_;
  bool synced_ = false;
};

}  // namespace LedraCtl
