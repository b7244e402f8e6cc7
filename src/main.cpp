/* qn-stovig: storage health monitor daemon.  Start-up takes the single-instance
 * lock, registers with HAM, creates the event loop and the debug log, and then
 * runs the loop until nothing can be delivered any more. */
#include "cli/res_cli_main.h"
#include "misc/res_ham.h"
#include "misc/res_zlog.h"
#include "mom/res_mom_cap.h"
#include "mom/res_mom_main.h"
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

namespace {

/* Creates `path` and every missing parent; mkdir errors are ignored, start-up
 * goes on and the pid file open reports what matters. */
void res_make_dirs(const char *path)
{
    size_t len = strlen(path);
    char *walk = static_cast<char *>(malloc(len + 1));
    if (!walk)
        return;
    memcpy(walk, path, len + 1);
    for (char *p = walk; *p; ++p) {
        if (*p != '/')
            continue;
        *p = '\0';
        if (walk[0] != '\0' && access(walk, F_OK) != 0)
            mkdir(walk, 0777);
        *p = '/';
    }
    free(walk);
}

/* Takes the pid-file lock and writes the pid; the descriptor, or -1 when
 * another instance holds the lock. */
int res_single_instance(void)
{
    const char *tmp = getenv("TMPDIR");
    if (!tmp)
        tmp = "/tmp";
    char dir[RES_RUN_DIR_LEN];
    snprintf(dir, sizeof dir, "%s/stovig/", tmp);
    if (access(dir, F_OK) != 0)
        res_make_dirs(dir);
    snprintf(res_run_dir, sizeof res_run_dir, "%s", dir);

    char pid_path[256];
    snprintf(pid_path, sizeof pid_path, "%s/stovig%s", tmp, "/.stovig.pid");
    int fd = open(pid_path, O_RDWR | O_CREAT, 0700);
    bool failed = fd <= 0; /* a descriptor of 0 counts as failure, as it always has */
    if (!failed) {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        lock.l_start = 0;
        lock.l_len = 0;
        if (fcntl(fd, F_SETLK, &lock) < 0 || ftruncate(fd, 0) < 0) {
            close(fd);
            failed = true;
        }
    }
    if (failed) {
        printf("Has duplicate instance running.\n");
        return -1;
    }
    char pid[16];
    snprintf(pid, sizeof pid, "%d", static_cast<int>(getpid()));
    size_t left = strlen(pid) + 1;
    const char *p = pid;
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        p += n;
        left -= static_cast<size_t>(n);
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
