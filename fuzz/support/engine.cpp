// What the fuzzing engine calls, and so does replay.cpp.
#include <cstddef>
#include <cstdint>

#include "fuzz/support/fuzzer.h"
#include "tests/unit/support/private_mounts.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A failed assertion must not reach the machine's kernel log. The file over /dev/kmsg stays mounted after its name is
  // removed.
  test_support::EnterPrivateMounts();
  test_support::LeavePrivateMounts();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Run(fuzz::Input({reinterpret_cast<const char*>(data), size}));
  return 0;
}
