#include "tests/unit/support/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace test_support {

TempDir::TempDir() : m_path("/tmp/ledgerd-test-XXXXXX") {
  if (::mkdtemp(m_path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), m_path);
  }
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

void WriteTextFile(const std::string& path, const std::string& text) {
  std::ofstream file;
  file.exceptions(std::ios::failbit | std::ios::badbit);
  file.open(path, std::ios::binary | std::ios::trunc);
  file << text;
}

std::string ReadTextFile(const std::string& path) {
  std::ifstream file;
  file.exceptions(std::ios::failbit | std::ios::badbit);
  file.open(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace test_support
