#include "Trace/CaptureSink.h"

#include <algorithm>

#include "Check/Check.h"

namespace Trace {

CaptureSink::CaptureSink() : previous_(textSinkIs(this)) {}

CaptureSink::~CaptureSink() {
  QEL_CHECK(textSink() == this,
            "textSink() == this && \"capture sink destroyed while another sink is installed\"");
  textSinkIs(previous_);
}

void CaptureSink::lineIs(double seconds, std::string_view facility, int level,
                         std::string_view message) {
  lines_.push_back(Line{seconds, std::string(facility), level, std::string(message)});
}

std::vector<std::string> CaptureSink::messages() const {
  std::vector<std::string> messages;
  messages.reserve(lines_.size());
  for (Line const& line : lines_)
    messages.push_back(line.message);
  return messages;
}

std::size_t CaptureSink::count(std::string_view text) const {
  return static_cast<std::size_t>(
      std::count_if(lines_.begin(), lines_.end(),
                    [text](Line const& l) { return l.message.find(text) != std::string::npos; }));
}

}  // namespace Trace
