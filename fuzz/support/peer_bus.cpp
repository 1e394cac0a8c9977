#include "fuzz/support/peer_bus.h"

#include <poll.h>

#include <utility>

#include "fuzz/support/fuzzer.h"

namespace fuzz {
namespace {

// Connects the served end to a private address. Returns the other end.
DBusConnection* Connect(std::unique_ptr<DBus::Connection>& served_end) {
  DBusServer* const server = dbus_server_listen("unix:tmpdir=/tmp", nullptr);
  Require(server != nullptr, "a private address accepts connections");
  DBusConnection* accepted = nullptr;
  const auto keep_connection = [](DBusServer*, DBusConnection* connection, void* kept) {
    *static_cast<DBusConnection**>(kept) = dbus_connection_ref(connection);
  };
  dbus_server_set_new_connection_function(server, keep_connection, &accepted, nullptr);
  DBusWatch* watch = nullptr;
  const auto keep_watch = [](DBusWatch* added, void* kept) -> dbus_bool_t {
    *static_cast<DBusWatch**>(kept) = added;
    return TRUE;
  };
  dbus_server_set_watch_functions(
      server, keep_watch, [](DBusWatch*, void*) {}, nullptr, &watch, nullptr);

  char* const address = dbus_server_get_address(server);
  served_end = std::make_unique<DBus::Connection>(address);
  dbus_free(address);
  dbus_watch_handle(watch, DBUS_WATCH_READABLE);
  Require(accepted != nullptr, "the served end has connected");
  dbus_server_disconnect(server);
  dbus_server_unref(server);
  return accepted;
}

}  // namespace

PeerBus& PeerBus::Instance() {
  static PeerBus* const instance = new PeerBus;
  return *instance;
}

PeerBus::PeerBus() {
  DBus::default_dispatcher = &m_dispatcher;
  m_calling_end = Connect(m_served_end);
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
  const Message ping_call(dbus_message_new_method_call(nullptr, "/", DBUS_INTERFACE_PEER, "Ping"));
  dbus_uint32_t ping = 0;
  dbus_connection_send(m_calling_end, &message, nullptr);
  dbus_connection_send(m_calling_end, ping_call.get(), &ping);
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
