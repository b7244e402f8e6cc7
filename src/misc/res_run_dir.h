/* The run directory holds the pid file, the work files and the platform's
 * log and command socket.  The daemon runs as root on hosts where other users
 * can create files under /tmp, so the directory is never trusted by its name:
 * start-up creates it (0700) or checks it (a real directory, owned by this
 * process's user, writable by nobody else, inside parents nobody else can
 * rename it out of), keeps a descriptor of it, and every work file is opened
 * relative to that descriptor without following symbolic links. */
#ifndef RES_RUN_DIR_H
#define RES_RUN_DIR_H

#include <sys/types.h>

#include <string>

/* Descriptor of the checked run directory; -1 until start-up opened it (the
 * work-file helpers then open res_run_dir by its name). */
extern int res_run_dir_fd;

/* Creates the run directory `dir` (trailing slash allowed) when it is missing,
 * with its missing parents, and checks it.  The open directory descriptor, or
 * -1 with the reason, one line, in `why`. */
int res_run_dir_setup(const char *dir, std::string *why);

/* Checks an open directory: owned by `uid` and not writable by group or
 * others.  Null when fine, else the reason. */
const char *res_run_dir_unsafe(int dir_fd, uid_t uid);

/* Opens `name` in the directory `dir_fd` without following a symbolic link,
 * after removing whatever entry had that name, as a file of our own created
 * now (O_EXCL) with `mode` (set with fchmod, whatever the umask).  Read-write
 * descriptor, or -1 with errno. */
int res_file_create_fresh(int dir_fd, const char *name, mode_t mode);

/* res_file_create_fresh() in the run directory. */
int res_run_file_create(const char *name, mode_t mode);

/* Opens `name` in the run directory with `flags`, never through a symbolic
 * link (O_NOFOLLOW and O_CLOEXEC are added). */
int res_run_file_open(const char *name, int flags, mode_t mode);

#endif
