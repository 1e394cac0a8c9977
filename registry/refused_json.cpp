#include "registry/refused_json.h"

#include <utility>

namespace {

// How much is kept of a value.
constexpr std::size_t kMostElements = 1000;
constexpr std::size_t kGreatestSize = std::size_t{64} * 1024;
constexpr std::size_t kGreatestDepth = 100;

}  // namespace

void RefusedJson::Start(bool is_object) {
  if (m_depth == 0) {
    m_elements = 0;
    m_size = 0;
    m_open.clear();
    m_open.push_back({is_object, {}, {}, {}});
  } else if (m_skipped_depth != 0 || m_open.size() == kGreatestDepth || !Fits(0)) {
    ++m_skipped_depth;
  } else {
    m_open.push_back({is_object, m_key, {}, {}});
  }
  ++m_depth;
}

void RefusedJson::End() {
  if (m_skipped_depth != 0) {
    --m_skipped_depth;
  } else {
    const Container ended = std::move(m_open.back());
    m_open.pop_back();
    if (m_open.empty()) {
      m_text = TextOf(ended);
    } else {
      Insert(ended.key, TextOf(ended));
    }
  }
  --m_depth;
}

bool RefusedJson::Fits(std::size_t size) {
  if (m_skipped_depth != 0 || ++m_elements > kMostElements) {
    return false;
  }
  m_size += size + (m_open.back().is_object ? m_key.size() : 0);
  return m_size <= kGreatestSize;
}

void RefusedJson::Insert(const std::string& key, const std::string& text) {
  Container& parent = m_open.back();
  if (parent.is_object) {
    parent.members[key] = text;
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
