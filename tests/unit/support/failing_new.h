// An operator new that fails on request. It replaces operator new in the whole program, so only the programs that test
// a lack of memory link it.
#pragma once

#include <boost/core/noncopyable.hpp>
#include <cstddef>

namespace test_support {

/// While this object exists, allocation number `nth` of the calling thread fails, counted from 1. With OfTwoInARow the
/// next one fails too, with FromThenOn all later ones. Other threads are not affected. At most one object may exist at
/// a time.
class FailingNew : boost::noncopyable {
public:
  enum class Lack { OfOneAllocation, OfTwoInARow, FromThenOn };

  FailingNew(std::size_t nth, Lack lack);
  ~FailingNew();

  /// Returns whether an allocation has failed.
  bool HasFailed() const;
};

}  // namespace test_support
