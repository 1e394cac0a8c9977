// The lock of the store: while the worker or a flush writes, nobody else touches the store beneath.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "lib/platform/lazy_persistent_store.h"

namespace {

constexpr std::uint32_t kHour = 3600 * 1000;

// Notes whether it is asked for its capacity while it writes, and takes its time so that it can be.
class BusyStore : public PersistentStore {
public:
  std::function<void()> on_write;

  std::string Read() override { return std::string(); }

  void Write(const std::string&) override {
    std::unique_lock<std::mutex> held(m_lock);
    m_writing = true;
    if (on_write) {
      on_write();
    }
    m_changed.wait_for(held, std::chrono::milliseconds(100), [this] { return m_disturbed; });
    m_writing = false;
  }

  std::uint32_t Capacity() override {
    const std::lock_guard<std::mutex> held(m_lock);
    m_disturbed = m_disturbed || m_writing;
    m_changed.notify_all();
    return 10;
  }

  bool WasDisturbed() {
    const std::lock_guard<std::mutex> held(m_lock);
    return m_disturbed;
  }

private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_writing = false;
  bool m_disturbed = false;
};

// Whether `call` reaches the store beneath while that writes.
bool Disturbs(void (*call)(LazyPersistentStore&)) {
  const auto store = std::make_shared<BusyStore>();
  LazyPersistentStore lazy(store, kHour);
  std::thread other;
  lazy.Write("first");
  store->on_write = [&] { other = std::thread([&] { call(lazy); }); };
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
