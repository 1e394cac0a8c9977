// The probes of the tracepoint are a shared object. Linked into the program, they would make it depend on LTTng and
// would start LTTng's threads before main().
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#include "lib/platform/tracepoint_events.h"
