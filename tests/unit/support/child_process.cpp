#include "tests/unit/support/child_process.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "tests/unit/support/aborts.h"
#include "tests/unit/support/forked_child.h"

namespace test_platform {

void ExitChild() {
  // GoogleTest does not report failures of a child, but it shows the standard error of the child.
  const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
  for (int i = 0; i < result.total_part_count(); ++i) {
    const testing::TestPartResult& part = result.GetTestPartResult(i);
    std::fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
  }
  std::fflush(nullptr);
  ::_exit(result.Failed() ? 1 : 0);
}

StdoutToFile::StdoutToFile(const std::string& path) {
  std::fflush(stdout);
  m_saved = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (m_saved < 0 || fd < 0 || ::dup2(fd, STDOUT_FILENO) < 0) {
    ADD_FAILURE() << "cannot redirect standard output";
  }
  ::close(fd);
}

StdoutToFile::~StdoutToFile() {
  std::fflush(stdout);
  ::dup2(m_saved, STDOUT_FILENO);
  ::close(m_saved);
}

void LimitFileSize(rlim_t bytes) {
  std::signal(SIGXFSZ, SIG_IGN);
  EXPECT_TRUE(test_support::LimitResource(RLIMIT_FSIZE, bytes));
}

std::string Quoted(const std::string& text) {
  std::string regex;
  for (const char byte : text) {
    if (std::strchr("^.[]$()|*+?{}\\", byte) != nullptr) {
      regex += '\\';
    }
    regex += byte;
  }
  return regex;
}

int CountDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<int>(std::distance(begin(descriptors), end(descriptors)));
}

}  // namespace test_platform
