#include "Trace/SiteTable.h"

namespace Trace {

SiteTable& SiteTable::instance() {
  static SiteTable table;
  return table;
}

std::uint32_t SiteTable::add(Site const& site) {
  sites_.push_back(site);
  return static_cast<std::uint32_t>(sites_.size() - 1);
}

}  // namespace Trace
