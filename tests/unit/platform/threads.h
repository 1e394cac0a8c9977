// The names and states of the process's threads, as the kernel knows them.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace test_platform {

inline std::string ReadThreadName(const std::string& task) {
  std::ifstream comm(task + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

inline std::string OwnThreadName() { return ReadThreadName("/proc/thread-self"); }

inline bool HasThreadNamed(const std::string& name) {
  // A thread may end while the tasks are listed.
  std::error_code ended;
  for (std::filesystem::directory_iterator task("/proc/self/task", ended), end; !ended && task != end;
       task.increment(ended)) {
    if (ReadThreadName(task->path()) == name) {
      return true;
    }
  }
  return false;
}

/// Whether a thread of this process waits for something.
inline bool Sleeps(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const std::size_t end_of_name = stat.rfind(')');
  return end_of_name != std::string::npos && stat.compare(end_of_name, 3, ") S") == 0;
}

}  // namespace test_platform
