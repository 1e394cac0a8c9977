#include "tests/unit/hardware/failing_mutexes.h"

#include <pthread.h>

namespace test_hardware {
namespace {

int g_error_number = 0;

}  // namespace

FailingMutexes::FailingMutexes(int error_number) { g_error_number = error_number; }
FailingMutexes::~FailingMutexes() { g_error_number = 0; }

}  // namespace test_hardware

// The linker replaces calls of F by calls of __wrap_F. __real_F is the original function.
extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  const int error_number = test_hardware::g_error_number;
  return error_number != 0 ? error_number : __real_pthread_mutex_init(mutex, attributes);
}

}  // extern "C"
