#include "Trace/Facility.h"

#include "Check/Check.h"
#include "Trace/Facilities.h"

namespace Trace {

Facility::Facility(std::string_view name) : name_(name) {
  QEL_CHECK(!name_.empty(), "!name_.empty() && \"trace facility without a name\"");
  Facilities::instance().add(*this);
}

Facility::~Facility() {
  Facilities::instance().remove(*this);
}

void Facility::levelIs(int level) {
  QEL_CHECK(level >= 0 && level <= kMaxLevel,
            "level >= 0 && level <= kMaxLevel && \"trace level out of range 0..9\"");
  level_ = static_cast<std::uint8_t>(level);
}

}  // namespace Trace
