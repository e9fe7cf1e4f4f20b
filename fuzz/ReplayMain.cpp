// The harnesses without libFuzzer: every file named on the command line, or found in a folder
// named there, is given once to LLVMFuzzerTestOneInput. The build that does not fuzz (g++) runs
// the checked-in corpora with it, so their property checks hold with both compilers.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);
// Defined by the harnesses that prepare process-wide state once, as libFuzzer calls it.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

bool replay(std::filesystem::path const& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
    return false;
  }
  std::vector<std::uint8_t> const bytes{std::istreambuf_iterator<char>(in), {}};
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  std::size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path const arg(argv[i]);
    std::vector<std::filesystem::path> files;
    if (std::filesystem::is_directory(arg)) {
      for (auto const& entry : std::filesystem::directory_iterator(arg))
        if (entry.is_regular_file()) files.push_back(entry.path());
    } else {
      files.push_back(arg);
    }
    for (auto const& f : files) {
      if (!replay(f)) return 1;
      ++inputs;
    }
  }
  if (inputs == 0) {
    std::fprintf(stderr, "replay: no input given\n");
    return 1;
  }
  std::printf("replay: %zu inputs passed\n", inputs);
  return 0;
}
