// What the tests of the platform have in common, with the headers that most of them need. A table of cases is an array
// of tuples. The loop over it names the columns.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/core/noncopyable.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"
#include "tests/unit/support/aborts.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/emulation.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/private_mounts.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"
#include "tests/unit/support/wrapped_calls.h"

namespace test_platform {

using namespace bramble;
using namespace std::string_literals;
using namespace test_support;
using namespace wrapped_calls;

/// Returns a text in which every position differs from its neighbours.
inline std::string Ruler(std::size_t length) {
  std::string text;
  while (text.size() < length) {
    text += std::to_string(text.size()) + ',';
  }
  text.resize(length);
  return text;
}

/// Returns each byte once, in ascending order.
inline std::string AllBytes() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

}  // namespace test_platform
