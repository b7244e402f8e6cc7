/* Availability manager (HAM) client.  The stand-in speaks systemd's notify
 * protocol: without NOTIFY_SOCKET every call succeeds and does nothing. */
#ifndef QN_HAM_H
#define QN_HAM_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Ask to be restarted when the process exits.  0, or negative (errno set). */
int reg_process_exit_action(int action, int flag);
/* Watch thread `tid` of `pid` with HAM's parameters (a, b). */
int ham_client_reg_thread_notify(pid_t pid, pid_t tid, int a, int b);
/* Feed the watchdog of a watched thread. */
int ham_client_reset_thread_notify(pid_t pid, pid_t tid, int a, int b);
/* Stop watching a thread. */
int ham_client_unreg_thread_notify(pid_t tid);
/* The process withdraws itself: it is stopping on purpose. */
int ham_cancel_proc(pid_t pid);

#ifdef __cplusplus
}
#endif

#endif
