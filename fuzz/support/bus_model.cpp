#include "fuzz/support/bus_model.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/support/json_model.h"
#include "fuzz/support/registry_operations.h"
#include "fuzz/support/require.h"

namespace fuzz {
namespace {

constexpr char kObjectPath[] = "/com/tavimesh/Registry";
constexpr char kInterface[] = "com.tavimesh.Registry";
constexpr char kErrors[] = "com.tavimesh.Registry.Errors.";
constexpr std::size_t kLongestErrorText = 4000;

// The library chooses the error for an unknown object, interface or method. Only the beginning of its name is fixed.
constexpr char kUnknown[] = "error org.freedesktop.DBus.Error.Unknown";

bool BeginsWith(const std::string& text, const std::string& beginning) { return text.rfind(beginning, 0) == 0; }

// Returns the strings of a reply in their order, each followed by a newline. Outcome returns results in the same form.
std::string Values(DBusMessageIter* iterator) {
  std::string values;
  for (int type; (type = dbus_message_iter_get_arg_type(iterator)) != DBUS_TYPE_INVALID;
       dbus_message_iter_next(iterator)) {
    DBusMessageIter contents;
    DBusBasicValue value;
    if (type == DBUS_TYPE_ARRAY || type == DBUS_TYPE_DICT_ENTRY) {
      dbus_message_iter_recurse(iterator, &contents);
      values += Values(&contents);
    } else if (type == DBUS_TYPE_BOOLEAN) {
      dbus_message_iter_get_basic(iterator, &value);
      values += value.bool_val ? "true" : "false";
    } else {
      dbus_message_iter_get_basic(iterator, &value);
      values += value.str;
      values += '\n';
    }
  }
  return values;
}

std::string Described(DBusMessage& reply) {
  DBusMessageIter iterator;
  dbus_message_iter_init(&reply, &iterator);
  if (dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_ERROR) {
    const std::string text = Values(&iterator);
    Require(text.size() <= kLongestErrorText + 1, "the text of an error is short");
    Require(std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; }), "the text is ASCII");
    return std::string("error ") + dbus_message_get_error_name(&reply) + " " + text;
  }
  return std::string("returns ") + dbus_message_get_signature(&reply) + " " + Values(&iterator);
}

bool CanBeCarried(const std::string& text) { return text.find('\0') == std::string::npos && ModelIsUtf8(text); }

std::string Carried(const char* signature, const std::vector<std::string>& values) {
  std::string reply = std::string("returns ") + signature + " ";
  for (const std::string& value : values) {
    if (!CanBeCarried(value)) {
      return std::string("error ") + kErrors + "Exception D-Bus cannot carry the ";
    }
    reply += value + '\n';
  }
  return reply;
}

std::string CarriedResult(RegistryModel& model, const Operation& operation, const std::string& result) {
  const std::string& name = operation.name;
  std::vector<std::string> values;
  if (name == "Read" || name == "ReadAllJson") {
    return Carried("s", {result});
  }
  if (name == "SectionList") {
    model.SectionList([&](const std::string& section) { values.push_back(section); });
    return Carried("as", values);
  }
  if (name == "KeyList") {
    model.KeyList(operation.arguments[0], [&](const std::string& key, const std::string& value) {
      values.push_back(key);
      values.push_back(value);
    });
    return Carried("a{ss}", values);
  }
  return name == "KeyExists" || name == "SectionExists" ? "returns b " + result : "returns  ";
}

// Returns the reply that a caller of the method gets. For an error with a varying text, returns the beginning of the
// reply.
std::string ExpectedOf(RegistryModel& model, const Operation& operation) {
  const std::string returns = "returns ";
  const std::string outcome = Outcome(model, operation);
  const std::string error = std::string("error ") + kErrors;
  if (BeginsWith(outcome, returns)) {
    return CarriedResult(model, operation, outcome.substr(returns.size()));
  }
  if (BeginsWith(outcome, "throws InvalidName")) {
    return error + "InvalidName Invalid Name\n";
  }
  if (outcome == "throws InvalidJson") {
    return error + "InvalidJson Invalid Json\n";
  }
  if (outcome == "throws Full") {
    return error + "Full Full\n";
  }
  return error + "Exception " + outcome.substr(std::strlen("throws "));
}

