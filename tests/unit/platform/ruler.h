#pragma once

#include <string>

namespace test_platform {

/// A text of which every position can be told from its neighbours.
inline std::string Ruler(std::size_t length) {
  std::string text;
  while (text.size() < length) {
    text += std::to_string(text.size()) + ',';
  }
  text.resize(length);
  return text;
}

}  // namespace test_platform
