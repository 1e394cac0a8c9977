#include "client/merge_warnings.h"

#include <cstddef>
#include <map>

#include "client/quote_word.h"
#include "registry/name_rules.h"

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

constexpr char kNulByte[] = "and everything after it: a NUL byte";

// A name that somebody has written into the daemon's file by hand.
std::string OutOfReach(const std::string& what) { return "no caller can reach " + what + ": not lower-case ASCII"; }

std::string LostAtRestart(const std::string& what, const char* why) {
  return "lost at a restart: " + what + " (" + why + ")";
}

// Null if the daemon finds the key again in its file.
const char* ReasonOfLoss(const std::string& name, const std::string& value) {
  if (!name.empty() && name.front() == '[') {
    return "begins with \"[\"";
  }
  if (name.find('\0') != std::string::npos || value.find('\0') != std::string::npos) {
    return kNulByte;
  }
  return name.empty() && value.empty() ? "without name and value" : nullptr;
}

std::vector<std::string> LossesAtRestart(const RegistrySections& sections) {
  std::vector<std::string> losses;
  for (const auto& [section, keys] : sections) {
    if (section.find('\0') != std::string::npos) {
      losses.push_back(LostAtRestart(ShownSection(section), kNulByte));
    }
    for (const auto& [key, value] : keys) {
      if (const char* const reason = ReasonOfLoss(key, value)) {
        losses.push_back(LostAtRestart(ShownKey(section, key), reason));
      }
    }
  }
  return losses;
}

}  // namespace

std::vector<std::string> SpellingWarnings(const Merge& merge) {
  std::vector<std::string> warnings;
  for (const auto& [section, keys] : merge) {
    for (const auto& [folded, count] : CountFolded(keys.value_or(KeyMerge()))) {
      if (count > 1) {
        warnings.push_back("several spellings of " + ShownKey(section, folded) + "; the last one in byte order wins");
      }
    }
  }
  for (const auto& [folded, count] : CountFolded(merge)) {
    if (count > 1) {
      warnings.push_back("several spellings of " + ShownSection(folded) + "; they are one section");
    }
  }
  return warnings;
}

void RefuseLosses(const Merge& merge, bool force, ExitStatus status, const Messages& messages) {
  std::string refusal;
  for (const std::string& loss : LossesAtRestart(ContentsOf(merge))) {
    if (force) {
      messages.Warning(loss);
    } else {
      refusal += loss + "\n";
    }
  }
  if (!refusal.empty()) {
    throw Failure(status, refusal + "Nothing changed. Use --force to accept the loss.");
  }
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
