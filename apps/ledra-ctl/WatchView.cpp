#include "apps/ledra-ctl/WatchView.h"

#include <algorithm>

#include "Qel/NboAttrLog/WireText.h"

namespace LedraCtl {

namespace {

using Qel::NboAttrLog::printableText;
using Qel::NboAttrLog::textWidth;

std::set<std::string> printable(std::vector<std::string> const& names) {
  std::set<std::string> out;
  for (auto const& n : names)
    out.insert(printableText(n));
  return out;
}

std::string bar(unsigned mounted, unsigned planned) {
  std::size_t const full = planned == 0 ? 0
                                        : static_cast<std::size_t>(std::min(mounted, planned)) *
                                              WatchView::kBarWidth / planned;
  return "[" + std::string(full, '#') + std::string(WatchView::kBarWidth - full, '-') + "]";
}

// "NAME [bar] M/P ", the name padded to `nameWidth` code points.
std::string head(std::string const& name, unsigned mounted, unsigned planned,
                 std::size_t nameWidth) {
  std::string out = name;
  std::size_t const width = textWidth(out);
  if (width < nameWidth) out.append(nameWidth - width, ' ');
  return out + " " + bar(mounted, planned) + " " + std::to_string(mounted) + "/" +
         std::to_string(planned) + " ";
}

}  // namespace

WatchView::WatchView(std::vector<std::string> const& named) : named_(printable(named)) {}

Ledrad::WatchLine WatchView::take(std::string_view text) {
  Ledrad::WatchLine l = Ledrad::decodeWatchLine(text);
  std::string const& name = l.record.name;
  switch (l.kind) {
    case Ledrad::WatchLine::agent:
      if (l.record.complete()) completed_.insert(name);
      records_[name] = l.record;
      break;
    case Ledrad::WatchLine::gone:
      records_.erase(name);
      break;
    case Ledrad::WatchLine::synced:
      if (synced_) break;
      synced_ = true;
      waited_ = named_;
      if (!named_.empty()) break;
      for (auto const& [n, r] : records_) {
        if (!r.closed()) waited_.insert(n);
      }
      break;
  }
  return l;
}

bool WatchView::complete() const {
  return synced_ &&
         std::includes(completed_.begin(), completed_.end(), waited_.begin(), waited_.end());
}

std::string WatchView::line(Ledrad::WatchRecord const& r, std::size_t nameWidth) {
  std::string out = head(r.name, r.mounted, r.planned, nameWidth);
  if (r.closed()) return out + r.connection;
  out += r.state;
  if (r.connection != "connected") out += " (" + r.connection + ")";
  if (r.waits != "-") out += " waits for: " + r.waits;
  return out;
}

std::string WatchView::fit(std::string const& text, std::size_t columns) {
  std::size_t pos = 0;
  for (std::size_t shown = 0; pos < text.size() && shown < columns; ++shown) {
    std::size_t const len = Qel::NboAttrLog::utf8SequenceAt(text, pos).length;
    pos += len == 0 ? 1 : len;
  }
  return text.substr(0, pos);
}

std::vector<std::string> WatchView::screen(std::size_t columns, std::size_t rows) const {
  std::set<std::string> names = named_;
  for (auto const& [n, r] : records_)
    names.insert(n);
  std::size_t nameWidth = 0;
  for (auto const& n : names)
    nameWidth = std::max(nameWidth, textWidth(n));
  std::vector<std::string> out;
  if (names.empty()) out.push_back("no agent known to ledrad yet");
  // The block leaves the terminal's last row to the cursor; when the agents do not fit, its last
  // line counts those left out.
  std::size_t const room = rows == 0 ? names.size() : std::max<std::size_t>(rows, 2) - 1;
  std::size_t const fits = names.size() <= room ? names.size() : room - 1;
  for (auto const& n : names) {
    if (out.size() == fits) break;
    auto const r = records_.find(n);
    out.push_back(r != records_.end() ? line(r->second, nameWidth)
                                      : head(n, 0, 0, nameWidth) + "not known to ledrad yet");
  }
  if (fits < names.size())
    out.push_back("... and " + std::to_string(names.size() - fits) + " more agents");
  // The last column stays free: a terminal that wraps there would move the cursor a line down.
  if (columns > 1) {
    for (auto& l : out)
      l = fit(l, columns - 1);
  }
  return out;
}

}  // namespace LedraCtl
