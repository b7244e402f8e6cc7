/* HAM on systemd's notify protocol: a feed is "WATCHDOG=1", the end of start-up
 * "READY=1", the withdrawal "STOPPING=1".  The unit file sets WatchdogSec and
 * Restart, which is what HAM's registrations ask for. */
#include "qn_ham.h"

#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstdio>

namespace {

int notify(const char *state)
{
    int r = sd_notify(0, state);
    if (r < 0) {
        errno = -r;
        return -1;
    }
    return 0;
}

} // namespace

extern "C" {

int reg_process_exit_action(int, int)
{
    return notify("STATUS=restart on exit registered");
}

int ham_client_reg_thread_notify(pid_t, pid_t tid, int, int)
{
    char msg[64];
    snprintf(msg, sizeof msg, "STATUS=watching thread %d", static_cast<int>(tid));
    return notify(msg);
}

int ham_client_reset_thread_notify(pid_t, pid_t, int, int)
{
    return notify("WATCHDOG=1");
}

int ham_client_unreg_thread_notify(pid_t tid)
{
    char msg[64];
    snprintf(msg, sizeof msg, "STATUS=thread %d no longer watched", static_cast<int>(tid));
    return notify(msg);
}

int ham_cancel_proc(pid_t)
{
    return notify("STOPPING=1");
}

} // extern "C"
