// Flushes that fail where nobody can handle it: they end the process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>

#include "lib/platform/errno_exception.h"
#include "lib/platform/lazy_persistent_store.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/support/aborts.h"
#include "tests/unit/support/emulation.h"
#include "tests/unit/support/stores.h"

using test_support::RecordingStore;

namespace {

constexpr std::uint32_t kHour = 3600 * 1000;

void WriteAndFailInBackground(void (*fault)()) {
  const auto store = std::make_shared<RecordingStore>();
  store->OnWrite(fault);
  LazyPersistentStore lazy(store, 1);
  lazy.Write("pending");
  test_platform::WaitUntil([] { return false; });
  std::_Exit(0);
}

void WriteAndFailInDestructor() {
  const auto store = std::make_shared<RecordingStore>();
  store->OnWrite([] { throw bramble::ErrnoException(ENOSPC); });
  {
    LazyPersistentStore lazy(store, kHour);
    lazy.Write("pending");
  }
  std::_Exit(0);
}

}  // namespace

TEST(LazyStoreDeath, EndsTheProcessWhenABackgroundFlushFails) {
  const struct {
    const char* name;
    void (*fault)();
    const char* message;
  } rows[] = {
      {"system call", [] { throw bramble::ErrnoException(ENOSPC); },
       "Lazy persistent store flush caused exception: No space left on device (28)\n"},
      {"text with conversions", [] { throw std::runtime_error("100%s"); },
       "Lazy persistent store flush caused exception: 100%s\n"},
      {"full", [] { throw PersistentStore::Full(); }, "Lazy persistent store flush caused exception: Store full\n"},
      {"memory", [] { throw std::bad_alloc(); }, "Lazy persistent store flush caused exception: std::bad_alloc\n"},
      {"a number", [] { throw 7; }, "Lazy persistent store flush caused unknown exception\n"},
      {"a text", [] { throw "text"; }, "Lazy persistent store flush caused unknown exception\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_ASSERTION_AND_STDERR(WriteAndFailInBackground(row.fault), "false", "lib/platform/lazy_persistent_store.cpp",
                                "void LazyPersistentStore::OnLazyFlush\\(\\)",
                                test_support::PrintsExactly(row.message));
  }
}

TEST(LazyStoreDeath, EndsTheProcessWhenTheFlushOfTheDestructorFails) {
  test_support::ClearKernelLog();
  EXPECT_EXIT(WriteAndFailInDestructor(), testing::KilledBySignal(SIGABRT),
              testing::HasSubstr("No space left on device (28)"));
  EXPECT_EQ(test_support::KernelLog(), "");
}
