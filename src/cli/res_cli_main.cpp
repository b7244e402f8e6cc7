#include "cli/res_cli_main.h"
#include "cli/res_cli_json.h"
#include "cli/res_cli_show.h"
#include "misc/res_zlog.h"
#include "mom/res_mom_conf.h"
#include "mom/res_mom_main.h"
#include "mon/res_mon_main.h"
#include "res_main.h"

namespace {

/* Numbers of the parse block. */
#define NUM_INTERVAL 0
#define NUM_THRESHOLD 1
#define NUM_LEVEL 0

/* Sub-command codes of "debug stovig" without and with a level. */
#define DBG_DEFAULT_LEVEL 0
#define DBG_GIVEN_LEVEL 1

/* Sub-command codes of the show commands. */
#define SHOW_SET_IO 11
#define SHOW_SET_RO 12
#define SHOW_SET_CAPACITY 13
#define SHOW_SET_LIFETIME 14

constexpr cli_node keyword(const char *word, const char *help, const cli_node *const *next, uint32_t flag = 0)
{
    return {CLI_NODE_KEYWORD, word, help, 0, 0, 0, flag, nullptr, 0, nullptr, next};
}
constexpr cli_node number(const char *help, int64_t min, int64_t max, int slot, const cli_node *const *next)
{
    return {CLI_NODE_NUMBER, nullptr, help, min, max, slot, 0, nullptr, 0, nullptr, next};
}
constexpr cli_node end_of_line(cli_handler_t handler, int32_t subcode = 0)
{
    return {CLI_NODE_EOL, nullptr, nullptr, 0, 0, 0, 0, handler, subcode, nullptr, nullptr};
}
constexpr cli_node gate(cli_node_kind kind, const cli_node *const *next, cli_test_t test = nullptr)
{
    return {kind, nullptr, nullptr, 0, 0, 0, 0, nullptr, 0, test, next};
}
constexpr cli_node generator(cli_handler_t handler)
{
    return {CLI_NODE_GENERATE, nullptr, nullptr, 0, 0, 0, 0, handler, 0, nullptr, nullptr};
}

bool is_master(const cli_parse_block *)
{
    return res_mom_check_master() == 0;
}
bool plain(const cli_parse_block *pb)
{
    return pb->prefix == CLI_PREFIX_NONE;
}
bool has_option(const cli_parse_block *pb)
{
    return (pb->flags & (RES_CLI_FLAG_INTERVAL | RES_CLI_FLAG_THRESHOLD)) != 0;
}

/* "<item> set [interval N] [threshold N]" with its no/default forms. */
#define SET_WITH_THRESHOLD(tag, handler, set_help, int_kw_help, int_help, int_min, thr_kw_help, thr_help, thr_min, \
                           thr_max)                                                                            \
    const cli_node tag##_eol = end_of_line(handler);                                                           \
    const cli_node *const tag##_eol_list[] = {&tag##_eol, nullptr};                                            \
    const cli_node tag##_complete = gate(CLI_NODE_TEST, tag##_eol_list, has_option);                           \
    const cli_node *const tag##_complete_list[] = {&tag##_complete, nullptr};                                  \
    const cli_node tag##_thr_num = number(thr_help, thr_min, thr_max, NUM_THRESHOLD, tag##_complete_list);     \
    const cli_node *const tag##_thr_num_list[] = {&tag##_thr_num, nullptr};                                    \
    const cli_node tag##_thr = keyword("threshold", thr_kw_help, tag##_thr_num_list, RES_CLI_FLAG_THRESHOLD);  \
    const cli_node *const tag##_after_int[] = {&tag##_thr, &tag##_complete, nullptr};                          \
    const cli_node tag##_int_num = number(int_help, int_min, 3600, NUM_INTERVAL, tag##_after_int);            \
    const cli_node *const tag##_int_num_list[] = {&tag##_int_num, nullptr};                                    \
    const cli_node tag##_int = keyword("interval", int_kw_help, tag##_int_num_list, RES_CLI_FLAG_INTERVAL);   \
    const cli_node *const tag##_options[] = {&tag##_int, &tag##_thr, &tag##_complete, nullptr};               \
    const cli_node tag##_no = gate(CLI_NODE_NO, tag##_eol_list);                                              \
    const cli_node tag##_default = gate(CLI_NODE_DEFAULT, tag##_eol_list);                                    \
    const cli_node tag##_plain = gate(CLI_NODE_TEST, tag##_options, plain);                                   \
    const cli_node *const tag##_after_set[] = {&tag##_no, &tag##_default, &tag##_plain, nullptr};             \
    const cli_node tag##_set = keyword("set", set_help, tag##_after_set);                                     \
    const cli_node tag##_gen = generator(handler);                                                             \
    const cli_node *const tag##_set_list[] = {&tag##_set, &tag##_gen, nullptr}

