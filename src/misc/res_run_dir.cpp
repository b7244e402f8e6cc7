#include "misc/res_run_dir.h"
#include "res_main.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int res_run_dir_fd = -1;

namespace {

std::string res_format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string res_format(const char *fmt, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

/* Creates every missing directory above `path` (the last component is left
 * alone).  Errors are ignored: the checks that follow report what matters. */
void res_make_parents(const std::string &path)
{
    std::string walk = path;
    for (size_t i = 1; i < walk.size(); ++i) {
        if (walk[i] != '/')
            continue;
        walk[i] = '\0';
        struct stat st;
        if (lstat(walk.c_str(), &st) != 0 && errno == ENOENT)
            mkdir(walk.c_str(), 0755);
        walk[i] = '/';
    }
}

/* Whether a directory above the run directory lets someone else replace it:
 * every directory on the way, as the name is written and as it resolves, must
 * be owned by root or by us and, when others may write to it, carry the
 * sticky bit (as /tmp does).  A symbolic link on the way must belong to root
 * or to us.  Empty when fine, else the reason. */
std::string res_parents_unsafe(const std::string &parent, uid_t uid)
{
    auto owner_ok = [uid](uid_t owner) { return owner == 0 || owner == uid; };
    if (!parent.empty() && parent[0] == '/') {
        for (size_t i = 1; i <= parent.size(); ++i) {
            if (i < parent.size() && parent[i] != '/')
                continue;
            std::string prefix = parent.substr(0, i);
            struct stat st;
            if (lstat(prefix.c_str(), &st) == 0 && S_ISLNK(st.st_mode) && !owner_ok(st.st_uid))
                return res_format("parent %s is a symbolic link owned by uid %u", prefix.c_str(),
                                  static_cast<unsigned>(st.st_uid));
        }
    }
    char *real = realpath(parent.empty() ? "." : parent.c_str(), nullptr);
    if (!real)
        return res_format("parent %s cannot be resolved: %s", parent.c_str(), strerror(errno));
    std::string resolved = real;
    free(real);
    for (size_t i = 1; i <= resolved.size(); ++i) {
        if (i < resolved.size() && resolved[i] != '/')
            continue;
        std::string prefix = resolved.substr(0, i);
        struct stat st;
        if (stat(prefix.c_str(), &st) != 0)
            return res_format("parent %s cannot be examined: %s", prefix.c_str(), strerror(errno));
        if (!owner_ok(st.st_uid))
            return res_format("parent %s is owned by uid %u", prefix.c_str(), static_cast<unsigned>(st.st_uid));
        if ((st.st_mode & (S_IWGRP | S_IWOTH)) && !(st.st_mode & S_ISVTX))
            return res_format("parent %s is writable by others (mode %04o)", prefix.c_str(),
                              static_cast<unsigned>(st.st_mode & 07777));
    }
    return std::string();
}

/* The directory to open work files in when start-up has not opened one (unit
 * tests and helpers that set res_run_dir themselves). */
int res_run_dir_borrow(bool *borrowed)
{
    *borrowed = false;
    if (res_run_dir_fd >= 0)
        return res_run_dir_fd;
    std::string dir = res_run_dir[0] ? res_run_dir : ".";
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back();
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    *borrowed = fd >= 0;
    return fd;
}

} // namespace

const char *res_run_dir_unsafe(int dir_fd, uid_t uid)
{
    static char why[128];
    struct stat st;
    if (fstat(dir_fd, &st) != 0) {
        snprintf(why, sizeof why, "cannot be examined: %s", strerror(errno));
        return why;
    }
    if (!S_ISDIR(st.st_mode))
        return "is not a directory";
    if (st.st_uid != uid) {
        snprintf(why, sizeof why, "is owned by uid %u, not by uid %u", static_cast<unsigned>(st.st_uid),
                 static_cast<unsigned>(uid));
        return why;
    }
    if (st.st_mode & (S_IWGRP | S_IWOTH)) {
        snprintf(why, sizeof why, "is writable by group or others (mode %04o)",
                 static_cast<unsigned>(st.st_mode & 07777));
        return why;
    }
    return nullptr;
}

int res_run_dir_setup(const char *dir, std::string *why)
{
    std::string path = dir ? dir : "";
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    const uid_t uid = geteuid();
    auto refuse = [&](const std::string &reason) {
        if (why)
            *why = "run directory " + std::string(dir ? dir : "") + " " + reason;
        return -1;
    };
    if (path.empty())
        return refuse("has no name");

    size_t slash = path.rfind('/');
    std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    struct stat st;
    bool missing = lstat(path.c_str(), &st) != 0;
    if (missing && errno != ENOENT)
        return refuse(res_format("cannot be examined: %s", strerror(errno)));
    if (missing)
        res_make_parents(path);
    /* Nothing is made inside a parent that someone else controls. */
    std::string parents = res_parents_unsafe(parent, uid);
    if (!parents.empty())
        return refuse("is not safe: " + parents);

    bool created = false;
    if (missing) {
        if (mkdir(path.c_str(), 0700) == 0)
            created = true;
        else if (errno != EEXIST)
            return refuse(res_format("cannot be created: %s", strerror(errno)));
        if (lstat(path.c_str(), &st) != 0)
            return refuse(res_format("cannot be examined: %s", strerror(errno)));
    }
    if (S_ISLNK(st.st_mode))
        return refuse("is a symbolic link");
    if (!S_ISDIR(st.st_mode))
        return refuse("is not a directory");
    if (st.st_uid != uid)
        return refuse(res_format("is owned by uid %u, not by uid %u", static_cast<unsigned>(st.st_uid),
                                 static_cast<unsigned>(uid)));

    int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return refuse(res_format("cannot be opened: %s", strerror(errno)));
    struct stat opened;
    if (fstat(fd, &opened) != 0 || opened.st_dev != st.st_dev || opened.st_ino != st.st_ino) {
        close(fd);
        return refuse("changed while it was being checked");
    }
    /* A directory made just now gets its mode whatever the umask was. */
    if (created && opened.st_uid == uid)
        fchmod(fd, 0700);
    const char *bad = res_run_dir_unsafe(fd, uid);
    if (bad) {
        close(fd);
        return refuse(bad);
    }
    return fd;
}

int res_file_create_fresh(int dir_fd, const char *name, mode_t mode)
{
    if (dir_fd < 0 || !name || !*name || strchr(name, '/')) {
        errno = EINVAL;
        return -1;
    }
    /* Whatever had the name goes (a link planted there is removed, never
     * followed); O_EXCL then fails if anything took its place meanwhile. */
    if (unlinkat(dir_fd, name, 0) != 0 && errno != ENOENT && errno != EISDIR)
        return -1;
    int fd = openat(dir_fd, name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0)
        return -1;
    if (fchmod(fd, mode) != 0) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

int res_run_file_create(const char *name, mode_t mode)
{
    bool borrowed;
    int dir_fd = res_run_dir_borrow(&borrowed);
    if (dir_fd < 0)
        return -1;
    int fd = res_file_create_fresh(dir_fd, name, mode);
    int err = errno;
    if (borrowed)
        close(dir_fd);
    errno = err;
    return fd;
}

int res_run_file_open(const char *name, int flags, mode_t mode)
{
    bool borrowed;
    int dir_fd = res_run_dir_borrow(&borrowed);
    if (dir_fd < 0)
        return -1;
    int fd = openat(dir_fd, name, flags | O_NOFOLLOW | O_CLOEXEC, mode);
    int err = errno;
    if (borrowed)
        close(dir_fd);
    errno = err;
    return fd;
}
