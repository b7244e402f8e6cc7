/* Opening a log file for appending when the process runs as root in a
 * directory that others may have written to: a symbolic link, a FIFO, a
 * device or a file of another owner planted under the log's name is refused
 * (never followed, never waited on), and a new file is readable by its owner
 * only. */
#ifndef QN_LOG_OPEN_H
#define QN_LOG_OPEN_H

#include <string>

/* A descriptor open for appending (close-on-exec, blocking writes), or -1
 * with the reason, starting with the path, in *why. */
int qn_log_open(const std::string &path, std::string *why);

/* Writes all of buf; false on an error (errno set) or a short write that
 * makes no progress.  *done receives the bytes that did get out. */
bool qn_log_write_all(int fd, const char *buf, size_t len, size_t *done);

#endif
