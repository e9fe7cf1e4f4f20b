#include "Trace/DecodeTool.h"

#include <string>

#include "Trace/RingDump.h"

namespace Trace {

int ringlogDecodeMain(int argc, char const* const* argv, std::FILE* out, std::FILE* err) {
  if (argc != 2) {
    std::fputs("usage: ringlog-decode <dump file>\n", err);
    return 2;
  }
  std::string const path = argv[1];
  std::vector<Line> lines;
  try {
    lines = RingDump::read(path);
  } catch (DumpError const& error) {
    std::fprintf(err, "ringlog-decode: %s: %s\n", path.c_str(), error.what());
    return 1;
  }
  for (Line const& line : lines) {
    std::string text = line.text();
    text += '\n';
    std::fwrite(text.data(), 1, text.size(), out);
  }
  std::fflush(out);
  return 0;
}

}  // namespace Trace
