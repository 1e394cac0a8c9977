#include "dbus/registry_adaptor.h"

#include <dbus/dbus.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "dbus/message_access.h"
#include "dbus/registry_errors.h"

// The same definition as in the private header of the library.
struct DBus::Message::Private {
  DBusMessage* msg;
};

namespace {

using Strings = std::vector<std::string>;
using testing::ElementsAre;
using testing::IsEmpty;

// Returns a method call as a service receives it: with a serial number.
DBus::Message ReceivedCall(const char* member, const Strings& arguments, bool wants_reply = true) {
  DBusMessage* const raw =
      dbus_message_new_method_call("com.example", "/com/tavimesh/Registry", "com.tavimesh.Registry", member);
  dbus_message_set_serial(raw, 1);
  dbus_message_set_no_reply(raw, !wants_reply);
  DBus::Message call(new DBus::Message::Private{raw}, false);
  DBus::MessageIter writer = call.writer();
  for (const std::string& argument : arguments) {
    writer.append_string(argument.c_str());
  }
  return call;
}

// Messages of all types have the same members.
template <typename Kind>
const Kind& As(const DBus::Message& message) {
  return reinterpret_cast<const Kind&>(message);
}

// Records the calls of the operations and returns the values that the test has set.
class FakeAdaptor : public com::tavimesh::Registry_adaptor {
public:
  using Text = const std::string&;
  std::string Read(Text section, Text key) override { return Record({"Read", section, key}).text; }
  void Write(Text section, Text key, Text value) override { Record({"Write", section, key, value}); }
  void DeleteKey(Text section, Text key) override { Record({"DeleteKey", section, key}); }
  void DeleteSection(Text section) override { Record({"DeleteSection", section}); }
  void DeleteAll() override { Record({"DeleteAll"}); }
  void Flush() override { Record({"Flush"}); }
  bool KeyExists(Text section, Text key) override { return Record({"KeyExists", section, key}).flag; }
  bool SectionExists(Text section) override { return Record({"SectionExists", section}).flag; }
  Strings SectionList() override { return Record({"SectionList"}).sections; }
  std::map<std::string, std::string> KeyList(Text section) override { return Record({"KeyList", section}).keys; }
  std::string ReadAllJson() override { return Record({"ReadAllJson"}).text; }
  void WriteJson(Text registry) override { Record({"WriteJson", registry}); }

  const DBus::ObjectAdaptor* object() const override { return nullptr; }
  void _emit_signal(DBus::SignalMessage&) override {}

  DBus::Message Call(const char* member, const Strings& arguments) {
    return dispatch_method(As<DBus::CallMessage>(ReceivedCall(member, arguments)));
  }

