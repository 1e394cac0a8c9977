// The interface of a store for one text that outlives the process.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

class PersistentStore {
public:
  /// The text is longer than the store's capacity.
  class Full : public std::runtime_error {
  public:
    Full() : std::runtime_error("Store full") {}
  };

  virtual ~PersistentStore() = default;

  /// Returns the whole stored text.
  virtual std::string Read() = 0;

  /// Replaces the stored text. Throws Full if `text` is longer than Capacity(); the stored text is then unchanged.
  virtual void Write(const std::string& text) = 0;

  /// The longest text, in bytes, that Write accepts.
  virtual std::uint32_t Capacity() = 0;
};
