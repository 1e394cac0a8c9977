// The base of a class that has at most one object at a time, which all code can reach.
#pragma once

#include <cstddef>

#include "lib/platform/assertion.h"

namespace bramble {

/// Derive as `class alignas(8) Thing : public Singleton<Thing>`. Whoever constructs the object owns it. It must be
/// constructed and destroyed on one thread while no other thread uses it. These are assertion failures: a second
/// object, the destruction of an object that is not the registered one, and GetInstance without an object.
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

  /// Also runs when the constructor of the derived class throws, and then clears the instance.
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
