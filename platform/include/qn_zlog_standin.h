/* Stand-in specifics of the log library, for tests and benchmarks.  The
 * daemon never calls these. */
#ifndef QN_ZLOG_STANDIN_H
#define QN_ZLOG_STANDIN_H

#include "qn_zlog.h"

#include <stdint.h>

/* Writes out every line the category holds in memory. */
void qn_zlog_flush(qn_zlog_category_t *cat);
/* Bytes written to the category's files (debug log and event log) so far. */
uint64_t qn_zlog_bytes_written(qn_zlog_category_t *cat);
/* Lines dropped because their file could not be written, not yet reported. */
uint64_t qn_zlog_lines_lost(qn_zlog_category_t *cat);

#endif
