#include "tests/load/checked_connection.h"

namespace {

constexpr char kName[] = "com.tavimesh.Registry";
constexpr char kPath[] = "/com/tavimesh/Registry";

void AppendItems(DBusMessageIter& iterator, Reply& reply) {
  for (; dbus_message_iter_get_arg_type(&iterator) != DBUS_TYPE_INVALID; dbus_message_iter_next(&iterator)) {
    switch (dbus_message_iter_get_arg_type(&iterator)) {
      case DBUS_TYPE_STRING: {
        const char* text = nullptr;
        dbus_message_iter_get_basic(&iterator, &text);
        reply.items.emplace_back(text);
        break;
      }
      case DBUS_TYPE_BOOLEAN: {
        dbus_bool_t value = 0;
        dbus_message_iter_get_basic(&iterator, &value);
        reply.items.emplace_back(value != 0 ? "true" : "false");
        break;
      }
      case DBUS_TYPE_ARRAY:
      case DBUS_TYPE_DICT_ENTRY: {
        DBusMessageIter inner;
        dbus_message_iter_recurse(&iterator, &inner);
        AppendItems(inner, reply);
        break;
      }
      default:
        throw UnexpectedReply("a reply has an unexpected type");
    }
  }
}

Reply ReplyOf(DBusMessage* message) {
  Reply reply;
  if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_ERROR) {
    reply = {"error", {dbus_message_get_error_name(message)}};
  } else {
    reply.type = dbus_message_get_signature(message);
  }
  DBusMessageIter iterator;
  dbus_message_iter_init(message, &iterator);
  AppendItems(iterator, reply);
  return reply;
}

std::string Describe(const Call& call) {
  std::string text = call.member;
  for (const std::string& argument : call.arguments) {
    text += " '" + argument.substr(0, 300) + "'";
  }
  return text;
}

}  // namespace

void CheckedConnection::Send(ExpectedCall call) {
  const Message message(dbus_message_new_method_call(kName, kPath, kName, call.call.member.c_str()));
  for (const std::string& argument : call.call.arguments) {
    const char* const text = argument.c_str();
    dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  }
  const dbus_uint32_t serial = m_connection.Send(message.get());
  m_pending.push_back({serial, std::move(call)});
}

std::size_t CheckedConnection::CheckReplies() {
  std::size_t count = 0;
  while (const Message message = m_connection.TakeReply(false)) {
    if (m_pending.empty() || dbus_message_get_reply_serial(message.get()) != m_pending.front().serial) {
      throw UnexpectedReply("a reply is out of order");
    }
    const auto& [call, expectation] = m_pending.front().call;
    const Reply reply = ReplyOf(message.get());
    if (!expectation.IsMetBy(reply)) {
      throw UnexpectedReply(Describe(call) + "\n  reply    " + ::Describe(reply) + "\n  expected " +
                            ::Describe(expectation.reply));
    }
    m_pending.pop_front();
    ++count;
  }
  return count;
}
