#include "client/registry_proxy.h"

#include <dbus/dbus.h>

#include <algorithm>
#include <new>
#include <utility>

#include "client/bus_errors.h"
#include "client/failure.h"
#include "client/time_limit.h"
#include "dbus/limits.h"

namespace ledgerctl {
namespace {

constexpr char kBusName[] = "com.tavimesh.Registry";
constexpr char kObjectPath[] = "/com/tavimesh/Registry";
constexpr char kInterface[] = "com.tavimesh.Registry";

// After this time libdbus stops waiting for the first answer of the bus.
constexpr std::chrono::milliseconds kLongestGreeting(25000);

// libdbus reports the end of the time limit first if it can.
constexpr std::chrono::milliseconds kGrace(500);

/// Reports whether a call has used up its time limit.
class Stopwatch {
public:
  explicit Stopwatch(std::chrono::milliseconds limit) : m_end(Clock::now() + limit - kTolerance) {}

  bool IsUp() const { return Clock::now() >= m_end; }

private:
  using Clock = std::chrono::steady_clock;

  // The time of libdbus is coarser than the clock.
  static constexpr std::chrono::milliseconds kTolerance{20};

  const Clock::time_point m_end;
};

struct ConnectionCloser {
  void operator()(DBusConnection* connection) const {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
  }
};
using ConnectionPointer = std::unique_ptr<DBusConnection, ConnectionCloser>;

struct MessageReleaser {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, MessageReleaser>;

/// Where libdbus puts an error.
class ErrorSlot {
public:
  ErrorSlot() { dbus_error_init(&m_error); }
  ~ErrorSlot() { dbus_error_free(&m_error); }
  ErrorSlot(const ErrorSlot&) = delete;
  ErrorSlot& operator=(const ErrorSlot&) = delete;

  DBusError* Get() { return &m_error; }
  BusError Taken() const { return {m_error.name, m_error.message}; }

private:
  DBusError m_error{};
};

void Append(DBusMessageIter& writer, const std::string& text) {
  const char* const characters = text.c_str();
  const bool has_nul = text.find('\0') != std::string::npos;
  // libdbus would end the process.
  if (has_nul || !dbus_validate_utf8(characters, nullptr)) {
    throw Failure(ExitStatus::Usage,
                  std::string("D-Bus cannot carry the value: it ") + (has_nul ? "holds a NUL byte" : "is not UTF-8"));
  }
  if (text.size() > kLongestArguments) {
    // The registry is smaller, so the daemon would refuse it for the same reason.
    throw Registry::Full();
  }
  if (!dbus_message_iter_append_basic(&writer, DBUS_TYPE_STRING, &characters)) {
    throw std::bad_alloc();
  }
}

}  // namespace

// The connection, made for the first call. This is libdbus itself: loading and linking the C++ binding costs a
// short-lived program more than the rest of its run, which needs only blocking calls.
class RegistryProxy::Bus {
public:
  Bus(std::chrono::milliseconds timeout, std::string shown_timeout)
      : m_timeout(timeout), m_shown_timeout(std::move(shown_timeout)) {}

  template <typename... Arguments>
  Message Call(const char* method, const Arguments&... arguments) {
    const Message call(dbus_message_new_method_call(kBusName, kObjectPath, kInterface, method));
    if (call == nullptr) {
      throw std::bad_alloc();
    }
    DBusMessageIter writer;
    dbus_message_iter_init_append(call.get(), &writer);
    (Append(writer, arguments), ...);
    // A bus that was restarted does not know the old connection.
    if (m_connection == nullptr || !dbus_connection_get_is_connected(m_connection.get())) {
      Connect();
    }
    return Send(call);
  }

private:
  void Connect() {
    const Stopwatch time(std::min(m_timeout, kLongestGreeting));
    const TimeLimit limit(m_timeout, m_shown_timeout);
    ErrorSlot error;
    m_connection.reset(dbus_bus_get_private(DBUS_BUS_SYSTEM, error.Get()));
    if (m_connection == nullptr) {
      ThrowConnectFailure(error.Taken(), time.IsUp(), m_shown_timeout);
    }
    dbus_connection_set_exit_on_disconnect(m_connection.get(), FALSE);
  }

