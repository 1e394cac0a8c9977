#include "lib/platform/memory_trace.h"

#include <boost/thread/exceptions.hpp>
#include <cstdarg>
#include <deque>

#include "tests/unit/platform/platform_test.h"
#include "tests/unit/platform/wrapped_process_calls.h"

using namespace test_platform;

namespace {

// At this time the prefix is "[00005.678] ", 12 bytes.
constexpr timespec kNow{5, 678999999};

[[gnu::format(printf, 2, 3)]] void Trace(MemoryTrace& trace, const char* format, ...) {
  va_list args;
  va_start(args, format);
  trace.TraceV(format, args);
  va_end(args);
}

}  // namespace

TEST(MemoryTrace, OverwritesTheOldestBytes) {
  const std::tuple<const char*, std::size_t, std::vector<std::string>, std::string> rows[] = {
      {"no text", 16, {}, ""},
      {"spaces before the first text", 20, {"abc"}, "     [00005.678] abc"},
      {"one byte short", 14, {"abc"}, "00005.678] abc"},
      {"just full", 15, {"abc"}, "[00005.678] abc"},
      {"full twice", 15, {"abc", "def"}, "[00005.678] def"},
      {"second text wraps", 20, {"abc", "de"}, "8] abc[00005.678] de"},
      {"empty text", 13, {""}, " [00005.678] "},
      {"one byte", 1, {"abc"}, "c"},
      {"two texts", 30, {"abc", "def"}, "[00005.678] abc[00005.678] def"},
      {"longer than the buffer", 16, {"a", "0123456789abcdefghij"}, "456789abcdefghij"},
      {"more than twice as long", 16, {"0123456789abcdefghijklmnopqrstuvwxyzABCD"}, "opqrstuvwxyzABCD"},
      {"percent and NUL", 17, {"%s\0%d"s}, "[00005.678] %s\0%d"s},
  };
  for (const auto& [name, capacity, texts, contents] : rows) {
    SCOPED_TRACE(name);
    const FakeClock clock(kNow);
    MemoryTrace trace(capacity);
    trace.Flush();
    for (const std::string& text : texts) {
      trace.Emit(text);
    }
    trace.Flush();
    EXPECT_EQ(trace.Contents(), contents);
  }
}

TEST(MemoryTrace, PrefixesSecondsAndMilliseconds) {
  const std::tuple<const char*, timespec, const char*> rows[] = {
      {"zero", {0, 0}, "[00000.000] 4 x"},
      {"below a millisecond", {0, 999999}, "[00000.000] 4 x"},
      {"milliseconds", {12, 7000000}, "[00012.007] 4 x"},
      {"last millisecond", {99999, 999999999}, "[99999.999] 4 x"},
      {"six digits", {100000, 10000000}, "[100000.010] 4 x"},
  };
  for (const auto& [name, now, contents] : rows) {
    SCOPED_TRACE(name);
    const FakeClock clock(now);
    MemoryTrace trace(std::string(contents).size());
    Trace(trace, "%d %s", 4, "x");
    EXPECT_EQ(trace.Contents(), contents);
  }
}

TEST(MemoryTrace, KeepsTextsOfSeveralThreadsWhole) {
  constexpr int kTexts = 900;
  const FakeClock clock(kNow);
  MemoryTrace trace(4 * kTexts * 18);
  std::atomic<int> ready{0};
  {
    std::deque<OtherThread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&trace, &ready, i] {
        ++ready;
        EXPECT_TRUE(WaitUntil([&ready] { return ready == 4; }));
        for (int j = 0; j < kTexts; ++j) {
          Trace(trace, "<%d%03d>", i, j);
        }
      });
    }
  }
  const std::string contents = trace.Contents();
  int next[] = {1000, 2000, 3000, 4000};
  for (std::size_t position = 0; position < contents.size(); position += 18) {
    const int thread = contents[position + 13] - '0';
    ASSERT_THAT(thread, testing::AllOf(testing::Ge(0), testing::Lt(4)));
    const std::string number = std::to_string(next[thread]++).substr(1);
    ASSERT_EQ(contents.substr(position, 18), "[00005.678] <" + std::to_string(thread) + number + ">");
  }
  EXPECT_THAT(next, testing::ElementsAre(1900, 2900, 3900, 4900));
}

TEST(MemoryTrace, ThrowsIfItsMutexCannotBeLocked) {
  MemoryTrace trace(16);
  const std::tuple<const char*, std::function<void()>> rows[] = {
      {"Emit", [&] { trace.Emit("x"); }},
      {"Contents", [&] { trace.Contents(); }},
  };
  for (const auto& [name, call] : rows) {
    SCOPED_TRACE(name);
    int error_number = 0;
    try {
      const FailingCall lock(ProcessCall::MutexLock, EINVAL);
      call();
    } catch (const boost::lock_error& e) {
      error_number = e.native_error();
    }
    EXPECT_EQ(error_number, EINVAL);
  }
  EXPECT_EQ(trace.Contents(), "");
}

TEST(MemoryTrace, AbortsWithoutMemoryForTheBuffer) {
  EXPECT_ASSERTION_AND_STDERR(
      {
        MemoryTrace trace(SIZE_MAX / 4 * 3);
        trace.Emit("x");
      },
      "m_start", "lib/platform/memory_trace.cpp",
      "virtual void bramble::MemoryTrace::Emit\\(const (std::)?string ?&\\)", testing::_);
}
