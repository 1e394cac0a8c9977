// Keeps a test program away from the machine that it runs on: its own mount namespace, with a plain file as /dev/kmsg.
#pragma once

#include <string>

namespace test_support {

/// Moves the process into a mount namespace of its own (and, without root, a user namespace) and lays a file over
/// /dev/kmsg. Called once, before any thread exists. Ends the process with a message if the kernel refuses.
void EnterPrivateMounts();

/// Ends the private life of /dev/kmsg's stand-in: removes the file. Called once, after the tests.
void LeavePrivateMounts();

/// What was last written to /dev/kmsg: each report opens and truncates the stand-in, as it is a plain file.
std::string KernelLog();
void ClearKernelLog();

/// While it lives, /dev/kmsg cannot be opened: a socket lies over it.
class UnopenableKernelLog {
public:
  UnopenableKernelLog();
  ~UnopenableKernelLog();
  UnopenableKernelLog(const UnopenableKernelLog&) = delete;
  UnopenableKernelLog& operator=(const UnopenableKernelLog&) = delete;

private:
  std::string m_socket;
};

}  // namespace test_support
