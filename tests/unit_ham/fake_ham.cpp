/* A HAM that records every call and fails on request, linked in place of the
 * notify-socket stand-in so the daemon's reactions to HAM failures can be
 * driven one call at a time. */
#include "fake_ham.h"

#include <cerrno>

fake_ham_state fake_ham;

extern "C" {

int reg_process_exit_action(int action, int flag)
{
    fake_ham.calls.push_back("restart " + std::to_string(action) + " " + std::to_string(flag));
    return fake_ham.fail_restart ? (errno = ECONNREFUSED, -1) : 0;
}

int ham_client_reg_thread_notify(pid_t, pid_t, int a, int b)
{
    fake_ham.calls.push_back("reg " + std::to_string(a) + " " + std::to_string(b));
    return fake_ham.fail_reg ? -1 : 0;
}

int ham_client_reset_thread_notify(pid_t, pid_t, int a, int b)
{
    fake_ham.calls.push_back("feed " + std::to_string(a) + " " + std::to_string(b));
    return fake_ham.fail_feed ? -1 : 0;
}

int ham_client_unreg_thread_notify(pid_t)
{
    fake_ham.calls.push_back("unreg");
    return 0;
}

int ham_cancel_proc(pid_t)
{
    fake_ham.calls.push_back("cancel");
    return 0;
}

} // extern "C"
