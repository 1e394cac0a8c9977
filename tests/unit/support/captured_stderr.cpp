#include "tests/unit/support/captured_stderr.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "tests/unit/support/emulation.h"

namespace test_support {

CapturedStderr::CapturedStderr() : m_file(::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)) {
  std::fflush(stderr);
  m_saved = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  if (m_file < 0 || m_saved < 0 || ::dup2(m_file, STDERR_FILENO) < 0) {
    ADD_FAILURE() << "cannot capture standard error";
  }
}

CapturedStderr::~CapturedStderr() {
  EXPECT_EQ(Take(), "") << "unexpected standard error";
  ::dup2(m_saved, STDERR_FILENO);
  ::close(m_saved);
  ::close(m_file);
}

std::string CapturedStderr::Take() {
  std::fflush(stderr);
  const off_t size = ::lseek(m_file, 0, SEEK_END);
  std::string text(static_cast<std::size_t>(size), '\0');
  if (::pread(m_file, text.data(), text.size(), 0) != size || ::ftruncate(m_file, 0) != 0) {
    ADD_FAILURE() << "cannot read captured standard error";
  }
  ::lseek(m_file, 0, SEEK_SET);
  return OwnWords(std::move(text));
}

}  // namespace test_support
