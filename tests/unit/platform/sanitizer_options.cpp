// With an address or thread sanitizer, an allocation that cannot be had must fail as it does without one, since a test
// is about that; by default the sanitizer ends the program. Other builds do not call these functions.
extern "C" {

const char* __asan_default_options();
const char* __asan_default_options() { return "allocator_may_return_null=1"; }

const char* __tsan_default_options();
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

}  // extern "C"
