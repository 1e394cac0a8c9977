// Runs a part of a test in its own process. This is for actions that cannot be undone, such as dropping privileges or
// setting limits, and for values that are measured per process.
#pragma once

#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <functional>
#include <string>

namespace test_support {

/// Returns the result of `body` in the child, or a text that says how else the child ended. `body` must not use
/// GoogleTest's assertions, because their failures would be lost. The caller must be the only thread.
inline std::string RunInChild(const std::function<std::string()>& body) {
  int ends[2];
  if (::pipe(ends) != 0) {
    return "pipe failed";
  }
  const pid_t child = ::fork();
  if (child == 0) {
    std::string answer;
    try {
      answer = body();
    } catch (const std::exception& e) {
      answer = std::string("threw: ") + e.what();
    } catch (...) {
      answer = "threw something";
    }
    const bool written = ::write(ends[1], answer.data(), answer.size()) == static_cast<ssize_t>(answer.size());
    ::_exit(written ? 0 : 1);
  }
  ::close(ends[1]);
  std::string answer;
  char buffer[512];
  for (ssize_t n; (n = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
    answer.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(ends[0]);
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child) {
    return "fork failed";
  }
  if (WIFSIGNALED(status)) {
    return "killed by signal " + std::to_string(WTERMSIG(status));
  }
  return WEXITSTATUS(status) == 0 ? answer : "exited with " + std::to_string(WEXITSTATUS(status));
}

/// Drops all capabilities of this process, and with them root's access to every file. This also works for root of a
/// user namespace that maps no other user. Returns whether it succeeded.
inline bool DropCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
  return ::syscall(SYS_capset, &header, none) == 0;
}

/// Sets a limit of this process, which it cannot raise again. Returns whether it succeeded.
inline bool LimitResource(int resource, rlim_t limit) {
  const rlimit limits{limit, limit};
  return ::setrlimit(static_cast<__rlimit_resource_t>(resource), &limits) == 0;
}

}  // namespace test_support
