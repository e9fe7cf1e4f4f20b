#include "Trace/Facility.h"

#include "Trace/Assert.h"
#include "Trace/Facilities.h"

namespace Trace {

Facility::Facility(std::string_view name) : name_(name) {
  TRACE_ASSERT(!name_.empty() && "trace facility without a name");
  Facilities::instance().add(*this);
}

Facility::~Facility() {
  Facilities::instance().remove(*this);
}

void Facility::levelIs(int level) {
  TRACE_ASSERT(level >= 0 && level <= kMaxLevel && "trace level out of range 0..9");
  level_ = static_cast<std::uint8_t>(level);
}

}  // namespace Trace
