// A temporary bind mount of a file or directory over another.
#pragma once

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace test_support {

/// While this object exists, `target` shows the contents of `source`, but only to this test program.
class BoundOver {
public:
  BoundOver(const std::string& source, const char* target) : m_target(target) {
    EXPECT_EQ(::mount(source.c_str(), target, nullptr, MS_BIND, nullptr), 0) << target << ": " << std::strerror(errno);
  }
  ~BoundOver() { EXPECT_EQ(::umount2(m_target, MNT_DETACH), 0) << m_target << ": " << std::strerror(errno); }
  BoundOver(const BoundOver&) = delete;
  BoundOver& operator=(const BoundOver&) = delete;

private:
  const char* m_target;
};

}  // namespace test_support
