// assert() is tested too, whatever the build type.
#undef NDEBUG
#include "lib/platform/assertion.h"

#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <cassert>

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

// A named namespace: compilers write an unnamed one in different ways.
namespace assertion_test {

constexpr unsigned kFirstLine = __LINE__;
void FailProgramAssertion(int value) { BRAMBLE_ASSERT(value == EINVAL); }
void FailLibraryAssertion(int value) { assert(value == 1); }
void FailErrnoAssertion(int error_number) { assert_perror(error_number); }

}  // namespace assertion_test

namespace {

// Gets the desc and value of a tracepoint, and the kernel log at that time; null if no test asks.
std::string* g_fired = nullptr;

}  // namespace

// The linker's names for the double and for the original bramble::FireTracepoint(const char*, int).
extern "C" {

void __real__ZN7bramble14FireTracepointEPKci(const char* desc, int value) noexcept;

void __wrap__ZN7bramble14FireTracepointEPKci(const char* desc, int value) noexcept {
  if (g_fired != nullptr) {
    *g_fired += std::string(desc) + " " + std::to_string(value) + ", log '" + KernelLog() + "'";
  }
  __real__ZN7bramble14FireTracepointEPKci(desc, value);
}

}  // extern "C"

TEST(Assertion, IsReportedAndAborts) {
  using namespace assertion_test;
  const auto in_this_file = [](unsigned line, const char* function) {
    return "tests/unit/platform/assertion_test.cpp:" + std::to_string(kFirstLine + line) +
           ":void assertion_test::" + function;
  };
  const struct {
    const char* name;
    void (*fail)();
    std::string place;
    std::string expression;
    std::string announcement;  // always on standard output
  } rows[] = {
      {"of the program", [] { FailProgramAssertion(7); }, in_this_file(1, "FailProgramAssertion(int)"), "value == 22",
       ""},
      {"assert", [] { FailLibraryAssertion(7); }, in_this_file(2, "FailLibraryAssertion(int)"), "value == 1",
       "GLIBC assert\r\n"},
      {"assert_perror", [] { FailErrnoAssertion(ENOENT); }, in_this_file(3, "FailErrnoAssertion(int)"),
       "No such file or directory", ""},
      {"__assert_fail", [] { __assert_fail("100%d", "a.c", 4294967295U, "int f(void)"); }, "a.c:4294967295:int f(void)",
       "100%d", "GLIBC assert\r\n"},
      {"__assert_perror_fail", [] { __assert_perror_fail(EACCES, "b.c", 2, "g"); }, "b.c:2:g", "Permission denied", ""},
      {"__assert", [] { __assert("p != 0", "c.c", 3); }, "c.c:3:UNKNOWN", "p != 0", ""},
      {"of Boost", [] { boost::assertion_failed("m", "int f()", "e.hpp", 5); }, "e.hpp:5:int f()", "m", ""},
      {"of Boost with a message", [] { boost::assertion_failed_msg("m", "why", "f", "e.hpp", 6); }, "e.hpp:6:f", "m",
       ""},
      {"AssertionFailed", [] { AssertionFailed("d.cpp", 4, "h", "e"); }, "d.cpp:4:h", "e", ""},
  };
  for (const bool has_log : {true, false}) {
    std::optional<UnopenableKernelLog> unopenable;
    ClearKernelLog();
    if (!has_log) {
      unopenable.emplace();
    }
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name + std::string(has_log ? "" : ", without a kernel log"));
      const TempDir dir;
      EXPECT_EXIT(
          {
            WriteTextFile(dir / "pid", std::to_string(::getpid()));
            const StdoutToFile redirect(dir / "stdout");
            row.fail();
          },
          testing::KilledBySignal(SIGABRT), PrintsExactly(""));
      if (has_log) {
        EXPECT_EQ(KernelLog(), "<2>User space assert from process " + ReadTextFile(dir / "pid") + ": " +
                                   row.expression + "\nASSERT Executing " + row.place + "\n");
      }
      EXPECT_EQ(
          ReadTextFile(dir / "stdout"),
          row.announcement + (has_log ? "" : "\r\nASSERT FAILED: " + row.expression + "\r\n" + row.place + "\r\n\r\n"));
    }
  }
}

TEST(Assertion, FailsForAMisusedMutex) {
  const std::tuple<const char*, void (*)(), std::string> rows[] = {
      {"unlocked without a lock", [] { boost::recursive_mutex().unlock(); }, "unlock"},
      {"destroyed while locked", [] { boost::mutex().lock(); }, "destroy"},
      {"recursive, destroyed while locked", [] { boost::recursive_mutex().lock(); }, "destroy"},
  };
  for (const auto& [name, misuse, call] : rows) {
    SCOPED_TRACE(name);
    ClearKernelLog();
    // ThreadSanitizer reports it too.
    EXPECT_EXIT(misuse(), testing::KilledBySignal(SIGABRT), testing::_);
    EXPECT_THAT(KernelLog(), testing::MatchesRegex("<2>User space assert from process [0-9]+: !.*pthread_mutex_" +
                                                   call + "\\(&m\\)\nASSERT Executing .*\n"));
  }
}

