// Parses a JSON text that a caller wants to merge into the registry, and keeps its sections and keys.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "registry/json_members.h"
#include "registry/json_parser.h"
#include "registry/stop_check.h"

/// A parsed JSON text with two levels: the members of the top-level object are sections, their members are keys. If an
/// object has several members with the same name, the last one wins. Each level is in ascending byte order of the names
/// in lower case. Names that differ only in case are in ascending byte order as written.
///
/// Any text can be parsed without deep recursion. The time grows little faster than the size of the text, and the
/// memory is at most four times the size. Values are decoded only when a caller gets them.
class JsonDocument {
public:
  using Kind = JsonMember::Kind;

  /// Consecutive members from `begin` up to, but not including, `end`.
  class Range {
  public:
    Range(const JsonMember* begin, const JsonMember* end) : m_begin(begin), m_end(end) {}
    const JsonMember* begin() const { return m_begin; }
    const JsonMember* end() const { return m_end; }

  private:
    const JsonMember* m_begin;
    const JsonMember* m_end;
  };

  /// The text must outlive the document. Throws JsonSyntaxError, WorkStopped, std::bad_alloc, and std::length_error for
  /// a text of half a gigabyte or more.
  static JsonDocument Parse(const std::string& text, StopCheck stop = StopCheck());
  static JsonDocument Parse(std::string&& text, StopCheck stop = StopCheck()) = delete;

  /// Returns whether the top-level value is an object. If not, there are no sections.
  bool IsObject() const { return m_is_object; }

  const std::vector<JsonMember>& Sections() const { return m_sections; }

  /// Returns an empty range for a section that is not an object.
  Range KeysOf(const JsonMember& section) const;

  /// Returns the name as written. The view is valid as long as the document.
  std::string_view NameOf(const JsonMember& member) const { return m_names.Name(member); }

  /// Returns the size in bytes of the value of a key whose kind is Accepted.
  static std::size_t SizeOf(const JsonMember& key) { return key.number; }

  /// Returns the value of a key whose kind is Accepted. For any other member, returns its value as compact JSON text;
  /// if that text is large, only its beginning. Throws WorkStopped and std::bad_alloc.
  std::string ValueOf(const JsonMember& member, StopCheck stop = StopCheck()) const;

  /// Sorts members of this document by name without regard to case. The order of members with the same name is
  /// unspecified.
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
