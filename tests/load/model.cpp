#include "tests/load/model.h"

#include <cstdio>
#include <functional>
#include <set>

namespace {

constexpr char kEscapedInSection[] = "%[]\r\n";
constexpr char kEscapedInKey[] = "%\r\n=";
constexpr char kEscapedInValue[] = "%\r\n";
constexpr std::size_t kShown = 300;

std::string Escape(const std::string& text, const std::string& forbidden) {
  std::string escaped;
  for (const char byte : text) {
    if (forbidden.find(byte) == std::string::npos) {
      escaped += byte;
    } else {
      char code[4];
      std::snprintf(code, sizeof code, "%%%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
      escaped += code;
    }
  }
  return escaped;
}

std::string SectionText(const std::string& name, const Section& keys) {
  std::string text = "[" + Escape(name, kEscapedInSection) + "]\n";
  for (const auto& [key, value] : keys) {
    text += Escape(key, kEscapedInKey) + (value.empty() ? "" : "=" + Escape(value, kEscapedInValue)) + "\n";
  }
  return text;
}

bool BeginsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

const Reply kNothing{"", {}};

Reply Boolean(bool value) { return {"b", {value ? "true" : "false"}}; }

}  // namespace

std::string Describe(const Reply& reply) {
  std::string text = "<" + reply.type + ">";
  for (const std::string& item : reply.items) {
    text += " '" + item + "'";
  }
  return text.size() <= kShown ? text : text.substr(0, kShown) + "...";
}

Reply RegistryError(const std::string& name, const std::string& message) {
  return {"error", {"com.tavimesh.Registry.Errors." + name, message}};
}

std::string Fold(const std::string& name) {
  std::string folded = name;
  for (char& byte : folded) {
    if (byte >= 'A' && byte <= 'Z') {
      byte = static_cast<char>(byte + ('a' - 'A'));
    }
  }
  return folded;
}

std::string JsonString(const std::string& text) {
  std::string quoted = "\"";
  for (const char byte : text) {
    switch (byte) {
      case '"':
        quoted += "\\\"";
        break;
      case '\\':
        quoted += "\\\\";
        break;
      case '\n':
        quoted += "\\n";
        break;
      case '\r':
        quoted += "\\r";
        break;
      case '\t':
        quoted += "\\t";
        break;
      default:
        quoted += byte;
    }
  }
  return quoted + "\"";
}

std::string JsonMembers(const Sections& sections, const std::string& prefix) {
  std::string text;
  for (const auto& [name, keys] : sections) {
    if (!BeginsWith(name, prefix)) {
      continue;
    }
    text += (text.empty() ? "" : ",") + JsonString(name) + ":{";
    const char* separator = "";
    for (const auto& [key, value] : keys) {
      text += separator + JsonString(key) + ":" + JsonString(value);
      separator = ",";
    }
    text += "}";
  }
  return text;
}

Model Model::Part(const std::string& prefix) const {
  Model part;
  for (auto section = m_sections.lower_bound(prefix); section != m_sections.end() && BeginsWith(section->first, prefix);
       ++section) {
    part.m_size += SectionText(section->first, section->second).size();
    part.m_sections.insert(part.m_sections.end(), *section);
  }
  return part;
}

std::string Model::Text() const {
  std::string text;
  for (const auto& [name, keys] : m_sections) {
    text += SectionText(name, keys);
  }
  return text;
}

const Section* Model::Find(const std::string& section) const {
  const auto found = m_sections.find(Fold(section));
  return found == m_sections.end() ? nullptr : &found->second;
}

Reply Model::Merge(const std::vector<Change>& changes) {
  Sections before;
  std::size_t size = m_size;
  for (const Change& change : changes) {
    const std::string name = Fold(change.section);
    if (const Section* const keys = Find(name); keys != nullptr && before.emplace(name, *keys).second) {
      size -= SectionText(name, *keys).size();
    }
  }
  for (const Change& change : changes) {
    const std::string name = Fold(change.section);
    if (!change.has_key) {
      m_sections.erase(name);
    } else if (change.has_value) {
      m_sections[name][Fold(change.key)] = change.value;
    } else if (const auto found = m_sections.find(name); found != m_sections.end()) {
      found->second.erase(Fold(change.key));
    }
  }
  std::set<std::string> touched;
  for (const Change& change : changes) {
    const std::string name = Fold(change.section);
    if (const Section* const keys = Find(name); keys != nullptr && touched.insert(name).second) {
      size += SectionText(name, *keys).size();
    }
  }
  if (size <= kCapacity) {
    m_size = size;
    return kNothing;
  }
  for (const std::string& name : touched) {
    m_sections.erase(name);
  }
  m_sections.merge(before);
  return RegistryError("Full", "Full");
}

Reply Model::Apply(const Call& call) {
  const auto argument = [&](std::size_t number) -> const std::string& { return call.arguments.at(number); };
  const auto section = [&] { return Find(argument(0)); };
  const std::map<std::string, std::function<Reply()>> methods = {
      {"Read",
       [&]() -> Reply {
         const Section* const keys = section();
         return {"s", {keys != nullptr && keys->count(Fold(argument(1))) != 0 ? keys->at(Fold(argument(1))) : ""}};
       }},
      {"Write",
       [&] {
         return Merge({{argument(0), true, argument(1), true, argument(2)}});
       }},
      {"DeleteKey",
       [&] {
         return Merge({{argument(0), true, argument(1), false, ""}});
       }},
      {"DeleteSection",
       [&] {
         return Merge({{argument(0), false, "", false, ""}});
       }},
      {"DeleteAll",
       [&] {
         m_sections.clear();
         m_size = 0;
         return kNothing;
       }},
      {"Flush", [] { return kNothing; }},
      {"KeyExists", [&] { return Boolean(section() != nullptr && section()->count(Fold(argument(1))) != 0); }},
      {"SectionExists", [&] { return Boolean(section() != nullptr); }},
      {"SectionList",
       [&] {
         Reply reply{"as", {}};
         for (const auto& entry : m_sections) {
           reply.items.push_back(entry.first);
         }
         return reply;
       }},
      {"KeyList",
       [&] {
         Reply reply{"a{ss}", {}};
         for (const auto& [key, value] : section() != nullptr ? *section() : Section()) {
           reply.items.insert(reply.items.end(), {key, value});
         }
         return reply;
       }},
      {"ReadAllJson",
       [&]() -> Reply {
         return {"s", {"{" + JsonMembers(m_sections, "") + "}"}};
       }},
  };
  return methods.at(call.member)();
}
