/* The log library's copy of operator event lines to the system log, so that
 * they reach journald and remote syslog and survive a log file system that
 * is full.  Stand-in internal: the daemon never calls it. */
#ifndef QN_SYSLOG_EVENT_H
#define QN_SYSLOG_EVENT_H

#include <string>

/* Sends "%<module>-4-EVENT: <text>" at warning priority, or appends it to
 * [log] syslog_file when that is set. */
void qn_syslog_event(const std::string &module, const std::string &text);

#endif
