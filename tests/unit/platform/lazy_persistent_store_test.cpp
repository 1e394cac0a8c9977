// The texts that the store accepts, returns and writes. The delay of these stores is so long that no test reaches its
// end.
#include "lib/platform/lazy_persistent_store.h"

#include <new>

#include "tests/unit/platform/platform_test.h"
#include "tests/unit/support/stores.h"

using namespace test_platform;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<LazyPersistentStore>);
static_assert(!std::is_copy_assignable_v<LazyPersistentStore>);

namespace {

constexpr std::uint32_t kHour = 3600 * 1000;

class LazyStore : public testing::Test {
protected:
  CapturedStderr m_stderr;
  std::shared_ptr<RecordingStore> m_store = std::make_shared<RecordingStore>("stored", 10);
  std::unique_ptr<LazyPersistentStore> m_lazy = std::make_unique<LazyPersistentStore>(m_store, kHour);
};

struct ReadMock : RecordingStore {
  MOCK_METHOD(std::string, Read, (), (override));
};

}  // namespace

TEST_F(LazyStore, ReadsTheUnderlyingStoreOnceAndOnDemand) {
  EXPECT_EQ(m_lazy->Capacity(), 10U);
  EXPECT_EQ(LazyPersistentStore(std::make_shared<RecordingStore>("", 4294967295U), kHour).Capacity(), 4294967295U);
  EXPECT_EQ(m_store->Reads(), 0);
  EXPECT_EQ(m_lazy->Read(), "stored");
  EXPECT_EQ(m_lazy->Read(), "stored");
  m_lazy->Write("pending");
  EXPECT_EQ(m_lazy->Read(), "pending");
  EXPECT_EQ(m_store->Reads(), 1);
}

TEST_F(LazyStore, ReturnsTheAcceptedTextWithoutReading) {
  m_lazy->Write("pending");
  EXPECT_EQ(m_lazy->Read(), "pending");
  EXPECT_THAT(m_store->Writes(), IsEmpty()) << "it is written without a flush";
  m_lazy->Flush();
  EXPECT_EQ(m_lazy->Read(), "pending");
  EXPECT_EQ(m_store->Reads(), 0);
}

TEST_F(LazyStore, ReadsAgainAfterAReadThatThrew) {
  const auto store = std::make_shared<ReadMock>();
  EXPECT_CALL(*store, Read)
      .WillOnce(testing::Throw(std::runtime_error("cannot read")))
      .WillOnce(testing::Return("second"));
  LazyPersistentStore lazy(store, kHour);
  ExpectRuntimeError("cannot read", [&lazy] { lazy.Read(); });
  EXPECT_EQ(lazy.Read(), "second");
  EXPECT_EQ(lazy.Read(), "second");
}

TEST_F(LazyStore, FlushWritesTheLastAcceptedTextOnce) {
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), IsEmpty()) << "nothing was read";
  m_lazy->Read();
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), IsEmpty()) << "nothing was changed";
  m_lazy->Write("one");
  const std::string copied = "two";
  m_lazy->Write(copied);
  m_lazy->Flush();
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), ElementsAre("two"));
  m_lazy->Read();
  m_lazy.reset();
  EXPECT_THAT(m_store->Writes(), ElementsAre("two")) << "the destructor writes it again";
}

TEST_F(LazyStore, WritesEmptyEqualAndLongestTexts) {
  for (const char* text : {"", "", "0123456789"}) {
    m_lazy->Write(text);
    m_lazy->Flush();
  }
  EXPECT_THAT(m_store->Writes(), ElementsAre("", "", "0123456789"));
}

TEST_F(LazyStore, RefusesATextLongerThanTheCapacityAndKeepsTheLastOne) {
  const auto refuse = [this] {
    try {
      m_lazy->Write("0123456789a");
      ADD_FAILURE() << "accepted";
    } catch (const PersistentStore::Full& e) {
      EXPECT_STREQ(e.what(), "Store full");
    }
  };
  refuse();
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), IsEmpty());
  EXPECT_EQ(m_lazy->Read(), "stored") << "the refused text is cached";
  refuse();
  EXPECT_EQ(m_lazy->Read(), "stored");
  EXPECT_EQ(m_store->Reads(), 1);

  m_lazy->Write("pending");
  refuse();
  EXPECT_EQ(m_lazy->Read(), "pending");
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), ElementsAre("pending"));
}

