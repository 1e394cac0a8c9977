// The members of the objects of a JSON text. There can be millions of members: each takes 16 bytes, and names without
// escapes are not copied.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "registry/stop_check.h"

/// A member of an object, without its name and value. The name is in JsonNames, the value is in the text.
struct JsonMember {
  enum class Kind : std::uint8_t {
    Null,      // deletes a section or a key
    Accepted,  // a section that is an object, or a key that is a string
    Refused,   // anything else
  };

  static constexpr std::uint32_t kGreatestNumber = (1U << 27) - 1;

  std::uint64_t chunk = 0;  // while members are sorted: the part of the name that is compared
  std::uint32_t name = 0;   // for JsonNames
  Kind kind : 2;
  bool is_ascii : 1;          // of the name
  bool is_last_of_name : 1;   // the name of the next member differs in more than case
  bool is_last_key : 1;       // of its section
  std::uint32_t number : 27;  // of a section: its first key; of an accepted key: the size of the value
};
static_assert(sizeof(JsonMember) == 16, "this size limits the memory of an import");

/// The names of the members of one text. The text must outlive this object.
class JsonNames {
public:
  explicit JsonNames(const std::string& text) : m_text(text) {}

  /// Returns a member with the name `name`. `end` is the offset in the text after the closing quote of the name. The
  /// value of the member is not set.
  JsonMember MakeMember(const std::string& name, std::size_t end);

  /// The view is valid until the next call of MakeMember.
  std::string_view Name(const JsonMember& member) const;

  /// Returns the offset in the text after the name.
  std::size_t EndOfName(const JsonMember& member) const;

  /// Works on the members from index `first` on. Keeps only the last member of each name, and sorts them by name
  /// without regard to case. Names that differ only in case are sorted in byte order, upper case first. The time is
  /// proportional to the size of the names, the memory to their number. Throws WorkStopped and std::bad_alloc.
  void SortAndKeepLast(std::vector<JsonMember>& members, std::size_t first, StopCheck& stop) const;

  /// Sorts by name without regard to case. The order of members with the same name is unspecified.
  void SortByFoldedName(std::vector<JsonMember>& members, StopCheck& stop) const;

private:
  class Sorter;

  // A name with escapes. m_decoded_text contains the decoded names, in the order of the text.
  struct Decoded {
    std::uint32_t begin;  // in m_decoded_text
    std::uint32_t end_in_text;
  };

  bool IsInText(const JsonMember& member) const { return member.name < m_text.size(); }
  std::string_view Beginning(const JsonMember& member, std::size_t from, std::size_t size) const;

  const std::string& m_text;
  std::string m_decoded_text;
  std::vector<Decoded> m_decoded;
};
