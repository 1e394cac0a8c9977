#include "tests/model/registry_model.h"

#include <algorithm>

#include "tests/model/json.h"

namespace model {
namespace {

constexpr char kError[] = "error";
constexpr std::size_t kShown = 1000;

// Throws the error reply.
std::string Fold(const std::string& name) {
  std::string folded = name;
  for (char& byte : folded) {
    if ((byte & 0x80) != 0) {
      throw RegistryError({"InvalidName", "Invalid Name", name});
    }
    byte = byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + 32) : byte;
  }
  return folded;
}

Reply Boolean(bool value) { return {"b", {value ? "true" : "false"}}; }

}  // namespace

const std::map<std::string, std::size_t> kMethods = {
    {"DeleteAll", 0},   {"DeleteKey", 2},     {"DeleteSection", 1}, {"Flush", 0}, {"KeyExists", 2}, {"KeyList", 1},
    {"ReadAllJson", 0}, {"SectionExists", 1}, {"SectionList", 0},   {"Read", 2},  {"Write", 3},     {"WriteJson", 1}};

Reply RegistryError(std::vector<std::string> items) {
  items[0].insert(0, "com.tavimesh.Registry.Errors.");
  return {kError, std::move(items)};
}

bool IsExpected(const Reply& actual, const Reply& expected) {
  if (actual.type != expected.type || actual.type != kError) {
    return actual.type == expected.type && actual.items == expected.items;
  }
  // The offending name may be missing, the message not.
  if (actual.items.size() < std::min<std::size_t>(expected.items.size(), 2)) {
    return false;
  }
  for (std::size_t i = 0; i < std::min(actual.items.size(), expected.items.size()); ++i) {
    const std::string& item = expected.items[i];
    const bool is_beginning = i == 1 && item.back() == ' ';
    if (actual.items[i].substr(0, is_beginning ? item.size() : std::string::npos) != item) {
      return false;
    }
  }
  return true;
}

std::string Describe(const Reply& reply) {
  std::string text = "<" + reply.type + ">";
  for (const std::string& item : reply.items) {
    text += " '" + item + "'";
  }
  return text.size() <= kShown ? text : text.substr(0, kShown) + "...";
}

RegistryModel::RegistryModel(const std::string& stored_text, std::size_t capacity)
    : m_sections(Parse(stored_text)), m_accepted_text(stored_text), m_stored_text(stored_text), m_capacity(capacity) {}

Reply RegistryModel::Apply(const Call& call) {
  const auto method = kMethods.find(call.member);
  if (method == kMethods.end()) {
    return {kError, {"org.freedesktop.DBus.Error.UnknownMethod"}};
  }
  if (call.arguments.size() < method->second) {
    return {kError, {"org.freedesktop.DBus.Error.InvalidArgs"}};
  }
  try {
    return Execute(call.member, call.arguments);
  } catch (const Reply& error) {
    return error;
  }
}

std::vector<Call> RegistryModel::CallsForContents() const {
  std::vector<Call> calls = {{"SectionList", {}}, {"ReadAllJson", {}}};
  for (const auto& section : m_sections) {
    calls.push_back({"KeyList", {section.first}});
  }
  return calls;
}

Reply RegistryModel::Execute(const std::string& member, const std::vector<std::string>& arguments) {
  if (member == "SectionList") {
    Reply reply{"as", {}};
    for (const auto& section : m_sections) {
      reply.items.push_back(section.first);
    }
    return reply;
  }
  if (member == "ReadAllJson") {
    const std::string json = PrintJson(m_sections);
    return IsUtf8(json) ? Reply{"s", {json}} : RegistryError({"Exception", "No JSON: "});
  }
  if (member == "DeleteAll") {
    m_sections.clear();
    Save();
    return {};
  }
  if (member == "WriteJson") {
    Merge(arguments[0]);
    Save();
  }
  if (member == "WriteJson" || member == "Flush") {
    m_stored_text = m_accepted_text;
    return {};
  }
  return ExecuteInSection(member, arguments);
}

Reply RegistryModel::ExecuteInSection(const std::string& member, const std::vector<std::string>& arguments) {
  const std::string name = Fold(arguments[0]);
  if (member == "Write") {
    // An invalid key leaves a new section empty.
    auto& keys = m_sections[name];
    keys[Fold(arguments[1])] = arguments[2];
    Save();
    return {};
  }
  const bool exists = m_sections.count(name) != 0;
  if (member == "SectionExists") {
    return Boolean(exists);
  }
  const std::map<std::string, std::string> keys = exists ? m_sections[name] : std::map<std::string, std::string>();
  if (member == "KeyList") {
    Reply reply{"a{ss}", {}};
    for (const auto& [key, value] : keys) {
      reply.items.insert(reply.items.end(), {key, value});
    }
    return reply;
  }
  const bool is_key_method = member != "DeleteSection";
  // The name of a key in a missing section is not checked.
  const std::string key = exists && is_key_method ? Fold(arguments[1]) : "";
  const bool has_key = keys.count(key) != 0;
  if (member == "KeyExists") {
    return Boolean(has_key);
  }
  if (member == "Read") {
    return {"s", {has_key ? keys.at(key) : ""}};
  }
  if (is_key_method ? has_key : exists) {
    is_key_method ? m_sections[name].erase(key) : m_sections.erase(name);
    Save();
  }
  return {};
}

void RegistryModel::Merge(const std::string& text) {
  using Kind = JsonValue::Kind;
  const auto document = ParseJson(text);
  if (!document) {
    throw RegistryError({"Exception", "parse error - unexpected "});
  }
  const auto require = [](bool condition) {
    if (!condition) {
      throw RegistryError({"InvalidJson", "Invalid Json"});
    }
  };
  require(document->kind == Kind::Object);
  // The first invalid entry is reported, in ascending order of the names as written.
  model::Sections merged = m_sections;
  for (const auto& [name_as_written, section] : document->members) {
    const std::string name = Fold(name_as_written);
    require(section.kind == Kind::Object || section.kind == Kind::Null);
    if (section.kind == Kind::Null) {
      merged.erase(name);
    }
    for (const auto& [key_as_written, value] : section.members) {
      const std::string key = Fold(key_as_written);
      require(value.kind == Kind::String || value.kind == Kind::Null);
      if (value.kind == Kind::String) {
        merged[name][key] = value.text;
      } else if (merged.count(name) != 0) {
        merged[name].erase(key);
      }
    }
  }
  m_sections = merged;
}

void RegistryModel::Save() {
  const std::string text = Serialise(m_sections);
  if (text.size() > m_capacity) {
    m_sections = Parse(m_accepted_text);
    throw RegistryError({"Full", "Full"});
  }
  m_accepted_text = text;
}

}  // namespace model
