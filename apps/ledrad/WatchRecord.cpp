#include "apps/ledrad/WatchRecord.h"

#include <charconv>
#include <stdexcept>
#include <vector>

#include "Qel/NboAttrLog/WireText.h"

namespace Ledrad {

namespace {

using Qel::NboAttrLog::printableText;

// The first of `items` after `label`, and how many more there are.
void firstOf(std::vector<std::string>& waits, std::string const& label,
             std::vector<std::string> const& items) {
  if (items.empty()) return;
  std::string text = label + items.front();
  if (items.size() > 1) text += " (and " + std::to_string(items.size() - 1) + " more)";
  waits.push_back(std::move(text));
}

std::string waitsOf(AgentReport const& a) {
  std::vector<std::string> waits;
  std::vector<std::string> failed;
  for (auto const& f : a.failed)
    failed.push_back(f.path + (f.reason.empty() ? std::string() : ": " + f.reason));
  firstOf(waits, "failed mount ", failed);
  std::vector<std::string> conditions;
  for (auto const& c : a.conditions)
    conditions.push_back(c.condition + " of group " + c.group);
  firstOf(waits, "condition ", conditions);
  if (a.outstandingRequests > 0)
    waits.push_back(std::to_string(a.outstandingRequests) + " unanswered mount request(s)");
  firstOf(waits, "pending mount ", a.pendingMounts);
  firstOf(waits, "directory mounter ", a.dirMounters);
  firstOf(waits, "blocking condition ", a.blockingConditions);
  if (waits.empty()) return "-";
  std::string out;
  for (auto const& w : waits)
    out += (out.empty() ? "" : "; ") + w;
  return out;
}

std::vector<std::string_view> fields(std::string_view line) {
  std::vector<std::string_view> out;
  while (true) {
    std::size_t const tab = line.find('\t');
    out.push_back(line.substr(0, tab));
    if (tab == std::string_view::npos) return out;
    line.remove_prefix(tab + 1);
  }
}

unsigned number(std::string_view text) {
  unsigned n = 0;
  auto const [end, ec] = std::from_chars(text.data(), text.data() + text.size(), n);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size())
    throw std::runtime_error("malformed watch record from ledrad");
  return n;
}

}  // namespace

WatchRecord watchRecord(AgentReport const& a) {
  WatchRecord r;
  r.name = printableText(a.name);
  r.mounted = a.pathsMounted;
  r.planned = a.pathsPlanned;
  r.state = printableText(a.state);
  r.unanswered = a.outstandingRequests;
  if (a.departed) {
    r.connection = "closed" + (a.closeReason.empty() ? std::string() : ": " + a.closeReason);
  } else {
    r.connection = a.connected ? "connected" : "not connected";
  }
  r.connection = printableText(r.connection);
  r.waits = printableText(waitsOf(a));
  return r;
}

std::string watchLine(WatchRecord const& r) {
  return "agent\t" + r.name + "\t" + std::to_string(r.mounted) + "\t" + std::to_string(r.planned) +
         "\t" + r.state + "\t" + std::to_string(r.unanswered) + "\t" + r.connection + "\t" +
         r.waits + "\n";
}

std::string goneLine(std::string const& name) {
  return "gone\t" + printableText(name) + "\n";
}

WatchLine decodeWatchLine(std::string_view line) {
  WatchLine out;
  if (line == "synced") return out;
  auto const f = fields(line);
  if (f.front() == "gone" && f.size() == 2) {
    out.kind = WatchLine::gone;
    out.record.name = printableText(f[1]);
    return out;
  }
  if (f.front() != "agent" || f.size() != 8)
    throw std::runtime_error("malformed watch record from ledrad");
  // What reaches a terminal is shown in printable form, whatever the stream held.
  out.kind = WatchLine::agent;
  out.record =
      WatchRecord{printableText(f[1]), number(f[2]),        number(f[3]),       printableText(f[4]),
                  number(f[5]),        printableText(f[6]), printableText(f[7])};
  return out;
}

}  // namespace Ledrad
