#include "mom/res_mom_cap.h"

#include "misc/res_zlog.h"
#include "qn_cap.h"

#include <cstdlib>
#include <cstring>
#include <list>
#include <new>

#define RES_CAP_PREFIX "g_feature_spec/product_platform_spec/"
#define RES_CAP_DEV_TYPE RES_CAP_PREFIX "CAP_DEV_TYPE"
#define RES_CAP_FLASH_IDNAME RES_CAP_PREFIX "CAP_FLASH_IDNAME"
#define RES_CAP_FLASH_ERASETIMES RES_CAP_PREFIX "CAP_FLASH_ERASETIMES"
#define RES_CAP_FLASH_PRODUCTLIFE RES_CAP_PREFIX "CAP_FLASH_PRODUCTLIFE"
#define RES_CAP_FLASH_GCLEVEL RES_CAP_PREFIX "CAP_FLASH_GCLEVEL"
#define RES_CAP_FLASH_WARNLEVEL RES_CAP_PREFIX "CAP_FLASH_WARNLEVEL"

#define RES_CAP_DEV_TYPE_LEN 128
#define RES_CAP_FLASH_ID_LEN 32

namespace {

/* The bus client the lookups go through, set by res_mom_cap_init. */
qn_mom_client_t *res_cap_client = nullptr;

struct res_flash_cap {
    char flash_id[RES_CAP_FLASH_ID_LEN];
    int32_t erase_times;
    int32_t product_life; /* years */
    int32_t gc_level;
    int32_t warn_level;
};

/* The flash figures; kept for logging, one record after each lookup. */
std::list<res_flash_cap> res_flash_cap_list;

} // namespace

int res_mom_cap_init(qn_mom_client_t *client, const char *module)
{
    if (!client || !module || !*module)
        return -1;
    res_cap_client = client;
    return libqn_cap_init(client, module);
}

int stovig_cap_get_cap_int32(const char *path, int32_t *out)
{
    int ret = libqn_cap_get_capacity_int32(res_cap_client, path, out);
    RES_VERBOSE("url %s\n", path);
    RES_VERBOSE("value %d\n", out ? *out : 0);
    return ret;
}

int res_cap_get_device_type(qn_mom_client_t *client, uint32_t *type)
{
    if (!client || !type)
        return -1;
    char value[RES_CAP_DEV_TYPE_LEN + 1] = {0};
    uint32_t len = 0;
    int ret = libqn_cap_get_capacity_str(client, RES_CAP_DEV_TYPE, value, sizeof value, &len);
    if (ret == 0 && len != 0) {
        RES_DBG("get device type[%s] from cap", value);
        if (strcmp(value, "BOX") == 0) {
            *type = RES_DEV_TYPE_BOX;
            RES_DBG("local dev type is box");
        } else if (strcmp(value, "LC") == 0) {
            *type = RES_DEV_TYPE_LC;
            RES_DBG("local dev type is lc");
        } else if (strcmp(value, "CM") == 0) {
            *type = RES_DEV_TYPE_CM;
            RES_DBG("local dev type is cm");
        }
        return 0;
    }
    RES_ERR("call libqn_cap_get_capacity_str url[%s] with ret[%d] len[%d].", RES_CAP_DEV_TYPE, ret, len);
    *type = RES_DEV_TYPE_CM;
    return -1;
}

int res_get_flash_cap(void)
{
    res_flash_cap_list.clear();
    try {
        res_flash_cap_list.emplace_back();
    } catch (const std::bad_alloc &) {
        RES_ERR("flash config:malloc failed line=%d\n", __LINE__);
        return -1;
    }
    /* The record is in the list whatever the lookups give. */
    res_flash_cap &rec = res_flash_cap_list.back();
    memset(&rec, 0, sizeof rec);
    uint32_t len = 0;
    int ret = libqn_cap_get_capacity_str(res_cap_client, RES_CAP_FLASH_IDNAME, rec.flash_id, sizeof rec.flash_id,
                                         &len);
    ret |= stovig_cap_get_cap_int32(RES_CAP_FLASH_ERASETIMES, &rec.erase_times);
    ret |= stovig_cap_get_cap_int32(RES_CAP_FLASH_PRODUCTLIFE, &rec.product_life);
    ret |= stovig_cap_get_cap_int32(RES_CAP_FLASH_GCLEVEL, &rec.gc_level);
    ret |= stovig_cap_get_cap_int32(RES_CAP_FLASH_WARNLEVEL, &rec.warn_level);
    RES_DBG("CAP:flash_id=%s\n", rec.flash_id);
    RES_DBG("CAP:block_erase_times=%d\n", rec.erase_times);
    RES_DBG("CAP:product_lifetime_years=%d\n", rec.product_life);
    return ret;
}

/* Number of flash records kept (one after every lookup). */
size_t res_flash_cap_count(void)
{
    return res_flash_cap_list.size();
}
