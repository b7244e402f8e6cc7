/* Stand-in specifics of the event loop, used by the other stand-ins (the bus
 * client attaches hiredis to the same libevent base) and by tests.  The daemon
 * never calls these. */
#ifndef QN_THREAD_STANDIN_H
#define QN_THREAD_STANDIN_H

#include "qn_thread.h"

struct event_base;

struct event_base *qn_thread_master_event_base(struct qn_thread_master *m);

/* Length of one timer second in milliseconds (default from [loop] second_ms). */
void qn_thread_master_set_second_ms(struct qn_thread_master *m, int ms);

/* Called by the loop on its first fetch: start-up is over. */
void qn_platform_startup_done(void);

#endif
