#include "fuzz/support/peer_bus.h"

#include <poll.h>

#include <string>
#include <utility>

#include "fuzz/support/require.h"

namespace fuzz {
namespace {

// A private address on which the calling end accepts one connection.
class Listener {
public:
  Listener() : m_server(dbus_server_listen("unix:tmpdir=/tmp", nullptr)) {
    Require(m_server != nullptr, "a private address accepts connections");
    dbus_server_set_new_connection_function(m_server, KeepConnection, &m_accepted, nullptr);
    dbus_server_set_watch_functions(m_server, KeepWatch, ForgetWatch, nullptr, &m_watch, nullptr);
  }

  ~Listener() {
    dbus_server_disconnect(m_server);
    dbus_server_unref(m_server);
  }

  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  std::string Address() const {
    char* const address = dbus_server_get_address(m_server);
    std::string copy = address;
    dbus_free(address);
    return copy;
  }

  DBusConnection* Accept() {
    dbus_watch_handle(m_watch, DBUS_WATCH_READABLE);
    Require(m_accepted != nullptr, "the served end has connected");
    return m_accepted;
  }

private:
  static void KeepConnection(DBusServer*, DBusConnection* connection, void* accepted) {
    *static_cast<DBusConnection**>(accepted) = dbus_connection_ref(connection);
  }
  static dbus_bool_t KeepWatch(DBusWatch* watch, void* kept) {
    *static_cast<DBusWatch**>(kept) = watch;
    return TRUE;
  }
  static void ForgetWatch(DBusWatch*, void*) {}

  DBusServer* const m_server;
  DBusWatch* m_watch = nullptr;
  DBusConnection* m_accepted = nullptr;
};

Message NewPing() { return Message(dbus_message_new_method_call(nullptr, "/", DBUS_INTERFACE_PEER, "Ping")); }

}  // namespace

PeerBus& PeerBus::Instance() {
  static PeerBus* const instance = new PeerBus;
  return *instance;
}

PeerBus::PeerBus() {
  DBus::default_dispatcher = &m_dispatcher;
  Listener listener;
  m_served_end = std::make_unique<DBus::Connection>(listener.Address().c_str());
  m_calling_end = listener.Accept();
  dbus_connection_set_exit_on_disconnect(m_calling_end, FALSE);
  for (;;) {
    // One call reads a line of the authentication. Only the next call writes the answer.
    MoveCallingEnd();
    MoveCallingEnd();
    if (dbus_connection_get_is_authenticated(m_calling_end)) {
      return;
    }
    m_dispatcher.do_iteration();
  }
}

std::vector<Message> PeerBus::Exchange(DBusMessage& message) {
  dbus_uint32_t ping = 0;
  dbus_connection_send(m_calling_end, &message, nullptr);
  dbus_connection_send(m_calling_end, NewPing().get(), &ping);
  std::vector<Message> received;
  while (!Receive(ping, received)) {
    m_dispatcher.dispatch_pending();
    if (Receive(ping, received)) {
      break;
    }
    // The ping is not answered yet, so there is something to read or write. Therefore this does not wait for ever.
    m_dispatcher.do_iteration();
    Require(dbus_connection_get_is_connected(m_calling_end), "the connection survives");
  }
  return received;
}

void PeerBus::MoveCallingEnd() {
  pollfd socket{};
  dbus_connection_get_socket(m_calling_end, &socket.fd);
  // One call reads and writes at most 2 KB.
  do {
    dbus_connection_read_write(m_calling_end, 0);
    const bool writes = dbus_connection_has_messages_to_send(m_calling_end);
    socket.events = static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN);
  } while (dbus_connection_get_is_connected(m_calling_end) && ::poll(&socket, 1, 0) > 0);
}

bool PeerBus::Receive(dbus_uint32_t ping, std::vector<Message>& received) {
  MoveCallingEnd();
  while (Message message = Message(dbus_connection_pop_message(m_calling_end))) {
    if (dbus_message_get_reply_serial(message.get()) == ping) {
      return true;
    }
    received.push_back(std::move(message));
  }
  return false;
}

}  // namespace fuzz
