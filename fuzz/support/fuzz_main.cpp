// The set-up of a fuzzer. It runs once, before the first input.
#include "tests/unit/support/private_mounts.h"

// The fuzzing engine calls it, and so does replay.cpp.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A failed assertion must not reach the machine's kernel log. The file over /dev/kmsg stays mounted after its name is
  // removed.
  test_support::EnterPrivateMounts();
  test_support::LeavePrivateMounts();
  return 0;
}
