/* Diagnostics: every line goes to the platform syslog (gated by the debug
 * level) and to the "stovig" zlog category (gated by res_zlog_level), each
 * channel on its own.  Operator event lines go only to the zlog category, at
 * level 120 whatever the debug level. */
#ifndef RES_ZLOG_H
#define RES_ZLOG_H

#include <stdint.h>

#include "qn_zlog.h"

extern uint32_t res_dbg_level;
extern uint32_t res_zlog_level;
extern qn_zlog_category_t *res_zlog_handle;
/* The local node's role, when the bus side has one: non-zero selects the
 * extended syslog call.  Null reads as 0. */
extern const int32_t *res_zlog_role;

#define RES_CH_SYSLOG 1u
#define RES_CH_ZLOG 2u
#define RES_CH_BOTH 3u

/* Gates (debug levels) and zlog level values of the severities. */
#define RES_GATE_ERR 1u
#define RES_GATE_WARN 2u
#define RES_GATE_DBG 3u
#define RES_GATE_VERBOSE 4u
#define RES_GATE_TRACE 5u

int res_zlog_init(void);
int res_debug_level_init(void);
int res_set_debug_level(uint32_t level);
/* The platform's "all debugging off" switch: kind 2 turns the level off and
 * publishes the change. */
void res_debug_off(int kind);

void res_log(unsigned channels, unsigned gate, int zlevel, const char *file, const char *func, int line,
             const char *fmt, ...) __attribute__((format(printf, 7, 8)));

/* Writes an operator event line at level 120, whatever the debug level. */
void res_event_line(const char *file, const char *task, int line, const char *text);

/* Size of the buffer an operator event line is formatted into, terminator
 * included; a longer line is cut. */
#define RES_EVENT_BUF_LEN 1024

/* Formats an operator event line into a RES_EVENT_BUF_LEN buffer and writes
 * it with res_event_line(). */
void res_event_printf(const char *file, const char *task, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifndef RES_SRC_FILE
#define RES_SRC_FILE __FILE__
#endif

#define RES_LOG(ch, gate, zlevel, fmt, ...) \
    res_log((ch), (gate), (zlevel), RES_SRC_FILE, __func__, __LINE__, fmt, ##__VA_ARGS__)
#define RES_ERR(fmt, ...) RES_LOG(RES_CH_BOTH, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, fmt, ##__VA_ARGS__)
#define RES_WARN(fmt, ...) RES_LOG(RES_CH_BOTH, RES_GATE_WARN, QN_ZLOG_LEVEL_WARN, fmt, ##__VA_ARGS__)
#define RES_DBG(fmt, ...) RES_LOG(RES_CH_BOTH, RES_GATE_DBG, QN_ZLOG_LEVEL_DEBUG, fmt, ##__VA_ARGS__)
#define RES_VERBOSE(fmt, ...) RES_LOG(RES_CH_BOTH, RES_GATE_VERBOSE, QN_ZLOG_LEVEL_DEBUG, fmt, ##__VA_ARGS__)
/* An operator event line under the name of the function that writes it, so
 * that the task named in the log is a function of that name. */
#define RES_EVENT(fmt, ...) res_event_printf(RES_SRC_FILE, __func__, __LINE__, fmt, ##__VA_ARGS__)
#define RES_TRACE(fmt, ...) RES_LOG(RES_CH_SYSLOG, RES_GATE_TRACE, QN_ZLOG_LEVEL_DEBUG, fmt, ##__VA_ARGS__)

#endif
