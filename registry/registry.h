// The settings database as its users see it: named sections of keys with string values.
#pragma once

#include <boost/function.hpp>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

/// The longest text, in bytes, that the daemon's registry file may have.
constexpr std::uint32_t kRegistryCapacity = 16383;

/// All strings are byte strings. Names of sections and keys are 7-bit ASCII and case-insensitive: every operation folds
/// 'A'..'Z' to lower case and throws InvalidName for a name with a byte of 0x80 or above. The empty name is valid.
/// Values are arbitrary and kept as given. Implementations may add exceptions of their store and std::bad_alloc.
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

  /// JSON text that is not an object of objects of strings.
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

  /// The whole registry as one line of JSON, an object of objects of strings, without whitespace and in ascending byte
  /// order of the names. Throws std::runtime_error if a name or value is not UTF-8.
  virtual std::string ReadAllJson() = 0;

  /// Merges a JSON text into the registry and flushes it. A null deletes a section or a key; what the text does not
  /// name stays. Throws InvalidJson, InvalidName, Full, and std::runtime_error with a text that begins "parse error"
  /// for what is not JSON: nothing has then changed. Throws what the flush throws: the merge then stands, unwritten.
  virtual void WriteJson(const std::string& registry) = 0;

  /// The value, or the empty string if there is none. The key's name is not checked if the section is missing.
  virtual std::string Read(const std::string& section, const std::string& key) = 0;

  /// Creates or overwrites. Throws Full, and the registry is then as it was last accepted. An invalid key in a new
  /// section leaves that section behind, empty: deliberate, the section is made before the key is checked.
  virtual void Write(const std::string& section, const std::string& key, const std::string& value) = 0;

  virtual bool KeyExists(const std::string& section, const std::string& key) = 0;
  virtual bool SectionExists(const std::string& section) = 0;

  /// Deleting what does not exist does nothing. A section stays when its last key goes.
  virtual void DeleteKey(const std::string& section, const std::string& key) = 0;
  virtual void DeleteSection(const std::string& section) = 0;
  virtual void DeleteAll() = 0;

  /// Calls back once for each section in ascending byte order, with the implementation's lock held. An empty callback
  /// throws boost::bad_function_call if there is a section.
  virtual void SectionList(const SectionCallback& callback) = 0;

  /// As SectionList, for the keys of one section; a missing section has none.
  virtual void KeyList(const std::string& section, const KeyCallback& callback) = 0;

  /// Writes out now what is not written yet.
  virtual void Flush() = 0;
};
