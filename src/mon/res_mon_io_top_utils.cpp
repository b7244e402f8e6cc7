#include "mon/res_mon_io_top_utils.h"

#include "misc/res_path.h"
#include "misc/res_zlog.h"

#include <dirent.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

struct pidgen {
    DIR *dir;
    DIR *task; /* thread listing of the current process, with PIDGEN_FLAGS_TASK */
    int flags;
    std::string proc;
};

namespace {

/* The id an entry name stands for, or 0 when the whole name is not a decimal
 * number (or does not fit in 32 bits). */
uint32_t res_pid_of(const char *name)
{
    if (!*name)
        return 0;
    uint64_t v = 0;
    for (const char *p = name; *p; ++p) {
        if (*p < '0' || *p > '9')
            return 0;
        v = v * 10 + static_cast<uint64_t>(*p - '0');
        if (v > UINT32_MAX)
            return 0;
    }
    return static_cast<uint32_t>(v);
}

} // namespace

struct pidgen *openpidgen(int flags)
{
    std::string proc = res_host_path("/proc");
    DIR *dir = opendir(proc.c_str());
    if (!dir)
        return nullptr;
    auto *pg = new (std::nothrow) pidgen{dir, nullptr, flags, proc};
    if (!pg)
        closedir(dir);
    return pg;
}

void closepidgen(struct pidgen *pg)
{
    if (!pg)
        return;
    if (pg->task)
        closedir(pg->task);
    if (pg->dir)
        closedir(pg->dir);
    delete pg;
}

uint32_t pidgen_next(struct pidgen *pg)
{
    if (!pg)
        return 0;
    for (;;) {
        if (pg->task) {
            struct dirent *te;
            while ((te = readdir(pg->task)) != nullptr) {
                uint32_t tid = res_pid_of(te->d_name);
                if (tid)
                    return tid;
            }
            closedir(pg->task);
            pg->task = nullptr;
        }
        struct dirent *de = readdir(pg->dir);
        if (!de) {
            closepidgen(pg);
            return 0;
        }
        uint32_t pid = res_pid_of(de->d_name);
        if (!pid)
            continue;
        if (!(pg->flags & PIDGEN_FLAGS_TASK))
            return pid;
        char path[64];
        snprintf(path, sizeof path, "/%u/task", pid);
        std::string task = pg->proc + path;
        pg->task = opendir(task.c_str());
        if (!pg->task) {
            RES_ERR("open path[%s] failed with reason[%s.", task.c_str(), strerror(errno));
            return pid;
        }
    }
}
