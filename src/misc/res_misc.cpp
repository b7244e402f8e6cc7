#include "misc/res_misc.h"
#include "misc/res_zlog.h"
#include "res_main.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

int res_misc_add_timer(struct qn_thread *slot, qn_thread_func func, int64_t interval, const char *name)
{
    if (!func || interval <= 0 || !slot) {
        RES_ERR("parameter err.");
        return -1;
    }
    if (res_misc_timer_armed(slot)) {
        RES_WARN("%s thread is already in list.", name);
        return -ENOENT;
    }
    if (qn_thread_insert_timer(res_master, slot, func, nullptr, interval, name) < 0) {
        RES_ERR("insert %s thread failed.", name);
        return -ENETDOWN;
    }
    return 0;
}

int res_misc_reset_timer(struct qn_thread *slot, qn_thread_func func, int64_t interval, const char *name)
{
    if (!func || interval <= 0 || !slot) {
        RES_ERR("parameter err.");
        return -1;
    }
    if (res_misc_timer_armed(slot))
        qn_thread_cancel(slot);
    if (qn_thread_insert_timer(res_master, slot, func, nullptr, interval, name) < 0) {
        RES_ERR("insert %s thread failed.", name);
        return -ENETDOWN;
    }
    return 0;
}

int res_misc_del_timer(struct qn_thread *slot)
{
    if (!slot) {
        RES_ERR("parameter err.");
        return -1;
    }
    if (res_misc_timer_armed(slot))
        qn_thread_cancel(slot);
    return 0;
}

namespace {

/* Starts argv (through PATH) with its standard output and error sent to
 * out_fd and err_fd when those are not negative, and waits for it.  The wait
 * status, or -1 with posix_spawn's error in *spawn_err. */
int res_spawn_wait(const char *const argv[], int out_fd, int err_fd, int *spawn_err)
{
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
    if (out_fd >= 0)
        posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
    if (err_fd >= 0)
        posix_spawn_file_actions_adddup2(&actions, err_fd, STDERR_FILENO);
    /* The command gets standard input, output and error only: descriptors
     * the daemon holds without close-on-exec (the bus client's sockets, the
     * logs) must not reach mount, fdisk or smartctl. */
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    /* The child starts with no signal blocked and a broken pipe fatal again,
     * as a command started from a shell would. */
    sigset_t none, pipe;
    sigemptyset(&none);
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &pipe);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    /* The child must be reaped here even when the process ignores SIGCHLD. */
    struct sigaction dfl = {}, old = {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(SIGCHLD, &dfl, &old);
    pid_t pid = -1;
    *spawn_err = posix_spawnp(&pid, argv[0], &actions, &attr, const_cast<char *const *>(argv), environ);
    int status = -1;
    if (*spawn_err == 0) {
        while (waitpid(pid, &status, 0) < 0) {
            if (errno != EINTR) {
                status = -1;
                break;
            }
        }
    }
    sigaction(SIGCHLD, &old, nullptr);
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    return status;
}

} // namespace

int res_misc_exec_sh(const char *cmd)
{
    /* As system(3) runs it, but without handing the daemon's descriptors on. */
    const char *argv[] = {"/bin/sh", "-c", cmd ? cmd : "", nullptr};
    int spawn_err = 0;
    int status = res_spawn_wait(argv, -1, -1, &spawn_err);
    if (spawn_err == ENOENT)
        status = 127 << 8; /* system() when no shell can be run */

    RES_DBG("%s", cmd);
    if (status == -1) {
        RES_ERR("system %s failed, fork failed.", cmd);
        return -1;
    }
    if (WIFEXITED(status)) {
        if (WEXITSTATUS(status) == 0)
            return 0;
        RES_ERR("system %s failed, exit status: %d", cmd, WEXITSTATUS(status));
        return -WEXITSTATUS(status);
    }
    RES_ERR("system %s failed, exit status: %d", cmd, (status >> 8) & 0xff);
    return -1;
}

int res_misc_exec_argv(const char *const argv[], int out_fd, int err_fd, const char *shown)
{
    if (!argv || !argv[0]) {
        RES_ERR("parameter err.");
        return -1;
    }
    if (!shown)
        shown = argv[0];
    int err = 0;
    int status = res_spawn_wait(argv, out_fd, err_fd, &err);

    RES_DBG("%s", shown);
    if (err == ENOENT || err == ENOTDIR)
        status = 127 << 8; /* what the shell answers for a command it cannot find */
    else if (err == EACCES || err == ENOEXEC || err == EPERM)
        status = 126 << 8;
    else if (status == -1) {
        RES_ERR("system %s failed, fork failed.", shown);
        return -1;
    }
    if (WIFEXITED(status)) {
        if (WEXITSTATUS(status) == 0)
            return 0;
        RES_ERR("system %s failed, exit status: %d", shown, WEXITSTATUS(status));
        return -WEXITSTATUS(status);
    }
    RES_ERR("system %s failed, exit status: %d", shown, (status >> 8) & 0xff);
    return -1;
}

int res_get_field_form_file(const char *path, char *buf, size_t len)
{
    if (!path || !buf) {
        RES_ERR("parameter err.");
        return -EINVAL;
    }
    if (access(path, F_OK) != 0) {
        RES_ERR("file %s not exist.", path);
        return -1;
    }
    memset(buf, 0, len);
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        int err = errno;
        RES_ERR("file %s not exist.", path);
        return -err;
    }
    ssize_t n;
    do {
        n = read(fd, buf, len);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        int err = errno;
        RES_ERR("read %s fail! reason:%s", path, strerror(err));
        close(fd);
        return -err;
    }
    close(fd);
    return 0;
}
