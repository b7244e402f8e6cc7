#include "misc/res_read.h"

#include "misc/res_path.h"
#include "misc/res_zlog.h"

#include <cstring>
#include <string>

namespace {

/* The white space of "%s": space, tab, newline, carriage return, vertical
 * tab and form feed. */
bool res_misc_is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

} // namespace

bool res_misc_read_line(FILE *fp, char *buf, size_t len)
{
    /* Cleared first so that a newline found below is this line's, even when
     * the line holds a NUL byte. */
    memset(buf, 0, len);
    if (!fgets(buf, static_cast<int>(len), fp))
        return false;
    if (memchr(buf, '\n', len - 1))
        return true;
    int c;
    while ((c = fgetc(fp)) != EOF && c != '\n') {
    }
    return true;
}

bool res_misc_word(const char *line, int n, char *out, size_t len)
{
    const char *p = line;
    for (int i = 1;; ++i) {
        while (res_misc_is_space(*p))
            ++p;
        if (!*p)
            return false;
        const char *start = p;
        while (*p && !res_misc_is_space(*p))
            ++p;
        if (i == n) {
            size_t w = static_cast<size_t>(p - start);
            if (w > len - 1)
                w = len - 1;
            memcpy(out, start, w);
            out[w] = '\0';
            return true;
        }
    }
}

int read_uptime(uint64_t *out)
{
    std::string path = res_host_path(RES_UPTIME_PATH);
    FILE *fp = fopen(path.c_str(), "r");
    char line[128];
    unsigned long secs = 0, frac = 0;
    bool ok = false;
    if (fp) {
        if (fgets(line, sizeof line, fp) && sscanf(line, "%lu.%lu", &secs, &frac) == 2)
            ok = true;
        fclose(fp);
    }
    if (!ok) {
        RES_ERR("Cannot read %s", RES_UPTIME_PATH);
        return -1;
    }
    /* Seconds and hundredths as the kernel prints them ("%lu.%02lu"). */
    if (out)
        *out = static_cast<uint64_t>(secs) * 100 + frac;
    return 0;
}
