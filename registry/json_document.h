// A JSON text that a caller wants to merge into the registry, checked for syntax and reduced to sections and keys.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "registry/json_members.h"
#include "registry/json_parser.h"
#include "registry/stop_check.h"

/// A parsed JSON text of two levels: members of the top-level object (sections), and members of those (keys). Of
/// several members with the same name in one object the last one counts. Each level is in ascending byte order of the
/// names in lower case; names that differ in their case only are in ascending byte order as written.
///
/// Any text can be parsed: without deep recursion, in time that grows little faster than its size, and in memory of at
/// most four times its size. Values stay in the text until they are asked for.
class JsonDocument {
public:
  using Kind = JsonMember::Kind;

  /// Members next to each other, from `begin` up to, not including, `end`.
  class Range {
  public:
    Range(const JsonMember* begin, const JsonMember* end) : m_begin(begin), m_end(end) {}
    const JsonMember* begin() const { return m_begin; }
    const JsonMember* end() const { return m_end; }

  private:
    const JsonMember* m_begin;
    const JsonMember* m_end;
  };

  /// The text must outlive the document. Throws JsonSyntaxError, WorkStopped, std::length_error for a text of half a
  /// gigabyte and more, std::bad_alloc.
  static JsonDocument Parse(const std::string& text, StopCheck stop = StopCheck());
  static JsonDocument Parse(std::string&& text, StopCheck stop = StopCheck()) = delete;

  /// Whether the top-level value is an object. If not, there are no sections.
  bool IsObject() const { return m_is_object; }

  const std::vector<JsonMember>& Sections() const { return m_sections; }

  /// None for a section that is no object.
  Range KeysOf(const JsonMember& section) const;

  /// As written. The view lives as long as the document.
  std::string_view NameOf(const JsonMember& member) const { return m_names.Name(member); }

  /// The size of an accepted key's value in bytes.
  static std::size_t SizeOf(const JsonMember& key) { return key.number; }

  /// The value of an accepted key, the compact JSON text of any other member's; of a large one only the beginning.
  /// Throws WorkStopped, std::bad_alloc.
  std::string ValueOf(const JsonMember& member, StopCheck stop = StopCheck()) const;

  /// Sorts members of this document by name, letter case apart; those of the same name are in no particular order.
  void SortByFoldedName(std::vector<JsonMember>& members, StopCheck& stop) const {
    m_names.SortByFoldedName(members, stop);
  }

private:
  class Reader;

  static constexpr std::size_t kShortestMember = 5;  // '"":0,'
  static constexpr std::size_t kLongestText = JsonMember::kGreatestNumber * std::size_t{4};

  explicit JsonDocument(const std::string& text);
  void TakeRoomForMembers();

  bool m_is_object = false;
  const std::string& m_text;
  JsonNames m_names;
  std::vector<JsonMember> m_sections;
  std::vector<JsonMember> m_keys;  // section by section
};
