// A device of the test's own: what the kernel tells about it, and its flash.
#pragma once

#include <string>

#include "tests/support/bound_over.h"
#include "tests/support/temp_dir.h"

namespace test_hardware {

/// While it lives, /proc and /dev are directories with nothing but the files that are put there. A process that runs
/// meanwhile has no /proc/self, too.
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
