// Functions for tests that run in a forked child, where they may redirect output, set limits or abort.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <boost/core/noncopyable.hpp>
#include <string>

namespace test_platform {

/// Ends a child that ran a test body. The status is 0 if no expectation failed in it, otherwise 1.
[[noreturn]] void ExitChild();

/// Redirects standard output to the file until this object is destroyed or the child exits.
class StdoutToFile : boost::noncopyable {
public:
  explicit StdoutToFile(const std::string& path);
  ~StdoutToFile();

private:
  int m_saved;
};

/// Limits the size of files that the process writes. A write past the limit fails with EFBIG; there is no signal.
void LimitFileSize(rlim_t bytes);

/// Returns the number of open descriptors.
int CountDescriptors();

}  // namespace test_platform

/// Runs the statement in a forked child. Expects that no expectation in it fails and that it prints nothing on standard
/// error.
#define EXPECT_IN_CHILD(statement)    \
  EXPECT_EXIT(                        \
      {                               \
        statement;                    \
        ::test_platform::ExitChild(); \
      },                              \
      ::testing::ExitedWithCode(0), ::testing::Eq(""))
