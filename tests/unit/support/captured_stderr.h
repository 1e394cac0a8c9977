// Captures what the code under test writes to standard error. Output that the test does not read fails the test.
#pragma once

#include <boost/core/noncopyable.hpp>
#include <string>

namespace test_support {

/// While this object exists, descriptor 2 is a temporary file. A test reads expected diagnostics with Take and compares
/// them. If any output is left, the destructor fails the running test.
class CapturedStderr : boost::noncopyable {
public:
  CapturedStderr();
  ~CapturedStderr();

  /// Returns the output since the last call.
  std::string Take();

private:
  int m_file;
  int m_saved;
};

}  // namespace test_support
