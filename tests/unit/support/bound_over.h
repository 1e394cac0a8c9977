// A temporary bind mount of a file or directory over another.
#pragma once

#include <sys/mount.h>

#include <boost/core/noncopyable.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace test_support {

/// Ends the process if a step failed. Prints `what` and the reason in errno.
inline void RequireSuccess(bool succeeded, const char* what) {
  if (!succeeded) {
    std::perror(what);
    std::exit(1);
  }
}

/// While this object exists, `target` shows the contents of `source`, but only to this test program. Ends the process
/// with a message if the kernel refuses.
class BoundOver : boost::noncopyable {
public:
  BoundOver(const std::string& source, const char* target) : m_target(target) {
    RequireSuccess(::mount(source.c_str(), target, nullptr, MS_BIND, nullptr) == 0, target);
  }
  ~BoundOver() { RequireSuccess(::umount2(m_target, MNT_DETACH) == 0, m_target); }

private:
  const char* m_target;
};

}  // namespace test_support
