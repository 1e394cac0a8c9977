// What the store accepts, returns and writes, apart from time: these stores have a delay that never passes.
#include "lib/platform/lazy_persistent_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/stores.h"

using test_support::RecordingStore;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<LazyPersistentStore>);
static_assert(!std::is_copy_assignable_v<LazyPersistentStore>);

namespace {

constexpr std::uint32_t kHour = 3600 * 1000;

class LazyStore : public testing::Test {
protected:
  test_support::CapturedStderr m_stderr;
  std::shared_ptr<RecordingStore> m_store = std::make_shared<RecordingStore>("stored", 10);
  std::unique_ptr<LazyPersistentStore> m_lazy = std::make_unique<LazyPersistentStore>(m_store, kHour);
};

class ThrowingReadStore : public RecordingStore {
public:
  std::string Read() override {
    if (++m_attempts == 1) {
      throw std::runtime_error("cannot read");
    }
    return "second";
  }

private:
  int m_attempts = 0;
};

}  // namespace

TEST_F(LazyStore, ReadsTheUnderlyingStoreOnceAndOnlyWhenAsked) {
  EXPECT_EQ(m_store->Reads(), 0);
  EXPECT_EQ(m_lazy->Read(), "stored");
  EXPECT_EQ(m_lazy->Read(), "stored");
  EXPECT_EQ(m_store->Reads(), 1);
}

TEST_F(LazyStore, ReturnsTheAcceptedTextWithoutReading) {
  m_lazy->Write("pending");
  EXPECT_EQ(m_lazy->Read(), "pending");
  m_lazy->Flush();
  EXPECT_EQ(m_lazy->Read(), "pending");
  EXPECT_EQ(m_store->Reads(), 0);
}

TEST_F(LazyStore, ReturnsTheAcceptedTextAfterReading) {
  EXPECT_EQ(m_lazy->Read(), "stored");
  m_lazy->Write("pending");
  EXPECT_EQ(m_lazy->Read(), "pending");
  EXPECT_EQ(m_store->Reads(), 1);
}

TEST_F(LazyStore, ReadsAgainAfterAReadThatThrew) {
  LazyPersistentStore lazy(std::make_shared<ThrowingReadStore>(), kHour);
  EXPECT_THROW(lazy.Read(), std::runtime_error);
  EXPECT_EQ(lazy.Read(), "second");
  EXPECT_EQ(lazy.Read(), "second");
}

TEST_F(LazyStore, DoesNotWriteByItself) {
  m_lazy->Write("pending");
  EXPECT_EQ(m_lazy->Read(), "pending");
  EXPECT_THAT(m_store->Writes(), IsEmpty());
}

TEST_F(LazyStore, FlushWritesAtOnce) {
  m_lazy->Write("one");
  const std::string copied = "two";
  m_lazy->Write(copied);
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), ElementsAre("two"));
}

TEST_F(LazyStore, FlushWritesNothingWhenNothingIsPending) {
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), IsEmpty()) << "nothing loaded";
  m_lazy->Read();
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), IsEmpty()) << "only read";
  m_lazy->Write("one");
  m_lazy->Flush();
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), ElementsAre("one")) << "already written";
}

TEST_F(LazyStore, WritesAnEmptyTextAndAnEqualTextToo) {
  m_lazy->Write("");
  m_lazy->Flush();
  m_lazy->Write("");
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), ElementsAre("", ""));
}

TEST_F(LazyStore, AcceptsATextOfExactlyTheCapacity) {
  m_lazy->Write("0123456789");
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), ElementsAre("0123456789"));
}

TEST_F(LazyStore, RefusesATextLongerThanTheCapacity) {
  try {
    m_lazy->Write("0123456789a");
    ADD_FAILURE() << "accepted";
  } catch (const PersistentStore::Full& e) {
    EXPECT_STREQ(e.what(), "Store full");
  }
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), IsEmpty());
  EXPECT_EQ(m_lazy->Read(), "stored") << "nothing was loaded, and so nothing is cached";
}

TEST_F(LazyStore, KeepsTheCacheWhenItRefusesAText) {
  EXPECT_EQ(m_lazy->Read(), "stored");
  EXPECT_THROW(m_lazy->Write("0123456789a"), PersistentStore::Full);
  EXPECT_EQ(m_lazy->Read(), "stored");
  EXPECT_EQ(m_store->Reads(), 1);

  m_lazy->Write("pending");
  EXPECT_THROW(m_lazy->Write("0123456789a"), PersistentStore::Full);
  EXPECT_EQ(m_lazy->Read(), "pending");
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), ElementsAre("pending"));
}

TEST_F(LazyStore, HasTheCapacityOfTheUnderlyingStore) {
  EXPECT_EQ(m_lazy->Capacity(), 10U);
  EXPECT_EQ(LazyPersistentStore(std::make_shared<RecordingStore>("", 4294967295U), kHour).Capacity(), 4294967295U);
  EXPECT_EQ(m_store->Reads(), 0);
}

TEST_F(LazyStore, StaysPendingWhenAFlushFails) {
  m_store->OnWrite([] { throw std::runtime_error("cannot write"); });
  m_lazy->Write("pending");
  for (int attempt = 0; attempt < 2; ++attempt) {
    try {
      m_lazy->Flush();
      ADD_FAILURE() << "flushed";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "cannot write");
    }
  }
  EXPECT_EQ(m_lazy->Read(), "pending");
  m_store->OnWrite(nullptr);
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), ElementsAre("pending"));
}

TEST_F(LazyStore, DestructorWritesAPendingTextBeforeTheWorkerStops) {
  ASSERT_TRUE(test_platform::WaitUntil([] { return test_platform::HasThreadNamed("DALazyStore"); }));
  bool worker_lives = false;
  std::thread::id writer;
  m_store->OnWrite([&] {
    worker_lives = test_platform::HasThreadNamed("DALazyStore");
    writer = std::this_thread::get_id();
  });
  m_lazy->Write("pending");
  m_lazy.reset();
  EXPECT_THAT(m_store->Writes(), ElementsAre("pending"));
  EXPECT_TRUE(worker_lives);
  EXPECT_EQ(writer, std::this_thread::get_id());
  EXPECT_TRUE(test_platform::WaitUntil([] { return !test_platform::HasThreadNamed("DALazyStore"); }));
}

TEST_F(LazyStore, DestructorWritesNothingWhenNothingIsPending) {
  m_lazy->Write("one");
  m_lazy->Flush();
  m_lazy->Read();
  m_lazy.reset();
  EXPECT_THAT(m_store->Writes(), ElementsAre("one"));
}

TEST_F(LazyStore, SharesTheUnderlyingStore) {
  EXPECT_EQ(m_store.use_count(), 2);
  m_lazy.reset();
  EXPECT_EQ(m_store.use_count(), 1);
}

TEST_F(LazyStore, TakesCallsFromSeveralThreads) {
  LazyPersistentStore lazy(m_store, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&lazy, i] {
      for (int j = 0; j < 100; ++j) {
        lazy.Write(std::to_string(i));
        EXPECT_EQ(lazy.Read().size(), 1U);
        if (j % 10 == 0) {
          lazy.Flush();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  lazy.Write("last");
  lazy.Flush();
  EXPECT_EQ(m_store->Text(), "last");
}