TEST(Assertion, EvaluatesATrueExpressionOnce) {
  ClearKernelLog();
  int evaluated = 0;
  BRAMBLE_ASSERT(++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(KernelLog(), "");
}

TEST(ReportAssertion, FiresTheTracepointThenWritesTheReportAndReturns) {
  const std::string pid = std::to_string(::getpid());
  const std::tuple<const char*, void (*)(), std::string, std::string> rows[] = {
      {"plain", [] { ReportAssertion("a.cpp", 12, "f", "x %s"); },
       "<2>User space assert from process " + pid + ": x %s\nASSERT Executing a.cpp:12:f\n",
       "\r\nASSERT FAILED: x %s\r\na.cpp:12:f\r\n\r\n"},
      {"with a message", [] { ReportAssertionWithMessage("a.cpp", 12, "f", "x %s", "m %d %s\n", 7, "text"); },
       "<2>User space assert from " + pid + ": x %s\nm 7 text\nASSERT Executing a.cpp:12:f\n",
       "\r\nASSERT FAILED: x %s\r\nm 7 text\n\r\na.cpp:12:f\r\n\r\n"},
  };
  const TempDir dir;
  WriteTextFile(dir / "log", "overwritten");
  ClearKernelLog();
  ReportAssertion("a.cpp", 12, "f", "x %s", (dir / "log").c_str());
  EXPECT_EQ(ReadTextFile(dir / "log"), std::get<2>(rows[0]));
  EXPECT_EQ(KernelLog(), "");
  for (const auto& [name, report, log, printed] : rows) {
    SCOPED_TRACE(name);
    ClearKernelLog();
    const int descriptors = CountDescriptors();
    std::string fired;
    g_fired = &fired;
    report();
    g_fired = nullptr;
    EXPECT_EQ(fired, "ASRT 12, log ''");
    EXPECT_EQ(KernelLog(), log);
    EXPECT_EQ(CountDescriptors(), descriptors);
    {
      const UnopenableKernelLog unopenable;
      const StdoutToFile redirect(dir / "stdout");
      report();
    }
    EXPECT_EQ(ReadTextFile(dir / "stdout"), printed);
  }
}

TEST(ValidatePointer, RequiresAnAlignedAddressAboveTheFirstPage) {
  const std::tuple<const char*, std::uintptr_t, std::size_t, const char*> rows[] = {
      {"null", 0, 8, "(nil)"},
      {"last of the first page", 4095, 1, "0xfff"},
      {"aligned in the first page", 4088, 8, "0xff8"},
      {"first valid address", 4096, 8, ""},
      {"any address", 4097, 1, ""},
      {"odd address", 4097, 2, "0x1001"},
      {"off by one", 4097, 8, "0x1001"},
      {"half aligned", 4100, 8, "0x1004"},
      {"aligned to four", 4100, 4, ""},
      {"one below", 0x12345677, 8, "0x12345677"},
      {"aligned", 0x12345678, 8, ""},
      {"greatest address", UINTPTR_MAX, 1, ""},
  };
  const int descriptors = CountDescriptors();
  for (const auto& [name, address, alignment, printed] : rows) {
    SCOPED_TRACE(name);
    const TempDir dir;
    const void* const pointer = reinterpret_cast<const void*>(address);
    const bool valid = *printed == '\0';
    const std::string text = "Pointer validation failed for " + std::string(printed);
    ClearKernelLog();

    WriteTextFile(dir / "log", "");
    EXPECT_EQ(ValidatePointer(pointer, alignment, (dir / "log").c_str()), valid);
    EXPECT_EQ(ReadTextFile(dir / "log"), valid ? "" : "<2>" + text + "\n");
    EXPECT_EQ(KernelLog(), "");

    EXPECT_EQ(ValidatePointer(pointer, alignment), valid);
    EXPECT_EQ(KernelLog(), valid ? "" : "<2>" + text + "\n");

    {
      const StdoutToFile redirect(dir / "stdout");
      EXPECT_EQ(ValidatePointer(pointer, alignment, (dir / "missing/log").c_str()), valid);
    }
    EXPECT_EQ(ReadTextFile(dir / "stdout"), valid ? "" : text + "\r\n");
  }
  EXPECT_EQ(CountDescriptors(), descriptors);
}
