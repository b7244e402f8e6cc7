#include "qn_platform_config.h"

#include <arpa/inet.h>
#include <ini.h>
#include <netinet/in.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <vector>

namespace {

struct parse_state {
    qn_platform_config *cfg;
    std::string error;  /* first error, "line N: [section] key: reason" */
    int line = 0;
};

bool parse_int(const char *text, long long lo, long long hi, long long *out)
{
    char *end = nullptr;
    errno = 0;
    long long v = strtoll(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

/* A setting that the file may hold: where it goes and how it is checked. */
struct setting {
    const char *section;
    const char *key;
    std::function<const char *(qn_platform_config &, const char *)> apply; /* null or reason */
};

std::function<const char *(qn_platform_config &, const char *)> str(std::string qn_platform_config::*m)
{
    return [m](qn_platform_config &c, const char *v) -> const char * {
        c.*m = v;
        return nullptr;
    };
}

template <typename T>
std::function<const char *(qn_platform_config &, const char *)> num(T qn_platform_config::*m, long long lo,
                                                                    long long hi)
{
    return [m, lo, hi](qn_platform_config &c, const char *v) -> const char * {
        long long n;
        if (!parse_int(v, lo, hi, &n))
            return "not a number in range";
        c.*m = static_cast<T>(n);
        return nullptr;
    };
}

std::function<const char *(qn_platform_config &, const char *)> one_of(std::string qn_platform_config::*m,
                                                                       std::initializer_list<const char *> allowed)
{
    std::vector<std::string> words(allowed.begin(), allowed.end());
    return [m, words](qn_platform_config &c, const char *v) -> const char * {
        for (const std::string &w : words)
            if (w == v) {
                c.*m = v;
                return nullptr;
            }
        return "not one of the accepted words";
    };
}

/* [bus] url: redis://HOST[:PORT], the only transport besides the embedded one. */
const char *bus_url(qn_platform_config &c, const char *v)
{
    std::string url = v;
    const std::string scheme = "redis://";
    if (url.empty()) {
        c.bus_url.clear();
        return nullptr;
    }
    if (url.compare(0, scheme.size(), scheme) != 0)
        return "expected redis://HOST:PORT";
    std::string rest = url.substr(scheme.size());
    while (!rest.empty() && rest.back() == '/')
        rest.pop_back();
    size_t colon = rest.rfind(':');
    std::string host = colon == std::string::npos ? rest : rest.substr(0, colon);
    long long port = 6379;
    if (host.empty() || (colon != std::string::npos && !parse_int(rest.c_str() + colon + 1, 1, 65535, &port)))
        return "expected redis://HOST:PORT";
    c.bus_url = url;
    return nullptr;
}

/* [metrics] listen: a numeric address and a port, "127.0.0.1:9464" or
 * "[::1]:9464".  Names are refused: resolving them would wait on the
 * resolver at start-up, and an endpoint that moves with the name service is
 * not what an operator means to expose. */
const char *metrics_listen(qn_platform_config &c, const char *v)
{
    const char *reason = "expected ADDR:PORT with a numeric IPv4 address or [IPv6] address and a port 1-65535";
    std::string text = v;
    if (text.empty()) {
        c.metrics_listen.clear();
        c.metrics_host.clear();
        c.metrics_port = 0;
        return nullptr;
    }
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return reason;
    std::string host = text.substr(0, colon);
    long long port;
    if (!parse_int(text.c_str() + colon + 1, 1, 65535, &port) || text.find_first_not_of("0123456789", colon + 1) !=
                                                                     std::string::npos)
        return reason;
    unsigned char addr[sizeof(struct in6_addr)];
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        if (inet_pton(AF_INET6, host.c_str(), addr) != 1)
            return reason;
    } else if (inet_pton(AF_INET, host.c_str(), addr) != 1) {
        return reason;
    }
    c.metrics_listen = text;
    c.metrics_host = host;
    c.metrics_port = static_cast<int>(port);
    return nullptr;
}

const char *node_type(qn_platform_config &c, const char *v)
{
    long long n;
    if (!parse_int(v, 0, INT_MAX, &n))
        return "not a number in range";
    c.node_type = static_cast<int>(n);
    c.node_type_given = true;
    return nullptr;
}

/* The device manager's node type that a capability device type stands for;
 * 0 for a type it does not know. */
int node_type_of_dev_type(const std::string &dev_type)
{
    if (dev_type == "BOX")
        return 1;
    if (dev_type == "CM")
        return 2;
    if (dev_type == "LC")
        return 3;
    return 0;
}

/* [node] node_type and [cap] CAP_DEV_TYPE name one thing twice: a node
 * given one takes the other from it, and one given both must agree.  The
 * reason, or empty. */
std::string check_node_type(qn_platform_config &c)
{
    auto cap = c.cap.find("CAP_DEV_TYPE");
    if (cap == c.cap.end())
        return {};
    int implied = node_type_of_dev_type(cap->second);
    if (implied == 0)
        return {};
    if (!c.node_type_given) {
        c.node_type = implied;
        return {};
    }
    if (c.node_type == implied)
        return {};
    return "[node] node_type = " + std::to_string(c.node_type) + " disagrees with [cap] CAP_DEV_TYPE = " +
           cap->second + " (node types: 1 BOX, 2 CM, 3 LC)";
}

const setting settings[] = {
    {"log", "file", str(&qn_platform_config::log_file)},
    {"log", "max_size", num(&qn_platform_config::log_max_size, 4096, LLONG_MAX)},
    {"log", "max_files", num(&qn_platform_config::log_max_files, 1, 1000)},
    {"log", "syslog_file", str(&qn_platform_config::syslog_file)},
    {"log", "level", one_of(&qn_platform_config::log_level, {"error", "warning", "debug"})},
    {"log", "events_file", str(&qn_platform_config::events_file)},
    {"log", "events_max_size", num(&qn_platform_config::events_max_size, 4096, LLONG_MAX)},
    {"log", "events_max_files", num(&qn_platform_config::events_max_files, 1, 1000)},
    {"loop", "second_ms", num(&qn_platform_config::second_ms, 1, 3600000)},
    {"bus", "url", bus_url},
    {"bus", "user", str(&qn_platform_config::bus_user)},
    {"bus", "password", str(&qn_platform_config::bus_password)},
    {"node", "devid", num(&qn_platform_config::devid, 0, INT_MAX)},
    {"node", "phy_slot", num(&qn_platform_config::phy_slot, 0, INT_MAX)},
    {"node", "user_slot", num(&qn_platform_config::user_slot, 0, INT_MAX)},
    {"node", "node_type", node_type},
    {"node", "role", num(&qn_platform_config::role, 0, 3)},
    {"node", "slot_name", str(&qn_platform_config::slot_name)},
    {"node", "card_name", str(&qn_platform_config::card_name)},
    {"cli", "socket", str(&qn_platform_config::cli_socket)},
    {"cli", "startup_file", str(&qn_platform_config::startup_file)},
    {"cli", "idle_timeout", num(&qn_platform_config::cli_idle_timeout, 0, 31536000)},
    {"metrics", "listen", metrics_listen},
};

int on_entry(void *user, const char *section, const char *key, const char *value)
{
    auto *st = static_cast<parse_state *>(user);
    if (!st->error.empty())
        return 1;
    const char *reason = "unknown key";
    if (strcmp(section, "cap") == 0) {
        st->cfg->cap[key] = value;
        return 1;
    }
    for (const setting &s : settings) {
        if (strcmp(s.section, section) == 0 && strcmp(s.key, key) == 0) {
            reason = s.apply(*st->cfg, value);
            if (!reason)
                return 1;
            break;
        }
    }
    st->error = std::string("[") + section + "] " + key + ": " + reason + " ('" + value + "')";
    return 0;
}

std::unique_ptr<qn_platform_config> cached;
bool loaded = false;

} // namespace

std::string qn_platform_run_dir()
{
    const char *tmp = getenv("TMPDIR");
    return std::string(tmp ? tmp : "/tmp") + "/stovig/";
}

void qn_platform_config_reload()
{
    cached.reset();
    loaded = false;
}

std::unique_ptr<qn_platform_config> qn_platform_config_load(std::string *error)
{
    auto cfg = std::make_unique<qn_platform_config>();
    const char *path = getenv("STOVIG_CONFIG");
    if (!path || !*path)
        return cfg;
    cfg->path = path;
    FILE *f = fopen(path, "r");
    if (!f) {
        *error = std::string(path) + ": cannot read config file: " + strerror(errno);
        return nullptr;
    }
    parse_state st{cfg.get(), {}};
    int line = ini_parse_file(f, on_entry, &st);
    fclose(f);
    if (line != 0) {
        if (st.error.empty())
            st.error = "malformed line";
        *error = std::string(path) + ":" + std::to_string(line) + ": " + st.error;
        return nullptr;
    }
    std::string disagree = check_node_type(*cfg);
    if (!disagree.empty()) {
        *error = std::string(path) + ": " + disagree;
        return nullptr;
    }
    return cfg;
}

const qn_platform_config *qn_platform_config_get()
{
    if (loaded)
        return cached.get();
    loaded = true;
    std::string error;
    cached = qn_platform_config_load(&error);
    if (!cached)
        fprintf(stderr, "%s\n", error.c_str());
    return cached.get();
}
