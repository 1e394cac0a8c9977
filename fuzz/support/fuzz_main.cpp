// What runs once before a fuzzer's first input.
#include "tests/support/private_mounts.h"

// Called by the fuzzing engine, and by the replay of the seeds.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A failed assertion must not reach the machine's kernel log. The stand-in stays mounted without its name.
  test_support::EnterPrivateMounts();
  test_support::LeavePrivateMounts();
  return 0;
}
