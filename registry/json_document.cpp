#include "registry/json_document.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>

#include "lib/platform/escape.h"
#include "lib/platform/string_operations.h"
#include "registry/json_printer.h"
#include "registry/refused_json.h"

namespace {

using nlohmann::json;

// The library's values are used for scalars only: those of arrays and objects allocate when they are destroyed, which
// ends the process when there is no memory.

std::string Quoted(const std::string& text) {
  std::string quoted;
  AppendJsonString(quoted, text);
  return quoted;
}

// Cuts each run of digits to its first two: what was a number stays one, what was none stays none.
std::string ShortenDigits(const std::string& token) {
  std::string shortened;
  std::size_t digits = 0;
  for (const char c : token) {
    digits = c >= '0' && c <= '9' ? digits + 1 : 0;
    if (digits <= 2) {
      shortened += c;
    }
  }
  return shortened;
}

// Makes the numbers smaller that no double can hold, and leaves all else, right or wrong, as it is: the JSON library
// reports such a number as if the text ended there.
std::string ShrinkHugeNumbers(const std::string& text) {
  static const char kNumberCharacters[] = "0123456789+-.eE";
  std::string shrunk;
  shrunk.reserve(text.size());
  std::size_t position = 0;
  while (position < text.size()) {
    const std::size_t start = position;
    if (text[position] == '"') {
      // A string, up to its closing quote or the end of the text.
      for (++position; position < text.size() && text[position] != '"'; ++position) {
        position += text[position] == '\\' ? 1 : 0;
      }
      position = std::min(position + 1, text.size());
      shrunk.append(text, start, position - start);
    } else if (text[position] == '-' || (text[position] >= '0' && text[position] <= '9')) {
      position = std::min(text.find_first_not_of(kNumberCharacters, position), text.size());
      const std::string token = text.substr(start, position - start);
      shrunk += std::isinf(std::strtod(token.c_str(), nullptr)) ? ShortenDigits(token) : token;
    } else {
      shrunk += text[position++];
    }
  }
  return shrunk;
}

// The part of the library's text that names the unexpected thing, behind a beginning that stays the same from one
// version of the library to the next. The quoted end of the input can break off within a character.
std::string SyntaxErrorText(const std::string& library_text) {
  static const std::string kSeparator = " - ";
  static const std::string kUnexpected = "unexpected ";
  const std::size_t separator = library_text.find(kSeparator);
  std::string reason =
      separator == std::string::npos ? library_text : library_text.substr(separator + kSeparator.size());
  if (reason.compare(0, kUnexpected.size(), kUnexpected) == 0) {
    reason.erase(0, kUnexpected.size());
  }
  reason.resize(std::min(reason.size(), bramble::kLongestFormattedString));
  return bramble::strprintf("parse error - unexpected %s", escape::AsciiCopy(reason).c_str());
}

}  // namespace

// Receives the parser's events and fills the document. The members' names and types are those that the JSON library
// asks for; each returns whether parsing shall go on.
class JsonDocument::Reader {
public:
  explicit Reader(JsonDocument& document) : m_document(document) {}

  bool null() { return Scalar(nullptr, Kind::Null); }
  bool boolean(bool value) { return Scalar(value, Kind::Refused); }
  bool number_integer(json::number_integer_t value) { return Scalar(value, Kind::Refused); }
  bool number_unsigned(json::number_unsigned_t value) { return Scalar(value, Kind::Refused); }
  bool number_float(json::number_float_t value, const std::string&) { return Scalar(value, Kind::Refused); }
  bool binary(json::binary_t&) { return false; }  // no event of JSON text

  bool string(std::string& value) {
    if (m_level == Level::Key && !m_refused.IsOpen()) {
      AddMember(Kind::Accepted, value);
      return true;
    }
    return Scalar(value, Kind::Refused);
  }

  bool key(std::string& name) {
    if (m_refused.IsOpen()) {
      m_refused.Key(name);
    } else {
      (m_level == Level::Section ? m_section_name : m_key_name) = Store(name);
      m_document.m_text += '\0';  // no two names have the same offset, not even empty ones
    }
    return true;
  }

  bool start_object(std::size_t) {
    if (m_refused.IsOpen() || m_level == Level::Key) {
      m_refused.Start(true);
    } else if (m_level == Level::Section) {
      const auto first_key = static_cast<std::uint32_t>(m_document.m_keys.size());
      m_document.m_sections.push_back({{m_section_name, Slice(), Kind::Accepted}, first_key, 0});
      m_level = Level::Key;
    } else {
      m_document.m_is_object = true;
      m_level = Level::Section;
    }
    return true;
  }

  bool start_array(std::size_t) {
    m_refused.Start(false);
    return true;
  }

  bool end_object() {
    if (m_refused.IsOpen()) {
      EndRefused();
    } else if (m_level == Level::Key) {
      EndSection();
      m_level = Level::Section;
    } else {
      KeepLastOfEachName(m_document.m_sections, 0);
    }
    return true;
  }

