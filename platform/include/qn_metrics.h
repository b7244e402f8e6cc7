/* Metrics endpoint: a small HTTP service on the program's own event loop that
 * answers GET /metrics with what the program renders, for Prometheus and the
 * like.  It serves only when the platform configuration names an address
 * ([metrics] listen = ADDR:PORT); without one, registering does nothing. */
#ifndef QN_METRICS_H
#define QN_METRICS_H

#include <stddef.h>

#include "qn_thread.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where a renderer writes its exposition. */
struct qn_metrics_out;

/* Appends `len` bytes to the reply.  0, or -1 when memory runs out. */
int qn_metrics_write(struct qn_metrics_out *out, const char *text, size_t len);

/* Writes the whole exposition for one request; 0, or negative to answer the
 * request with an error (500) instead. */
typedef int (*qn_metrics_render_t)(struct qn_metrics_out *out, void *arg);

/* Starts serving on the loop of `master` with `render` (one renderer per
 * process; a second call replaces the first).  0 when serving or when no
 * address is configured; -1 when the configured address cannot be listened
 * on (the reason is printed once on standard error): the program runs on
 * without the endpoint. */
int qn_metrics_register(struct qn_thread_master *master, qn_metrics_render_t render, void *arg);

/* Stops serving and closes the listening socket (tests). */
void qn_metrics_stop(void);

#ifdef __cplusplus
}
#endif

#endif
