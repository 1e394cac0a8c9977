// The expected replies of the registry: a second implementation, as plain as possible. It shares no code with the
// daemon, so that both cannot have the same bug.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "tests/model/text_form.h"

namespace model {

constexpr std::size_t kCapacity = 16383;

/// A call of a method. All arguments are strings.
struct Call {
  std::string member;
  std::vector<std::string> arguments;
};

struct Reply {
  std::string type;  // its signature, or "error"
  // Strings, "true" or "false", alternate keys and values, or the name and the message of an error. InvalidName has a
  // third item, which does not cross the bus: the invalid name.
  std::vector<std::string> items;
};

/// Returns an error of the registry: the end of its name, its message and more.
Reply RegistryError(std::vector<std::string> items);

/// Returns whether the reply is as expected. Of an error, only the items that both have are compared, so an expected
/// error without a message has any message. An expected message that ends with a space is the beginning of a message.
bool IsExpected(const Reply& actual, const Reply& expected);

/// Returns the text of the reply, without the rest of a long one.
std::string Describe(const Reply& reply);

/// Maps each method to the number of its arguments.
extern const std::map<std::string, std::size_t> kMethods;

class RegistryModel {
public:
  explicit RegistryModel(const std::string& stored_text = "", std::size_t capacity = kCapacity);

  /// Executes the call and returns its reply. Ignores surplus arguments.
  Reply Apply(const Call& call);

  /// Returns calls whose replies have the whole contents of the registry.
  std::vector<Call> CallsForContents() const;

  const model::Sections& Sections() const { return m_sections; }
  /// The text that a flush would write to the store.
  const std::string& AcceptedText() const { return m_accepted_text; }
  /// The text in the store.
  const std::string& StoredText() const { return m_stored_text; }

private:
  Reply Execute(const std::string& member, const std::vector<std::string>& arguments);
  Reply ExecuteInSection(const std::string& member, const std::vector<std::string>& arguments);
  void Merge(const std::string& text);
  void Save();

  model::Sections m_sections;
  std::string m_accepted_text;
  std::string m_stored_text;
  std::size_t m_capacity;
};

}  // namespace model