SET_WITH_THRESHOLD(io, cfg_res_io_set_cmd, "storage io sampling set", "set storage io sampling interval",
                   "storage io sampling interval", 10, "set storage io sampling threshold in percentage",
                   "storage io sampling threshold in percentage", 50, 99);
SET_WITH_THRESHOLD(cap, cfg_res_cap_set_cmd, "storage capacity sampling set", "set storage capacity sampling interval",
                   "storage capacity sampling interval", 30, "set storage capacity sampling threshold in percentage",
                   "storage capacity sampling threshold in percentage", 10, 99);
SET_WITH_THRESHOLD(disk, cfg_res_disk_set_cmd, "storage lifetime sampling set",
                   "set storage lifetime sampling interval", "storage lifetime sampling interval", 60,
                   "set storage lifetime sampling threshold in month", "storage lifetime sampling threshold in month",
                   1, 60);

/* "ro set interval N": the interval is required. */
const cli_node ro_eol = end_of_line(cfg_res_ro_set_cmd);
const cli_node *const ro_eol_list[] = {&ro_eol, nullptr};
const cli_node ro_int_num = number("storage read-only sampling interval", 30, 3600, NUM_INTERVAL, ro_eol_list);
const cli_node *const ro_int_num_list[] = {&ro_int_num, nullptr};
const cli_node ro_int =
    keyword("interval", "set storage read-only sampling interval", ro_int_num_list, RES_CLI_FLAG_INTERVAL);
const cli_node *const ro_options[] = {&ro_int, nullptr};
const cli_node ro_no = gate(CLI_NODE_NO, ro_eol_list);
const cli_node ro_default = gate(CLI_NODE_DEFAULT, ro_eol_list);
const cli_node ro_plain = gate(CLI_NODE_TEST, ro_options, plain);
const cli_node *const ro_after_set[] = {&ro_no, &ro_default, &ro_plain, nullptr};
const cli_node ro_set = keyword("set", "storage read-only sampling set", ro_after_set);
const cli_node ro_gen = generator(cfg_res_ro_set_cmd);
const cli_node *const ro_set_list[] = {&ro_set, &ro_gen, nullptr};

const cli_node cfg_io = keyword("io", "storage io sampling set", io_set_list);
const cli_node cfg_ro = keyword("ro", "storage read-only sampling set", ro_set_list);
const cli_node cfg_cap = keyword("capacity", "storage capacity sampling set", cap_set_list);
const cli_node cfg_disk = keyword("lifetime", "storage lifetime sampling set", disk_set_list);
const cli_node *const cfg_items[] = {&cfg_io, &cfg_ro, &cfg_cap, &cfg_disk, nullptr};
const cli_node cfg_storage = keyword("storage", "config storage item", cfg_items);
const cli_node *const cfg_storage_list[] = {&cfg_storage, nullptr};
const cli_node cfg_guard = gate(CLI_NODE_TEST, cfg_storage_list, is_master);
const cli_node *const res_cli_config_tree[] = {&cfg_guard, nullptr};

/* show storage <item> [set | json] */
#define SHOW_JSON_HELP "Monitor the system storage information as one JSON document"
#define SHOW_ITEM(tag, word, help, item, set_help, set_code)                                       \
    const cli_node show_##tag##_eol = end_of_line(cfg_res_show_cmd, item);                         \
    const cli_node show_##tag##_set_eol = end_of_line(cfg_res_show_set_cmd, set_code);             \
    const cli_node *const show_##tag##_set_eol_list[] = {&show_##tag##_set_eol, nullptr};          \
    const cli_node show_##tag##_set = keyword("set", set_help, show_##tag##_set_eol_list);         \
    const cli_node show_##tag##_json_eol = end_of_line(cfg_res_show_json_cmd, item);               \
    const cli_node *const show_##tag##_json_eol_list[] = {&show_##tag##_json_eol, nullptr};        \
    const cli_node show_##tag##_json = keyword("json", SHOW_JSON_HELP, show_##tag##_json_eol_list); \
    const cli_node *const show_##tag##_next[] = {&show_##tag##_eol, &show_##tag##_set,             \
                                                 &show_##tag##_json, nullptr};                     \
    const cli_node show_##tag = keyword(word, help, show_##tag##_next)

