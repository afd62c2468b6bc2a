// Runs a target once for each seed in the files and folders that are given, in the order of their
// names. A seed that breaks a rule ends the program, as it does when fuzzing.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> seeds;
  for (int i = 1; i < argc; ++i) {
    if (!fs::is_directory(argv[i])) {
      seeds.emplace_back(argv[i]);
      continue;
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(argv[i]))
      seeds.push_back(entry.path());
  }
  std::sort(seeds.begin(), seeds.end());

  for (const fs::path& seed : seeds) {
    std::printf("%s\n", seed.filename().c_str());
    std::fflush(stdout);
    std::ifstream file(seed, std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "%s cannot be read\n", seed.c_str());
      return 1;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%zu seeds\n", seeds.size());
  return seeds.empty() ? 1 : 0;
}
