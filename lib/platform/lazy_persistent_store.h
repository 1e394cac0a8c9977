// A write-behind cache for another store. It accepts texts at once and writes them later, so that many changes in a
// short time cause only one write. The registry back end owns one and calls it from the dispatcher's thread. A worker
// thread writes.
#pragma once

#include <boost/thread/recursive_mutex.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "lib/platform/deferred_action.h"
#include "lib/platform/persistent_store.h"

/// Every operation takes the store's own recursive lock. Three things write the accepted text to the underlying store:
/// the worker, when the delay has passed since the first unwritten change; Flush; and the destructor. A crash before
/// that loses the text. The process ends if a write of the worker or of the destructor fails.
class LazyPersistentStore : public PersistentStore {
public:
  /// `delay` is in milliseconds. Shares the ownership of the underlying store and calls it only while holding this
  /// store's lock. Throws std::system_error if the worker thread cannot be started.
  LazyPersistentStore(std::shared_ptr<PersistentStore> store, std::uint32_t delay);

  /// Flushes, then stops the worker. The process ends if the flush fails.
  ~LazyPersistentStore() override;

  LazyPersistentStore(const LazyPersistentStore&) = delete;
  LazyPersistentStore& operator=(const LazyPersistentStore&) = delete;

  /// Returns the text that was accepted last. If none has been accepted yet, returns the text of the underlying store,
  /// which is read only once. Throws the exceptions of that read.
  std::string Read() override;

  /// Accepts the text; it is written later. Throws Full if it is longer than the capacity of the underlying store. The
  /// previously accepted text and its deadline are then unchanged.
  void Write(const std::string& text) override;

  /// Like the other Write, without a copy of the text.
  void Write(std::string&& text);

  std::uint32_t Capacity() override;

  /// If an accepted text has not been written yet, writes it and cancels the deadline. Otherwise does nothing. Throws
  /// the exceptions of the underlying store; the text is then still pending, and its deadline is kept.
  virtual void Flush();

private:
  enum class State {
    Unloaded = 0,  // nothing read yet
    Clean = 1,     // the cache equals the underlying store
    Dirty = 2,     // the cache contains a text that has not been written yet
  };

  // The worker's action. No caller can handle a failure here, so it ends the process.
  void OnLazyFlush();

  boost::recursive_mutex m_lock;
  const std::shared_ptr<PersistentStore> m_store;
  State m_state = State::Unloaded;  // guarded by m_lock
  std::string m_cache;              // guarded by m_lock
  const std::uint32_t m_delay;      // milliseconds
  bramble::DeferredAction m_flush;  // last: its worker uses all of the above
};
