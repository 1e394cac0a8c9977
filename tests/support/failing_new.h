// An operator new that fails on request. It takes the place of the whole program's, so a test program has it only if it
// is about the lack of memory.
#pragma once

#include <cstddef>

namespace test_support {

/// While it lives, an allocation of the calling thread fails: the `nth`, counted from 1, and perhaps all behind it.
/// Other threads are left alone. One object at a time.
class FailingNew {
public:
  enum class Lack { OfOneAllocation, FromThenOn };

  FailingNew(std::size_t nth, Lack lack);
  ~FailingNew();
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;

  /// Whether an allocation has failed.
  bool HasFailed() const;
};

}  // namespace test_support
