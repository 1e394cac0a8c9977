#include "registry/refused_json.h"

#include <algorithm>
#include <utility>

namespace {

// How many bytes of a value are kept.
constexpr std::size_t kMostElements = 1000;
constexpr std::size_t kGreatestSize = std::size_t{64} * 1024;
constexpr std::size_t kGreatestDepth = 100;

// The first characters of the UTF-8 text.
std::string Beginning(const std::string& text) {
  std::size_t size = std::min(text.size(), kGreatestSize);
  while (size < text.size() && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) {
    --size;
  }
  return text.substr(0, size);
}

}  // namespace

void RefusedJson::String(const std::string& value) {
  if (m_open.empty()) {
    m_text = m_quote(Beginning(value));
  } else if (Fits(value.size())) {
    Insert(m_name, m_quote(value));
  }
}

void RefusedJson::Other(const std::string& token) {
  if (m_open.empty()) {
    m_text = PrintJsonScalar(Beginning(token));
  } else if (Fits(0)) {
    Insert(m_name, PrintJsonScalar(Beginning(token)));
  }
}

void RefusedJson::Start(bool is_object) {
  if (m_open.empty()) {
    m_open.push_back({is_object, {}, {}, {}});
  } else if (m_skipped_depth != 0 || m_open.size() == kGreatestDepth || !Fits(0)) {
    ++m_skipped_depth;
  } else {
    m_open.push_back({is_object, m_name, {}, {}});
  }
}

void RefusedJson::End() {
  if (m_skipped_depth != 0) {
    --m_skipped_depth;
    return;
  }
  const Container ended = std::move(m_open.back());
  m_open.pop_back();
  if (m_open.empty()) {
    m_text = TextOf(ended);
  } else {
    Insert(ended.name, TextOf(ended));
  }
}

bool RefusedJson::Fits(std::size_t size) {
  if (m_skipped_depth != 0 || ++m_elements > kMostElements) {
    return false;
  }
  m_size += size + (m_open.back().is_object ? m_name.size() : 0);
  return m_size <= kGreatestSize;
}

void RefusedJson::Insert(const std::string& name, const std::string& text) {
  Container& parent = m_open.back();
  if (parent.is_object) {
    parent.members[name] = text;
  } else {
    parent.elements += parent.elements.empty() ? text : ',' + text;
  }
}

std::string RefusedJson::TextOf(const Container& container) const {
  if (!container.is_object) {
    return '[' + container.elements + ']';
  }
  std::string text = "{";
  for (const auto& [name, value] : container.members) {
    text += text.size() == 1 ? "" : ",";
    text += m_quote(name) + ':' + value;
  }
  return text + '}';
}
