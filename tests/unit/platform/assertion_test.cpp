// assert() is tested too, whatever the build type.
#undef NDEBUG
#include "lib/platform/assertion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/unit/support/child_process.h"
#include "tests/unit/support/emulation.h"
#include "tests/unit/support/private_mounts.h"
#include "tests/unit/support/temp_dir.h"

using test_platform::StdoutToFile;
using test_support::KernelLog;
using test_support::ReadTextFile;
using test_support::TempDir;
using test_support::UnopenableKernelLog;
using test_support::WriteTextFile;

// A named namespace: compilers write an unnamed one in different ways.
namespace assertion_test {

constexpr unsigned kFirstLine = __LINE__;
void FailProgramAssertion(int value) { BRAMBLE_ASSERT(value == EINVAL); }
void FailLibraryAssertion(int value) { assert(value == 1); }
void FailErrnoAssertion(int error_number) { assert_perror(error_number); }

}  // namespace assertion_test

namespace {

constexpr char kThisFile[] = "tests/unit/platform/assertion_test.cpp";

struct Entry {
  const char* name;
  void (*fail)();
  const char* file;
  unsigned line;
  const char* function;
  const char* expression;
  const char* announcement;  // on standard output, wherever the report goes
};

const Entry kEntries[] = {
    {"the program's own", [] { assertion_test::FailProgramAssertion(7); }, kThisFile, assertion_test::kFirstLine + 1,
     "void assertion_test::FailProgramAssertion(int)", "value == 22", ""},
    {"assert", [] { assertion_test::FailLibraryAssertion(7); }, kThisFile, assertion_test::kFirstLine + 2,
     "void assertion_test::FailLibraryAssertion(int)", "value == 1", "GLIBC assert\r\n"},
    {"assert_perror", [] { assertion_test::FailErrnoAssertion(ENOENT); }, kThisFile, assertion_test::kFirstLine + 3,
     "void assertion_test::FailErrnoAssertion(int)", "No such file or directory", ""},
    {"__assert_fail", [] { __assert_fail("100%d", "a.c", 4294967295U, "int f(void)"); }, "a.c", 4294967295U,
     "int f(void)", "100%d", "GLIBC assert\r\n"},
    {"__assert_perror_fail", [] { __assert_perror_fail(EACCES, "b.c", 2, "g"); }, "b.c", 2, "g", "Permission denied",
     ""},
    {"__assert", [] { __assert("p != 0", "c.c", 3); }, "c.c", 3, "UNKNOWN", "p != 0", ""},
    {"Boost's", [] { boost::assertion_failed("m", "int f()", "e.hpp", 5); }, "e.hpp", 5, "int f()", "m", ""},
    {"Boost's with a message", [] { boost::assertion_failed_msg("m", "why", "f", "e.hpp", 6); }, "e.hpp", 6, "f", "m",
     ""},
    {"AssertionFailed", [] { bramble::AssertionFailed("d.cpp", 4, "h", "e"); }, "d.cpp", 4, "h", "e", ""},
};

std::string Place(const Entry& entry) {
  return std::string(entry.file) + ":" + std::to_string(entry.line) + ":" + entry.function;
}

// Runs an entry in a child that leaves its process number and its standard output in `dir`.
void ExpectAbort(const Entry& entry, const TempDir& dir) {
  EXPECT_EXIT(
      {
        WriteTextFile(dir / "pid", std::to_string(::getpid()));
        const StdoutToFile redirect(dir / "stdout");
        entry.fail();
      },
      testing::KilledBySignal(SIGABRT), test_support::PrintsExactly(""));
}

// What the tracepoint was fired with, and what the kernel log held by then; null while nobody asks.
std::string* g_fired = nullptr;

}  // namespace

// The linker's names for the double and for the tracepoint's function, bramble::FireTracepoint(const char*, int).
extern "C" {

void __real__ZN7bramble14FireTracepointEPKci(const char* desc, int value) noexcept;

void __wrap__ZN7bramble14FireTracepointEPKci(const char* desc, int value) noexcept;
void __wrap__ZN7bramble14FireTracepointEPKci(const char* desc, int value) noexcept {
  if (g_fired != nullptr) {
    *g_fired += std::string(desc) + " " + std::to_string(value) + ", log '" + KernelLog() + "'";
  }
  __real__ZN7bramble14FireTracepointEPKci(desc, value);
}

}  // extern "C"

