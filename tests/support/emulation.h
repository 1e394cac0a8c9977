// What differs when the tests run in user-mode emulation, as those of a cross-build do.
#pragma once

#include <gmock/gmock.h>

#include <string>

namespace test_support {

#ifdef LEDGERD_TESTS_EMULATED
constexpr bool kEmulated = true;
#else
constexpr bool kEmulated = false;
#endif

/// What a process printed on standard error, without the line that the emulator itself adds when one aborts.
inline std::string OwnWords(std::string text) {
  const std::string line = "qemu: uncaught target signal 6 (Aborted) - core dumped\n";
  const auto position = kEmulated ? text.find(line) : std::string::npos;
  return position == std::string::npos ? text : text.erase(position, line.size());
}

/// Matches exactly `text` on standard error.
inline auto PrintsExactly(const std::string& text) { return testing::ResultOf(OwnWords, testing::Eq(text)); }

}  // namespace test_support
