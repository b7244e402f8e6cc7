#include "misc/res_ham.h"
#include "misc/res_misc.h"
#include "misc/res_zlog.h"
#include "qn_ham.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

struct qn_thread res_ham_feed_slot;

namespace {

long res_gettid()
{
    return static_cast<long>(syscall(SYS_gettid));
}

void res_thread_name(char name[16])
{
    memset(name, 0, 16);
    prctl(PR_GET_NAME, name);
    name[15] = '\0';
}

} // namespace

int res_misc_reg_ham_restart(void)
{
    if (reg_process_exit_action(0, 1) < 0) {
        RES_ERR("qn-stovig register ham fail: %s", strerror(errno));
        return -1;
    }
    return 0;
}

int res_reg_ham_watchdog(int a, int b)
{
    long tid = res_gettid();
    int ret = ham_client_reg_thread_notify(getpid(), static_cast<pid_t>(tid), a, b);
    if (ret < 0) {
        RES_ERR("ham_client_reg_thread_notify fail. ret=%d. tid=%ld.", ret, tid);
        return -1;
    }
    return 0;
}

int res_feed_ham_watchdog(int a, int b)
{
    char tname[16];
    res_thread_name(tname);
    long tid = res_gettid();
    int ret = ham_client_reset_thread_notify(getpid(), static_cast<pid_t>(tid), a, b);
    if (ret < 0) {
        RES_ERR("ham_client_reset_thread_notify fail. ret=%d. tid=%ld, tname=%s.", ret, tid, tname);
        return -1;
    }
    RES_LOG(RES_CH_SYSLOG, RES_GATE_VERBOSE, QN_ZLOG_LEVEL_DEBUG, "feed watchdog. ret=%d. tid=%ld, tname=%s.", ret,
            tid, tname);
    return 0;
}

int res_ham_watchdog_unreg(void)
{
    long tid = res_gettid();
    int ret = ham_client_unreg_thread_notify(static_cast<pid_t>(tid));
    if (ret < 0)
        RES_ERR("ureg fail. pid=%ld. tid=%ld.", static_cast<long>(getpid()), tid);
    return ret;
}

int res_ham_watchdog_init(int a, int b)
{
    memset(&res_ham_feed_slot, 0, sizeof res_ham_feed_slot);
    char tname[16];
    res_thread_name(tname);
    long tid = res_gettid();
    if (res_reg_ham_watchdog(a, b) != 0) {
        RES_ERR("init reg watchdog fail. tid=%ld.%s.", tid, tname);
        return -1;
    }
    RES_DBG("init reg watchdog over. tid=%ld.%s.", tid, tname);
    if (res_feed_ham_watchdog(a, b) != 0) {
        RES_ERR("init fead watchdog fail. tid=%ld.%s.", tid, tname);
        res_ham_watchdog_unreg();
        return -ENOENT;
    }
    RES_DBG("init feed watchdog over. tid=%ld.%s.", tid, tname);
    return 0;
}

int res_misc_ham_feed_timer(struct qn_thread *)
{
    int ret = res_feed_ham_watchdog(RES_HAM_PARAM_A, RES_HAM_PARAM_B);
    if (ret < 0)
        RES_ERR("fead watchdog fail with ret[%d].", ret);
    else
        RES_LOG(RES_CH_SYSLOG, RES_GATE_VERBOSE, QN_ZLOG_LEVEL_DEBUG, "feed watchdog over.");
    return res_misc_add_timer(&res_ham_feed_slot, res_misc_ham_feed_timer, RES_HAM_FEED_INTERVAL, "res_ham_timer");
}

int res_misc_ham_feed_loop(void)
{
    int ret = res_misc_add_timer(&res_ham_feed_slot, res_misc_ham_feed_timer, RES_HAM_FEED_INTERVAL,
                                 "res_ham_timer");
    if (ret != 0)
        RES_ERR("add timer %s failed.", "res_ham_timer");
    return ret;
}

int res_thread_start(const char *name)
{
    if (name) {
        int ret = prctl(PR_SET_NAME, name);
        if (ret != 0) {
            RES_ERR("prctl fail(%d, %s)", ret, strerror(errno));
            return -1;
        }
    }
    int err = pthread_detach(pthread_self());
    if (err != 0) {
        RES_ERR("detach fail(%d, %s)", err, strerror(err));
        return -1;
    }
    if (res_ham_watchdog_init(RES_HAM_PARAM_A, RES_HAM_PARAM_B) != 0)
        return -1;
    return 0;
}
