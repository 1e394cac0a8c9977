#include "dbus/registry_adaptor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dbus/registry_errors.h"
#include "tests/unit/dbus/wrapped_message.h"

namespace {

using Strings = std::vector<std::string>;
using test_support::AsCall;
using test_support::RawMessage;
using test_support::ReceivedCall;

// Records the calls of the operations and returns the values that the test has set.
class FakeAdaptor : public com::tavimesh::Registry_adaptor {
public:
  std::string Read(const std::string& section, const std::string& key) override {
    Record({"Read", section, key});
    return text;
  }
  void Write(const std::string& section, const std::string& key, const std::string& value) override {
    Record({"Write", section, key, value});
  }
  void DeleteKey(const std::string& section, const std::string& key) override { Record({"DeleteKey", section, key}); }
  void DeleteSection(const std::string& section) override { Record({"DeleteSection", section}); }
  void DeleteAll() override { Record({"DeleteAll"}); }
  void Flush() override { Record({"Flush"}); }
  bool KeyExists(const std::string& section, const std::string& key) override {
    Record({"KeyExists", section, key});
    return flag;
  }
  bool SectionExists(const std::string& section) override {
    Record({"SectionExists", section});
    return flag;
  }
  Strings SectionList() override {
    Record({"SectionList"});
    return sections;
  }
  std::map<std::string, std::string> KeyList(const std::string& section) override {
    Record({"KeyList", section});
    return keys;
  }
  std::string ReadAllJson() override {
    Record({"ReadAllJson"});
    return text;
  }
  void WriteJson(const std::string& registry) override { Record({"WriteJson", registry}); }

  const DBus::ObjectAdaptor* object() const override { return nullptr; }
  void _emit_signal(DBus::SignalMessage&) override {}

  DBus::Message Call(const char* member, const Strings& arguments) {
    return dispatch_method(AsCall(ReceivedCall("com.tavimesh.Registry", member, arguments)));
  }

