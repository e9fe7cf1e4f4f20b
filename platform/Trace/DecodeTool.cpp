#include "Trace/DecodeTool.h"

#include <string>

#include "Trace/RingDump.h"

namespace Trace {

int ringlogDecodeMain(int argc, char const* const* argv, std::FILE* out, std::FILE* err) {
  std::string const first = argc > 1 ? argv[1] : "";
  if (argc == 2 && (first == "--help" || first == "-h")) {
    std::fputs(
        "usage: ringlog-decode <dump file>\n"
        "Prints the trace lines of a dumped trace ring, oldest first, as\n"
        "<seconds> <facility>/<level> <message>. A running ledrad writes its ring with\n"
        "'ledra-ctl trace dump FILE'. Exit status: 0 decoded, 1 the dump could not be read,\n"
        "2 a wrong command line.\n",
        out);
    return 0;
  }
  if (argc != 2) {
    std::fputs("usage: ringlog-decode <dump file>\n", err);
    return 2;
  }
  std::string const& path = first;
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
