#include "daemon/dispatcher.h"

#include <dbus/dbus.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "lib/platform/errno_exception.h"
#include "lib/platform/posix_helpers.h"

namespace {

// Returns a duplicate with a number above 2, even if the process was started with its standard streams closed.
int DuplicateAboveStandardStreams(int fd) {
  const int duplicate = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (duplicate < 0) {
    throw bramble::ErrnoException(errno, "dispatcher pipe");
  }
  return duplicate;
}

template <typename T>
bool Contains(const std::vector<T*>& all, const T* one) {
  return std::find(all.begin(), all.end(), one) != all.end();
}

template <typename T>
void Remove(std::vector<T*>& all, const void* one) {
  all.erase(std::remove_if(all.begin(), all.end(), [&](T* each) { return each == one; }), all.end());
}

}  // namespace

// The loop asks for its state before each wait, so toggle() has nothing to do.
class Dispatcher::Watch final : public DBus::Watch {
public:
  using DBus::Watch::Watch;
  void toggle() override {}

  bool Wants(int flag) const { return enabled() && (flags() & flag) != 0; }

  // Returns false if libdbus had not enough memory.
  bool Handle(short events) {
    int flags = 0;
    flags |= (events & POLLIN) != 0 ? DBUS_WATCH_READABLE : 0;
    flags |= (events & POLLOUT) != 0 ? DBUS_WATCH_WRITABLE : 0;
    flags |= (events & POLLHUP) != 0 ? DBUS_WATCH_HANGUP : 0;
    flags |= (events & (POLLERR | POLLNVAL)) != 0 ? DBUS_WATCH_ERROR : 0;
    return handle(flags);
  }
};

class Dispatcher::Timeout final : public DBus::Timeout {
public:
  using DBus::Timeout::Timeout;
  void toggle() override {}
};

Dispatcher::Dispatcher() try {
  // The base class has opened a pipe, which is not used here. If the process was started with its standard streams
  // closed, that pipe occupies their descriptors.
  bramble::FileDescriptor unused[] = {bramble::FileDescriptor(_fdunlock[0]), bramble::FileDescriptor(_fdunlock[1])};
  m_wake_reader = DuplicateAboveStandardStreams(unused[0].Get());
  m_wake_writer = DuplicateAboveStandardStreams(unused[1].Get());
  _fdunlock[0] = _fdunlock[1] = -1;
  if (::fcntl(m_wake_writer, F_SETFL, O_NONBLOCK) != 0) {
    throw bramble::ErrnoException(errno, "dispatcher pipe");
  }
} catch (const DBus::Error&) {
  // The base class could not open its pipe. The text in its exception is destroyed before it can be printed.
  throw bramble::ErrnoException(errno, "dispatcher pipe");
}

void Dispatcher::enter() {
  while (!m_leave && !m_lost_connection) {
    do_iteration();
  }
}

void Dispatcher::leave() {
  m_leave = true;
  // A full pipe wakes the loop too.
  [[maybe_unused]] const ssize_t ignored = ::write(m_wake_writer, "", 1);
}

void Dispatcher::do_iteration() {
  dispatch_pending();
  // If the bus has closed the connection, dispatching removes its last watch.
  m_lost_connection = m_watches.empty();
  if (!m_leave && !m_lost_connection) {
    WaitForEvents();
  }
}

void Dispatcher::WaitForEvents() {
  // While replies wait to be written, no call is read: a client that never reads its replies must not fill the memory.
  // The replies on a lost connection wait for ever; libdbus notices the loss only when it reads the end of the stream.
  const bool writing = !m_hung_up && std::any_of(m_watches.begin(), m_watches.end(),
                                                 [](const Watch* watch) { return watch->Wants(DBUS_WATCH_WRITABLE); });
  const int wanted = writing ? DBUS_WATCH_WRITABLE : DBUS_WATCH_READABLE;
  m_polled.clear();
  m_descriptors.clear();
  for (Watch* watch : m_watches) {
    if (watch->Wants(wanted)) {
      m_polled.push_back(watch);
      m_descriptors.push_back({watch->descriptor(), static_cast<short>(writing ? POLLOUT : POLLIN), 0});
    }
  }
  m_descriptors.push_back({m_wake_reader, POLLIN, 0});

  if (::poll(m_descriptors.data(), m_descriptors.size(), -1) < 0) {
    if (errno != EINTR) {
      // The next attempt would fail too.
      throw bramble::ErrnoException(errno, "poll");
    }
    return;
  }
  for (std::size_t i = 0; i < m_polled.size(); ++i) {
    m_hung_up = m_hung_up || (m_descriptors[i].revents & (POLLHUP | POLLERR)) != 0;
    // Handling one watch can remove another.
    if (m_descriptors[i].revents != 0 && Contains(m_watches, m_polled[i]) &&
        !m_polled[i]->Handle(m_descriptors[i].revents)) {
      // libdbus has read a part of a message and needs memory for the rest, or for a copy of it, before it delivers any
      // later message. No caller would ever get a reply again.
      throw std::runtime_error("not enough memory for a message");
    }
  }
}

// The loop waits without a limit. libdbus creates a time-out for each call that expects a reply. The program makes such
// calls only at start-up, and they block: libdbus handles their time-outs itself and removes them before they return.
DBus::Timeout* Dispatcher::add_timeout(DBus::Timeout::Internal* internal) { return new Timeout(internal); }

void Dispatcher::rem_timeout(DBus::Timeout* timeout) { delete timeout; }

DBus::Watch* Dispatcher::add_watch(DBus::Watch::Internal* internal) {
  m_watches.push_back(new Watch(internal));
  return m_watches.back();
}

void Dispatcher::rem_watch(DBus::Watch* watch) {
  Remove(m_watches, static_cast<Watch*>(watch));
  delete watch;
}
