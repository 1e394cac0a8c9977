// The program's event loop on the D-Bus connection. It keeps the library's interface and replaces its machinery, which
// loses an early leave(), dies of a second one, spins on blocked output and never tells of a lost bus.
#pragma once

#include <dbus-c++/dbus.h>
#include <poll.h>

#include <atomic>
#include <vector>

/// One object, never destroyed, used by the main thread; only leave() and IsLeaving() may be called from anywhere. It
/// serves one connection.
class Dispatcher final : public DBus::BusDispatcher {
public:
  /// Throws bramble::ErrnoException if there is no descriptor for its pipe.
  Dispatcher();

  /// Runs until leave() is called, before or during the run, or the connection is lost. What handlers throw passes
  /// through. Throws bramble::ErrnoException if the wait for events fails, std::runtime_error if libdbus has no
  /// memory for a message.
  void enter() override;

  /// Makes enter() return after the messages that have been read, some 4 KB at most. Async-signal-safe, any number of
  /// times, at any time.
  void leave() override;

  /// Whether leave() has been called. Any thread may ask, at any time.
  bool IsLeaving() const { return m_leave; }

  /// Whether enter() returned because the bus closed the connection.
  bool LostConnection() const { return m_lost_connection; }

  /// Dispatches what has arrived, waits for the next event and handles it.
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
  bool m_hung_up = false;  // the bus, but not all that it has sent is read
  bool m_lost_connection = false;
  // Never closed: a signal can come when everything else is gone.
  int m_wake_reader = -1;
  int m_wake_writer = -1;
  std::vector<Watch*> m_watches;  // owned by libdbus's watches, which end in rem_watch
  // What the wait in hand is for; here so that not every wait takes memory anew.
  std::vector<Watch*> m_polled;
  std::vector<pollfd> m_descriptors;
};
