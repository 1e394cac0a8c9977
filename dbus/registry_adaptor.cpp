#include "dbus/registry_adaptor.h"

#include "dbus/bus_text.h"
#include "dbus/message_access.h"
#include "lib/platform/escape.h"

namespace com {
namespace tavimesh {
namespace {

// Returns the next argument. Throws DBus::ErrorInvalidArgs if it is missing or not a string.
std::string TakeString(DBus::MessageIter& reader) {
  std::string text = reader.get_string();
  ++reader;
  return text;
}

std::string Quoted(const char* what, const std::string& name) {
  return std::string(what) + " '" + escape::PrintableCopy(name) + "'";
}

std::string KeyIn(const std::string& key, const std::string& section) {
  return Quoted("key", key) + Quoted(" in section", section);
}

template <typename Result>
DBus::Message Reply(const DBus::CallMessage& call, const Result& result) {
  DBus::ReturnMessage reply(call);
  AppendResult(reply, result);
  return reply;
}

template <typename Meaning>
DBus::Message ReplyString(const DBus::CallMessage& call, const std::string& text, Meaning meaning) {
  ReplyCheck().Check(text, meaning);
  return Reply(call, text);
}

}  // namespace

Registry_adaptor::Registry_adaptor() : DBus::InterfaceAdaptor("com.tavimesh.Registry") {
  register_method(Registry_adaptor, Read, HandleRead);
  register_method(Registry_adaptor, Write, HandleWrite);
  register_method(Registry_adaptor, DeleteKey, HandleDeleteKey);
  register_method(Registry_adaptor, DeleteSection, HandleDeleteSection);
  register_method(Registry_adaptor, DeleteAll, HandleDeleteAll);
  register_method(Registry_adaptor, Flush, HandleFlush);
  register_method(Registry_adaptor, KeyExists, HandleKeyExists);
  register_method(Registry_adaptor, SectionExists, HandleSectionExists);
  register_method(Registry_adaptor, SectionList, HandleSectionList);
  register_method(Registry_adaptor, KeyList, HandleKeyList);
  register_method(Registry_adaptor, ReadAllJson, HandleReadAllJson);
  register_method(Registry_adaptor, WriteJson, HandleWriteJson);
}

DBus::Message Registry_adaptor::HandleRead(const DBus::CallMessage& call) {
  DBus::MessageIter reader = call.reader();
  const std::string section = TakeString(reader);
  const std::string key = TakeString(reader);
  return ReplyString(call, Read(section, key), [&] { return "value of " + KeyIn(key, section); });
}

DBus::Message Registry_adaptor::HandleWrite(const DBus::CallMessage& call) {
  DBus::MessageIter reader = call.reader();
  const std::string section = TakeString(reader);
  const std::string key = TakeString(reader);
  const std::string value = TakeString(reader);
  Write(section, key, value);
  return DBus::ReturnMessage(call);
}

DBus::Message Registry_adaptor::HandleDeleteKey(const DBus::CallMessage& call) {
  DBus::MessageIter reader = call.reader();
  const std::string section = TakeString(reader);
  const std::string key = TakeString(reader);
  DeleteKey(section, key);
  return DBus::ReturnMessage(call);
}

DBus::Message Registry_adaptor::HandleDeleteSection(const DBus::CallMessage& call) {
  DBus::MessageIter reader = call.reader();
  DeleteSection(TakeString(reader));
  return DBus::ReturnMessage(call);
}

DBus::Message Registry_adaptor::HandleDeleteAll(const DBus::CallMessage& call) {
  DeleteAll();
  return DBus::ReturnMessage(call);
}

DBus::Message Registry_adaptor::HandleFlush(const DBus::CallMessage& call) {
  Flush();
  return DBus::ReturnMessage(call);
}

DBus::Message Registry_adaptor::HandleKeyExists(const DBus::CallMessage& call) {
  DBus::MessageIter reader = call.reader();
  const std::string section = TakeString(reader);
  const std::string key = TakeString(reader);
  return Reply(call, KeyExists(section, key));
}

DBus::Message Registry_adaptor::HandleSectionExists(const DBus::CallMessage& call) {
  DBus::MessageIter reader = call.reader();
  return Reply(call, SectionExists(TakeString(reader)));
}

DBus::Message Registry_adaptor::HandleSectionList(const DBus::CallMessage& call) {
  const std::vector<std::string> sections = SectionList();
  ReplyCheck check;
  for (const std::string& section : sections) {
    check.Check(section, [&] { return "name of " + Quoted("section", section); });
  }
  return Reply(call, sections);
}

DBus::Message Registry_adaptor::HandleKeyList(const DBus::CallMessage& call) {
  DBus::MessageIter reader = call.reader();
  const std::string section = TakeString(reader);
  const std::map<std::string, std::string> keys = KeyList(section);
  ReplyCheck check;
  for (const auto& entry : keys) {
    check.Check(entry.first, [&] { return "name of " + KeyIn(entry.first, section); });
    check.Check(entry.second, [&] { return "value of " + KeyIn(entry.first, section); });
  }
  return Reply(call, keys);
}

DBus::Message Registry_adaptor::HandleReadAllJson(const DBus::CallMessage& call) {
  return ReplyString(call, ReadAllJson(), [] { return "registry's JSON text"; });
}

DBus::Message Registry_adaptor::HandleWriteJson(const DBus::CallMessage& call) {
  DBus::MessageIter reader = call.reader();
  WriteJson(TakeString(reader));
  return DBus::ReturnMessage(call);
}

}  // namespace tavimesh
}  // namespace com
