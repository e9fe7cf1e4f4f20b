// The call stack at the point of construction, as text: one frame per line ("  #<n> <frame>"),
// innermost first, with C++ names demangled where possible. Failed checks print it; any code may
// use it for diagnostics. Capturing allocates; it is safe on any thread.
#pragma once

#include <string>
#include <vector>

namespace Check {

class __attribute__((visibility("default"))) Backtrace {
 public:
  Backtrace();  // captures the caller's stack

  std::size_t frames() const { return frames_.size(); }
  std::string text() const;

 private:
  std::vector<void*> frames_;
};

}  // namespace Check
