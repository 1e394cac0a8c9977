// Assertions. A failed assertion is reported to the kernel log, which outlives the process on a device without a
// console, and to a tracepoint. Then the process aborts. NDEBUG does not switch assertions off. This file also defines
// the assertion functions of the C library and of Boost, so assert() in a linked library is reported in the same way.
#pragma once

#include <cstddef>

namespace bramble {

/// Reports a failed assertion and returns; the caller must abort. Writes the report to `kernel_log` with priority 2
/// (critical), or to standard output if `kernel_log` cannot be opened. Takes no lock and does not throw.
void ReportAssertion(const char* file, unsigned line, const char* function, const char* expression,
                     const char* kernel_log = "/dev/kmsg") noexcept;

/// Like ReportAssertion, with a message of the caller between the two lines of the report. The message is formatted as
/// by printf.
[[gnu::format(printf, 5, 6)]] void ReportAssertionWithMessage(const char* file, unsigned line, const char* function,
                                                              const char* expression, const char* format, ...) noexcept;

/// Calls ReportAssertion, then abort().
[[noreturn]] void AssertionFailed(const char* file, unsigned line, const char* function,
                                  const char* expression) noexcept;

/// Returns true if `pointer` is at least 4096 and a multiple of `alignment`, which must be a power of two. Otherwise
/// writes one line to `kernel_log` (or to standard output if that cannot be opened) and returns false. The caller must
/// then fail an assertion whose expression names the check.
bool ValidatePointer(const void* pointer, std::size_t alignment, const char* kernel_log = "/dev/kmsg") noexcept;

}  // namespace bramble

// Two levels expand the macros in the reported expression.
#define BRAMBLE_ASSERT(expression) BRAMBLE_ASSERT_EXPANDED(expression)
#define BRAMBLE_ASSERT_EXPANDED(expression) \
  ((expression) ? static_cast<void>(0)      \
                : ::bramble::AssertionFailed(__FILE__, __LINE__, __extension__ __PRETTY_FUNCTION__, #expression))
