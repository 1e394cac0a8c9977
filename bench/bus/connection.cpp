#include "bench/bus/connection.h"

#include <stdexcept>
#include <string>

Message NewCall(const char* service, const char* path, const char* interface, const char* member) {
  return Message(dbus_message_new_method_call(service, path, interface, member));
}

Connection::Connection() {
  DBusError error = DBUS_ERROR_INIT;
  m_connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
  if (m_connection == nullptr) {
    throw std::runtime_error(std::string("no connection to the bus: ") + error.message);
  }
  dbus_connection_set_exit_on_disconnect(m_connection, 0);
}

Connection::~Connection() {
  dbus_connection_close(m_connection);
  dbus_connection_unref(m_connection);
}

int Connection::Descriptor() const {
  int descriptor = -1;
  dbus_connection_get_unix_fd(m_connection, &descriptor);
  return descriptor;
}

dbus_uint32_t Connection::Send(DBusMessage* call) {
  // A message can be sent once only: then it has its serial number.
  const Message copy(dbus_message_copy(call));
  dbus_uint32_t serial = 0;
  dbus_connection_send(m_connection, copy.get(), &serial);
  dbus_connection_flush(m_connection);
  return serial;
}

Message Connection::TakeReply(bool wait) {
  for (;;) {
    Message message(dbus_connection_pop_message(m_connection));
    if (message == nullptr) {
      if (dbus_connection_read_write(m_connection, wait ? -1 : 0) == 0) {
        throw std::runtime_error("the bus has closed the connection");
      }
      message.reset(dbus_connection_pop_message(m_connection));
    }
    if (message == nullptr) {
      if (!wait) {
        return nullptr;
      }
      continue;
    }
    switch (dbus_message_get_type(message.get())) {
      case DBUS_MESSAGE_TYPE_METHOD_RETURN:
        return message;
      case DBUS_MESSAGE_TYPE_ERROR:
        throw std::runtime_error(std::string("a call has failed: ") + dbus_message_get_error_name(message.get()));
      default:
        break;
    }
  }
}

Message Connection::Call(DBusMessage* call) {
  const dbus_uint32_t serial = Send(call);
  Message reply = TakeReply(true);
  if (dbus_message_get_reply_serial(reply.get()) != serial) {
    throw std::runtime_error("a reply out of turn");
  }
  return reply;
}

pid_t Connection::OwnerOf(const char* name) {
  const Message call = NewCall(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetConnectionUnixProcessID");
  dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
  const Message reply = Call(call.get());
  dbus_uint32_t process = 0;
  dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_UINT32, &process, DBUS_TYPE_INVALID);
  return static_cast<pid_t>(process);
}
