/* The figures of the node store in the Prometheus text exposition format,
 * served by the platform's metrics endpoint when the configuration asks for
 * one. */
#ifndef RES_MOM_METRICS_H
#define RES_MOM_METRICS_H

#include <stdint.h>

#include <string>

#include "mom/res_mom_data.h"
#include "qn_thread.h"

/* The exposition of the settings and of every node of `nodes` (a node list
 * of the store's kind) as seen at `now_ms` on the monotonic clock. */
std::string res_mom_metrics_render_nodes(const struct res_list_head *nodes, uint64_t now_ms);

/* What this node exposes now: on the master every node of its store, on any
 * other node its own figures from its monitors. */
std::string res_mom_metrics_render(uint64_t now_ms);

/* A label value in the exposition format: backslash, double quote and
 * newline escaped, each byte that starts no well-formed UTF-8 character
 * replaced by U+FFFD (Prometheus refuses label values that are not UTF-8). */
std::string res_mom_metrics_label_value(const char *text, size_t size);

/* Hands the renderer to the platform's endpoint.  0 when it serves or when no
 * endpoint is configured, negative when the configured one cannot listen
 * (logged; the daemon runs on without it). */
int res_mom_metrics_init(struct qn_thread_master *master);

#endif
