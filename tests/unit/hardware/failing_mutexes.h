// Mutexes that cannot be initialised.
#pragma once

namespace test_hardware {

/// While this object exists, initialising a mutex fails with `error_number`. The linker replaces pthread_mutex_init.
class FailingMutexes {
public:
  explicit FailingMutexes(int error_number);
  ~FailingMutexes();
  FailingMutexes(const FailingMutexes&) = delete;
  FailingMutexes& operator=(const FailingMutexes&) = delete;
};

}  // namespace test_hardware