TEST_F(LazyStore, KeepsTheTextPendingIfAFlushFails) {
  m_store->OnWrite([] { throw std::runtime_error("cannot write"); });
  m_lazy->Write("pending");
  for (int attempt = 0; attempt < 2; ++attempt) {
    ExpectRuntimeError("cannot write", [this] { m_lazy->Flush(); });
  }
  EXPECT_EQ(m_lazy->Read(), "pending");
  m_store->OnWrite(nullptr);
  m_lazy->Flush();
  EXPECT_THAT(m_store->Writes(), ElementsAre("pending"));
}

TEST_F(LazyStore, DestructorWritesAPendingTextBeforeTheWorkerStops) {
  const auto has_worker = [] { return HasThreadNamed("DALazyStore"); };
  ASSERT_TRUE(WaitUntil(has_worker));
  bool worker_lives = false;
  std::thread::id writer;
  m_store->OnWrite([&] {
    worker_lives = has_worker();
    writer = std::this_thread::get_id();
  });
  m_lazy->Write("pending");
  EXPECT_EQ(m_store.use_count(), 2);
  m_lazy.reset();
  EXPECT_EQ(m_store.use_count(), 1);
  EXPECT_THAT(m_store->Writes(), ElementsAre("pending"));
  EXPECT_TRUE(worker_lives);
  EXPECT_EQ(writer, std::this_thread::get_id());
  EXPECT_TRUE(WaitUntil([&] { return !has_worker(); }));
}

TEST_F(LazyStore, KeepsOtherCallersOutOfTheUnderlyingStoreDuringAWrite) {
  const std::tuple<const char*, std::function<void()>> rows[] = {
      {"Write", [this] { m_lazy->Write("second"); }},
      {"Capacity", [this] { EXPECT_EQ(m_lazy->Capacity(), 10U); }},
  };
  for (const auto& [name, call] : rows) {
    SCOPED_TRACE(name);
    std::optional<OtherThread> other;
    m_store->OnWrite([&other, &call = call] {
      other.emplace(call);
      EXPECT_TRUE(other->IsBlocked());
    });
    m_lazy->Write("first");
    m_lazy->Flush();
    other.reset();
    m_store->OnWrite(nullptr);
  }
}

TEST(LazyStoreDeath, EndsTheProcessIfAFlushOfTheWorkerFails) {
  const std::tuple<const char*, void (*)(), const char*> rows[] = {
      {"system call", [] { throw ErrnoException(ENOSPC); }, "exception: No space left on device (28)"},
      {"text with conversions", [] { throw std::runtime_error("100%s"); }, "exception: 100%s"},
      {"full", [] { throw PersistentStore::Full(); }, "exception: Store full"},
      {"memory", [] { throw std::bad_alloc(); }, "exception: std::bad_alloc"},
      {"a number", [] { throw 7; }, "unknown exception"},
      {"a text", [] { throw "text"; }, "unknown exception"},
  };
  for (const auto& [name, fault, message] : rows) {
    SCOPED_TRACE(name);
    EXPECT_ASSERTION_AND_STDERR(
        {
          const auto store = std::make_shared<RecordingStore>();
          store->OnWrite(fault);
          LazyPersistentStore lazy(store, 1);
          lazy.Write("pending");
          WaitUntil([] { return false; });
          std::_Exit(0);
        },
        "false", "lib/platform/lazy_persistent_store.cpp", "void LazyPersistentStore::OnLazyFlush\\(\\)",
        PrintsExactly("Lazy persistent store flush caused " + std::string(message) + "\n"));
  }
}

TEST(LazyStoreDeath, EndsTheProcessIfTheFlushOfTheDestructorFails) {
  ClearKernelLog();
  EXPECT_EXIT(
      {
        const auto store = std::make_shared<RecordingStore>();
        store->OnWrite([] { throw ErrnoException(ENOSPC); });
        LazyPersistentStore(store, kHour).Write("pending");
        std::_Exit(0);
      },
      testing::KilledBySignal(SIGABRT), testing::HasSubstr("No space left on device (28)"));
  EXPECT_EQ(KernelLog(), "");
}
