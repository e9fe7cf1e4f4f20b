// ringlog-decode <dump file>: prints the trace lines of a ring dump, oldest first.
#include <cstdio>

#include "Trace/DecodeTool.h"

int main(int argc, char** argv) {
  return Trace::ringlogDecodeMain(argc, argv, stdout, stderr);
}
