#include "tests/load/generator.h"

#include <algorithm>
#include <map>

namespace {

constexpr std::size_t kSections = 6;
constexpr std::size_t kKeys = 8;
constexpr char kSyntaxError[] = "parse error - unexpected ";

const std::vector<std::string> kPieces = {"a",  "B",  "7",    " ",  "=",  "%",      "%41",        "[", "]",
                                          "\"", "\\", "\r\n", "\t", "{}", "\u00e9", "\U0001f3b5", ",", ":"};

bool BeginsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

std::vector<std::string> WithPrefix(const std::vector<std::string>& names, const std::string& prefix) {
  std::vector<std::string> own;
  std::copy_if(names.begin(), names.end(), std::back_inserter(own),
               [&](const std::string& name) { return BeginsWith(name, prefix); });
  return own;
}

// Returns how many members of the outer object have a name with the prefix. A quotation mark inside a string follows a
// backslash, so only the names of sections and keys can match, and no key begins like a section.
std::size_t CountMembers(const std::string& json, const std::string& prefix) {
  std::size_t count = 0;
  for (std::size_t at = json.find('"' + prefix); at != std::string::npos; at = json.find('"' + prefix, at + 1)) {
    count += json[at - 1] != '\\' ? 1 : 0;
  }
  return count;
}

std::string JsonOf(const std::vector<Change>& changes) {
  std::map<std::string, std::string> members;
  for (const Change& change : changes) {
    std::string& member = members[change.section];
    if (!change.has_key) {
      member = "null";
      continue;
    }
    member += (member.empty() ? "{" : ",") + JsonString(change.key) + ":" +
              (change.has_value ? JsonString(change.value) : "null");
  }
  std::string text;
  for (const auto& [section, member] : members) {
    text += (text.empty() ? "" : ",") + JsonString(section) + ":" + member + (member == "null" ? "" : "}");
  }
  return "{" + text + "}";
}

}  // namespace

bool Expectation::IsMetBy(const Reply& answered) const {
  switch (match) {
    case Match::Whole:
      return answered == reply;
    case Match::ErrorName:
      return answered.type == "error" && answered.items[0] == reply.items[0];
    case Match::SyntaxError:
      return answered.type == "error" && answered.items[0] == reply.items[0] &&
             BeginsWith(answered.items[1], kSyntaxError);
    case Match::OwnNames:
      return answered.type == reply.type && std::is_sorted(answered.items.begin(), answered.items.end()) &&
             WithPrefix(answered.items, prefix) == WithPrefix(reply.items, prefix);
    case Match::OwnJsonMembers: {
      // The expected item contains the client's members, which are consecutive in the reply.
      if (answered.type != reply.type || answered.items.size() != 1) {
        return false;
      }
      const std::string& json = answered.items[0];
      return json.find(reply.items[0]) != std::string::npos &&
             CountMembers(json, prefix) == CountMembers("{" + reply.items[0], prefix);
    }
  }
  return false;
}

Generator::Generator(Model& model, unsigned client, std::size_t budget, std::uint64_t seed)
    : m_model(model), m_prefix("client" + std::to_string(client) + "."), m_budget(budget), m_source(seed + client) {}

std::size_t Generator::Below(std::size_t limit) { return static_cast<std::size_t>(m_source() % limit); }

std::string Generator::Name(const std::string& lower) {
  std::string name = lower;
  if (Below(4) == 0) {
    name[0] = static_cast<char>(name[0] - 'a' + 'A');
  }
  return name;
}

std::string Generator::SectionName() { return Name(m_prefix + static_cast<char>('a' + Below(kSections))); }

std::string Generator::KeyName() {
  return Name(std::string("k") + (Below(6) == 0 ? "=%] " : "") + static_cast<char>('0' + Below(kKeys)));
}

std::string Generator::Value() {
  std::string value;
  for (std::size_t count = Below(12); count > 0; --count) {
    value += kPieces[Below(kPieces.size())];
  }
  return value + std::string(Below(10) == 0 ? Below(200) : 0, 'x');
}

ExpectedCall Generator::Expected(Call call) {
  Reply reply = m_model.Apply(call);
  Match match = Match::Whole;
  if (call.member == "SectionList") {
    match = Match::OwnNames;
  } else if (call.member == "ReadAllJson") {
    match = Match::OwnJsonMembers;
    reply.items = {JsonMembers(m_model.All(), m_prefix)};
  }
  return {std::move(call), {match, std::move(reply), m_prefix}};
}

bool Generator::HasRoomFor(const std::vector<Change>& changes) const {
  Model own = m_model.Part(m_prefix);
  own.Merge(changes);
  return own.Size() <= m_budget;
}

