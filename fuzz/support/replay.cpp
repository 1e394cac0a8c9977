// The main function of a fuzzer without the fuzzing engine. Runs each file of the given directories once, as the engine
// does with "-runs=0".
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    // Options are for the engine.
    if (argv[i][0] != '-') {
      files.insert(files.end(), std::filesystem::directory_iterator(argv[i]), std::filesystem::directory_iterator());
    }
  }
  std::sort(files.begin(), files.end());
  for (const std::filesystem::path& path : files) {
    std::fprintf(stderr, "%s\n", path.c_str());
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
