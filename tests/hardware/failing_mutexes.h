// Mutexes that cannot be had.
#pragma once

namespace test_hardware {

/// While it lives, initialising a mutex fails with `error_number`; the linker puts it in front of the C library's.
class FailingMutexes {
public:
  explicit FailingMutexes(int error_number);
  ~FailingMutexes();
  FailingMutexes(const FailingMutexes&) = delete;
  FailingMutexes& operator=(const FailingMutexes&) = delete;
};

}  // namespace test_hardware
