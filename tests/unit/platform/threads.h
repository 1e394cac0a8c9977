// The threads of the process: their names and states in the kernel, and calls in another thread.
#pragma once

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

#include "tests/unit/platform/bounded_wait.h"

namespace test_platform {

inline std::string ReadThreadName(const std::string& task) {
  std::ifstream comm(task + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

inline std::string OwnThreadName() { return ReadThreadName("/proc/thread-self"); }

inline bool HasThreadNamed(const std::string& name) {
  // A thread may end during the listing.
  std::error_code ended;
  for (std::filesystem::directory_iterator task("/proc/self/task", ended), end; !ended && task != end;
       task.increment(ended)) {
    if (ReadThreadName(task->path()) == name) {
      return true;
    }
  }
  return false;
}

/// Returns whether a thread of this process waits for something.
inline bool Sleeps(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const std::size_t end_of_name = stat.rfind(')');
  return end_of_name != std::string::npos && stat.compare(end_of_name, 3, ") S") == 0;
}

/// A call in a thread of its own. The destructor waits for its end.
class OtherThread {
public:
  explicit OtherThread(std::function<void()> call)
      : m_thread([this, call] {
          m_id = ::gettid();
          call();
          m_ended = true;
        }) {}
  ~OtherThread() { m_thread.join(); }

  /// Waits until the thread sleeps or the call has ended. Returns whether it sleeps.
  bool IsBlocked() {
    return WaitUntil([this] { return m_ended || (m_id != 0 && Sleeps(m_id)); }) && !m_ended;
  }

private:
  std::atomic<pid_t> m_id{0};
  std::atomic<bool> m_ended{false};
  std::thread m_thread;
};

}  // namespace test_platform
