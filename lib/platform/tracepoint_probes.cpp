// The probes of the tracepoint, a shared object: linking them into the program would make LTTng a hard dependency and
// start its threads before main.
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#include "lib/platform/tracepoint_events.h"
