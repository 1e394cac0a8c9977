// The registry's text form: any bytes parse to what the model says, and what is written reads back.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/support/require.h"
#include "fuzz/support/text_model.h"
#include "registry/registry_format.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const RegistrySections sections = ParseRegistry(text);
  fuzz::Require(sections == fuzz::ModelParse(text), "the text is parsed as the model does");

  const std::string written = SerialiseRegistry(sections);
  fuzz::RequireEqual(written, fuzz::ModelSerialise(sections), "the text that is written");

  const RegistrySections read_back = ParseRegistry(written);
  fuzz::Require(read_back == fuzz::ModelParse(written), "the text that is written is parsed as the model does");
  fuzz::Require((read_back == sections) == fuzz::SurvivesReload(sections), "the table reads back, but for odd keys");
  return 0;
}
