#include "dbus/message_access.h"

#include <dbus-c++/message.h>
#include <dbus/dbus.h>

#include <new>

// The library has this definition in a private header. The first member has been the wrapped message in every release.
// If that changes, the tests of calls without a reply fail.
struct DBus::Message::Private {
  DBusMessage* msg;
};

namespace {

// A derived class may access the protected member.
struct MessageAccess : DBus::Message {
  static DBusMessage* Wrapped(const DBus::Message& message) { return (message.*&MessageAccess::_pvt)->msg; }
};

void CheckMemory(dbus_bool_t success) {
  if (!success) {
    throw std::bad_alloc();
  }
}

DBusMessageIter AppendTo(const DBus::Message& reply) {
  DBusMessageIter iterator;
  dbus_message_iter_init_append(MessageAccess::Wrapped(reply), &iterator);
  return iterator;
}

void AppendString(DBusMessageIter& iterator, const std::string& text) {
  const char* const chars = text.c_str();
  CheckMemory(dbus_message_iter_append_basic(&iterator, DBUS_TYPE_STRING, &chars));
}

// The destructor frees a container that an exception has left open.
class Container {
public:
  Container(DBusMessageIter& parent, int type, const char* signature) : m_parent(parent) {
    CheckMemory(dbus_message_iter_open_container(&m_parent, type, signature, &m_iterator));
  }
  ~Container() { dbus_message_iter_abandon_container_if_open(&m_parent, &m_iterator); }
  Container(const Container&) = delete;
  Container& operator=(const Container&) = delete;

  DBusMessageIter& Iterator() { return m_iterator; }
  void Close() { CheckMemory(dbus_message_iter_close_container(&m_parent, &m_iterator)); }

private:
  DBusMessageIter& m_parent;
  DBusMessageIter m_iterator = DBUS_MESSAGE_ITER_INIT_CLOSED;
};

}  // namespace

bool WantsReply(const DBus::Message& call) { return !dbus_message_get_no_reply(MessageAccess::Wrapped(call)); }

void AppendResult(DBus::Message& reply, bool result) {
  DBusMessageIter iterator = AppendTo(reply);
  const dbus_bool_t value = result;
  CheckMemory(dbus_message_iter_append_basic(&iterator, DBUS_TYPE_BOOLEAN, &value));
}

void AppendResult(DBus::Message& reply, const std::string& result) {
  DBusMessageIter iterator = AppendTo(reply);
  AppendString(iterator, result);
}

void AppendResult(DBus::Message& reply, const std::vector<std::string>& result) {
  DBusMessageIter iterator = AppendTo(reply);
  Container array(iterator, DBUS_TYPE_ARRAY, "s");
  for (const std::string& text : result) {
    AppendString(array.Iterator(), text);
  }
  array.Close();
}

void AppendResult(DBus::Message& reply, const std::map<std::string, std::string>& result) {
  DBusMessageIter iterator = AppendTo(reply);
  Container array(iterator, DBUS_TYPE_ARRAY, "{ss}");
  for (const auto& [key, value] : result) {
    Container entry(array.Iterator(), DBUS_TYPE_DICT_ENTRY, nullptr);
    AppendString(entry.Iterator(), key);
    AppendString(entry.Iterator(), value);
    entry.Close();
  }
  array.Close();
}
