// The event loop of the program. It keeps the interface of the library's dispatcher and replaces its implementation,
// which ignores a leave() before enter(), crashes on a second leave(), uses 100 % CPU when output blocks, and does not
// report the loss of the bus.
#pragma once

#include <dbus-c++/dbus.h>
#include <poll.h>

#include <atomic>
#include <vector>

/// main() creates the only object and never destroys it. Only the main thread may use it, except for leave() and
/// IsLeaving(). It serves one connection. While replies wait to be written, it reads no calls. So the
/// replies for a client that never reads them cannot fill the memory.
class Dispatcher final : public DBus::BusDispatcher {
public:
  /// Throws bramble::ErrnoException if the pipe cannot be created.
  Dispatcher();

  /// Runs until leave() is called or the connection is lost. Returns at once if leave() was called before. Exceptions
  /// from handlers propagate to the caller. Throws bramble::ErrnoException if the wait for events fails, and
  /// std::runtime_error if libdbus has no memory for a message.
  void enter() override;

  /// Makes enter() return once it has handled the messages that have been read from the socket (about 4 KB at most).
  /// Async-signal-safe. May be called at any time and more than once.
  void leave() override;

  /// Returns whether leave() has been called. Thread-safe.
  bool IsLeaving() const { return m_leave; }

  /// Returns whether enter() returned because the bus closed the connection.
  bool LostConnection() const { return m_lost_connection; }

  /// Dispatches the messages that have arrived, waits for the next event and handles it.
  void do_iteration() override;

  DBus::Timeout* add_timeout(DBus::Timeout::Internal* internal) override;
  void rem_timeout(DBus::Timeout* timeout) override;
  DBus::Watch* add_watch(DBus::Watch::Internal* internal) override;
  void rem_watch(DBus::Watch* watch) override;

private:
  class Watch;
  class Timeout;

  void WaitForEvents();

  std::atomic<bool> m_leave{false};
  bool m_hung_up = false;  // the bus has closed the connection, but not all data has been read
  bool m_lost_connection = false;
  // Never closed: a signal can arrive after everything else has been destroyed.
  int m_wake_reader = -1;
  int m_wake_writer = -1;
  std::vector<Watch*> m_watches;  // owned by the watches of libdbus, which are deleted in rem_watch
  // The watches and descriptors of the current poll() call. They are members so that their memory is reused.
  std::vector<Watch*> m_polled;
  std::vector<pollfd> m_descriptors;
};
