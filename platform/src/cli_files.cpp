/* The command-line service's files: the command socket and the startup
 * configuration.  The daemon runs as root on shared hosts, so a file is used
 * only in a directory that no other user can write, opened relative to that
 * directory's descriptor without following symbolic links, and the startup
 * configuration is replaced atomically or not at all. */
#include "qn_cli_files.h"
#include "qn_cli_proto.h"
#include "log_open.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

/* The longest startup configuration read; a longer one is not ours. */
constexpr off_t startup_max_size = 1024 * 1024;

std::string errno_text(int err)
{
    return strerror(err);
}

void split_path(const std::string &path, std::string &dir, std::string &name)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        dir = ".";
        name = path;
    } else {
        dir = slash == 0 ? "/" : path.substr(0, slash);
        name = path.substr(slash + 1);
    }
}

/* A descriptor closed when it goes out of scope. */
struct fd_guard {
    int fd;
    explicit fd_guard(int f) : fd(f) {}
    ~fd_guard()
    {
        if (fd >= 0)
            close(fd);
    }
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;
};

/* True when `st` is ours and neither its group nor others may write it;
 * otherwise false with the reason, starting with `path`, in `why`. */
bool private_to_us(const struct stat &st, const std::string &path, std::string &why)
{
    if (st.st_uid != geteuid()) {
        why = path + ": owned by uid " + std::to_string(st.st_uid) + ", not by uid " + std::to_string(geteuid());
        return false;
    }
    if (st.st_mode & (S_IWGRP | S_IWOTH)) {
        why = path + ": writable by its group or by others";
        return false;
    }
    return true;
}

/* Creates `name` in `dirfd` for writing, owner only, never through a link;
 * a leftover regular file of ours from an interrupted write is replaced. */
int create_fresh(int dirfd, const std::string &name)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        int fd = openat(dirfd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0 || errno != EEXIST || attempt > 0)
            return fd;
        struct stat st;
        if (fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            return -1;
        if (!S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
            errno = EEXIST;
            return -1;
        }
        if (unlinkat(dirfd, name.c_str(), 0) != 0)
            return -1;
    }
    return -1;
}

/* Keeps the current file `name` as `saved`, replacing an older saved copy in
 * one step (a hard link under a temporary name, renamed over it). */
bool keep_previous(int dirfd, const std::string &name, const std::string &saved, std::string &why)
{
    struct stat st;
    if (fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return true; /* nothing saved yet */
        why = errno_text(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
        why = "the current file is not a regular file of ours";
        return false;
    }
    std::string link_tmp = saved + ".new";
    if (unlinkat(dirfd, link_tmp.c_str(), 0) != 0 && errno != ENOENT) {
        why = "cannot remove " + link_tmp + ": " + errno_text(errno);
        return false;
    }
    if (linkat(dirfd, name.c_str(), dirfd, link_tmp.c_str(), 0) != 0 ||
        renameat(dirfd, link_tmp.c_str(), dirfd, saved.c_str()) != 0) {
        why = "cannot keep the previous file as " + saved + ": " + errno_text(errno);
        unlinkat(dirfd, link_tmp.c_str(), 0);
        return false;
    }
    return true;
}

} // namespace

int cli_open_private_dir(const std::string &dir, std::string &why)
{
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        why = dir + ": " + (errno == ELOOP || errno == ENOTDIR ? "not a directory" : errno_text(errno));
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        why = dir + ": " + errno_text(errno);
    } else if (!S_ISDIR(st.st_mode)) {
        why = dir + ": not a directory";
    } else if (private_to_us(st, dir, why)) {
        return fd;
    }
    close(fd);
    return -1;
}

