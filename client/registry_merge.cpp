#include "client/registry_merge.h"

#include <cstddef>

#include "client/failure.h"
#include "client/json_text.h"
#include "client/quote_word.h"
#include "registry/json_document.h"
#include "registry/name_rules.h"

namespace ledgerctl {
namespace {

// An empty object makes no section. One that sets a key and then deletes it does; in the order of the names as written
// the upper-case one is first.
constexpr char kPassingKeySet[] = "LEDGERCTL EMPTY SECTION";
constexpr char kPassingKeyDeleted[] = "ledgerctl empty section";

KeyMerge ReadKeys(const JsonDocument& document, const JsonMember& section, const std::string& source) {
  KeyMerge keys;
  for (const JsonMember& key : document.KeysOf(section)) {
    const std::string name(document.NameOf(key));
    CheckName(name);
    if (key.kind == JsonDocument::Kind::Refused) {
      throw Failure(ExitStatus::NotADocument, source + ": not a registry document: the value of " +
                                                  ShownKey(std::string(document.NameOf(section)), name) +
                                                  " is neither a string nor null");
    }
    std::optional<std::string>& value = keys[name];
    if (key.kind == JsonDocument::Kind::Accepted) {
      value = document.ValueOf(key);
    }
  }
  return keys;
}

void ApplyKeys(const KeyMerge& keys, RegistrySection& section) {
  for (const auto& [name, value] : keys) {
    if (value) {
      section[FoldName(name)] = *value;
    } else {
      section.erase(FoldName(name));
    }
  }
}

bool SetsAnything(const KeyMerge& keys) {
  for (const auto& entry : keys) {
    if (entry.second) {
      return true;
    }
  }
  return false;
}

KeyMerge KeysBetween(const RegistrySection& before, const RegistrySection& after) {
  KeyMerge keys;
  for (const auto& entry : before) {
    if (after.count(entry.first) == 0) {
      keys[entry.first] = std::nullopt;
    }
  }
  for (const auto& [name, value] : after) {
    const auto old = before.find(name);
    if (old == before.end() || old->second != value) {
      keys[name] = value;
    }
  }
  return keys;
}

KeyMerge AllKeys(const RegistrySection& section) { return KeyMerge(section.begin(), section.end()); }

// A column is a character, not a byte.
std::string ShownPosition(std::string_view text, std::size_t offset) {
  std::size_t line = 1;
  std::size_t column = 1;
  for (const char c : text.substr(0, offset)) {
    const bool continues_character = (static_cast<unsigned char>(c) & 0xC0) == 0x80;
    line += c == '\n' ? 1 : 0;
    column = c == '\n' ? 1 : column + (continues_character ? 0 : 1);
  }
  return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

}  // namespace

Merge ParseMerge(const std::string& json, const std::string& source) {
  try {
    const JsonDocument document = JsonDocument::Parse(json);
    if (!document.IsObject()) {
      throw Failure(ExitStatus::NotADocument, source + ": not a registry document: the top level is not an object");
    }
    Merge merge;
    for (const JsonMember& section : document.Sections()) {
      const std::string name(document.NameOf(section));
      CheckName(name);
      if (section.kind == JsonDocument::Kind::Refused) {
        throw Failure(ExitStatus::NotADocument,
                      source + ": not a registry document: " + ShownSection(name) + " is neither an object nor null");
      }
      SectionMerge& keys = merge[name];
      if (section.kind == JsonDocument::Kind::Accepted) {
        keys = ReadKeys(document, section, source);
      }
    }
    return merge;
  } catch (const JsonSyntaxError& e) {
    throw Failure(ExitStatus::NotADocument, source + ": " + ShownPosition(json, e.Offset()) + ": " + e.what());
  }
}

std::string PrintMerge(const Merge& merge) {
  std::string text = "{";
  const char* section_separator = "";
  for (const auto& [section, keys] : merge) {
    text += section_separator + QuoteJson(section) + ':';
    section_separator = ",";
    if (!keys) {
      text += "null";
      continue;
    }
    const KeyMerge passing = {{kPassingKeySet, ""}, {kPassingKeyDeleted, std::nullopt}};
    const char* key_separator = "{";
    for (const auto& [key, value] : keys->empty() ? passing : *keys) {
      text += key_separator + QuoteJson(key) + ':' + (value ? QuoteJson(*value) : "null");
      key_separator = ",";
    }
    text += '}';
  }
  return text + '}';
}

Merge MergeOf(const RegistrySections& sections) {
  Merge merge;
  for (const auto& [name, keys] : sections) {
    merge[name] = AllKeys(keys);
  }
  return merge;
}

void ApplyMerge(const Merge& merge, RegistrySections& sections) {
  for (const auto& [name, keys] : merge) {
    const std::string section = FoldName(name);
    if (!keys) {
      sections.erase(section);
    } else if (keys->empty() || SetsAnything(*keys)) {
      ApplyKeys(*keys, sections[section]);
    } else if (const auto existing = sections.find(section); existing != sections.end()) {
      ApplyKeys(*keys, existing->second);
    }
  }
}

RegistrySections ContentsOf(const Merge& merge) {
  RegistrySections sections;
  ApplyMerge(merge, sections);
  return sections;
}

Merge MergeBetween(const RegistrySections& before, const RegistrySections& after) {
  Merge merge;
  for (const auto& entry : before) {
    if (after.count(entry.first) == 0) {
      merge[entry.first] = std::nullopt;
    }
  }
  for (const auto& [name, keys] : after) {
    const auto old = before.find(name);
    if (old == before.end()) {
      merge[name] = AllKeys(keys);
    } else if (old->second != keys) {
      merge[name] = KeysBetween(old->second, keys);
    }
  }
  return merge;
}

Merge MergeThatReplaces(const RegistrySections& before, const RegistrySections& after) {
  Merge merge = MergeBetween(before, after);
  for (const auto& [name, keys] : after) {
    KeyMerge changes = AllKeys(keys);
    // The nulls for the keys that must go.
    if (const auto found = merge.find(name); found != merge.end() && found->second) {
      changes.merge(*found->second);
    }
    if (!SetsAnything(changes)) {
      changes[kPassingKeySet] = "";
      changes[kPassingKeyDeleted] = std::nullopt;
    }
    merge[name] = changes;
  }
  return merge;
}

Merge MergeOfMissing(const RegistrySections& existing, const RegistrySections& sections) {
  Merge merge;
  for (const auto& [name, keys] : sections) {
    const auto old = existing.find(name);
    if (old == existing.end()) {
      merge[name] = AllKeys(keys);
      continue;
    }
    KeyMerge missing;
    for (const auto& entry : keys) {
      if (old->second.count(entry.first) == 0) {
        missing.insert(entry);
      }
    }
    if (!missing.empty()) {
      merge[name] = missing;
    }
  }
  return merge;
}

}  // namespace ledgerctl
