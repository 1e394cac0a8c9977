#include "lib/platform/pid_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <exception>

#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/posix_helpers.h"
#include "lib/platform/safe_print.h"
#include "lib/platform/string_operations.h"

namespace bramble {
namespace {

constexpr useconds_t kPollIntervalMicroseconds = 10000;
constexpr mode_t kPidFileMode = 0644;

// The umask may have removed bits, and an older file may have more. A link may lead to a device, whose mode is kept.
void SetMode(int fd) {
  struct stat status;
  if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
    ::fchmod(fd, kPidFileMode);
  }
}

// Returns whether the process has the name `name`; prints a line if not.
bool IsRunningAs(pid_t pid, const std::string& name) {
  std::string stat;
  try {
    stat = ReadFile(strprintf("/proc/%d/stat", pid));
  } catch (const std::exception& e) {
    SafePrint(stderr, "PID file exists but %s process does not exist: %s\n", name, e.what());
    return false;
  }
  // The kernel prints the name in parentheses.
  if (stat.find("(" + name + ")") == std::string::npos) {
    SafePrint(stderr, "PID file exists but %s not running\n", name);
    return false;
  }
  return true;
}

}  // namespace

void WritePidFile(const std::string& path, pid_t pid) {
  // fopen would create the file with mode 0666. Others could open it for writing before its mode is set.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kPidFileMode);
  if (fd < 0) {
    return;
  }
  SetMode(fd);
  ::dprintf(fd, "%lu\n", static_cast<unsigned long>(pid));
  ::close(fd);
}

pid_t ReadPidFile(const std::string& path, const std::string& name) {
  const std::string context = strprintf("ReadPidFile:%s", name.c_str());
  std::FILE* const file = std::fopen(path.c_str(), "re");
  if (file == nullptr) {
    throw ErrnoException(ENOENT, context);
  }
  unsigned long number = 0;
  // If the file has no number, pid stays 0, which is no process. NOLINTNEXTLINE(cert-err34-c)
  [[maybe_unused]] const int ignored = std::fscanf(file, "%lu", &number);
  std::fclose(file);
  const auto pid = static_cast<pid_t>(number);
  if (!IsRunningAs(pid, name)) {
    throw ErrnoException(ESRCH, context);
  }
  return pid;
}

int KillProcessAndWait(pid_t pid, int signal, const boost::posix_time::time_duration& timeout) {
  if (::kill(pid, signal) != 0) {
    const int error_number = errno;
    SafePrint(stderr, "Failed to send signal %d to %d.\n", signal, pid);
    throw ErrnoException(error_number, "KillProcessAndWait");
  }
  const auto microseconds = static_cast<std::uint64_t>(std::max<std::int64_t>(timeout.total_microseconds(), 0));
  const timespec deadline = AddMicroseconds(get_monotonic_time(), microseconds);
  while (IsBefore(get_monotonic_time(), deadline) && ::kill(pid, 0) == 0) {
    ::usleep(kPollIntervalMicroseconds);
  }
  const int gone = ::kill(pid, 0);
  if (gone != 0) {
    return gone;
  }
  SafePrint(stderr, "PID %d didn't exit from signal %d. Trying harder.\n", pid, signal);
  return ::kill(pid, SIGKILL);
}

}  // namespace bramble
