// The compact text of a JSON value that the registry refuses. The text is all that is ever asked of such a value, so no
// tree is built of it.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "registry/json_parser.h"

/// Takes the parts of one value. Only the beginning of a value that is large or deeply nested is kept: it is refused
/// just the same, with a shorter text. Of several members of one name the last one counts.
class RefusedJson : public JsonHandler {
public:
  /// `quote` returns a string as JSON text.
  explicit RefusedJson(std::string (*quote)(const std::string& text)) : m_quote(quote) {}

  void Name(const std::string& name, std::size_t) override { m_name = name; }
  void Null() override { Other("null"); }
  void String(const std::string& value) override;
  void Other(const std::string& token) override;
  void Start(bool is_object) override;
  void End() override;

  /// The text of the value, once it has ended.
  const std::string& Text() const { return m_text; }

private:
  struct Container {
    bool is_object;
    std::string name;                            // its own, if it is an object's member
    std::map<std::string, std::string> members;  // of an object: name to text
    std::string elements;                        // of an array: the texts, with commas between them
  };

  bool Fits(std::size_t size);
  void Insert(const std::string& name, const std::string& text);
  std::string TextOf(const Container& container) const;

  std::string (*m_quote)(const std::string& text);
  std::vector<Container> m_open;  // outermost first
  std::string m_name;
  std::string m_text;
  std::size_t m_skipped_depth = 0;  // open containers that are not kept
  std::size_t m_elements = 0;
  std::size_t m_size = 0;
};