int cli_socket_create(const std::string &path, std::string &why)
{
    std::string dir, name;
    split_path(path, dir, name);
    if (name.empty() || name == "." || name == "..") {
        why = path + ": not a socket file name";
        return -1;
    }
    fd_guard dirfd(cli_open_private_dir(dir, why));
    if (dirfd.fd < 0)
        return -1;
    struct stat st;
    if (fstatat(dirfd.fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        /* Nobody else can write the directory, so what is checked here is
         * what gets unlinked. */
        if (!S_ISSOCK(st.st_mode) || st.st_uid != geteuid()) {
            why = path + ": exists and is not a socket of ours";
            return -1;
        }
        if (unlinkat(dirfd.fd, name.c_str(), 0) != 0) {
            why = path + ": " + errno_text(errno);
            return -1;
        }
    } else if (errno != ENOENT) {
        why = path + ": " + errno_text(errno);
        return -1;
    }

    /* Bind through the checked directory's descriptor, so a directory swapped
     * in under the same path meanwhile is never used. */
    std::string bind_path = "/proc/self/fd/" + std::to_string(dirfd.fd) + "/" + name;
    if (access("/proc/self/fd", X_OK) != 0)
        bind_path = path;
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (bind_path.size() >= sizeof addr.sun_path) {
        why = path + ": socket path too long";
        return -1;
    }
    memcpy(addr.sun_path, bind_path.c_str(), bind_path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        why = path + ": " + errno_text(errno);
        return -1;
    }
    mode_t old = umask(0177); /* the socket file is created 0600 */
    int r = bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    int err = errno;
    umask(old);
    if (r != 0) {
        close(fd);
        why = path + ": " + errno_text(err);
        return -1;
    }
    return fd;
}

bool cli_startup_read(const std::string &path, std::vector<std::string> &lines, std::string &why)
{
    lines.clear();
    std::string dir, name;
    split_path(path, dir, name);
    fd_guard dirfd(cli_open_private_dir(dir, why));
    if (dirfd.fd < 0) {
        if (access(path.c_str(), F_OK) != 0 && errno == ENOENT)
            return true; /* nothing to replay, wherever it would be */
        return false;
    }
    /* O_NONBLOCK: a FIFO planted in its place must not hang start-up. */
    fd_guard fd(openat(dirfd.fd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.fd < 0) {
        if (errno == ENOENT)
            return true;
        why = path + ": " + (errno == ELOOP ? "a symbolic link" : errno_text(errno));
        return false;
    }
    struct stat st;
    if (fstat(fd.fd, &st) != 0) {
        why = path + ": " + errno_text(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        why = path + ": not a regular file";
        return false;
    }
    if (!private_to_us(st, path, why))
        return false;
    if (st.st_size > startup_max_size) {
        why = path + ": larger than " + std::to_string(startup_max_size) + " bytes";
        return false;
    }
    std::string text;
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd.fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            why = path + ": " + errno_text(errno);
            return false;
        }
        if (n == 0)
            break;
        text.append(buf, static_cast<size_t>(n));
        if (text.size() > static_cast<size_t>(startup_max_size)) {
            why = path + ": larger than " + std::to_string(startup_max_size) + " bytes";
            return false;
        }
    }
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        if (nl == std::string::npos)
            nl = text.size();
        lines.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    return true;
}

bool cli_startup_write(const std::string &path, const std::string &text, std::string &why)
{
    std::string dir, name;
    split_path(path, dir, name);
    fd_guard dirfd(cli_open_private_dir(dir, why));
    if (dirfd.fd < 0)
        return false;
    std::string tmp = name + ".new";
    int fd = create_fresh(dirfd.fd, tmp);
    if (fd < 0) {
        why = "cannot create " + tmp + ": " + errno_text(errno);
        return false;
    }
    bool written = qn_log_write_all(fd, text.data(), text.size(), nullptr) && fsync(fd) == 0;
    int err = errno;
    if (close(fd) != 0 && written) {
        written = false;
        err = errno;
    }
    if (!written) {
        unlinkat(dirfd.fd, tmp.c_str(), 0);
        why = errno_text(err);
        return false;
    }
    if (!keep_previous(dirfd.fd, name, name + QN_CLI_STARTUP_SAVED_SUFFIX, why)) {
        unlinkat(dirfd.fd, tmp.c_str(), 0);
        return false;
    }
    if (renameat(dirfd.fd, tmp.c_str(), dirfd.fd, name.c_str()) != 0) {
        why = errno_text(errno);
        unlinkat(dirfd.fd, tmp.c_str(), 0);
        return false;
    }
    /* The rename itself reaches the disk only with its directory. */
    if (fsync(dirfd.fd) != 0) {
        why = "the new file is in place but its directory could not be synced: " + errno_text(errno);
        return false;
    }
    return true;
}
