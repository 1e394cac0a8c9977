// Differences when the tests run in user-mode emulation, as the tests of a cross-build do.
#pragma once

#include <gmock/gmock.h>

#include <string>

namespace test_support {

#ifdef LEDGERD_TESTS_EMULATED
constexpr bool kEmulated = true;
#else
constexpr bool kEmulated = false;
#endif

/// Returns `text`, the standard error of a process, without the line that the emulator adds when a process aborts.
inline std::string OwnWords(std::string text) {
  const std::string line = "qemu: uncaught target signal 6 (Aborted) - core dumped\n";
  const auto position = kEmulated ? text.find(line) : std::string::npos;
  return position == std::string::npos ? text : text.erase(position, line.size());
}

/// Matches standard error that is exactly `text`.
inline auto PrintsExactly(const std::string& text) { return testing::ResultOf(OwnWords, testing::Eq(text)); }

}  // namespace test_support
