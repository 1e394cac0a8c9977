// Puts directories of the test over /proc and /dev: the kernel's tables and the flash of a device.
#pragma once

#include <string>

#include "tests/unit/support/bound_over.h"
#include "tests/unit/support/temp_dir.h"

namespace test_hardware {

/// While this object exists, /proc and /dev contain only the files that the test writes. No process has a /proc/self
/// during that time.
class DeviceMounts {
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
