// The JSON text that a caller wants to merge into the registry, checked for syntax and reduced to what the registry can
// take. The JSON library stays out of this header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "registry/registry_format.h"

/// The text is not JSON. The text begins "parse error - unexpected ".
class JsonSyntaxError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// A parsed JSON text of two levels: members of the top-level object (sections), and members of those (keys), each
/// level in ascending byte order of the names as written. Of several members with the same name in one object the last
/// one counts.
///
/// Any text can be parsed without deep recursion, and in memory of a small multiple of its size: what the registry
/// refuses anyway is not kept, apart from the beginning of its text.
class JsonDocument {
public:
  enum class Kind : std::uint8_t {
    Null,      // delete
    Accepted,  // a section that is an object, a key that is a string
    Refused,   // anything else
  };

  /// A member of an object. The views live as long as the document.
  struct Member {
    std::string_view name;
    Kind kind;
    /// The value of an accepted key, the compact JSON text of a refused value, else empty.
    std::string_view text;
  };

  struct Section : Member {
    std::size_t first_key;
    std::size_t key_count;
  };

  /// Throws JsonSyntaxError, std::length_error for a text of some gigabytes, std::bad_alloc.
  static JsonDocument Parse(const std::string& text);

  /// Replaces each name by `normalise` of it, which must not be longer, and orders both levels by the new names.
  /// Members whose names have become the same keep the order that they had. Throws what `normalise` throws; the
  /// document is then useless.
  void NormaliseNames(const std::function<std::string(const std::string&)>& normalise);

  /// Whether the top-level value is an object. If not, there are no sections.
  bool IsObject() const { return m_is_object; }

  std::size_t SectionCount() const { return m_sections.size(); }

  /// The section at `index`, counted from 0 in ascending order of the names.
  Section SectionAt(std::size_t index) const;

  /// The key at `index` of `section.key_count`, likewise.
  Member KeyAt(const Section& section, std::size_t index) const;

private:
  class Reader;

  // Offsets into m_text, which the parser lets grow no further than they reach; half the size of a string view.
  struct Slice {
    std::uint32_t offset = 0;
    std::uint32_t size = 0;
  };

  struct MemberRecord {
    Slice name;
    Slice text;
    Kind kind;
  };

  struct SectionRecord : MemberRecord {
    std::uint32_t first_key;
    std::uint32_t key_count;
  };

  Member View(const MemberRecord& record) const { return {View(record.name), record.kind, View(record.text)}; }
  std::string_view View(Slice slice) const { return std::string_view(m_text).substr(slice.offset, slice.size); }

  bool m_is_object = false;
  std::string m_text;  // names, values and refused texts, one after the other
  // Not vectors, which hold everything three times while they grow.
  std::deque<MemberRecord> m_keys;
  std::deque<SectionRecord> m_sections;
};
