// Replays fuzz inputs without libFuzzer: every file named on the command
// line, or found directly in a directory named there, is passed once to
// LLVMFuzzerTestOneInput. A crash or sanitizer report fails the run.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    fs::path arg(argv[i]);
    if (fs::is_directory(arg)) {
      for (const auto& entry : fs::directory_iterator(arg)) {
        if (entry.is_regular_file()) {
          inputs.push_back(entry.path());
        }
      }
    } else {
      inputs.push_back(arg);
    }
  }
  std::sort(inputs.begin(), inputs.end());
  if (inputs.empty()) {
    std::fprintf(stderr, "no inputs\n");
    return 1;
  }
  for (const fs::path& path : inputs) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // An exact-size heap copy, so a read past the end is caught by ASan.
    std::vector<uint8_t> copy(bytes);
    LLVMFuzzerTestOneInput(copy.empty() ? nullptr : copy.data(), copy.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
