// Tests need an allocation to fail as it does without a sanitizer, which by default ends the program. Only builds with
// an address or thread sanitizer call these functions.
extern "C" {

const char* __asan_default_options() { return "allocator_may_return_null=1"; }

const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

}  // extern "C"
