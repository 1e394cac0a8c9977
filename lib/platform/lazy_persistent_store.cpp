#include "lib/platform/lazy_persistent_store.h"

#include <boost/thread/lock_guard.hpp>
#include <cstdio>
#include <exception>
#include <utility>

#include "lib/platform/assertion.h"
#include "lib/platform/safe_print.h"

namespace {

using Guard = boost::lock_guard<boost::recursive_mutex>;

constexpr std::uint64_t kMicrosecondsPerMillisecond = 1000;

}  // namespace

LazyPersistentStore::LazyPersistentStore(std::shared_ptr<PersistentStore> store, std::uint32_t delay)
    : m_store(std::move(store)),
      m_delay(delay),
      m_flush(
          m_lock, [this] { OnLazyFlush(); }, "LazyStore") {}

// Flush is not a virtual call in a destructor, which is right: no derived object is left. If it throws, the process
// ends, because destructors are noexcept.
LazyPersistentStore::~LazyPersistentStore() { LazyPersistentStore::Flush(); }

std::string LazyPersistentStore::Read() {
  const Guard guard(m_lock);
  if (m_state == State::Unloaded) {
    m_cache = m_store->Read();
    m_state = State::Clean;
  }
  return m_cache;
}

void LazyPersistentStore::Write(const std::string& text) { Write(std::string(text)); }

void LazyPersistentStore::Write(std::string&& text) {
  const Guard guard(m_lock);
  if (text.size() > m_store->Capacity()) {
    throw Full();
  }
  m_cache = std::move(text);
  m_state = State::Dirty;
  m_flush.Schedule(m_delay * kMicrosecondsPerMillisecond);
}

std::uint32_t LazyPersistentStore::Capacity() {
  const Guard guard(m_lock);
  return m_store->Capacity();
}

void LazyPersistentStore::Flush() {
  const Guard guard(m_lock);
  if (m_state != State::Dirty) {
    return;
  }
  m_store->Write(m_cache);
  m_state = State::Clean;
  m_flush.Cancel();
}

void LazyPersistentStore::OnLazyFlush() {
  try {
    Flush();
  } catch (const std::exception& e) {
    bramble::SafePrint(stderr, "Lazy persistent store flush caused exception: %s\n", e.what());
    BRAMBLE_ASSERT(false);
  } catch (...) {
    bramble::SafePrint(stderr, "Lazy persistent store flush caused unknown exception\n");
    BRAMBLE_ASSERT(false);
  }
}
