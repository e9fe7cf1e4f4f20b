#include "Check/Backtrace.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <cstdlib>
#include <memory>

namespace Check {

namespace {

constexpr int kMaxFrames = 64;

// Turns "module(mangled+0x12) [0x...]" into "module(demangled+0x12) [0x...]" where it can.
std::string demangleFrame(std::string const& frame) {
  auto open = frame.find('(');
  auto plus = frame.find('+', open == std::string::npos ? 0 : open);
  if (open == std::string::npos || plus == std::string::npos || plus <= open + 1) return frame;
  std::string mangled = frame.substr(open + 1, plus - open - 1);
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status), std::free);
  if (status != 0 || !name) return frame;
  return frame.substr(0, open + 1) + name.get() + frame.substr(plus);
}

}  // namespace

Backtrace::Backtrace() {
  frames_.resize(kMaxFrames);
  int n = ::backtrace(frames_.data(), kMaxFrames);
  // Leave out this constructor's own frame.
  frames_.erase(frames_.begin(), frames_.begin() + (n > 0 ? 1 : 0));
  frames_.resize(n > 0 ? n - 1 : 0);
}

std::string Backtrace::text() const {
  std::string out;
  if (frames_.empty()) return out;
  std::unique_ptr<char*, void (*)(void*)> symbols(
      ::backtrace_symbols(frames_.data(), static_cast<int>(frames_.size())), std::free);
  for (std::size_t i = 0; i < frames_.size(); ++i) {
    out += "  #" + std::to_string(i) + " ";
    out += symbols ? demangleFrame(symbols.get()[i]) : std::string("?");
    out += '\n';
  }
  return out;
}

}  // namespace Check
