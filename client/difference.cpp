#include "client/difference.h"

#include <set>

#include "client/json_text.h"
#include "client/quote_word.h"

namespace ledgerctl {
namespace {

template <typename Map>
std::set<std::string> NamesOfBoth(const Map& a, const Map& b) {
  std::set<std::string> names;
  for (const Map* map : {&a, &b}) {
    for (const auto& entry : *map) {
      names.insert(names.end(), entry.first);
    }
  }
  return names;
}

template <typename Map>
const typename Map::mapped_type* Find(const Map& map, const std::string& name) {
  const auto found = map.find(name);
  return found == map.end() ? nullptr : &found->second;
}

std::optional<std::string> Value(const RegistrySection* section, const std::string& key) {
  const std::string* const value = section == nullptr ? nullptr : Find(*section, key);
  return value == nullptr ? std::nullopt : std::optional<std::string>(*value);
}

void AddSection(const std::string& name, const RegistrySection* before, const RegistrySection* after,
                std::vector<Difference>& differences) {
  static const RegistrySection kNone;
  const auto presence = [](const RegistrySection* section) {
    return section == nullptr ? std::nullopt : std::optional<std::string>("");
  };
  const bool has_no_keys = (before == nullptr || before->empty()) && (after == nullptr || after->empty());
  if (has_no_keys && (before == nullptr) != (after == nullptr)) {
    differences.push_back({name, std::nullopt, presence(before), presence(after)});
  }
  for (const std::string& key : NamesOfBoth(before == nullptr ? kNone : *before, after == nullptr ? kNone : *after)) {
    Difference difference{name, key, Value(before, key), Value(after, key)};
    if (difference.before != difference.after) {
      differences.push_back(std::move(difference));
    }
  }
}

void PrintLine(const Difference& difference, char sign, const std::optional<std::string>& value, Output& output) {
  if (!value) {
    return;
  }
  std::string line = {sign, ' ', '['};
  line += QuoteWord(difference.section) + "]";
  if (difference.key) {
    line += " " + QuoteWord(*difference.key) + "=" + (value->empty() ? "" : QuoteWord(*value));
  }
  output.WriteColoured(sign == '-' ? Colour::Red : Colour::Green, line);
  output.Write("\n");
}

std::string JsonValue(const Difference& difference, const std::optional<std::string>& value) {
  if (!value) {
    return "null";
  }
  return difference.key ? QuoteJson(*value) : "{}";
}

}  // namespace

std::vector<Difference> FindDifferences(const RegistrySections& before, const RegistrySections& after) {
  std::vector<Difference> differences;
  for (const std::string& name : NamesOfBoth(before, after)) {
    AddSection(name, Find(before, name), Find(after, name), differences);
  }
  return differences;
}

void PrintDifferences(const std::vector<Difference>& differences, Output& output) {
  for (const Difference& difference : differences) {
    PrintLine(difference, '-', difference.before, output);
    PrintLine(difference, '+', difference.after, output);
  }
}

void PrintDifferencesAsJson(const std::vector<Difference>& differences, Output& output) {
  for (const Difference& difference : differences) {
    output.Write("{\"section\":" + QuoteJson(difference.section) +
                 ",\"key\":" + (difference.key ? QuoteJson(*difference.key) : "null") +
                 ",\"before\":" + JsonValue(difference, difference.before) +
                 ",\"after\":" + JsonValue(difference, difference.after) + "}\n");
  }
}

}  // namespace ledgerctl
