#include "fuzz_common.h"

#include "misc/res_zlog.h"
#include "qn_platform_config.h"
#include "res_main.h"

#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

int remove_entry(const char *path, const struct stat *, int, struct FTW *)
{
    return remove(path);
}

void remove_tree()
{
    nftw(fuzz_dir().c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string make_dir()
{
    const char *tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/stovig-fuzz-XXXXXX";
    if (!mkdtemp(tmpl.data())) {
        perror("mkdtemp");
        abort();
    }
    return tmpl;
}

} // namespace

const std::string &fuzz_dir()
{
    static const std::string dir = [] {
        std::string d = make_dir();
        for (const char *sub : {"/proc", "/sys", "/sys/block", "/sys/block/sda", "/data", "/tmp", "/run", "/mnt"})
            mkdir((d + sub).c_str(), 0755);
        FILE *f = fopen((d + "/cfg.ini").c_str(), "w");
        if (!f)
            abort();
        /* Logs stay small and inside the tree (rotation renames there). */
        fprintf(f,
                "[log]\nfile = %s/debug.log\nmax_size = 1048576\nmax_files = 1\nsyslog_file = %s/syslog.log\n"
                "events_file = %s/events.log\nlevel = warning\n",
                d.c_str(), d.c_str(), d.c_str());
        fclose(f);
        setenv("STOVIG_ROOT", d.c_str(), 1);
        setenv("STOVIG_CONFIG", (d + "/cfg.ini").c_str(), 1);
        qn_platform_config_reload();
        snprintf(res_run_dir, sizeof res_run_dir, "%s/run/", d.c_str());
        return d;
    }();
    static const bool cleanup = [] { return atexit(remove_tree) == 0; }();
    (void)cleanup;
    return dir;
}

void fuzz_write(const std::string &rel, const void *data, size_t size)
{
    std::string path = fuzz_dir() + "/" + rel;
    FILE *f = fopen(path.c_str(), "wb");
    if (!f)
        abort();
    if (size && fwrite(data, 1, size, f) != size)
        abort();
    fclose(f);
}

void fuzz_write(const std::string &rel, const std::string &text)
{
    fuzz_write(rel, text.data(), text.size());
}

void fuzz_open_log()
{
    fuzz_dir();
    if (!res_zlog_handle && res_zlog_init() != 0)
        abort();
}
