#include "tests/model/bus.h"

#include <stdexcept>

namespace {

constexpr char kName[] = "com.tavimesh.Registry";

std::string TakeString(DBusMessageIter& iterator) {
  const char* text = nullptr;
  dbus_message_iter_get_basic(&iterator, &text);
  return text;
}

void AppendItems(DBusMessageIter& iterator, std::vector<std::string>& items) {
  for (int type; (type = dbus_message_iter_get_arg_type(&iterator)) != DBUS_TYPE_INVALID;
       dbus_message_iter_next(&iterator)) {
    if (type == DBUS_TYPE_ARRAY || type == DBUS_TYPE_DICT_ENTRY) {
      DBusMessageIter contents;
      dbus_message_iter_recurse(&iterator, &contents);
      AppendItems(contents, items);
    } else if (type == DBUS_TYPE_BOOLEAN) {
      dbus_bool_t value = 0;
      dbus_message_iter_get_basic(&iterator, &value);
      items.emplace_back(value != 0 ? "true" : "false");
    } else if (type == DBUS_TYPE_STRING) {
      items.push_back(TakeString(iterator));
    } else {
      throw std::runtime_error("a reply has an unexpected type");
    }
  }
}

}  // namespace

Message NewCall(const model::Call& call) {
  Message message(dbus_message_new_method_call(kName, "/com/tavimesh/Registry", kName, call.member.c_str()));
  for (const std::string& argument : call.arguments) {
    const char* const text = argument.c_str();
    dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  }
  return message;
}

std::vector<std::string> ArgumentsOf(DBusMessage& call) {
  std::vector<std::string> arguments;
  DBusMessageIter iterator;
  dbus_message_iter_init(&call, &iterator);
  for (; dbus_message_iter_get_arg_type(&iterator) == DBUS_TYPE_STRING; dbus_message_iter_next(&iterator)) {
    arguments.push_back(TakeString(iterator));
  }
  return arguments;
}

model::Reply ReplyOf(DBusMessage& message) {
  model::Reply reply{dbus_message_get_signature(&message), {}};
  if (dbus_message_get_type(&message) == DBUS_MESSAGE_TYPE_ERROR) {
    reply = {"error", {dbus_message_get_error_name(&message)}};
  }
  DBusMessageIter iterator;
  dbus_message_iter_init(&message, &iterator);
  AppendItems(iterator, reply.items);
  return reply;
}

Connection::Connection(const std::string& address) {
  DBusError error = DBUS_ERROR_INIT;
  m_connection = dbus_connection_open_private(address.c_str(), &error);
  if (m_connection == nullptr || dbus_bus_register(m_connection, &error) == 0) {
    throw std::runtime_error(std::string("cannot connect to the bus: ") + error.message);
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
  dbus_uint32_t serial = 0;
  dbus_connection_send(m_connection, call, &serial);
  dbus_connection_flush(m_connection);
  return serial;
}

Message Connection::TakeReply(bool wait) {
  bool has_read = false;
  for (;;) {
    Message message(dbus_connection_pop_message(m_connection));
    if (message != nullptr && dbus_message_get_reply_serial(message.get()) != 0) {
      return message;
    }
    if (message != nullptr) {
      continue;
    }
    if (has_read && !wait) {
      return nullptr;
    }
    if (dbus_connection_read_write(m_connection, wait ? -1 : 0) == 0) {
      throw std::runtime_error("the bus has closed the connection");
    }
    has_read = true;
  }
}

Message Connection::Call(DBusMessage* call) {
  const dbus_uint32_t serial = Send(call);
  Message reply = TakeReply(true);
  if (dbus_message_get_reply_serial(reply.get()) != serial) {
    throw std::runtime_error("a reply is out of order");
  }
  if (dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
    throw std::runtime_error(std::string(dbus_message_get_member(call)) + ": " +
                             dbus_message_get_error_name(reply.get()));
  }
  return reply;
}
