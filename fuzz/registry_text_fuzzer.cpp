// Fuzzer of the text form of the registry. The parser must agree with the model on any bytes. The written text must be
// read back as the same table, except for the keys that SurvivesReload names.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/support/require.h"
#include "fuzz/support/text_model.h"
#include "registry/registry_format.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const RegistrySections sections = ParseRegistry(text);
  fuzz::Require(sections == fuzz::ModelParse(text), "the text is parsed as by the model");

  const std::string written = SerialiseRegistry(sections);
  fuzz::RequireEqual(written, fuzz::ModelSerialise(sections), "the written text");

  const RegistrySections read_back = ParseRegistry(written);
  fuzz::Require(read_back == fuzz::ModelParse(written), "the written text is parsed as by the model");
  fuzz::Require((read_back == sections) == fuzz::SurvivesReload(sections), "the table is read back if it can be");
  return 0;
}
