// The files that describe a device to the hardware code.
#pragma once

#include <string>

#include "lib/hardware/cfe_environment.h"
#include "tests/unit/support/bound_over.h"
#include "tests/unit/support/temp_dir.h"

namespace test_hardware {

/// Returns a record of the bootloader environment with the text, which is normally NAME=VALUE.
inline std::string Record(const std::string& text) {
  return std::string{1, static_cast<char>(text.size() + 1), '\0'} + text;
}

inline std::string EndRecord() { return std::string(1, '\0'); }

/// While this object exists, /proc and /dev contain only the files that the test writes. No process has a /proc/self
/// during that time.
class DeviceFiles {
public:
  void WriteBoardIdentity(const std::string& text) { test_support::WriteTextFile(m_proc / "boardid", text); }
  void WriteMtdTable(const std::string& rows) {
    test_support::WriteTextFile(m_proc / "mtd", "dev:    size   erasesize  name\n" + rows);
  }
  void WriteDevice(const std::string& name, const std::string& contents) {
    test_support::WriteTextFile(m_dev / name, contents);
  }

private:
  test_support::TempDir m_proc;
  test_support::TempDir m_dev;
  test_support::BoundOver m_proc_mount{m_proc.Path(), "/proc"};
  test_support::BoundOver m_dev_mount{m_dev.Path(), "/dev"};
};

}  // namespace test_hardware
