/* Readers of the host's text files shared by the monitors: one line at a
 * time, one word of a line, and the system uptime. */
#ifndef RES_READ_H
#define RES_READ_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#define RES_UPTIME_PATH "/proc/uptime"

/* Reads one line into buf, as fgets() would: a line longer than the buffer
 * gives its first len - 1 characters, and the rest of it is passed over so
 * that its tail is never taken for a line of its own.  False at end of
 * file. */
bool res_misc_read_line(FILE *fp, char *buf, size_t len);

/* The n-th (1-based) word of a line, words being separated by white space
 * as "%s" separates them; at most len - 1 characters are copied (the rest of
 * a longer word is passed over) and out is terminated.  False, out
 * untouched, when the line has fewer words. */
bool res_misc_word(const char *line, int n, char *out, size_t len);

/* The uptime in hundredths of a second from "/proc/uptime" (under the host
 * root); 0, or -1 with an error line when it cannot be read.  out may be
 * null. */
int read_uptime(uint64_t *out);

#endif
