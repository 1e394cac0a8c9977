#include "lib/platform/assertion.h"

#include <unistd.h>

#include <boost/assert.hpp>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/platform/tracepoint.h"

namespace bramble {
namespace {

constexpr std::uintptr_t kLowestValidAddress = 4096;

// Returns a stream on the kernel log, or null if it cannot be opened. All text written before the close is one record.
std::FILE* OpenKernelLog(const char* path) { return std::fopen(path, "we"); }

}  // namespace

void ReportAssertion(const char* file, unsigned line, const char* function, const char* expression,
                     const char* kernel_log) noexcept {
  FireTracepoint("ASRT", static_cast<int>(line));
  if (std::FILE* log = OpenKernelLog(kernel_log)) {
    std::fprintf(log, "<2>User space assert from process %d: %s\n", ::getpid(), expression);
    std::fprintf(log, "ASSERT Executing %s:%u:%s\n", file, line, function);
    std::fclose(log);
    return;
  }
  // The carriage returns are deliberate: standard output may be a serial console in raw mode.
  std::printf("\r\nASSERT FAILED: %s", expression);
  std::printf("\r\n%s:%u:%s\r\n", file, line, function);
  std::puts("\r");
}

void ReportAssertionWithMessage(const char* file, unsigned line, const char* function, const char* expression,
                                const char* format, ...) noexcept {
  FireTracepoint("ASRT", static_cast<int>(line));
  va_list args;
  va_start(args, format);
  if (std::FILE* log = OpenKernelLog("/dev/kmsg")) {
    std::fprintf(log, "<2>User space assert from %d: %s\n", ::getpid(), expression);
    std::vfprintf(log, format, args);
    std::fprintf(log, "ASSERT Executing %s:%u:%s\n", file, line, function);
    std::fclose(log);
  } else {
    std::printf("\r\nASSERT FAILED: %s\r\n", expression);
    std::vprintf(format, args);
    std::printf("\r\n%s:%u:%s\r\n", file, line, function);
    std::puts("\r");
  }
  va_end(args);
}

void AssertionFailed(const char* file, unsigned line, const char* function, const char* expression) noexcept {
  ReportAssertion(file, line, function, expression);
  // abort() does not flush, and the report may still be in the buffer of standard output.
  std::fflush(stdout);
  std::abort();
}

bool ValidatePointer(const void* pointer, std::size_t alignment, const char* kernel_log) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(pointer);
  if (address >= kLowestValidAddress && (address & (alignment - 1)) == 0) {
    return true;
  }
  if (std::FILE* log = OpenKernelLog(kernel_log)) {
    std::fprintf(log, "<2>Pointer validation failed for %p\n", pointer);
    std::fclose(log);
  } else {
    std::printf("Pointer validation failed for %p\r\n", pointer);
  }
  return false;
}

}  // namespace bramble

// Boost's assertions call these. The program uses those on the creation, unlocking and destruction of mutexes.
void boost::assertion_failed(const char* expression, const char* function, const char* file, long line) {
  bramble::AssertionFailed(file, static_cast<unsigned>(line), function, expression);
}

void boost::assertion_failed_msg(const char* expression, const char*, const char* function, const char* file,
                                 long line) {
  bramble::AssertionFailed(file, static_cast<unsigned>(line), function, expression);
}

// The assertion functions of the C library. Their names are reserved for the implementation. They are replaced on
// purpose, so that the assertions of all libraries are reported to the kernel log.
extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)
[[noreturn]] void __assert_fail(const char* expression, const char* file, unsigned line,
                                const char* function) noexcept {
  std::puts("GLIBC assert\r");
  bramble::AssertionFailed(file, line, function, expression);
}

[[noreturn]] void __assert_perror_fail(int errnum, const char* file, unsigned line, const char* function) noexcept {
  bramble::AssertionFailed(file, line, function, std::strerror(errnum));
}

[[noreturn]] void __assert(const char* expression, const char* file, int line) noexcept {
  bramble::AssertionFailed(file, static_cast<unsigned>(line), "UNKNOWN", expression);
}
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"