SHOW_ITEM(io, "io", "Monitor the system storage io information", RES_SHOW_IO,
          "Monitor the system storage io setting", SHOW_SET_IO);
SHOW_ITEM(ro, "ro", "Monitor the system storage read-only information", RES_SHOW_RO,
          "Monitor the system storage read-only setting", SHOW_SET_RO);
SHOW_ITEM(cap, "capacity", "Monitor the system storage capacity information", RES_SHOW_CAPACITY,
          "Monitor the system storage capacity setting", SHOW_SET_CAPACITY);
SHOW_ITEM(disk, "lifetime", "Monitor the system storage lifetime information", RES_SHOW_LIFETIME,
          "Monitor the system storage lifetime setting", SHOW_SET_LIFETIME);
const cli_node show_all_eol = end_of_line(cfg_res_show_cmd, RES_SHOW_ALL);
const cli_node show_all_json_eol = end_of_line(cfg_res_show_json_cmd, RES_SHOW_ALL);
const cli_node *const show_all_json_eol_list[] = {&show_all_json_eol, nullptr};
const cli_node show_all_json = keyword("json", SHOW_JSON_HELP, show_all_json_eol_list);
const cli_node *const show_all_next[] = {&show_all_eol, &show_all_json, nullptr};
const cli_node show_all = keyword("all-info", "Monitor the system storage all information", show_all_next);
const cli_node *const show_items[] = {&show_all, &show_io, &show_ro, &show_cap, &show_disk, nullptr};
const cli_node show_storage = keyword("storage", "Monitor the system storage", show_items);
const cli_node *const show_storage_list[] = {&show_storage, nullptr};
const cli_node show_guard = gate(CLI_NODE_TEST, show_storage_list, is_master);
const cli_node *const res_cli_show_tree[] = {&show_guard, nullptr};

/* debug stovig [<0-5>], and "no debug stovig" */
const cli_node dbg_eol = end_of_line(cfg_res_dbg_cmd, DBG_DEFAULT_LEVEL);
const cli_node dbg_level_eol = end_of_line(cfg_res_dbg_cmd, DBG_GIVEN_LEVEL);
const cli_node *const dbg_level_eol_list[] = {&dbg_level_eol, nullptr};
const cli_node dbg_level = number("Specify stovig debug level", 0, 5, NUM_LEVEL, dbg_level_eol_list);
const cli_node *const dbg_level_list[] = {&dbg_level, nullptr};
const cli_node dbg_plain = gate(CLI_NODE_TEST, dbg_level_list, plain);
const cli_node *const dbg_next[] = {&dbg_eol, &dbg_plain, nullptr};
const cli_node dbg_stovig = keyword("stovig", "Switch on stovig debug option", dbg_next);
const cli_node *const dbg_stovig_list[] = {&dbg_stovig, nullptr};
const cli_node dbg_guard = gate(CLI_NODE_TEST, dbg_stovig_list, is_master);
const cli_node *const res_cli_debug_tree[] = {&dbg_guard, nullptr};

bool generating(const cli_parse_block *pb)
{
    return (pb->gen & RES_CLI_GEN_MASK) != 0;
}

bool given(const cli_parse_block *pb, uint32_t flag)
{
    return (pb->flags & flag) != 0;
}

int32_t num(const cli_parse_block *pb, int slot)
{
    return static_cast<int32_t>(pb->nums[slot]);
}

/* A monitor with an interval and a threshold, as its commands see it. */
struct res_cli_item {
    const char *word;          /* "io", "capacity", "lifetime" */
    int32_t *interval;
    int32_t *threshold;
    int32_t def_interval;
    int32_t def_threshold;
    int (*reset)(int32_t interval);
    const char *debug_fmt;     /* the debug line after a change */
    bool months;               /* threshold in months (else percent) */
};

int reset_disk(int32_t interval)
{
    return res_mon_reset_disk_intr(interval, res_disk_type);
}

const res_cli_item io_item = {"io", &io_interval, &io_threshold, RES_IO_INTERVAL_DEF, RES_IO_THRESHOLD_DEF,
                              res_mon_reset_io_intr, "set storage io interval %d seconds, threshold %d%%.", false};
const res_cli_item cap_item = {"capacity", &cap_interval, &cap_threshold, RES_CAP_INTERVAL_DEF, RES_CAP_THRESHOLD_DEF,
                               res_mon_reset_cap_intr, "Set storage capacity interval %d seconds, threshold %d%%.",
                               false};
