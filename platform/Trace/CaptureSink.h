// A text sink for tests: it keeps every trace line in memory.
//
// Constructing a CaptureSink installs it as the text sink; destroying it puts back the sink it
// replaced. Capture sinks nest, and must be destroyed in the reverse order of their construction
// (asserted: destroying one that is no longer the installed sink would leave a dangling sink).
// Each line keeps its time, facility, level and message separately, so tests compare messages
// exactly.
//
// Threading: one thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Trace/Line.h"
#include "Trace/TextSink.h"

namespace Trace {

class CaptureSink : public TextSink {
 public:
  CaptureSink();
  ~CaptureSink() override;
  CaptureSink(CaptureSink const&) = delete;
  CaptureSink& operator=(CaptureSink const&) = delete;

  void lineIs(double seconds, std::string_view facility, int level,
              std::string_view message) override;

  std::vector<Line> const& lines() const { return lines_; }
  std::vector<std::string> messages() const;
  void clear() { lines_.clear(); }

  // Whether any message contains text, and how many messages do.
  bool contains(std::string_view text) const { return count(text) > 0; }
  std::size_t count(std::string_view text) const;

 private:
  TextSink* previous_;
  std::vector<Line> lines_;
};

}  // namespace Trace
