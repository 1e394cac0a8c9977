// The compact text of a JSON value that the registry refuses. No tree is built, because only the text is needed.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "registry/json_parser.h"

/// Receives the parts of one value. Keeps only the beginning of a large or deeply nested value; the value is still
/// refused, with a shorter text. If an object has several members with the same name, the last one wins.
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

  /// Returns the text of the value. The value must be complete.
  const std::string& Text() const { return m_text; }

private:
  struct Container {
    bool is_object;
    std::string name;                            // if the container is a member of an object
    std::map<std::string, std::string> members;  // of an object: names to texts
    std::string elements;                        // of an array: texts, separated by commas
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
