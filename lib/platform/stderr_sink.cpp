// The trace sink of the program. It has a file of its own so that programs can link it as an object: nothing refers to
// it, so a linker would drop it from a static archive, and with it the drain at exit.
#include "lib/platform/trace.h"

namespace bramble {
namespace {

StderrTrace g_stderr_trace;

}  // namespace

BaseTrace& StderrSink() { return g_stderr_trace; }

}  // namespace bramble
