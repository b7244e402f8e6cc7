#include "log_open.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

int refuse(int fd, std::string *why, const std::string &text)
{
    if (fd >= 0)
        close(fd);
    if (why)
        *why = text;
    return -1;
}

} // namespace

int qn_log_open(const std::string &path, std::string *why)
{
    /* O_NONBLOCK so that a FIFO planted as the log cannot hold the open; it is
     * cleared again once the file is known to be a regular one. */
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) {
        int err = errno;
        if (err == ELOOP)
            return refuse(-1, why, path + ": is a symbolic link; refusing to log through it");
        if (err == ENXIO)
            return refuse(-1, why, path + ": is a FIFO or socket, not a regular file; refusing to log into it");
        return refuse(-1, why, path + ": " + strerror(err));
    }
    struct stat st;
    if (fstat(fd, &st) != 0)
        return refuse(fd, why, path + ": " + strerror(errno));
    if (!S_ISREG(st.st_mode))
        return refuse(fd, why, path + ": is not a regular file; refusing to log into it");
    if (st.st_uid != geteuid())
        return refuse(fd, why,
                      path + ": is owned by uid " + std::to_string(st.st_uid) + ", not by this process; refusing it");
    if (st.st_nlink > 1)
        return refuse(fd, why, path + ": has " + std::to_string(st.st_nlink) + " hard links; refusing it");
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0)
        return refuse(fd, why, path + ": " + strerror(errno));
    return fd;
}

bool qn_log_write_all(int fd, const char *buf, size_t len, size_t *done)
{
    size_t out = 0;
    bool ok = true;
    while (out < len) {
        ssize_t n = write(fd, buf + out, len - out);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            ok = false;
            break;
        }
        out += static_cast<size_t>(n);
    }
    if (done)
        *done = out;
    return ok;
}
