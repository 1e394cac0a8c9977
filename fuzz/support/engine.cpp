// What the fuzzing engine calls.
#include <cstddef>
#include <cstdint>

#include "fuzz/support/fuzzer.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Prepare();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Run(fuzz::Input({reinterpret_cast<const char*>(data), size}));
  return 0;
}
