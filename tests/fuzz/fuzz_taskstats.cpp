/* The taskstats reply walk on arbitrary netlink bytes, in a buffer of
 * exactly the reply's length (as recv() fills it). */
#include "fuzz_common.h"

#include "mon/res_mon_io_top_info.h"

#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *buf = static_cast<char *>(malloc(size ? size : 1));
    if (!buf)
        return 0;
    if (size)
        memcpy(buf, data, size);
    struct xxxid_stats s;
    memset(&s, 0, sizeof s);
    res_mon_nl_parse_reply(&s, buf, size);
    free(buf);
    return 0;
}
