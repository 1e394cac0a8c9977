#include "lib/platform/memory_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <boost/thread/exceptions.hpp>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/support/aborts.h"
#include "tests/unit/support/emulation.h"
#include "tests/unit/support/private_mounts.h"
#include "tests/unit/support/wrapped_calls.h"

using bramble::MemoryTrace;
using wrapped_calls::FakeClock;

namespace {

// At this time the prefix is "[00005.678] ", 12 bytes.
constexpr timespec kNow{5, 678999999};

[[gnu::format(printf, 2, 3)]] void Trace(MemoryTrace& trace, const char* format, ...) {
  va_list args;
  va_start(args, format);
  trace.TraceV(format, args);
  va_end(args);
}

// What locking and unlocking a mutex gives on this thread, 0 for what it really gives.
thread_local int t_lock_error = 0;
thread_local int t_unlock_error = 0;

}  // namespace

// The linker's names for the doubles and for the functions that they replace.
extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  return t_lock_error != 0 ? t_lock_error : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  return t_unlock_error != 0 ? t_unlock_error : __real_pthread_mutex_unlock(mutex);
}

}  // extern "C"

TEST(MemoryTrace, IsEmptyBeforeTheFirstText) { EXPECT_EQ(MemoryTrace(16).Contents(), ""); }

TEST(MemoryTrace, FillsTheRestOfTheRingWithBlanks) {
  const FakeClock clock(kNow);
  MemoryTrace trace(20);
  trace.Emit("abc");
  EXPECT_EQ(trace.Contents(), "     [00005.678] abc");
}

TEST(MemoryTrace, KeepsTheTailOfATextLongerThanTheRing) {
  MemoryTrace trace(16);
  trace.Emit("0123456789abcdefghijklmnopqrstuvwxyzABCD");
  EXPECT_EQ(trace.Contents(), "opqrstuvwxyzABCD");
}

TEST(MemoryTrace, OverwritesTheOldestBytes) {
  const struct {
    const char* name;
    std::size_t capacity;
    std::vector<std::string> texts;
    const char* contents;
  } rows[] = {
      {"one byte short", 14, {"abc"}, "00005.678] abc"},
      {"just full", 15, {"abc"}, "[00005.678] abc"},
      {"full twice", 15, {"abc", "def"}, "[00005.678] def"},
      {"second text wraps", 20, {"abc", "de"}, "8] abc[00005.678] de"},
      {"empty text", 13, {""}, " [00005.678] "},
      {"one byte", 1, {"abc"}, "c"},
      {"two", 30, {"abc", "def"}, "[00005.678] abc[00005.678] def"},
      {"the longer one last", 16, {"a", "0123456789abcdefghij"}, "456789abcdefghij"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FakeClock clock(kNow);
    MemoryTrace trace(row.capacity);
    for (const std::string& text : row.texts) {
      trace.Emit(text);
    }
    EXPECT_EQ(trace.Contents(), row.contents);
  }
}

TEST(MemoryTrace, StampsSecondsAndMilliseconds) {
  const struct {
    const char* name;
    timespec now;
    const char* contents;
  } rows[] = {
      {"zero", {0, 0}, "[00000.000] x"},
      {"below a millisecond", {0, 999999}, "[00000.000] x"},
      {"milliseconds", {12, 7000000}, "[00012.007] x"},
      {"last millisecond", {99999, 999999999}, "[99999.999] x"},
      {"six digits", {100000, 10000000}, "[100000.010] x"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FakeClock clock(row.now);
    MemoryTrace trace(std::string(row.contents).size());
    trace.Emit("x");
    EXPECT_EQ(trace.Contents(), row.contents);
  }
}

TEST(MemoryTrace, KeepsPercentAndNulAsTheyAre) {
  const FakeClock clock(kNow);
  MemoryTrace trace(17);
  trace.Emit(std::string("%s\0%d", 5));
  EXPECT_EQ(trace.Contents(), std::string("[00005.678] %s\0%d", 17));
}

TEST(MemoryTrace, FormatsAndEmits) {
  const FakeClock clock(kNow);
  MemoryTrace trace(20);
  Trace(trace, "%d %s", 42, "text");
  EXPECT_EQ(trace.Contents(), " [00005.678] 42 text");
}

TEST(MemoryTrace, FlushChangesNothing) {
  const FakeClock clock(kNow);
  MemoryTrace trace(15);
  trace.Flush();
  EXPECT_EQ(trace.Contents(), "");
  trace.Emit("abc");
  trace.Flush();
  EXPECT_EQ(trace.Contents(), "[00005.678] abc");
}

TEST(MemoryTrace, KeepsTextsOfSeveralThreadsWhole) {
  constexpr int kThreads = 4;
  constexpr int kTexts = 900;
  const FakeClock clock(kNow);
  MemoryTrace trace(kThreads * kTexts * 18);
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&trace, &ready, i] {
      ++ready;
      EXPECT_TRUE(test_platform::WaitUntil([&ready] { return ready == kThreads; }));
      for (int j = 0; j < kTexts; ++j) {
        Trace(trace, "<%d%03d>", i, j);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::string contents = trace.Contents();
  for (int i = 0; i < kThreads; ++i) {
    std::size_t position = 0;
    for (int j = 0; j < kTexts; ++j) {
      const std::string text = "[00005.678] <" + std::to_string(10000 + 1000 * i + j).substr(1) + ">";
      position = contents.find(text, position);
      ASSERT_NE(position, std::string::npos) << text;
    }
  }
}

TEST(MemoryTrace, ThrowsWhenItsMutexCannotBeLocked) {
  MemoryTrace trace(16);
  const struct {
    const char* name;
    std::function<void()> call;
  } rows[] = {{"Emit", [&] { trace.Emit("x"); }}, {"Contents", [&] { trace.Contents(); }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    int error_number = 0;
    t_lock_error = EINVAL;
    try {
      row.call();
    } catch (const boost::lock_error& e) {
      error_number = e.native_error();
    }
    t_lock_error = 0;
    EXPECT_EQ(error_number, EINVAL);
  }
  EXPECT_EQ(trace.Contents(), "");
}

TEST(MemoryTrace, AbortsWhenItsMutexCannotBeUnlocked) {
  test_support::ClearKernelLog();
  EXPECT_EXIT(
      {
        MemoryTrace trace(16);
        t_unlock_error = EPERM;
        trace.Emit("x");
      },
      testing::KilledBySignal(SIGABRT), test_support::PrintsExactly(""));
  EXPECT_THAT(test_support::KernelLog(),
              testing::MatchesRegex("<2>User space assert from process [0-9]+: !.*pthread_mutex_unlock\\(&m\\)\n"
                                    "ASSERT Executing .*\n"));
}

TEST(MemoryTrace, AbortsWithoutMemoryForTheRing) {
  EXPECT_ASSERTION_AND_STDERR(
      {
        MemoryTrace trace(SIZE_MAX / 4 * 3);
        trace.Emit("x");
      },
      "m_start", "lib/platform/memory_trace.cpp",
      "virtual void bramble::MemoryTrace::Emit\\(const (std::)?string ?&\\)", testing::_);
}