  Strings recorded;
  std::string text;
  bool flag = false;
  Strings sections;
  std::map<std::string, std::string> keys;

private:
  void Record(Strings call) { recorded = std::move(call); }
};

std::string SignatureOf(const DBus::Message& message) { return dbus_message_get_signature(RawMessage(message)); }

std::string ErrorTextOf(FakeAdaptor& adaptor, const char* member, const Strings& arguments) {
  try {
    adaptor.Call(member, arguments);
  } catch (const RegistryError& e) {
    EXPECT_STREQ(e.name(), RegistryError::kException);
    return e.message();
  }
  return "";
}

struct MethodRow {
  const char* name;
  Strings arguments;
  const char* reply;
};

const MethodRow kMethods[] = {
    {"Read", {"s", "k"}, "s"},      {"Write", {"s", "k", "v"}, ""}, {"DeleteKey", {"s", "k"}, ""},
    {"DeleteSection", {"s"}, ""},   {"DeleteAll", {}, ""},          {"Flush", {}, ""},
    {"KeyExists", {"s", "k"}, "b"}, {"SectionExists", {"s"}, "b"},  {"SectionList", {}, "as"},
    {"KeyList", {"s"}, "a{ss}"},    {"ReadAllJson", {}, "s"},       {"WriteJson", {"j"}, ""},
};

TEST(RegistryAdaptor, PassesArgumentsInOrderAndRepliesWithTheDeclaredType) {
  for (const MethodRow& row : kMethods) {
    SCOPED_TRACE(row.name);
    FakeAdaptor adaptor;
    const DBus::Message reply = adaptor.Call(row.name, row.arguments);
    Strings expected = {row.name};
    expected.insert(expected.end(), row.arguments.begin(), row.arguments.end());
    EXPECT_EQ(adaptor.recorded, expected);
    EXPECT_EQ(reply.type(), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_EQ(SignatureOf(reply), row.reply);
  }
}

TEST(RegistryAdaptor, RefusesAMissingArgumentWithoutCallingTheOperation) {
  for (const MethodRow& row : kMethods) {
    if (!row.arguments.empty()) {
      SCOPED_TRACE(row.name);
      FakeAdaptor adaptor;
      EXPECT_THROW(adaptor.Call(row.name, Strings(row.arguments.begin(), row.arguments.end() - 1)),
                   DBus::ErrorInvalidArgs);
      EXPECT_EQ(adaptor.recorded, Strings());
    }
  }
}

TEST(RegistryAdaptor, IgnoresSurplusArguments) {
  FakeAdaptor adaptor;
  adaptor.Call("DeleteSection", {"s", "surplus"});
  EXPECT_EQ(adaptor.recorded, (Strings{"DeleteSection", "s"}));
}

TEST(RegistryAdaptor, AnswersAnUnknownMethodWithTheLibrarysError) {
  FakeAdaptor adaptor;
  const DBus::Message reply = adaptor.Call("Nope", {});
  EXPECT_STREQ(dbus_message_get_error_name(RawMessage(reply)), DBUS_ERROR_UNKNOWN_METHOD);
}

TEST(RegistryAdaptor, PacksBooleans) {
  for (const bool flag : {false, true}) {
    FakeAdaptor adaptor;
    adaptor.flag = flag;
    const DBus::Message reply = adaptor.Call("KeyExists", {"s", "k"});
    EXPECT_EQ(reply.reader().get_bool(), flag);
  }
}

TEST(RegistryAdaptor, PacksSectionsInTheirOrder) {
  FakeAdaptor adaptor;
  adaptor.sections = {"b", "", "a"};
  const DBus::Message reply = adaptor.Call("SectionList", {});
  DBus::MessageIter array = reply.reader().recurse();
  Strings sections;
  for (; !array.at_end(); ++array) {
    sections.emplace_back(array.get_string());
  }
  EXPECT_EQ(sections, adaptor.sections);
}

TEST(RegistryAdaptor, PacksKeysWithTheirValuesInAscendingOrder) {
  FakeAdaptor adaptor;
  adaptor.keys = {{"b", "2"}, {"a", "1"}, {"", "0"}};
  const DBus::Message reply = adaptor.Call("KeyList", {"s"});
  Strings flat;
  for (DBus::MessageIter array = reply.reader().recurse(); !array.at_end(); ++array) {
    DBus::MessageIter entry = array.recurse();
    flat.emplace_back(entry.get_string());
    flat.emplace_back((++entry).get_string());
  }
  EXPECT_EQ(flat, (Strings{"", "0", "a", "1", "b", "2"}));
}

TEST(RegistryAdaptor, PacksEmptyContainers) {
  FakeAdaptor adaptor;
  EXPECT_TRUE(adaptor.Call("SectionList", {}).reader().recurse().at_end());
  EXPECT_TRUE(adaptor.Call("KeyList", {"s"}).reader().recurse().at_end());
}

TEST(RegistryAdaptor, ErrorNamesTheStringThatTheBusCannotCarry) {
  FakeAdaptor adaptor;
  adaptor.text = "\xFF";
  EXPECT_EQ(ErrorTextOf(adaptor, "Read", {"s 1", "k\n"}),
            "D-Bus cannot carry the value of key 'k%0a' in section 's 1': it is not UTF-8");
  adaptor.sections = {"good", "bad\x80"};
  EXPECT_EQ(ErrorTextOf(adaptor, "SectionList", {}),
            "D-Bus cannot carry the name of section 'bad%80': it is not UTF-8");
  adaptor.keys = {{"k", std::string("a\0b", 3)}};
  EXPECT_EQ(ErrorTextOf(adaptor, "KeyList", {"s"}),
            "D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte");
  adaptor.keys = {{"k\x80", "v"}};
  EXPECT_EQ(ErrorTextOf(adaptor, "KeyList", {"s"}),
            "D-Bus cannot carry the name of key 'k%80' in section 's': it is not UTF-8");
  adaptor.text = std::string("\0", 1);
  EXPECT_EQ(ErrorTextOf(adaptor, "ReadAllJson", {}),
            "D-Bus cannot carry the registry's JSON text: it holds a NUL byte");
}

TEST(RegistryAdaptor, DescribesTwelveMethodsAndNoSignalsOrProperties) {
  const FakeAdaptor adaptor;
  const DBus::IntrospectedInterface& description = *adaptor.introspect();
  EXPECT_STREQ(description.name, "com.tavimesh.Registry");
  std::size_t index = 0;
  for (const DBus::IntrospectedMethod* method = description.methods; method->name != nullptr; ++method, ++index) {
    ASSERT_LT(index, std::size(kMethods));
    SCOPED_TRACE(method->name);
    EXPECT_STREQ(method->name, kMethods[index].name);
    std::size_t in_arguments = 0;
    std::string reply;
    for (const DBus::IntrospectedArgument* argument = method->args; argument->name != nullptr; ++argument) {
      if (argument->in) {
        EXPECT_STREQ(argument->type, "s");
        ++in_arguments;
      } else {
        reply += argument->type;
      }
    }
    EXPECT_EQ(in_arguments, kMethods[index].arguments.size());
    EXPECT_EQ(reply, kMethods[index].reply);
  }
  EXPECT_EQ(index, std::size(kMethods));
  EXPECT_EQ(description.signals->name, nullptr);
  EXPECT_EQ(description.properties->name, nullptr);
}

}  // namespace
