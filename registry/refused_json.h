// The compact text of a JSON array or object that the registry refuses, made from parser events. The text is all that
// is ever asked of such a value, so no tree is built of it.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

/// Takes the events of one value after the other. Only the beginning of a value that is large or deeply nested is kept:
/// it is refused just the same, with a shorter text. Of several members of one name the last one counts.
class RefusedJson {
public:
  /// `quote` returns a string as JSON text.
  explicit RefusedJson(std::string (*quote)(const std::string& text)) : m_quote(quote) {}

  /// Whether the value's end is still to come.
  bool IsOpen() const { return m_depth != 0; }

  void Start(bool is_object);
  void End();

  /// The name of the next member.
  void Key(const std::string& name) { m_key = name; }

  /// Adds a scalar of the given size, whose JSON text is asked for only if it is kept.
  template <typename Print>
  void Add(std::size_t size, Print print) {
    if (Fits(size)) {
      Insert(m_key, print());
    }
  }

  /// The text of the value that has ended last.
  const std::string& Text() const { return m_text; }

private:
  struct Container {
    bool is_object;
    std::string key;                             // its own name, if it is an object's member
    std::map<std::string, std::string> members;  // of an object: name to text
    std::string elements;                        // of an array: the texts, with commas between them
  };

  bool Fits(std::size_t size);
  void Insert(const std::string& key, const std::string& text);
  std::string TextOf(const Container& container) const;

  std::string (*m_quote)(const std::string& text);
  std::vector<Container> m_open;  // outermost first
  std::string m_key;
  std::string m_text;
  std::size_t m_depth = 0;  // all open containers, skipped ones too
  std::size_t m_skipped_depth = 0;
  std::size_t m_elements = 0;
  std::size_t m_size = 0;
};
