// Collects what the code under test writes to standard error, and fails the test if nobody looked at it.
#pragma once

#include <string>

namespace test_support {

/// While it lives, descriptor 2 is a temporary file. Expected diagnostics are taken with Take and compared; what is
/// left when the object dies fails the running test.
class CapturedStderr {
public:
  CapturedStderr();
  ~CapturedStderr();
  CapturedStderr(const CapturedStderr&) = delete;
  CapturedStderr& operator=(const CapturedStderr&) = delete;

  /// Returns what was written since the last call.
  std::string Take();

private:
  int m_file;
  int m_saved;
};

}  // namespace test_support
