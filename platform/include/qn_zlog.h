/* The maker's log library: named categories whose lines are routed by level
 * to rotating files and the system log. */
#ifndef QN_ZLOG_H
#define QN_ZLOG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qn_zlog_category qn_zlog_category_t;

/* Levels written by the daemon; 120 carries the operator event lines. */
#define QN_ZLOG_LEVEL_DEBUG 60
#define QN_ZLOG_LEVEL_WARN 80
#define QN_ZLOG_LEVEL_ERROR 100
#define QN_ZLOG_LEVEL_EVENT 120

/* Opens a category; null when its destination cannot be opened. */
qn_zlog_category_t *qn_zlog_init(const char *category);

/* Non-zero when a line of `level` written to `cat` would be kept somewhere
 * by the category's rules, so that a caller can skip formatting a line that
 * would be dropped (like zlog's zlog_level_enabled).  0 for a null cat. */
int qn_zlog_level_enabled(qn_zlog_category_t *cat, int level);

void qndf_zlog(qn_zlog_category_t *cat, const char *file, size_t filelen, const char *func, size_t funclen,
               long line, int level, const char *fmt, ...) __attribute__((format(printf, 8, 9)));

/* snprintf that never writes past `size` and always terminates when size > 0;
 * returns the number of characters stored. */
int at_snprintf(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
