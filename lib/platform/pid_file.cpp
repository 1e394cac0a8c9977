#include "lib/platform/pid_file.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
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

// Whether the process runs under `name`; prints why not.
bool IsRunningAs(pid_t pid, const std::string& name) {
  std::string stat;
  try {
    stat = ReadFile(strprintf("/proc/%d/stat", pid));
  } catch (const std::exception& e) {
    SafePrint(stderr, "PID file exists but %s process does not exist: %s\n", name, e.what());
    return false;
  }
  // The kernel puts the name in parentheses.
  if (stat.find("(" + name + ")") == std::string::npos) {
    SafePrint(stderr, "PID file exists but %s not running\n", name);
    return false;
  }
  return true;
}

}  // namespace

void WritePidFile(const std::string& path, pid_t pid) {
  if (std::FILE* file = std::fopen(path.c_str(), "we")) {
    std::fprintf(file, "%lu\n", static_cast<unsigned long>(pid));
    std::fclose(file);
  }
}

pid_t ReadPidFile(const std::string& path, const std::string& name) {
  const std::string context = strprintf("ReadPidFile:%s", name.c_str());
  std::FILE* const file = std::fopen(path.c_str(), "re");
  if (file == nullptr) {
    throw ErrnoException(ENOENT, context);
  }
  unsigned long number = 0;
  // A file without a number leaves 0, which is no process. NOLINTNEXTLINE(cert-err34-c)
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
  const timespec deadline =
      AddMicroseconds(get_monotonic_time(), static_cast<std::uint64_t>(timeout.total_microseconds()));
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
