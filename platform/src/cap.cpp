/* Capability service stand-in: answers from the [cap] section of the
 * platform config, keyed by the last component of the capability path.
 * Without a config file it describes a whole stand-alone box: device type
 * BOX and the flash figures of a typical 8 GB eMMC part.  A key given with an
 * empty value removes that capability. */
#include "qn_cap.h"
#include "qn_platform_config.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace {

/* Clients on which the capability client was started; lookups on any other
 * handle find the service unreachable. */
std::set<const qn_mom_client_t *> started;
std::mutex started_lock;

bool cap_started(const qn_mom_client_t *client)
{
    std::lock_guard<std::mutex> guard(started_lock);
    return started.count(client) != 0;
}

/* The stand-alone box: a typical eMMC part (MLC, rated for 3000 erase
 * cycles and 10 years). */
const std::map<std::string, std::string> box_defaults = {
    {"CAP_DEV_TYPE", "BOX"},
    {"CAP_FLASH_IDNAME", "EMMC-8G"},
    {"CAP_FLASH_ERASETIMES", "3000"},
    {"CAP_FLASH_PRODUCTLIFE", "10"},
    {"CAP_FLASH_GCLEVEL", "1"},
    {"CAP_FLASH_WARNLEVEL", "80"},
};

/* 0 and the value of a path; -ENOENT when it has none. */
int cap_lookup(const char *path, std::string *out)
{
    if (!path || !*path)
        return -EINVAL;
    const char *slash = strrchr(path, '/');
    std::string key = slash ? slash + 1 : path;
    const qn_platform_config *cfg = qn_platform_config_get();
    if (!cfg)
        return -ENOTCONN; /* no readable configuration: the service is down */
    auto it = cfg->cap.find(key);
    if (it == cfg->cap.end()) {
        it = box_defaults.find(key);
        if (it == box_defaults.end())
            return -ENOENT;
    }
    if (it->second.empty())
        return -ENOENT; /* removed by the config file */
    *out = it->second;
    return 0;
}

} // namespace

extern "C" {

int libqn_cap_init(qn_mom_client_t *client, const char *module)
{
    if (!client || !module || !*module)
        return -EINVAL;
    std::lock_guard<std::mutex> guard(started_lock);
    started.insert(client);
    return 0;
}

int libqn_cap_get_capacity_int32(qn_mom_client_t *client, const char *path, int32_t *value)
{
    if (!client || !value)
        return -EINVAL;
    if (!cap_started(client))
        return -ENOTCONN;
    std::string text;
    int ret = cap_lookup(path, &text);
    if (ret != 0)
        return ret;
    char *end = nullptr;
    errno = 0;
    long long v = strtoll(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0' || v < INT32_MIN || v > INT32_MAX)
        return -EINVAL;
    *value = static_cast<int32_t>(v);
    return 0;
}

int libqn_cap_get_capacity_str(qn_mom_client_t *client, const char *path, char *buf, uint32_t size, uint32_t *len)
{
    if (!client || !buf || size == 0)
        return -EINVAL;
    if (!cap_started(client)) {
        if (len)
            *len = 0;
        return -ENOTCONN;
    }
    std::string text;
    int ret = cap_lookup(path, &text);
    if (ret != 0) {
        if (len)
            *len = 0;
        return ret;
    }
    size_t n = text.size() < size - 1 ? text.size() : size - 1;
    memcpy(buf, text.data(), n);
    buf[n] = '\0';
    if (len)
        *len = static_cast<uint32_t>(n);
    return 0;
}

} // extern "C"
