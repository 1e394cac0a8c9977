// Isolates a test program from the machine: a private mount namespace in which /dev/kmsg is a plain file.
#pragma once

#include <string>

#include "tests/unit/support/bound_over.h"

namespace test_support {

/// Moves the process into its own mount namespace (and, without root, its own user namespace) and mounts a file over
/// /dev/kmsg. Call it once, before any thread exists. Ends the process with a message if the kernel refuses.
void EnterPrivateMounts();

/// Removes the file that is mounted over /dev/kmsg. Call it once, after the tests.
void LeavePrivateMounts();

/// Returns the last report in /dev/kmsg. Each report truncates the file when it opens it.
std::string KernelLog();
void ClearKernelLog();

/// While this object exists, /dev/kmsg cannot be opened, because a socket is mounted over it.
class UnopenableKernelLog {
public:
  UnopenableKernelLog();
  ~UnopenableKernelLog();

private:
  const std::string m_socket;
  const BoundOver m_mount;
};

}  // namespace test_support
