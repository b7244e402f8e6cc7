/* The disk statistics scan on arbitrary /proc/diskstats contents: two scans
 * of the same text (the second computes rates against the first), then the
 * device list is dropped. */
#include "fuzz_common.h"

#include "mon/res_mon_io_stat.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = [] {
        fuzz_write("proc/uptime", "1000.00 10.00\n");
        return true;
    }();
    (void)ready;
    fuzz_write("proc/diskstats", data, size);
    res_mon_io_stat_scan();
    res_mon_io_stat_scan();
    res_mon_io_stat_clear();
    return 0;
}
