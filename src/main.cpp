/* qn-stovig: storage health monitor daemon.  Start-up takes the single-instance
 * lock, registers with HAM, creates the event loop and the debug log, and then
 * runs the loop until nothing can be delivered any more. */
#include "cli/res_cli_main.h"
#include "misc/res_ham.h"
#include "misc/res_run_dir.h"
#include "misc/res_zlog.h"
#include "mom/res_mom_cap.h"
#include "mom/res_mom_main.h"
#include "mom/res_mom_metrics.h"
#include "mon/res_mon_main.h"
#include "res_main.h"

#include "qn_ham.h"
#include "qn_thread.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

/* Exit status of a start-up refused because the run directory is not safe
 * (sysexits' EX_CONFIG): restarting cannot help until someone fixes it. */
constexpr int RES_EXIT_UNSAFE_RUN_DIR = 78;

/* Takes the pid-file lock and writes the pid; the descriptor, -1 when another
 * instance holds the lock, or RES_EXIT_UNSAFE_RUN_DIR negated when the run
 * directory cannot be trusted (said in one line on standard error). */
int res_single_instance(void)
{
    const char *tmp = getenv("TMPDIR");
    if (!tmp)
        tmp = "/tmp";
    char dir[RES_RUN_DIR_LEN];
    int n = snprintf(dir, sizeof dir, "%s/stovig/", tmp);
    std::string why;
    int dir_fd = -1;
    if (n < 0 || static_cast<size_t>(n) >= sizeof dir)
        why = std::string("run directory ") + tmp + "/stovig/ has a name longer than " +
              std::to_string(RES_RUN_DIR_LEN - 1) + " characters";
    else
        dir_fd = res_run_dir_setup(dir, &why);
    if (dir_fd < 0) {
        fprintf(stderr, "qn-stovig: %s; start-up refused.\n", why.c_str());
        return -RES_EXIT_UNSAFE_RUN_DIR;
    }
    snprintf(res_run_dir, sizeof res_run_dir, "%s", dir);
    res_run_dir_fd = dir_fd;

    /* Never through a link; a FIFO or anything else than a plain file fails
     * the truncation below like a held lock does. */
    int fd = openat(dir_fd, ".stovig.pid", O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0700);
    bool failed = fd <= 0; /* kept: a descriptor of 0 counts as failure, as it always has */
    if (!failed) {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = 0;
        lock.l_len = 0;
        struct stat st;
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || fcntl(fd, F_SETLK, &lock) < 0 ||
            ftruncate(fd, 0) < 0) {
            close(fd);
            failed = true;
        }
    }
    if (failed) {
        printf("Has duplicate instance running.\n");
        return -1;
    }
    fchmod(fd, 0700);
    char pid[16];
    snprintf(pid, sizeof pid, "%d", static_cast<int>(getpid()));
    size_t left = strlen(pid) + 1;
    const char *p = pid;
    while (left > 0) {
        ssize_t w = write(fd, p, left);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            break;
        p += w;
        left -= static_cast<size_t>(w);
    }
    return fd;
}

int res_exit(int pid_fd, int status)
{
    ham_cancel_proc(getpid());
    close(pid_fd);
    fflush(stdout);
    return status;
}

} // namespace

int main(void)
{
    int pid_fd = res_single_instance();
    if (pid_fd == -RES_EXIT_UNSAFE_RUN_DIR)
        return RES_EXIT_UNSAFE_RUN_DIR;
    if (pid_fd < 0)
        return -1;

    int ret = res_misc_reg_ham_restart();
    if (ret < 0) {
        printf("Module stovig registers to HAM restart failed.");
        return res_exit(pid_fd, ret);
    }
    ret = res_ham_watchdog_init(RES_HAM_PARAM_A, RES_HAM_PARAM_B);
    if (ret < 0) {
        printf("Module stovig registers HAM failed.");
        return res_exit(pid_fd, ret);
    }
    res_master = qn_thread_master_create();
    if (!res_master) {
        ret = -errno;
        printf("Module stovig registers master failed.");
        return res_exit(pid_fd, ret);
    }
    ret = res_zlog_init();
    if (ret != 0)
        return res_exit(pid_fd, ret);
    if (res_debug_level_init() != 0)
        RES_LOG(RES_CH_ZLOG, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, "Init debug failed.");

    uint32_t device_type = 2;
    ret = res_mom_init(res_master, &device_type);
    if (ret != 0) {
        RES_LOG(RES_CH_ZLOG, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, "Init mom failed.");
        return res_exit(pid_fd, ret);
    }

    if (device_type != RES_DEV_TYPE_LC) {
        ret = cli_client_init("stovig", res_master);
        if (ret != 0) {
            RES_LOG(RES_CH_ZLOG, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, "Init cli client failed.");
            return res_exit(pid_fd, ret);
        }
        ret = res_cli_init();
        if (ret != 0) {
            RES_LOG(RES_CH_ZLOG, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, "Init cli command failed.");
            return res_exit(pid_fd, ret);
        }
        cli_client_ready();
    }

    RES_DBG("process begin");

    res_disk_type = res_get_disk_type();
    ret = res_mon_init(res_disk_type);
    if (ret != 0) {
        RES_LOG(RES_CH_ZLOG, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, "Init monitor parameter failed.");
        return res_exit(pid_fd, ret);
    }

    /* The metrics endpoint is an extra for the operator's tools: without it
     * the monitors still run and the event lines are still written. */
    res_mom_metrics_init(res_master);

    ret = res_misc_ham_feed_loop();
    if (ret != 0) {
        RES_ERR("insert ham watchdog feed timer failed.");
        return res_exit(pid_fd, ret);
    }

    struct qn_thread thread;
    while (qn_thread_fetch(res_master, &thread)) {
        RES_TRACE("qn thread fetch.");
        qn_thread_call(&thread);
    }
    return res_exit(pid_fd, 0);
}
