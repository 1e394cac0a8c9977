// The members of the objects of a JSON text, millions of them if need be: 16 bytes for each, and no copy of a name that
// is written without escapes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "registry/stop_check.h"

/// A member of an object, without its name and its value: JsonNames has the name, the text has the value.
struct JsonMember {
  enum class Kind : std::uint8_t {
    Null,      // delete
    Accepted,  // a section that is an object, a key that is a string
    Refused,   // anything else
  };

  static constexpr std::uint32_t kGreatestNumber = (1U << 27) - 1;

  std::uint64_t chunk = 0;  // while members are sorted: the part of the name that is looked at
  std::uint32_t name = 0;   // for JsonNames
  Kind kind : 2;
  bool is_ascii : 1;          // the name
  bool is_last_of_name : 1;   // whether the next member has another name, letter case apart
  bool is_last_key : 1;       // of its section
  std::uint32_t number : 27;  // of a section: its first key; of an accepted key: the size of the value
};
static_assert(sizeof(JsonMember) == 16, "the size is what bounds the memory");

/// The names of the members of one text, which must outlive this object.
class JsonNames {
public:
  explicit JsonNames(const std::string& text) : m_text(text) {}

  /// Returns the member for `name`, which the text has up to `end`, closing quote included. Its value is not set.
  JsonMember MakeMember(const std::string& name, std::size_t end);

  /// The view lives until the next call of MakeMember.
  std::string_view Name(const JsonMember& member) const;

  /// Where the text goes on after the member's name.
  std::size_t EndOfName(const JsonMember& member) const;

  /// Drops each member from `first` on of whose name, as written, there is a later one. Sorts the others by name,
  /// letter case apart; of names that differ in their case only, the ones with capitals come first. Takes time in
  /// proportion to the size of the names, memory in proportion to their number. Throws WorkStopped, std::bad_alloc.
  void SortAndKeepLast(std::vector<JsonMember>& members, std::size_t first, StopCheck& stop) const;

  /// Sorts by name, letter case apart; members of the same name are in no particular order.
  void SortByFoldedName(std::vector<JsonMember>& members, StopCheck& stop) const;

private:
  class Sorter;

  // A name with escapes, decoded. The names are in the order of the text.
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
