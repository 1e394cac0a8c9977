#include "tests/model/bus_message.h"

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
