/* Timer slots on the daemon's event loop, shell commands and small-file reads. */
#ifndef RES_MISC_H
#define RES_MISC_H

#include <stddef.h>
#include <stdint.h>

#include "qn_thread.h"

int res_misc_add_timer(struct qn_thread *slot, qn_thread_func func, int64_t interval, const char *name);
int res_misc_reset_timer(struct qn_thread *slot, qn_thread_func func, int64_t interval, const char *name);
int res_misc_del_timer(struct qn_thread *slot);
/* Runs `cmd` with /bin/sh -c, as system(3) does; 0, or the command's exit
 * status negated (-1 when it could not be started or was killed). */
int res_misc_exec_sh(const char *cmd);
/* Runs an external command from its argument vector, without a shell (found
 * through PATH when argv[0] has no slash), its standard output and error sent
 * to out_fd and err_fd when those are not negative.  `shown` is the command as
 * the debug and error lines show it.  Results as res_misc_exec_sh(), a command
 * that cannot be run counting as the shell's 127 (126 when not executable).
 * Both hand the command standard input, output and error only: every other
 * descriptor of the daemon is closed in the child. */
int res_misc_exec_argv(const char *const argv[], int out_fd, int err_fd, const char *shown);
int res_get_field_form_file(const char *path, char *buf, size_t len);

/* Whether a slot is armed (its scheduled flag). */
static inline int res_misc_timer_armed(const struct qn_thread *slot)
{
    return slot && (slot->state & QN_THREAD_SCHEDULED);
}

#endif
