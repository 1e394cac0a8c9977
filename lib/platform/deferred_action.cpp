#include "lib/platform/deferred_action.h"

#include <pthread.h>

#include <utility>

#include "lib/platform/monotonic_time.h"
#include "lib/platform/string_operations.h"

namespace bramble {
namespace {

using OwnerLock = boost::unique_lock<boost::recursive_mutex>;

// The kernel allows 15 bytes for the name of a thread and rejects a longer name.
constexpr std::size_t kLongestThreadName = 15;

}  // namespace

DeferredAction::DeferredAction(boost::recursive_mutex& owner_lock, boost::function<void()> action,
                               const std::string& name)
    : m_owner_lock(owner_lock),
      m_action(std::move(action)),
      m_worker(&DeferredAction::Run, this, strprintf("DA%s", name.c_str()).substr(0, kLongestThreadName)) {}

DeferredAction::~DeferredAction() {
  {
    const OwnerLock lock(m_owner_lock);
    m_stop = true;
    m_wake.notify_all();
  }
  m_worker.join();
}

void DeferredAction::Schedule(std::uint64_t delay) {
  const OwnerLock lock(m_owner_lock);
  const timespec deadline = AddMicroseconds(get_monotonic_time(), delay);
  if (m_scheduled && !IsBefore(deadline, m_deadline)) {
    return;
  }
  m_scheduled = true;
  m_deadline = deadline;
  m_wake.notify_all();
}

void DeferredAction::Cancel() {
  const OwnerLock lock(m_owner_lock);
  m_scheduled = false;
  m_wake.notify_all();
}

void DeferredAction::Run(const std::string& thread_name) {
  ::pthread_setname_np(::pthread_self(), thread_name.c_str());
  OwnerLock lock(m_owner_lock);
  while (!m_stop) {
    if (m_scheduled) {
      // Copied, because the deadline can change while the lock is released.
      const timespec deadline = m_deadline;
      m_wake.wait_until(lock, deadline);
    } else {
      m_wake.wait(lock);
    }
    // The deadline has passed only strictly after it. An action that is due runs even if the destructor has already
    // asked the worker to stop.
    if (m_scheduled && IsBefore(m_deadline, get_monotonic_time())) {
      m_scheduled = false;
      m_action();
    }
  }
}

}  // namespace bramble
