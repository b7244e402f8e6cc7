/* The eMMC lifetime arithmetic: the first line of the input is the power-on
 * time file, the rest the EXT_CSD register dump. */
#include "fuzz_common.h"

#include "misc/res_saturate.h"
#include "mon/res_mon_disk.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_dir();
    const char *text = reinterpret_cast<const char *>(data);
    const void *nl = memchr(text, '\n', size);
    size_t first = nl ? static_cast<size_t>(static_cast<const char *>(nl) - text) : size;
    /* The power-on file is read into a zeroed 128-byte buffer, 127 bytes at
     * most. */
    std::string uptime(text, first < 127 ? first : 127);
    std::string dump(text + (nl ? first + 1 : size), nl ? size - first - 1 : 0);

    uint32_t months = res_uptime_months(res_uptime_seconds(uptime.c_str()));
    if (months == 0)
        abort();
    /* fmemopen() refuses an empty buffer: an empty input reads as no file. */
    FILE *fp = dump.empty() ? nullptr : fmemopen(dump.data(), dump.size(), "r");
    int wear = res_emmc_wear_from_dump(fp);
    if (fp)
        fclose(fp);
    if (wear != -1 && (wear < 0 || wear > 105))
        abort();
    int32_t left = res_emmc_left_life(wear, res_sat_i32(months));
    if (left < 0)
        abort();
    return 0;
}