  bool end_array() {
    EndRefused();
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const json::exception& error) {
    m_error = error.what();
    m_number_too_large = error.id == kNumberOverflow;
    return false;
  }

  const std::string& Error() const { return m_error; }
  bool NumberTooLarge() const { return m_number_too_large; }

private:
  enum class Level { Top, Section, Key };

  static constexpr int kNumberOverflow = 406;

  bool Scalar(const json& value, Kind kind) {
    if (m_refused.IsOpen()) {
      m_refused.Add(value.is_string() ? value.get_ref<const std::string&>().size() : 0, [&] { return value.dump(); });
    } else if (m_level != Level::Top) {
      AddMember(kind, kind == Kind::Null ? std::string() : value.dump());
    }
    return true;
  }

  void EndRefused() {
    m_refused.End();
    if (!m_refused.IsOpen() && m_level != Level::Top) {
      AddMember(Kind::Refused, m_refused.Text());
    }
  }

  void AddMember(Kind kind, const std::string& text) {
    if (m_level == Level::Section) {
      m_document.m_sections.push_back({{m_section_name, Store(text), kind}, 0, 0});
    } else {
      m_document.m_keys.push_back({m_key_name, Store(text), kind});
    }
  }

  void EndSection() {
    SectionRecord& section = m_document.m_sections.back();
    KeepLastOfEachName(m_document.m_keys, section.first_key);
    section.key_count = static_cast<std::uint32_t>(m_document.m_keys.size() - section.first_key);
  }

  // Sorts the records from `first` on by name and drops all but the last one written of each name.
  template <typename Record>
  void KeepLastOfEachName(std::deque<Record>& records, std::size_t first) {
    const auto name = [this](const Record& record) { return m_document.View(record.name); };
    const auto begin = records.begin() + static_cast<std::ptrdiff_t>(first);
    // Names are stored as they are written, so of equal names the later one has the larger offset.
    std::sort(begin, records.end(), [&](const Record& a, const Record& b) {
      const int order = name(a).compare(name(b));
      return order != 0 ? order < 0 : a.name.offset < b.name.offset;
    });
    // Backwards, the last of each name comes first, which is the one that unique() keeps.
    const auto kept = std::unique(records.rbegin(), std::make_reverse_iterator(begin),
                                  [&](const Record& a, const Record& b) { return name(a) == name(b); });
    records.erase(begin, kept.base());
  }

  Slice Store(const std::string& text) {
    std::string& all = m_document.m_text;
    if (text.size() > std::numeric_limits<std::uint32_t>::max() - all.size()) {
      throw std::length_error("JSON text too long");
    }
    const Slice slice{static_cast<std::uint32_t>(all.size()), static_cast<std::uint32_t>(text.size())};
    all += text;
    return slice;
  }

  JsonDocument& m_document;
  Level m_level = Level::Top;
  Slice m_section_name;
  Slice m_key_name;
  RefusedJson m_refused{Quoted};
  std::string m_error;
  bool m_number_too_large = false;
};

JsonDocument JsonDocument::Parse(const std::string& text) {
  JsonDocument document;
  Reader reader(document);
  if (json::sax_parse(text, &reader)) {
    return document;
  }
  if (reader.NumberTooLarge()) {
    // A number is refused like any other, not a syntax error; what follows it must still be read.
    JsonDocument whole_document;
    Reader second_reader(whole_document);
    if (json::sax_parse(ShrinkHugeNumbers(text), &second_reader)) {
      return whole_document;
    }
    throw JsonSyntaxError(SyntaxErrorText(second_reader.Error()));
  }
  throw JsonSyntaxError(SyntaxErrorText(reader.Error()));
}

void JsonDocument::NormaliseNames(const std::function<std::string(const std::string&)>& normalise) {
  const auto rename = [&](MemberRecord& member) {
    const std::string name = normalise(std::string(View(member.name)));
    m_text.replace(member.name.offset, name.size(), name);
    member.name.size = static_cast<std::uint32_t>(name.size());
  };
  const auto by_name = [this](const MemberRecord& a, const MemberRecord& b) { return View(a.name) < View(b.name); };
  for (SectionRecord& section : m_sections) {
    rename(section);
    // The keys of a section that a later member of its name has replaced are still there, and not looked at.
    const auto first = m_keys.begin() + static_cast<std::ptrdiff_t>(section.first_key);
    const auto last = first + static_cast<std::ptrdiff_t>(section.key_count);
    std::for_each(first, last, rename);
    std::stable_sort(first, last, by_name);
  }
  std::stable_sort(m_sections.begin(), m_sections.end(), by_name);
}

JsonDocument::Section JsonDocument::SectionAt(std::size_t index) const {
  const SectionRecord& record = m_sections[index];
  return {View(record), record.first_key, record.key_count};
}

JsonDocument::Member JsonDocument::KeyAt(const Section& section, std::size_t index) const {
  return View(m_keys[section.first_key + index]);
}
