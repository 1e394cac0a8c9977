#include "client/merge_warnings.h"

#include <cstddef>
#include <map>

#include "client/name_rules.h"
#include "client/quote_word.h"

namespace ledgerctl {
namespace {

// Names as written, in the order of those; the same again means that the two fold together.
template <typename Members>
std::map<std::string, std::size_t> CountFolded(const Members& members) {
  std::map<std::string, std::size_t> counts;
  for (const auto& entry : members) {
    ++counts[FoldName(entry.first)];
  }
  return counts;
}

// A name that somebody has written into the daemon's file by hand.
std::string OutOfReach(const std::string& what) { return "out of reach, not lower-case ASCII: " + what; }

void AddKeyWarnings(const std::string& section, const KeyMerge& keys, std::vector<std::string>& warnings) {
  for (const auto& [name, value] : keys) {
    if (!value) {
      continue;
    }
    const std::string key = ShownKey(section, name);
    if (!name.empty() && name.front() == '[') {
      warnings.push_back(LostAtRestart(key, "begins with \"[\""));
    }
    if (name.find('\0') != std::string::npos || value->find('\0') != std::string::npos) {
      warnings.push_back(LostAtRestart(key, "and all behind it: a NUL byte"));
    }
    if (name.empty() && value->empty()) {
      warnings.push_back(LostAtRestart(key, "without name and value"));
    }
  }
  for (const auto& [folded, count] : CountFolded(keys)) {
    if (count > 1) {
      warnings.push_back("several spellings of " + ShownKey(section, folded) + "; the last one in byte order wins");
    }
  }
}

}  // namespace

std::vector<std::string> MergeWarnings(const Merge& merge) {
  std::vector<std::string> warnings;
  for (const auto& [name, keys] : merge) {
    if (!keys) {
      continue;
    }
    if (name.find('\0') != std::string::npos) {
      warnings.push_back(LostAtRestart(ShownSection(name), "and all behind it: a NUL byte"));
    }
    AddKeyWarnings(name, *keys, warnings);
  }
  for (const auto& [folded, count] : CountFolded(merge)) {
    if (count > 1) {
      warnings.push_back("several spellings of " + ShownSection(folded) + "; they are one section");
    }
  }
  return warnings;
}

std::string LostAtRestart(const std::string& what, const char* why) {
  return "lost at a restart: " + what + " (" + why + ")";
}

std::vector<std::string> DropUnreachable(RegistrySections& sections) {
  std::vector<std::string> dropped;
  for (auto section = sections.begin(); section != sections.end();) {
    if (!IsReachable(section->first)) {
      dropped.push_back(OutOfReach(ShownSection(section->first)));
      section = sections.erase(section);
      continue;
    }
    for (auto key = section->second.begin(); key != section->second.end();) {
      if (IsReachable(key->first)) {
        ++key;
        continue;
      }
      dropped.push_back(OutOfReach(ShownKey(section->first, key->first)));
      key = section->second.erase(key);
    }
    ++section;
  }
  return dropped;
}

}  // namespace ledgerctl