const res_cli_item disk_item = {"lifetime", &disk_interval, &disk_threshold, RES_DISK_INTERVAL_DEF,
                                RES_DISK_THRESHOLD_DEF, reset_disk,
                                "Set storage lifetime interval %d seconds, threshold %d month.", true};

const char *unit(const res_cli_item &it, int32_t threshold)
{
    if (!it.months)
        return "%";
    return threshold == 1 ? " month" : " months";
}

void print_interval_threshold(const res_cli_item &it, int32_t interval, int32_t threshold)
{
    cli_printf("Set storage %s interval %d seconds, threshold %d%s.\n", it.word, interval, threshold,
               unit(it, threshold));
}

void generate(const res_cli_item &it, cli_parse_block *pb)
{
    int32_t interval = *it.interval, threshold = *it.threshold;
    if (interval == RES_MON_CLOSED)
        c2p_printf(1, pb, "no storage %s set", it.word);
    else if (interval == it.def_interval) {
        if (threshold != it.def_threshold)
            c2p_printf(1, pb, "storage %s set threshold %d", it.word, threshold);
    } else if (threshold != it.def_threshold)
        c2p_printf(1, pb, "storage %s set interval %d threshold %d", it.word, interval, threshold);
    else
        c2p_printf(1, pb, "storage %s set interval %d", it.word, interval);
}

/* Runs "[no|default] storage <item> set [interval N] [threshold N]". */
int run_set(const res_cli_item &it, cli_parse_block *pb)
{
    if (generating(pb)) {
        generate(it, pb);
        return 0;
    }
    bool was_on = *it.interval != RES_MON_CLOSED;
    int32_t interval = num(pb, NUM_INTERVAL), threshold = num(pb, NUM_THRESHOLD);
    if (pb->prefix == CLI_PREFIX_NO) {
        it.reset(RES_MON_CLOSED);
        cli_printf("Close storage %s monitor.\n", it.word);
    } else if (pb->prefix == CLI_PREFIX_DEFAULT) {
        *it.threshold = it.def_threshold;
        it.reset(it.def_interval);
        cli_printf("Reset default storage %s monitor.\n", it.word);
        print_interval_threshold(it, it.def_interval, it.def_threshold);
    } else if (given(pb, RES_CLI_FLAG_INTERVAL) && given(pb, RES_CLI_FLAG_THRESHOLD)) {
        if (!was_on)
            cli_printf("Open storage %s monitor.\n", it.word);
        it.reset(interval);
        *it.threshold = threshold;
        print_interval_threshold(it, interval, threshold);
    } else if (given(pb, RES_CLI_FLAG_INTERVAL)) {
        if (was_on) {
            it.reset(interval);
            cli_printf("Set storage %s interval %d seconds.\n", it.word, interval);
        } else {
            cli_printf("Open storage %s monitor.\n", it.word);
            it.reset(interval);
            *it.threshold = it.def_threshold;
            print_interval_threshold(it, interval, it.def_threshold);
        }
    } else if (given(pb, RES_CLI_FLAG_THRESHOLD)) {
        if (was_on) {
            *it.threshold = threshold;
            cli_printf("Set storage %s threshold %d%s.\n", it.word, threshold, unit(it, threshold));
        } else {
            cli_printf("Open storage %s monitor.\n", it.word);
            it.reset(it.def_interval);
            *it.threshold = threshold;
            print_interval_threshold(it, it.def_interval, threshold);
        }
    }
    cli_printf("\n");
    RES_DBG(it.debug_fmt, *it.interval, *it.threshold);
    res_mom_conf_handler(RES_MOM_OP_SEND);
    return 0;
}

} // namespace

int cfg_res_io_set_cmd(struct cli_parse_block *pb)
{
    return run_set(io_item, pb);
}

int cfg_res_cap_set_cmd(struct cli_parse_block *pb)
{
    return run_set(cap_item, pb);
}

int cfg_res_disk_set_cmd(struct cli_parse_block *pb)
{
    return run_set(disk_item, pb);
}