ExpectedCall Generator::MakeRoom() { return Expected({"DeleteSection", {SectionName()}}); }

ExpectedCall Generator::Write() {
  const Change change{SectionName(), true, KeyName(), true, Value()};
  return HasRoomFor({change}) ? Expected({"Write", {change.section, change.key, change.value}}) : MakeRoom();
}

ExpectedCall Generator::Merge() {
  std::map<std::string, std::map<std::string, Change>> chosen;
  for (std::size_t count = Below(5); count > 0; --count) {
    const std::string section = Fold(SectionName()), key = Fold(KeyName());
    const bool has_value = Below(4) != 0;
    chosen[section][key] = {section, true, key, has_value, has_value ? Value() : ""};
  }
  std::vector<Change> changes;
  for (const auto& [section, keys] : chosen) {
    if (Below(6) == 0) {
      changes.push_back({section, false, "", false, ""});
      continue;
    }
    for (const auto& entry : keys) {
      changes.push_back(entry.second);
    }
  }
  if (!HasRoomFor(changes)) {
    return MakeRoom();
  }
  Reply reply = m_model.Merge(changes);
  return {{"WriteJson", {JsonOf(changes)}}, {Match::Whole, std::move(reply), m_prefix}};
}

ExpectedCall Generator::Failure() {
  const std::string invalid = m_prefix + "\u00e9";
  const Expectation invalid_name{Match::Whole, RegistryError("InvalidName", "Invalid Name"), ""};
  const Expectation invalid_json{Match::Whole, RegistryError("InvalidJson", "Invalid Json"), ""};
  const Expectation full{Match::Whole, RegistryError("Full", "Full"), ""};
  const Expectation syntax_error{Match::SyntaxError, RegistryError("Exception", ""), ""};
  const auto library_error = [](const char* name) {
    return Expectation{Match::ErrorName, {"error", {std::string("org.freedesktop.DBus.Error.") + name, ""}}, ""};
  };
  const std::string too_long(Model::kCapacity + Below(3000), 'x');
  const ExpectedCall failures[] = {
      {{"Read", {invalid, "k"}}, invalid_name},
      // Not Write with an invalid key: it would create the section, which exists until a call of any client is refused
      // as too large.
      {{"Write", {invalid, "k", "v"}}, invalid_name},
      {{"DeleteKey", {invalid, "k"}}, invalid_name},
      {{"DeleteSection", {invalid}}, invalid_name},
      {{"KeyExists", {invalid, "k"}}, invalid_name},
      {{"SectionExists", {invalid}}, invalid_name},
      {{"KeyList", {invalid}}, invalid_name},
      {{"WriteJson", {"{\"" + invalid + "\":{}}"}}, invalid_name},
      {{"WriteJson", {"[]"}}, invalid_json},
      {{"WriteJson", {"{\"" + m_prefix + "a\":{\"k\":1}}"}}, invalid_json},
      {{"WriteJson", {"{\"" + m_prefix + "a\":{\"k\":\"v\""}}, syntax_error},
      {{"WriteJson", {"{\"" + m_prefix + "a\":{\"k\":\"" + too_long + "\"}}"}}, full},
      {{"Write", {SectionName(), "k", too_long}}, full},
      {{"Read", {SectionName()}}, library_error("InvalidArgs")},
      {{"Write", {}}, library_error("InvalidArgs")},
      {{"Rename", {SectionName()}}, library_error("UnknownMethod")},
  };
  return failures[Below(std::size(failures))];
}

ExpectedCall Generator::Next() {
  const std::size_t kind = Below(100);
  if (kind < 20) {
    return Expected({"Read", {SectionName(), KeyName()}});
  }
  if (kind < 45) {
    return Write();
  }
  if (kind < 52) {
    return Expected({"DeleteKey", {SectionName(), KeyName()}});
  }
  if (kind < 54) {
    return Expected({"DeleteSection", {SectionName()}});
  }
  if (kind < 62) {
    return Expected({"KeyExists", {SectionName(), KeyName()}});
  }
  if (kind < 68) {
    return Expected({"SectionExists", {SectionName()}});
  }
  if (kind < 72) {
    return Expected({"SectionList", {}});
  }
  if (kind < 80) {
    return Expected({"KeyList", {SectionName()}});
  }
  if (kind < 83) {
    return Expected({"ReadAllJson", {}});
  }
  if (kind < 89) {
    return Merge();
  }
  if (kind < 93) {
    return Expected({"Flush", {}});
  }
  return Failure();
}
