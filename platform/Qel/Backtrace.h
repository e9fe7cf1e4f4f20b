// The call stack at the point of construction, as text: one frame per line, innermost first.
#pragma once

#include "Qel/Api.h"

#include <string>
#include <vector>

namespace Qel {

class QEL_API Backtrace {
 public:
  Backtrace();  // captures the caller's stack

  std::size_t frames() const { return frames_.size(); }
  std::string text() const;

 private:
  std::vector<void*> frames_;
};

}  // namespace Qel
