// The D-Bus library never drops its last reference to a connection. Only a build with a leak checker calls this
// function.
extern "C" const char* __lsan_default_suppressions() { return "leak:libdbus-1.so"; }
