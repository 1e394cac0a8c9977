// The program's one trace sink. It stands alone so that a program links it as an object: nothing refers to it but the
// exit-time drain that it brings, and a static archive would drop it.
#include "lib/platform/trace.h"

namespace bramble {
namespace {

StderrTrace g_stderr_trace;

}  // namespace

BaseTrace& StderrSink() { return g_stderr_trace; }

}  // namespace bramble
