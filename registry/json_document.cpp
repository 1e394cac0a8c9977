#include "registry/json_document.h"

#include <algorithm>
#include <stdexcept>

#include "registry/json_printer.h"
#include "registry/refused_json.h"

namespace {

std::string Quoted(const std::string& text) {
  std::string quoted;
  AppendJsonString(quoted, text);
  return quoted;
}

// Receives a value that is a string.
class StringValue : public JsonHandler {
public:
  void String(const std::string& value) override { m_text = value; }
  const std::string& Text() const { return m_text; }

private:
  std::string m_text;
};

}  // namespace

// Receives the parts of the text and fills the document.
class JsonDocument::Reader : public JsonHandler {
public:
  Reader(JsonDocument& document, StopCheck& stop) : m_document(document), m_stop(stop) {}

  void Name(const std::string& name, std::size_t end) override {
    if (IsMemberNext()) {
      m_member = m_document.m_names.MakeMember(name, end);
    }
  }

  void Null() override { Value(Kind::Null, 0); }
  void String(const std::string& value) override { Value(m_depth == 2 ? Kind::Accepted : Kind::Refused, value.size()); }
  void Other(const std::string&) override { Value(Kind::Refused, 0); }

  void Start(bool is_object) override {
    if (m_depth == 0) {
      m_document.m_is_object = is_object;
      if (is_object) {
        m_document.TakeRoomForMembers();
      }
    } else if (m_depth == 1) {
      m_is_in_section = is_object && m_document.m_is_object;
      Value(is_object ? Kind::Accepted : Kind::Refused, m_document.m_keys.size());
    } else {
      Value(Kind::Refused, 0);
    }
    ++m_depth;
  }

  void End() override {
    --m_depth;
    if (m_depth == 1 && m_is_in_section) {
      EndSection();
      m_is_in_section = false;
    } else if (m_depth == 0) {
      m_document.m_names.SortAndKeepLast(m_document.m_sections, 0, m_stop);
    }
  }

private:
  // Returns whether the next value is a section or a key.
  bool IsMemberNext() const { return m_depth == 1 ? m_document.m_is_object : m_depth == 2 && m_is_in_section; }

  void Value(Kind kind, std::size_t number) {
    if (IsMemberNext()) {
      m_member.kind = kind;
      m_member.number = static_cast<std::uint32_t>(std::min<std::size_t>(number, JsonMember::kGreatestNumber)) &
                        JsonMember::kGreatestNumber;
      (m_depth == 1 ? m_document.m_sections : m_document.m_keys).push_back(m_member);
    }
  }

  void EndSection() {
    JsonMember& section = m_document.m_sections.back();
    const std::size_t first_key = section.number;
    m_document.m_names.SortAndKeepLast(m_document.m_keys, first_key, m_stop);
    if (m_document.m_keys.size() == first_key) {
      section.number = JsonMember::kGreatestNumber;
    } else {
      m_document.m_keys.back().is_last_key = true;
    }
  }

  JsonDocument& m_document;
  StopCheck& m_stop;
  JsonMember m_member{};
  std::size_t m_depth = 0;
  bool m_is_in_section = false;
};

JsonDocument::JsonDocument(const std::string& text) : m_text(text), m_names(text) {
  if (text.size() > kLongestText) {
    throw std::length_error("JSON text too long");
  }
}

// Reserves memory for the maximum number of members, so that they are never moved, which would need twice the memory.
// Memory that is not used is never touched.
void JsonDocument::TakeRoomForMembers() {
  m_sections.reserve(m_text.size() / kShortestMember);
  m_keys.reserve(m_text.size() / kShortestMember);
}

JsonDocument JsonDocument::Parse(const std::string& text, StopCheck stop) {
  JsonDocument document(text);
  Reader reader(document, stop);
  ParseJson(text, reader, stop);
  return document;
}

JsonDocument::Range JsonDocument::KeysOf(const JsonMember& section) const {
  if (section.kind != Kind::Accepted || section.number == JsonMember::kGreatestNumber) {
    return {nullptr, nullptr};
  }
  const JsonMember* const first = &m_keys[section.number];
  const JsonMember* last = first;
  while (!last->is_last_key) {
    ++last;
  }
  return {first, last + 1};
}

std::string JsonDocument::ValueOf(const JsonMember& member, StopCheck stop) const {
  const std::size_t colon = m_text.find(':', m_names.EndOfName(member));
  const std::string_view text = std::string_view(m_text).substr(colon + 1);
  if (member.kind == Kind::Accepted) {
    StringValue value;
    ParseJsonValue(text, value, stop);
    return value.Text();
  }
  RefusedJson value(Quoted);
  ParseJsonValue(text, value, stop);
  return value.Text();
}
