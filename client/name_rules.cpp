#include "client/name_rules.h"

#include <algorithm>

#include "registry/registry.h"

namespace ledgerctl {
namespace {

bool IsAscii(char c) { return static_cast<unsigned char>(c) < 0x80; }

bool IsUpper(char c) { return c >= 'A' && c <= 'Z'; }

}  // namespace

void CheckName(const std::string& name) {
  if (!std::all_of(name.begin(), name.end(), IsAscii)) {
    throw Registry::InvalidName(name);
  }
}

std::string FoldName(const std::string& name) {
  CheckName(name);
  std::string folded = name;
  // Not tolower, which asks the locale.
  std::transform(folded.begin(), folded.end(), folded.begin(),
                 [](char c) { return IsUpper(c) ? static_cast<char>(c - 'A' + 'a') : c; });
  return folded;
}

bool IsReachable(std::string_view name) {
  return std::all_of(name.begin(), name.end(), [](char c) { return IsAscii(c) && !IsUpper(c); });
}

}  // namespace ledgerctl
