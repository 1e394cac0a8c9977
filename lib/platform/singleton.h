// The base of a class of which one object exists at a time, reachable from everywhere.
#pragma once

#include <cstddef>

#include "lib/platform/assertion.h"

namespace bramble {

/// Derive as `class alignas(8) Thing : public Singleton<Thing>`. The object is owned by whoever constructs it, and is
/// constructed and destroyed on one thread while no other uses it. Breaking the rules is an assertion failure: a second
/// object, the destruction of an object that is not the registered one, GetInstance without an object.
template <typename T>
class Singleton {
public:
  /// The one object.
  static T& GetInstance() {
    BRAMBLE_ASSERT(ValidatePointer(sm_instance, kAlignment));
    return *sm_instance;
  }

  Singleton(const Singleton&) = delete;
  Singleton& operator=(const Singleton&) = delete;

protected:
  Singleton() {
    BRAMBLE_ASSERT(sm_instance == NULL);
    BRAMBLE_ASSERT(ValidatePointer(this, kAlignment));
    sm_instance = static_cast<T*>(this);
  }

  /// Runs also when the derived constructor throws, and then clears the instance again.
  ~Singleton() {
    BRAMBLE_ASSERT(sm_instance == this);
    sm_instance = nullptr;
  }

private:
  static constexpr std::size_t kAlignment = 8;

  static T* sm_instance;
};

template <typename T>
T* Singleton<T>::sm_instance = nullptr;

}  // namespace bramble
