/* The platform's INI config reader on arbitrary file contents, through its
 * public calls only: load, then ask the calls that read the settings. */
#include "fuzz_common.h"

#include "qn_ndm.h"
#include "qn_platform_config.h"

#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string &dir = fuzz_dir();
    static const std::string path = dir + "/fuzz.ini";
    fuzz_write("fuzz.ini", data, size);
    setenv("STOVIG_CONFIG", path.c_str(), 1);
    qn_platform_config_reload();
    const qn_platform_config *cfg = qn_platform_config_get();
    if (cfg) {
        char name[32];
        ndm_get_user_slot_name(cfg->devid, cfg->user_slot, 0, name, sizeof name);
        ndm_get_card_name_by_slot(cfg->devid, cfg->user_slot, 0, name, sizeof name);
        if (cfg->log_max_files < 1 || cfg->second_ms < 1)
            abort();
    }
    /* Back to the harness's own settings for the next input. */
    setenv("STOVIG_CONFIG", (dir + "/cfg.ini").c_str(), 1);
    qn_platform_config_reload();
    return 0;
}
