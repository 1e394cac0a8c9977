// Fuzzer of the text form of the registry. The parser must agree with the model on any bytes. The written text must be
// read back as the same table, except for two kinds of keys.
#include <string>

#include "fuzz/support/fuzzer.h"
#include "registry/registry_format.h"

namespace {

// Returns false if a name begins with "[", or a name and its value are empty.
bool SurvivesReload(const RegistrySections& sections) {
  for (const auto& section : sections) {
    for (const auto& [key, value] : section.second) {
      if (key.empty() ? value.empty() : key[0] == '[') {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

void fuzz::Run(Input input) {
  const std::string text = input.TakeRest();
  const RegistrySections sections = ParseRegistry(text);
  Require(sections == model::Parse(text), "the text is parsed as by the model");

  const std::string written = SerialiseRegistry(sections);
  RequireEqual(written, model::Serialise(sections), "the written text");

  const RegistrySections read_back = ParseRegistry(written);
  Require(read_back == model::Parse(written), "the written text is parsed as by the model");
  Require((read_back == sections) == SurvivesReload(sections), "the table is read back if it can be");
}
