// What the registry is expected to answer, for the load client. Kept apart from the daemon's code on purpose: the two
// must not share a mistake.
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

/// A reply, or what is expected of one.
struct Reply {
  std::string type;  // its signature, or "error"
  // The string, "true" or "false", the list, keys and values in turn, or an error's name and message.
  std::vector<std::string> items;

  bool operator==(const Reply& other) const { return type == other.type && items == other.items; }
};

std::string Describe(const Reply& reply);

Reply RegistryError(const std::string& name, const std::string& message);

/// One change of a merge: without a value it deletes the key, without a key the section.
struct Change {
  std::string section;
  bool has_key;
  std::string key;
  bool has_value;
  std::string value;
};

std::string Fold(const std::string& name);

/// The registry as a JSON object without its braces, of the sections whose names begin with `prefix`.
std::string JsonMembers(const Sections& sections, const std::string& prefix);
std::string JsonString(const std::string& text);

/// The table of all clients. A change is made when its call is sent: each client's calls are carried out in their
/// order, and none touches the sections of another.
class Model {
public:
  static constexpr std::size_t kCapacity = 16383;

  const Sections& All() const { return m_sections; }

  /// The table of those sections whose names begin with `prefix`.
  Model Part(const std::string& prefix) const;

  /// The length of the text.
  std::size_t Size() const { return m_size; }
  std::string Text() const;

  /// The reply to a call other than WriteJson, which it carries out. Names are valid.
  Reply Apply(const Call& call);

  /// The reply to a WriteJson with these changes.
  Reply Merge(const std::vector<Change>& changes);

private:
  const Section* Find(const std::string& section) const;

  Sections m_sections;
  std::size_t m_size = 0;
};
