// The interface of the settings registry: named sections of keys with string values.
#pragma once

#include <boost/function.hpp>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

/// The maximum size of the registry file in bytes.
constexpr std::uint32_t kRegistryCapacity = 16383;

/// All strings are byte strings. Names of sections and keys are 7-bit ASCII and case-insensitive: every operation
/// converts 'A' to 'Z' to lower case and throws InvalidName for a name with a byte of 0x80 or above. The empty name is
/// valid. Values are arbitrary and stored unchanged. Implementations may also throw the exceptions of their store, and
/// std::bad_alloc. Whether an implementation is thread-safe is its own choice.
class Registry {
public:
  /// A name with a byte of 0x80 or above.
  class InvalidName : public std::exception {
  public:
    explicit InvalidName(const std::string& name);
    const char* what() const noexcept override { return m_message.c_str(); }
    /// The offending name as given.
    const std::string& Name() const noexcept { return m_name; }

  private:
    std::string m_name;
    std::string m_message;
  };

  /// JSON text that is not an object of sections. Each must be null or an object whose values are strings or null.
  class InvalidJson : public std::exception {
  public:
    explicit InvalidJson(const std::string& detail);
    const char* what() const noexcept override { return m_message.c_str(); }
    /// The JSON text that was refused.
    const std::string& Detail() const noexcept { return m_detail; }

  private:
    std::string m_detail;
    std::string m_message;
  };

  /// The registry's text would exceed the capacity of its store.
  class Full : public std::runtime_error {
  public:
    Full() : std::runtime_error("Registry full") {}
  };

  using SectionCallback = boost::function<void(const std::string& section)>;
  using KeyCallback = boost::function<void(const std::string& key, const std::string& value)>;

  virtual ~Registry() = default;

  /// Returns the whole registry as one line of JSON without whitespace, in ascending byte order of the names. Each
  /// section is an object whose values are strings. Throws std::runtime_error if a name or value is not UTF-8.
  virtual std::string ReadAllJson() = 0;

  /// Merges a JSON text into the registry, then flushes. A string sets a key; null deletes a section or a key;
  /// everything that is not in the text stays unchanged. Throws InvalidJson, InvalidName or Full, or std::runtime_error
  /// with a text that begins with "parse error" if the text is not JSON. The registry is then unchanged. If the flush
  /// fails, throws its exception; the merged data is then in memory, but not in the file yet.
  virtual void WriteJson(const std::string& registry) = 0;

  /// Returns the value, or the empty string if the key does not exist. Does not check the name of the key if the
  /// section does not exist.
  virtual std::string Read(const std::string& section, const std::string& key) = 0;

  /// Creates or overwrites a key. Throws Full if the text would be too long; the registry then returns to the last
  /// accepted text. Deliberate quirk: an invalid key name in a new section leaves that section empty, because the
  /// section is created before the key is checked.
  virtual void Write(const std::string& section, const std::string& key, const std::string& value) = 0;

  virtual bool KeyExists(const std::string& section, const std::string& key) = 0;
  virtual bool SectionExists(const std::string& section) = 0;

  /// These do nothing if the key or section does not exist. Deleting the last key of a section does not delete the
  /// section.
  virtual void DeleteKey(const std::string& section, const std::string& key) = 0;
  virtual void DeleteSection(const std::string& section) = 0;
  virtual void DeleteAll() = 0;

  /// Calls `callback` once for each section, in ascending byte order, while holding the lock of the implementation.
  /// Throws boost::bad_function_call if `callback` is empty and there is a section.
  virtual void SectionList(const SectionCallback& callback) = 0;

  /// Like SectionList, for the keys of one section. A missing section has no keys.
  virtual void KeyList(const std::string& section, const KeyCallback& callback) = 0;

  /// Writes pending changes now.
  virtual void Flush() = 0;
};
