/* Enumeration of the process ids listed under /proc. */
#ifndef RES_MON_IO_TOP_UTILS_H
#define RES_MON_IO_TOP_UTILS_H

#include <stdint.h>

/* Flag of openpidgen(): also yield the thread ids of every process. */
#define PIDGEN_FLAGS_TASK 0x1

struct pidgen;

/* A generator over /proc, or null when /proc cannot be opened. */
struct pidgen *openpidgen(int flags);
/* The next id, or 0 at the end, when the generator is also closed. */
uint32_t pidgen_next(struct pidgen *pg);
/* Closes a generator before its end. */
void closepidgen(struct pidgen *pg);

#endif
