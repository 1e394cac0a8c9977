// The expected replies of the registry, for the load client. The model deliberately shares no code with the daemon, so
// that both cannot have the same bug.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

using Section = std::map<std::string, std::string>;
using Sections = std::map<std::string, Section>;

struct Call {
  std::string member;
  std::vector<std::string> arguments;
};

/// A reply, or the expected reply.
struct Reply {
  std::string type;  // its signature, or "error"
  // A string, "true" or "false", a list, alternate keys and values, or the name and the message of an error.
  std::vector<std::string> items;

  bool operator==(const Reply& other) const { return type == other.type && items == other.items; }
};

std::string Describe(const Reply& reply);

Reply RegistryError(const std::string& name, const std::string& message);

/// One change of a merge. Without a value it deletes the key. Without a key it deletes the section.
struct Change {
  std::string section;
  bool has_key;
  std::string key;
  bool has_value;
  std::string value;
};

std::string Fold(const std::string& name);

/// Returns the members of the registry's JSON object, without its braces, whose names begin with `prefix`.
std::string JsonMembers(const Sections& sections, const std::string& prefix);
std::string JsonString(const std::string& text);

/// The table of all clients. It changes when a call is sent: the daemon executes the calls of one client in their
/// order, and no client changes the sections of another.
class Model {
public:
  static constexpr std::size_t kCapacity = 16383;

  const Sections& All() const { return m_sections; }

  /// Returns the table of the sections whose names begin with `prefix`.
  Model Part(const std::string& prefix) const;

  /// The length of the text in bytes.
  std::size_t Size() const { return m_size; }
  std::string Text() const;

  /// Executes a call other than WriteJson and returns the reply. The names must be valid.
  Reply Apply(const Call& call);

  /// Executes a WriteJson with these changes and returns the reply.
  Reply Merge(const std::vector<Change>& changes);

private:
  const Section* Find(const std::string& section) const;

  Sections m_sections;
  std::size_t m_size = 0;
};
