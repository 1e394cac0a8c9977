// The bootloader environment as bytes in flash.
#pragma once

#include <string>

#include "lib/hardware/cfe_environment.h"

namespace test_hardware {

/// Returns a record with the text, which is normally NAME=VALUE.
inline std::string Record(const std::string& text) {
  return std::string{1, static_cast<char>(text.size() + 1), '\0'} + text;
}

inline std::string EndRecord() { return std::string(1, '\0'); }

inline std::string Records(const CfeEnvironment& environment) {
  std::string records;
  for (const auto& [name, value] : environment) {
    records += Record(name + "=" + value);
  }
  return records;
}

}  // namespace test_hardware
