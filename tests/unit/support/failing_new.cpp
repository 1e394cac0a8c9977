#include "tests/unit/support/failing_new.h"

#include <cstdlib>
#include <new>

namespace {

using Lack = test_support::FailingNew::Lack;

// The number of allocations of this thread up to the one that fails, 0 if none fails.
thread_local std::size_t t_countdown = 0;
thread_local Lack t_lack = Lack::OfOneAllocation;
thread_local bool t_has_failed = false;

void* Allocate(std::size_t size) {
  if (t_countdown != 0 && --t_countdown == 0) {
    t_countdown = t_lack == Lack::OfOneAllocation ? 0 : 1;
    if (t_lack == Lack::OfTwoInARow) {
      t_lack = Lack::OfOneAllocation;
    }
    t_has_failed = true;
    throw std::bad_alloc();
  }
  if (void* const memory = std::malloc(size != 0 ? size : 1)) {
    return memory;
  }
  throw std::bad_alloc();
}

void* AllocateOrNull(std::size_t size) noexcept {
  try {
    return Allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

// All operators are replaced. Otherwise a sanitizer would report memory that its own operator allocates and ours
// releases.
void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrNull(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return AllocateOrNull(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace test_support {

FailingNew::FailingNew(std::size_t nth, Lack lack) {
  t_has_failed = false;
  t_lack = lack;
  t_countdown = nth;
}

FailingNew::~FailingNew() { t_countdown = 0; }

bool FailingNew::HasFailed() const { return t_has_failed; }

}  // namespace test_support
