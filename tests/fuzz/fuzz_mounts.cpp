/* The mount scan on arbitrary /proc/mounts contents. */
#include "fuzz_common.h"

#include "mon/res_mon_part.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = [] {
        fuzz_write("proc/uptime", "1000.00 10.00\n");
        res_mon_part_init();
        return true;
    }();
    (void)ready;
    fuzz_write("proc/mounts", data, size);
    last_mount_scan = 0;
    res_mon_part_update();
    for (int i = 0; i < RES_PART_NUM; ++i)
        if (res_part_table[i].mounted > 1)
            abort();
    return 0;
}
