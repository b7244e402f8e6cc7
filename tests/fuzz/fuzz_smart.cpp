/* The SMART report parser and the SSD lifetime arithmetic on arbitrary
 * report text. */
#include "fuzz_common.h"

#include "mon/res_mon_disk.h"
#include "mon/res_mon_main.h"

#include <cstdio>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = [] {
        fuzz_write("data/.uptime", "7776000\n");
        return true;
    }();
    (void)ready;
    memset(&res_ssd_smart, 0, sizeof res_ssd_smart);
    std::string report(reinterpret_cast<const char *>(data), size);
    /* fmemopen() refuses an empty buffer: an empty input reads as no file. */
    FILE *fp = report.empty() ? nullptr : fmemopen(report.data(), report.size(), "r");
    if (fp) {
        res_parse_smart_report(fp);
        fclose(fp);
    }
    res_ssd_lifetime_update();
    return 0;
}
