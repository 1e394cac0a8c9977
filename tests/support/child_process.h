// Parts of tests that run in a forked child, where they may redirect output, set limits or abort.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>

namespace test_platform {

/// Ends a child that ran a test body: successfully if no expectation failed in it.
[[noreturn]] void ExitChild();

/// Sends standard output to the file until the object dies (or, in a child, the process).
class StdoutToFile {
public:
  explicit StdoutToFile(const std::string& path);
  ~StdoutToFile();
  StdoutToFile(const StdoutToFile&) = delete;
  StdoutToFile& operator=(const StdoutToFile&) = delete;

private:
  int m_saved;
};

/// Limits the size of files that the process writes; a write past it fails with EFBIG instead of a signal.
void LimitFileSize(rlim_t bytes);

/// The descriptors that the process has open.
int CountDescriptors();

}  // namespace test_platform

/// Runs the statement in a forked child and expects all its expectations to hold and nothing on standard error.
#define EXPECT_IN_CHILD(statement)    \
  EXPECT_EXIT(                        \
      {                               \
        statement;                    \
        ::test_platform::ExitChild(); \
      },                              \
      ::testing::ExitedWithCode(0), ::testing::Eq(""))
