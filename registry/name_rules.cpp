#include "registry/name_rules.h"

#include <algorithm>

#include "registry/registry.h"

namespace {

bool IsAscii(char c) { return static_cast<unsigned char>(c) < 0x80; }

bool IsUpper(char c) { return c >= 'A' && c <= 'Z'; }

}  // namespace

void CheckName(const std::string& name) {
  if (!std::all_of(name.begin(), name.end(), IsAscii)) {
    throw Registry::InvalidName(name);
  }
}

// Independent of the locale. One pass, because every call folds its names.
std::string FoldName(const std::string& name) {
  std::string folded = name;
  for (char& c : folded) {
    if (!IsAscii(c)) {
      throw Registry::InvalidName(name);
    }
    if (IsUpper(c)) {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return folded;
}

bool IsReachable(std::string_view name) {
  return std::all_of(name.begin(), name.end(), [](char c) { return IsAscii(c) && !IsUpper(c); });
}