  Strings recorded;
  std::string text;
  bool flag = false;
  Strings sections;
  std::map<std::string, std::string> keys;

private:
  const FakeAdaptor& Record(Strings call) {
    recorded = std::move(call);
    return *this;
  }
};

struct MethodRow {
  const char* name;
  Strings arguments;
  const char* reply;
  Strings values = {};  // of the reply
};

const MethodRow kMethods[] = {
    {"Read", {"s", "k"}, "s", {"text"}},
    {"Write", {"s", "k", "v"}, ""},
    {"DeleteKey", {"s", "k"}, ""},
    {"DeleteSection", {"s"}, ""},
    {"DeleteAll", {}, ""},
    {"Flush", {}, ""},
    {"KeyExists", {"s", "k"}, "b", {"true"}},
    {"SectionExists", {"s"}, "b", {"true"}},
    {"SectionList", {}, "as", {"b", "", "a"}},
    {"KeyList", {"s"}, "a{ss}", {"", "0", "a", "1", "b", "2"}},
    {"ReadAllJson", {}, "s", {"text"}},
    {"WriteJson", {"j"}, ""},
};

// Appends the strings and booleans of a message, also those inside containers.
void AppendValues(DBus::MessageIter iterator, Strings& values) {
  for (; !iterator.at_end(); ++iterator) {
    if (iterator.type() == DBUS_TYPE_STRING) {
      values.emplace_back(iterator.get_string());
    } else if (iterator.type() == DBUS_TYPE_BOOLEAN) {
      values.emplace_back(iterator.get_bool() ? "true" : "false");
    } else {
      AppendValues(iterator.recurse(), values);
    }
  }
}

Strings ValuesOf(const DBus::Message& reply) {
  Strings values;
  AppendValues(reply.reader(), values);
  return values;
}

TEST(RegistryAdaptor, PassesArgumentsInOrderAndPacksTheResult) {
  for (const MethodRow& row : kMethods) {
    SCOPED_TRACE(row.name);
    FakeAdaptor adaptor;
    adaptor.text = "text";
    adaptor.flag = true;
    adaptor.sections = {"b", "", "a"};
    adaptor.keys = {{"b", "2"}, {"a", "1"}, {"", "0"}};
    const DBus::Message reply = adaptor.Call(row.name, row.arguments);
    Strings recorded = row.arguments;
    recorded.insert(recorded.begin(), row.name);
    EXPECT_EQ(adaptor.recorded, recorded);
    EXPECT_EQ(reply.type(), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_STREQ(As<DBus::ReturnMessage>(reply).signature(), row.reply);
    EXPECT_EQ(ValuesOf(reply), row.values);
  }
}

TEST(RegistryAdaptor, RefusesAMissingArgumentAndIgnoresASurplusOne) {
  for (const MethodRow& row : kMethods) {
    SCOPED_TRACE(row.name);
    FakeAdaptor adaptor;
    Strings arguments = row.arguments;
    if (!arguments.empty()) {
      arguments.pop_back();
      EXPECT_THROW(adaptor.Call(row.name, arguments), DBus::ErrorInvalidArgs);
      EXPECT_THAT(adaptor.recorded, IsEmpty());
    }
    arguments = row.arguments;
    arguments.push_back("surplus");
    EXPECT_EQ(adaptor.Call(row.name, arguments).type(), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_EQ(adaptor.recorded.size(), 1 + row.arguments.size());
  }
}

TEST(RegistryAdaptor, PacksFalseAndEmptyContainers) {
  FakeAdaptor adaptor;
  EXPECT_THAT(ValuesOf(adaptor.Call("KeyExists", {"s", "k"})), ElementsAre("false"));
  EXPECT_THAT(ValuesOf(adaptor.Call("SectionList", {})), IsEmpty());
  EXPECT_THAT(ValuesOf(adaptor.Call("KeyList", {"s"})), IsEmpty());
}

TEST(RegistryAdaptor, RepliesToAnUnknownMethodWithTheErrorOfTheLibrary) {
  FakeAdaptor adaptor;
  const DBus::Message reply = adaptor.Call("Nope", {});
  EXPECT_STREQ(As<DBus::ErrorMessage>(reply).name(), DBUS_ERROR_UNKNOWN_METHOD);
}

TEST(RegistryAdaptor, NamesTheStringThatTheBusCannotCarry) {
  FakeAdaptor adaptor;
  const auto expect_error = [&](const char* member, const Strings& arguments, const std::string& text) {
    try {
      adaptor.Call(member, arguments);
      ADD_FAILURE() << "no exception";
    } catch (const RegistryError& e) {
      EXPECT_STREQ(e.name(), RegistryError::kException);
      EXPECT_EQ(e.message(), "D-Bus cannot carry the " + text);
    }
  };
  adaptor.text = "\xFF";
  expect_error("Read", {"s 1", "k\n"}, "value of key 'k%0a' in section 's 1': it is not UTF-8");
  adaptor.sections = {"good", "bad\x80"};
  expect_error("SectionList", {}, "name of section 'bad%80': it is not UTF-8");
  adaptor.keys = {{"k", std::string("a\0b", 3)}};
  expect_error("KeyList", {"s"}, "value of key 'k' in section 's': it holds a NUL byte");
  adaptor.keys = {{"k\x80", "v"}};
  expect_error("KeyList", {"s"}, "name of key 'k%80' in section 's': it is not UTF-8");
  adaptor.text = std::string("\0", 1);
  expect_error("ReadAllJson", {}, "registry's JSON text: it holds a NUL byte");
}

TEST(RegistryAdaptor, DescribesTwelveMethodsAndNoSignalsOrProperties) {
  const FakeAdaptor adaptor;
  const DBus::IntrospectedInterface& description = *adaptor.introspect();
  EXPECT_STREQ(description.name, "com.tavimesh.Registry");
  const DBus::IntrospectedMethod* method = description.methods;
  for (const MethodRow& row : kMethods) {
    SCOPED_TRACE(row.name);
    ASSERT_STREQ(method->name, row.name);
    std::string inputs;
    std::string reply;
    for (const DBus::IntrospectedArgument* argument = method->args; argument->name != nullptr; ++argument) {
      (argument->in ? inputs : reply) += argument->type;
    }
    EXPECT_EQ(inputs, std::string(row.arguments.size(), 's'));
    EXPECT_EQ(reply, row.reply);
    ++method;
  }
  EXPECT_EQ(method->name, nullptr);
  EXPECT_EQ(description.signals->name, nullptr);
  EXPECT_EQ(description.properties->name, nullptr);
}

TEST(MessageAccess, ReportsWhetherTheCallerWaitsForAReply) {
  EXPECT_TRUE(WantsReply(ReceivedCall("Flush", {})));
  EXPECT_FALSE(WantsReply(ReceivedCall("Flush", {}, false)));
}

}  // namespace
