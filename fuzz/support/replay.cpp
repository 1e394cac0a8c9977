// The main function of a fuzzer without the fuzzing engine: runs each file of a directory once. The directory is the
// last argument; the others are for the engine.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "fuzz/support/fuzzer.h"

int main(int argc, char** argv) {
  fuzz::Prepare();
  const std::set<std::filesystem::path> files(std::filesystem::directory_iterator(argv[argc - 1]), {});
  for (const std::filesystem::path& path : files) {
    std::fprintf(stderr, "%s\n", path.c_str());
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    fuzz::Run(fuzz::Input(bytes));
  }
  return files.empty() ? 1 : 0;
}
