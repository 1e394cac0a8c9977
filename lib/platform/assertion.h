// The program's assertion path. An impossible state is reported to the kernel log, which outlives the process on a
// device without a console, and to a tracepoint; then the process aborts. It does not depend on NDEBUG. The assertion
// entry points of the C library and of Boost are defined here too, so that assert() in any linked library, and a mutex
// that fails, take the same path.
#pragma once

#include <cstddef>

namespace bramble {

/// Reports a failed assertion and returns; the caller aborts. The report goes to `kernel_log` at priority 2 (critical),
/// or to standard output when that cannot be opened. Takes no lock and does not throw.
void ReportAssertion(const char* file, unsigned line, const char* function, const char* expression,
                     const char* kernel_log = "/dev/kmsg") noexcept;

/// As ReportAssertion, with a message of the caller's, formatted as printf does, between the two lines of the report.
[[gnu::format(printf, 5, 6)]] void ReportAssertionWithMessage(const char* file, unsigned line, const char* function,
                                                              const char* expression, const char* format, ...) noexcept;

/// ReportAssertion, then abort().
[[noreturn]] void AssertionFailed(const char* file, unsigned line, const char* function,
                                  const char* expression) noexcept;

/// True if `pointer` is at least 4096 and a multiple of `alignment`, which must be a power of two. Otherwise writes one
/// line to `kernel_log` (or to standard output when that cannot be opened) and returns false; the caller then raises an
/// assertion that names its check.
bool ValidatePointer(const void* pointer, std::size_t alignment, const char* kernel_log = "/dev/kmsg") noexcept;

}  // namespace bramble

// Two levels, so that the reported expression has its macros expanded.
#define BRAMBLE_ASSERT(expression) BRAMBLE_ASSERT_EXPANDED(expression)
#define BRAMBLE_ASSERT_EXPANDED(expression) \
  ((expression) ? static_cast<void>(0)      \
                : ::bramble::AssertionFailed(__FILE__, __LINE__, __extension__ __PRETTY_FUNCTION__, #expression))
