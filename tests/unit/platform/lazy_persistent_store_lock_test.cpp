// The lock of the store: while the worker or a flush writes, nobody else touches the store beneath.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "lib/platform/lazy_persistent_store.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"

namespace {

constexpr std::uint32_t kHour = 3600 * 1000;

// Notes whether it is asked for its capacity while it writes.
class BusyStore : public PersistentStore {
public:
  std::function<void()> on_write;

  std::string Read() override { return std::string(); }

  void Write(const std::string&) override {
    m_writing = true;
    if (on_write) {
      on_write();
    }
    m_writing = false;
  }

  std::uint32_t Capacity() override {
    m_disturbed = m_disturbed || m_writing;
    return 10;
  }

  bool WasDisturbed() const { return m_disturbed; }

private:
  std::atomic<bool> m_writing{false};
  std::atomic<bool> m_disturbed{false};
};

// Whether `call` reaches the store beneath while that writes. It is made in another thread, and the write goes on until
// that thread waits for the lock or has reached the store.
bool Disturbs(void (*call)(LazyPersistentStore&)) {
  const auto store = std::make_shared<BusyStore>();
  LazyPersistentStore lazy(store, kHour);
  std::atomic<pid_t> caller{0};
  std::thread other;
  lazy.Write("first");
  store->on_write = [&] {
    other = std::thread([&] {
      caller = ::gettid();
      call(lazy);
    });
    EXPECT_TRUE(test_platform::WaitUntil(
        [&] { return store->WasDisturbed() || (caller != 0 && test_platform::Sleeps(caller)); }));
  };
  lazy.Flush();
  other.join();
  store->on_write = nullptr;
  return store->WasDisturbed();
}

}  // namespace

TEST(LazyStoreLock, KeepsAWriteOutOfTheStoreWhileItWrites) {
  EXPECT_FALSE(Disturbs([](LazyPersistentStore& lazy) { lazy.Write("second"); }));
}

TEST(LazyStoreLock, KeepsAQuestionOutOfTheStoreWhileItWrites) {
  EXPECT_FALSE(Disturbs([](LazyPersistentStore& lazy) { EXPECT_EQ(lazy.Capacity(), 10U); }));
}
