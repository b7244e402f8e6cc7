/* Platform syslog service.  Lines carry "%<module>-<prio>-<mnemonic>: ".  The
 * stand-in writes through syslog(3), or appends to [log] syslog_file. */
#ifndef QN_SYSLOG_H
#define QN_SYSLOG_H

#ifdef __cplusplus
extern "C" {
#endif

void printk_syslog_lc(int prio, const char *module, const char *mnemonic, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
/* The extended form, used once the node knows its role; `flag` 1 also tags the
 * line for the master's collection. */
void printk_syslog_ext(int prio, const char *module, const char *mnemonic, int flag, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

#ifdef __cplusplus
}
#endif

#endif
