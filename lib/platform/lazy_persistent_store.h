// A store in front of another one that accepts texts at once and writes them later, so that a burst of changes costs
// one write. The registry back end owns one and calls it from the dispatcher's thread; its worker thread writes.
#pragma once

#include <boost/thread/recursive_mutex.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "lib/platform/deferred_action.h"
#include "lib/platform/persistent_store.h"

/// Every operation takes the store's own recursive lock. The accepted text is written to the underlying store when the
/// delay has passed since the first unwritten change, on Flush, and by the destructor: until then a crash loses it.
class LazyPersistentStore : public PersistentStore {
public:
  /// `delay` is in milliseconds. The underlying store is shared and called under this store's lock only. Throws
  /// std::system_error if the worker thread cannot be started.
  LazyPersistentStore(std::shared_ptr<PersistentStore> store, std::uint32_t delay);

  /// Flushes, then stops the worker. A flush that fails ends the process.
  ~LazyPersistentStore() override;

  LazyPersistentStore(const LazyPersistentStore&) = delete;
  LazyPersistentStore& operator=(const LazyPersistentStore&) = delete;

  /// Returns the text accepted last; before any was, the text of the underlying store, which is read once. Passes on
  /// what that read throws.
  std::string Read() override;

  /// Accepts the text for writing later. Throws Full if it is longer than the underlying store's capacity; the text
  /// accepted before and its deadline then stay as they were.
  void Write(const std::string& text) override;

  /// The same for a text that the caller no longer needs, which is then not copied.
  void Write(std::string&& text);

  std::uint32_t Capacity() override;

  /// Writes an accepted text that is not written yet, and disarms the deadline; with none, does nothing. Passes on what
  /// the underlying store throws; the text then stays pending and the deadline armed.
  virtual void Flush();

private:
  enum class State {
    Unloaded = 0,  // nothing read yet
    Clean = 1,     // the cache equals the underlying store
    Dirty = 2,     // the cache holds a text not yet written
  };

  // The worker's action. A failure here is nobody's to handle and ends the process.
  void OnLazyFlush();

  boost::recursive_mutex m_lock;
  const std::shared_ptr<PersistentStore> m_store;
  State m_state = State::Unloaded;  // guarded by m_lock
  std::string m_cache;              // guarded by m_lock
  const std::uint32_t m_delay;      // milliseconds
  bramble::DeferredAction m_flush;  // last: its worker uses all of the above
};
