// The definition of the event. From it, LTTng's macros generate the tracepoint (in the program) and its probes (in the
// shared object). LTTng includes this file several times with different macros; this explains the unusual guard.
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER plinthware_platform

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "lib/platform/tracepoint_events.h"

#if !defined(LEDGERD_TRACEPOINT_EVENTS_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define LEDGERD_TRACEPOINT_EVENTS_H

#include <lttng/tracepoint.h>

LTTNG_UST_TRACEPOINT_EVENT(plinthware_platform, td_event,
                           LTTNG_UST_TP_ARGS(const char*, desc_argument, int, value_argument),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_string(desc, desc_argument)
                                                   lttng_ust_field_integer(int, value, value_argument)))

#endif

#include <lttng/tracepoint-event.h>