TEST(Assertion, ReportsToTheKernelLogAndAborts) {
  for (const Entry& entry : kEntries) {
    SCOPED_TRACE(entry.name);
    const TempDir dir;
    test_support::ClearKernelLog();
    ExpectAbort(entry, dir);
    EXPECT_EQ(KernelLog(), "<2>User space assert from process " + ReadTextFile(dir / "pid") + ": " + entry.expression +
                               "\nASSERT Executing " + Place(entry) + "\n");
    EXPECT_EQ(ReadTextFile(dir / "stdout"), entry.announcement);
  }
}

TEST(Assertion, ReportsToStandardOutputWithoutAKernelLogAndAborts) {
  const UnopenableKernelLog unopenable;
  for (const Entry& entry : kEntries) {
    SCOPED_TRACE(entry.name);
    const TempDir dir;
    ExpectAbort(entry, dir);
    EXPECT_EQ(ReadTextFile(dir / "stdout"), std::string(entry.announcement) + "\r\nASSERT FAILED: " + entry.expression +
                                                "\r\n" + Place(entry) + "\r\n\r\n");
  }
}

TEST(Assertion, IsWhatAMisusedMutexFails) {
  const struct {
    const char* name;
    void (*misuse)();
    const char* call;
  } rows[] = {
      {"unlocked though not locked", [] { boost::recursive_mutex().unlock(); }, "unlock"},
      {"destroyed while locked", [] { boost::mutex().lock(); }, "destroy"},
      {"recursive, destroyed while locked", [] { boost::recursive_mutex().lock(); }, "destroy"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    test_support::ClearKernelLog();
    // A thread sanitizer has something to say about it too.
    EXPECT_EXIT(row.misuse(), testing::KilledBySignal(SIGABRT), testing::_);
    EXPECT_THAT(KernelLog(), testing::MatchesRegex("<2>User space assert from process [0-9]+: !.*pthread_mutex_" +
                                                   std::string(row.call) + "\\(&m\\)\nASSERT Executing .*\n"));
  }
}

TEST(Assertion, EvaluatesAnExpressionThatHoldsOnce) {
  test_support::ClearKernelLog();
  int evaluated = 0;
  BRAMBLE_ASSERT(++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(KernelLog(), "");
}

TEST(ReportAssertion, WritesToTheGivenLogAndReturns) {
  const TempDir dir;
  WriteTextFile(dir / "log", "overwritten");
  test_support::ClearKernelLog();
  const int descriptors = test_platform::CountDescriptors();
  bramble::ReportAssertion("a.cpp", 12, "f", "x %s", (dir / "log").c_str());
  EXPECT_EQ(ReadTextFile(dir / "log"), "<2>User space assert from process " + std::to_string(::getpid()) +
                                           ": x %s\nASSERT Executing a.cpp:12:f\n");
  EXPECT_EQ(KernelLog(), "");
  EXPECT_EQ(test_platform::CountDescriptors(), descriptors);
}

TEST(ReportAssertion, FiresTheTracepointFirstInBothForms) {
  const struct {
    const char* name;
    void (*report)();
  } rows[] = {
      {"plain", [] { bramble::ReportAssertion("a.cpp", 12, "f", "x"); }},
      {"with a message", [] { bramble::ReportAssertionWithMessage("a.cpp", 12, "f", "x", "m"); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    test_support::ClearKernelLog();
    std::string fired;
    g_fired = &fired;
    row.report();
    g_fired = nullptr;
    EXPECT_EQ(fired, "ASRT 12, log ''");
  }
}

TEST(ReportAssertion, WritesToTheKernelLogByDefault) {
  test_support::ClearKernelLog();
  bramble::ReportAssertion("a.cpp", 12, "f", "x");
  EXPECT_EQ(KernelLog(),
            "<2>User space assert from process " + std::to_string(::getpid()) + ": x\nASSERT Executing a.cpp:12:f\n");
}

TEST(ReportAssertion, WritesToStandardOutputWhenTheLogCannotBeOpened) {
  const TempDir dir;
  test_support::ClearKernelLog();
  {
    const StdoutToFile redirect(dir / "stdout");
    bramble::ReportAssertion("a.cpp", 12, "f", "x %s", (dir / "missing/log").c_str());
  }
  EXPECT_EQ(ReadTextFile(dir / "stdout"), "\r\nASSERT FAILED: x %s\r\na.cpp:12:f\r\n\r\n");
  EXPECT_EQ(KernelLog(), "");
}

TEST(ReportAssertionWithMessage, PutsTheMessageBetweenTheLines) {
  test_support::ClearKernelLog();
  const int descriptors = test_platform::CountDescriptors();
  bramble::ReportAssertionWithMessage("a.cpp", 12, "f", "x %s", "m %d %s\n", 7, "text");
  EXPECT_EQ(KernelLog(), "<2>User space assert from " + std::to_string(::getpid()) +
                             ": x %s\nm 7 text\nASSERT Executing a.cpp:12:f\n");
  EXPECT_EQ(test_platform::CountDescriptors(), descriptors);
}

TEST(ReportAssertionWithMessage, PutsTheMessageBetweenTheLinesOnStandardOutput) {
  const TempDir dir;
  const UnopenableKernelLog unopenable;
  {
    const StdoutToFile redirect(dir / "stdout");
    bramble::ReportAssertionWithMessage("a.cpp", 12, "f", "x %s", "m %d %s", 7, "text");
  }
  EXPECT_EQ(ReadTextFile(dir / "stdout"), "\r\nASSERT FAILED: x %s\r\nm 7 text\r\na.cpp:12:f\r\n\r\n");
}

TEST(ValidatePointer, WantsAnAlignedAddressAboveTheFirstPage) {
  const struct {
    const char* name;
    std::uintptr_t address;
    std::size_t alignment;
    bool valid;
    const char* printed;
  } rows[] = {
      {"null", 0, 8, false, "(nil)"},
      {"last of the first page", 4095, 1, false, "0xfff"},
      {"aligned in the first page", 4088, 8, false, "0xff8"},
      {"first valid address", 4096, 8, true, ""},
      {"any address", 4097, 1, true, ""},
      {"odd address", 4097, 2, false, "0x1001"},
      {"off by one", 4097, 8, false, "0x1001"},
      {"half aligned", 4100, 8, false, "0x1004"},
      {"aligned to four", 4100, 4, true, ""},
      {"one below", 0x12345677, 8, false, "0x12345677"},
      {"aligned", 0x12345678, 8, true, ""},
      {"greatest address", UINTPTR_MAX, 1, true, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const TempDir dir;
    const void* const pointer = reinterpret_cast<const void*>(row.address);
    const std::string text = "Pointer validation failed for " + std::string(row.printed);
    test_support::ClearKernelLog();

    WriteTextFile(dir / "log", "");
    EXPECT_EQ(bramble::ValidatePointer(pointer, row.alignment, (dir / "log").c_str()), row.valid);
    EXPECT_EQ(ReadTextFile(dir / "log"), row.valid ? "" : "<2>" + text + "\n");
    EXPECT_EQ(KernelLog(), "");

    EXPECT_EQ(bramble::ValidatePointer(pointer, row.alignment), row.valid);
    EXPECT_EQ(KernelLog(), row.valid ? "" : "<2>" + text + "\n");

    {
      const StdoutToFile redirect(dir / "stdout");
      EXPECT_EQ(bramble::ValidatePointer(pointer, row.alignment, (dir / "missing/log").c_str()), row.valid);
    }
    EXPECT_EQ(ReadTextFile(dir / "stdout"), row.valid ? "" : text + "\r\n");
  }
}

TEST(ValidatePointer, LeavesNoDescriptorOpen) {
  const int descriptors = test_platform::CountDescriptors();
  EXPECT_FALSE(bramble::ValidatePointer(nullptr, 8));
  EXPECT_EQ(test_platform::CountDescriptors(), descriptors);
}