int cfg_res_ro_set_cmd(struct cli_parse_block *pb)
{
    if (generating(pb)) {
        if (ro_interval == RES_MON_CLOSED)
            c2p_printf(1, pb, "no storage ro set");
        else if (ro_interval != RES_RO_INTERVAL_DEF)
            c2p_printf(1, pb, "storage ro set interval %d", ro_interval);
        return 0;
    }
    if (pb->prefix == CLI_PREFIX_NO) {
        res_mon_reset_ro_intr(RES_MON_CLOSED);
        cli_printf("Close storage read-only monitor.\n");
    } else if (pb->prefix == CLI_PREFIX_DEFAULT) {
        res_mon_reset_ro_intr(RES_RO_INTERVAL_DEF);
        cli_printf("Reset default storage read-only monitor.\n");
        cli_printf("Set storage read-only interval %d seconds.\n", RES_RO_INTERVAL_DEF);
    } else {
        if (ro_interval == RES_MON_CLOSED)
            cli_printf("Open storage read-only monitor.\n");
        res_mon_reset_ro_intr(num(pb, NUM_INTERVAL));
        cli_printf("Set storage read-only interval %d seconds.\n", num(pb, NUM_INTERVAL));
    }
    cli_printf("\n");
    RES_DBG("Set storage read-only interval %d seconds.", ro_interval);
    res_mom_conf_handler(RES_MOM_OP_SEND);
    return 0;
}

int cfg_res_dbg_cmd(struct cli_parse_block *pb)
{
    uint32_t level = 3;
    if (pb->prefix == CLI_PREFIX_NO)
        level = 0;
    else if (pb->subcode == DBG_GIVEN_LEVEL)
        level = static_cast<uint32_t>(pb->nums[NUM_LEVEL]);
    if (level <= 5 && level != res_dbg_level) {
        res_dbg_level = level;
        res_mom_dbg_handler(RES_MOM_OP_SEND);
    }
    cli_printf("Set stovig debug to %u\n", level);
    RES_DBG("Set stovig debug to %u", level);
    return 0;
}

int cfg_res_show_cmd(struct cli_parse_block *pb)
{
    return res_cli_show_storage(pb->subcode, cli_printf);
}

int cfg_res_show_json_cmd(struct cli_parse_block *pb)
{
    return res_cli_show_storage_json(pb->subcode, cli_printf);
}

int cfg_res_show_set_cmd(struct cli_parse_block *pb)
{
    switch (pb->subcode) {
    case SHOW_SET_IO:
        if (io_interval == RES_MON_CLOSED) {
            cli_printf("Storage IO Monitor:     Closed\n");
        } else {
            cli_printf("Storage IO Monitor:     Opened\n");
            cli_printf("Storage IO Interval:    %d Seconds\n", io_interval);
            cli_printf("Storage IO Threshold:   %d%%\n", io_threshold);
        }
        break;
    case SHOW_SET_RO:
        if (ro_interval == RES_MON_CLOSED) {
            cli_printf("Storage Read-only Monitor:     Closed\n");
        } else {
            cli_printf("Storage Read-only Monitor:     Opened\n");
            cli_printf("Storage Read-only Interval:    %d Seconds\n", ro_interval);
        }
        break;
    case SHOW_SET_CAPACITY:
        if (cap_interval == RES_MON_CLOSED) {
            cli_printf("Storage Capacity Monitor:     Closed\n");
        } else {
            cli_printf("Storage Capacity Monitor:     Opened\n");
            cli_printf("Storage Capacity Interval:    %d Seconds\n", cap_interval);
            cli_printf("Storage Capacity Threshold:   %d%%\n", cap_threshold);
        }
        break;
    case SHOW_SET_LIFETIME:
        if (disk_interval == RES_MON_CLOSED) {
            cli_printf("Storage Lifetime Monitor:     Closed\n");
        } else {
            cli_printf("Storage Lifetime Monitor:     Opened\n");
            cli_printf("Storage Lifetime Interval:    %d Seconds\n", disk_interval);
            cli_printf(disk_threshold == 1 ? "Storage Lifetime Threshold:   %d month\n"
                                           : "Storage Lifetime Threshold:   %d months\n",
                       disk_threshold);
        }
        break;
    default:
        return -1;
    }
    cli_printf("\n");
    return 0;
}

int res_cli_init(void)
{
    if (!cli_add_command(CLI_MODE_CONFIG, res_cli_config_tree, "storage") ||
        !cli_add_command(CLI_MODE_EXEC_SHOW, res_cli_show_tree, "show storage") ||
        !cli_add_command(CLI_MODE_DEBUG, res_cli_debug_tree, "stovig"))
        return -1;
    sys_add_debug("debug stovig", 0, 0, 0, res_debug_off, 0);
    return 0;
}