  Message Send(const Message& call) {
    const Stopwatch time(m_timeout);
    const TimeLimit limit(m_timeout + kGrace, m_shown_timeout);
    ErrorSlot error;
    Message reply(dbus_connection_send_with_reply_and_block(m_connection.get(), call.get(),
                                                            static_cast<int>(m_timeout.count()), error.Get()));
    if (reply == nullptr) {
      ThrowCallFailure(error.Taken(), time.IsUp(), m_shown_timeout);
    }
    return reply;
  }

  const std::chrono::milliseconds m_timeout;
  const std::string m_shown_timeout;
  ConnectionPointer m_connection;
};

namespace {

/// Reads the values of a reply, or of a container in it, one after the other. A reply of another type is from another
/// service that has the daemon's name.
class Reader {
public:
  explicit Reader(const Message& reply) { dbus_message_iter_init(reply.get(), &m_iterator); }

  bool AtEnd() { return dbus_message_iter_get_arg_type(&m_iterator) == DBUS_TYPE_INVALID; }

  std::string TakeString() {
    Expect(DBUS_TYPE_STRING);
    const char* text = nullptr;
    dbus_message_iter_get_basic(&m_iterator, &text);
    dbus_message_iter_next(&m_iterator);
    return text;
  }

  bool TakeBool() {
    Expect(DBUS_TYPE_BOOLEAN);
    dbus_bool_t value = FALSE;
    dbus_message_iter_get_basic(&m_iterator, &value);
    dbus_message_iter_next(&m_iterator);
    return value != FALSE;
  }

  Reader TakeContainer(int type) {
    Expect(type);
    Reader contents;
    dbus_message_iter_recurse(&m_iterator, &contents.m_iterator);
    dbus_message_iter_next(&m_iterator);
    return contents;
  }

private:
  Reader() = default;

  void Expect(int type) {
    if (dbus_message_iter_get_arg_type(&m_iterator) != type) {
      throw Failure(ExitStatus::DaemonError, "unexpected reply: the owner of the daemon's bus name is not ledgerd");
    }
  }

  DBusMessageIter m_iterator{};
};

}  // namespace

RegistryProxy::RegistryProxy(std::chrono::milliseconds timeout, std::string shown_timeout)
    : m_bus(std::make_unique<Bus>(timeout, std::move(shown_timeout))) {}

RegistryProxy::~RegistryProxy() = default;

std::string RegistryProxy::ReadAllJson() { return Reader(m_bus->Call("ReadAllJson")).TakeString(); }

void RegistryProxy::WriteJson(const std::string& registry) { m_bus->Call("WriteJson", registry); }

std::string RegistryProxy::Read(const std::string& section, const std::string& key) {
  return Reader(m_bus->Call("Read", section, key)).TakeString();
}

void RegistryProxy::Write(const std::string& section, const std::string& key, const std::string& value) {
  m_bus->Call("Write", section, key, value);
}

bool RegistryProxy::KeyExists(const std::string& section, const std::string& key) {
  return Reader(m_bus->Call("KeyExists", section, key)).TakeBool();
}

bool RegistryProxy::SectionExists(const std::string& section) {
  return Reader(m_bus->Call("SectionExists", section)).TakeBool();
}

void RegistryProxy::DeleteKey(const std::string& section, const std::string& key) {
  m_bus->Call("DeleteKey", section, key);
}

void RegistryProxy::DeleteSection(const std::string& section) { m_bus->Call("DeleteSection", section); }

void RegistryProxy::DeleteAll() { m_bus->Call("DeleteAll"); }

void RegistryProxy::SectionList(const SectionCallback& callback) {
  const Message reply = m_bus->Call("SectionList");
  for (Reader names = Reader(reply).TakeContainer(DBUS_TYPE_ARRAY); !names.AtEnd();) {
    callback(names.TakeString());
  }
}

void RegistryProxy::KeyList(const std::string& section, const KeyCallback& callback) {
  const Message reply = m_bus->Call("KeyList", section);
  for (Reader entries = Reader(reply).TakeContainer(DBUS_TYPE_ARRAY); !entries.AtEnd();) {
    Reader entry = entries.TakeContainer(DBUS_TYPE_DICT_ENTRY);
    const std::string key = entry.TakeString();
    callback(key, entry.TakeString());
  }
}

void RegistryProxy::Flush() { m_bus->Call("Flush"); }

}  // namespace ledgerctl