// Returns the string arguments at the beginning of the call.
std::vector<std::string> Strings(DBusMessage& call) {
  std::vector<std::string> strings;
  DBusMessageIter iterator;
  dbus_message_iter_init(&call, &iterator);
  for (; dbus_message_iter_get_arg_type(&iterator) == DBUS_TYPE_STRING; dbus_message_iter_next(&iterator)) {
    const char* text = nullptr;
    dbus_message_iter_get_basic(&iterator, &text);
    strings.emplace_back(text);
  }
  return strings;
}

// Returns the reply, or its beginning, to a call to the registry's object that expects a reply.
std::string Expected(RegistryModel& model, DBusMessage& call) {
  const char* const interface = dbus_message_get_interface(&call);
  const std::string member = dbus_message_get_member(&call);
  const auto has_interface = [&](const char* name) {
    return interface == nullptr || std::strcmp(interface, name) == 0;
  };
  const auto arguments = ArgumentCount(member);
  if (has_interface(kInterface) && arguments) {
    const Operation operation{member, Strings(call)};
    return operation.arguments.size() < *arguments ? std::string("error ") + DBUS_ERROR_INVALID_ARGS
                                                   : ExpectedOf(model, operation);
  }
  if (has_interface(DBUS_INTERFACE_INTROSPECTABLE) && member == "Introspect") {
    return "returns s <!DOCTYPE node";
  }
  return kUnknown;
}

void RequireReplies(RegistryModel& model, DBusMessage& message, const std::vector<Message>& replies) {
  for (const Message& reply : replies) {
    Require(dbus_message_get_reply_serial(reply.get()) == dbus_message_get_serial(&message),
            "a reply refers to the call");
  }
  // libdbus itself answers messages for the Peer interface and calls to objects that do not exist.
  const bool is_call = dbus_message_get_type(&message) == DBUS_MESSAGE_TYPE_METHOD_CALL;
  if (dbus_message_has_interface(&message, DBUS_INTERFACE_PEER) ||
      (is_call && !dbus_message_has_path(&message, kObjectPath))) {
    Require(replies.size() <= 1, "a message gets at most one reply");
    return;
  }
  if (!is_call) {
    RequireEqual(replies.empty() ? "" : Described(*replies.front()), "", "the reply to a message that is not a call");
    return;
  }
  const std::string expected = Expected(model, message);
  if (dbus_message_get_no_reply(&message)) {
    RequireEqual(replies.empty() ? "" : Described(*replies.front()), "", "the reply to a call that expects none");
    return;
  }
  Require(replies.size() == 1, "a call gets one reply");
  const std::string reply = Described(*replies.front());
  const bool is_whole =
      BeginsWith(expected, "returns ") ? !BeginsWith(expected, "returns s <!DOCTYPE node") : expected.back() == '\n';
  RequireEqual(is_whole ? reply : reply.substr(0, expected.size()), expected, dbus_message_get_member(&message));
}

}  // namespace

void RequireAnswered(PeerBus& bus, RegistryModel& model, DBusMessage& message) {
  RequireReplies(model, message, bus.Exchange(message));
}

void RequireContents(PeerBus& bus, RegistryModel& model) {
  const auto look = [&](const char* member, const std::string* section) {
    const Message call(dbus_message_new_method_call(kInterface, kObjectPath, kInterface, member));
    if (section != nullptr) {
      const char* const text = section->c_str();
      dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    }
    RequireAnswered(bus, model, *call);
  };
  look("SectionList", nullptr);
  look("ReadAllJson", nullptr);
  const RegistrySections sections = model.Sections();
  for (const auto& section : sections) {
    if (CanBeCarried(section.first)) {
      look("KeyList", &section.first);
    }
  }
}

}  // namespace fuzz
