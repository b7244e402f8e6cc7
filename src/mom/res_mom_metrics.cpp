/* The Prometheus text exposition of the node store.  Every metric family is
 * written once with its HELP and TYPE lines and then all its samples, as the
 * format asks; a family without samples is left out.  Names follow the
 * Prometheus conventions: the qn_stovig_ prefix and base units (bytes,
 * seconds, ratios of 0 to 1), except the lifetime, which the devices report
 * and the threshold counts in months. */
#include "mom/res_mom_metrics.h"
#include "misc/res_escape.h"
#include "misc/res_health.h"
#include "cli/res_cli_show.h"
#include "misc/res_zlog.h"
#include "mom/res_mom_age.h"
#include "mom/res_mom_main.h"
#include "mom/res_mom_metrics_local.h"
#include "mon/res_mon_main.h"

#include "qn_metrics.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <string>

namespace {

enum family_id {
    F_MONITOR_ENABLED,
    F_MONITOR_INTERVAL,
    F_IO_THRESHOLD,
    F_CAPACITY_THRESHOLD,
    F_LIFETIME_THRESHOLD,
    F_NODE_INFO,
    F_NODE_STALE,
    F_NODE_AGE,
    F_DISK_READ,
    F_DISK_WRITE,
    F_DISK_UTIL,
    F_DISK_WARNING,
    F_PROC_READ,
    F_PROC_WRITE,
    F_PART_SIZE,
    F_PART_USED,
    F_PART_USED_RATIO,
    F_PART_WARNING,
    F_PART_READ_ONLY,
    F_LIFETIME_LEFT,
    F_LIFETIME_WARNING,
    F_NUM
};

struct family_def {
    const char *name;
    const char *help;
};

/* Every metric, in the order it is written; README.md lists the same. */
const family_def families[F_NUM] = {
    {"qn_stovig_monitor_enabled", "Whether a monitor samples (1) or is closed (0)."},
    {"qn_stovig_monitor_interval_seconds", "Sampling interval of an open monitor."},
    {"qn_stovig_io_threshold_ratio", "Disk utilisation at which a disk's I/O warning is raised."},
    {"qn_stovig_capacity_threshold_ratio", "Partition usage at which a capacity warning is raised."},
    {"qn_stovig_lifetime_threshold_months", "Months of flash lifetime left below which a warning is raised."},
    {"qn_stovig_node_info", "A node of the store, with its card name; always 1."},
    {"qn_stovig_node_stale", "Whether the node's I/O record is overdue (1) or not (0)."},
    {"qn_stovig_node_data_age_seconds", "Time since the node's last record of a kind was received."},
    {"qn_stovig_disk_read_bytes_per_second", "Disk read rate over the last I/O sampling interval."},
    {"qn_stovig_disk_write_bytes_per_second", "Disk write rate over the last I/O sampling interval."},
    {"qn_stovig_disk_utilization_ratio", "Share of the last I/O sampling interval the disk was busy."},
    {"qn_stovig_disk_io_warning", "Whether the disk's I/O warning is raised (1) or not (0)."},
    {"qn_stovig_process_read_bytes_per_second", "Read rate of one of the processes doing the most I/O."},
    {"qn_stovig_process_write_bytes_per_second", "Write rate of one of the processes doing the most I/O."},
    {"qn_stovig_partition_size_bytes", "Size of a watched partition."},
    {"qn_stovig_partition_used_bytes", "Used space of a watched partition, blocks reserved for root included."},
    {"qn_stovig_partition_used_ratio", "Used share of a watched partition."},
    {"qn_stovig_partition_capacity_warning", "Whether the partition's capacity warning is raised (1) or not (0)."},
    {"qn_stovig_partition_read_only", "Whether the partition was found read-only (1) or writable (0)."},
    {"qn_stovig_disk_lifetime_left_months", "Months of lifetime the flash device has left."},
    {"qn_stovig_disk_lifetime_warning", "Whether the device's lifetime warning is raised (1) or not (0)."},
};

/* Bytes per unit of the figures as the store keeps them. */
constexpr double io_kb_bytes = 1024.0;      /* disk rates: sectors of 512 bytes halved */
constexpr double capacity_kb_bytes = 1000.0; /* partition sizes: decimal kilobytes */

/* A sample value as Prometheus reads it: the shortest text that reads back
 * as the same double. */
void append_value(std::string &out, double v)
{
    if (std::isnan(v)) {
        out += "NaN";
        return;
    }
    if (std::isinf(v)) {
        out += v > 0 ? "+Inf" : "-Inf";
        return;
    }
    char buf[64];
    /* Whole numbers (sizes, flags, settings) in plain digits rather than
     * the shorter exponent form ("1000000", not "1e+06"). */
    if (v == std::trunc(v) && std::fabs(v) < 1e15) {
        auto res = std::to_chars(buf, buf + sizeof buf, static_cast<long long>(v));
        out.append(buf, res.ptr);
        return;
    }
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, res.ptr);
}

/* Labels of one sample, written as `{a="x",b="y"}`. */
class labels {
  public:
    labels &add(const char *name, const std::string &value)
    {
        text_ += text_.empty() ? "{" : ",";
        text_ += name;
        text_ += "=\"";
        text_ += value;
        text_ += '"';
        return *this;
    }
    labels &add(const char *name, const char *buf, size_t size)
    {
        return add(name, res_mom_metrics_label_value(buf, size));
    }
    std::string text() const { return text_.empty() ? std::string() : text_ + "}"; }

  private:
    std::string text_;
};

struct exposition {
    std::string samples[F_NUM];

    void sample(family_id f, const labels &l, double v)
    {
        std::string &s = samples[f];
        s += families[f].name;
        s += l.text();
        s += ' ';
        append_value(s, v);
        s += '\n';
    }

    std::string text() const
    {
        std::string out;
        for (int f = 0; f < F_NUM; ++f) {
            if (samples[f].empty())
                continue;
            out += "# HELP ";
            out += families[f].name;
            out += ' ';
            out += families[f].help;
            out += "\n# TYPE ";
            out += families[f].name;
            out += " gauge\n";
            out += samples[f];
        }
        return out;
    }
};

void settings(exposition &x)
{
    const struct {
        const char *monitor;
        int32_t interval;
    } monitors[] = {{"io", io_interval}, {"readonly", ro_interval}, {"capacity", cap_interval},
                    {"lifetime", disk_interval}};
    for (const auto &m : monitors) {
        labels l;
        l.add("monitor", m.monitor);
        x.sample(F_MONITOR_ENABLED, l, m.interval != RES_MON_CLOSED);
        if (m.interval != RES_MON_CLOSED)
            x.sample(F_MONITOR_INTERVAL, l, m.interval);
    }
    x.sample(F_IO_THRESHOLD, labels(), io_threshold / 100.0);
    x.sample(F_CAPACITY_THRESHOLD, labels(), cap_threshold / 100.0);
    x.sample(F_LIFETIME_THRESHOLD, labels(), disk_threshold);
}

void io_figures(exposition &x, const res_mom_node *node, const std::string &slot)
{
    for (const res_list_head *pos = node->disk_io_list.next; pos != &node->disk_io_list; pos = pos->next) {
        const res_mom_disk_io_node *d = res_list_entry(pos, const res_mom_disk_io_node, list);
        labels l;
        l.add("slot", slot).add("device", d->disk_name, sizeof d->disk_name);
        x.sample(F_DISK_READ, l, d->io_read * io_kb_bytes);
        x.sample(F_DISK_WRITE, l, d->io_write * io_kb_bytes);
        x.sample(F_DISK_UTIL, l, d->io_util / 100.0);
        x.sample(F_DISK_WARNING, l, d->io_flag == RES_HEALTH_WARNING);
    }
    for (const res_list_head *pos = node->proc_io_list.next; pos != &node->proc_io_list; pos = pos->next) {
        const res_mom_proc_io_node *p = res_list_entry(pos, const res_mom_proc_io_node, list);
        labels l;
        l.add("slot", slot)
            .add("process", p->proc_name, sizeof p->proc_name)
            .add("pid", std::to_string(p->proc_id));
        x.sample(F_PROC_READ, l, p->io_read);
        x.sample(F_PROC_WRITE, l, p->io_write);
    }
}

void partition_figures(exposition &x, const res_mom_node *node, const std::string &slot)
{
    for (const res_list_head *pos = node->part_list.next; pos != &node->part_list; pos = pos->next) {
        const res_mom_part_node *p = res_list_entry(pos, const res_mom_part_node, list);
        if (!p->exist)
            continue;
        labels l;
        l.add("slot", slot).add("partition", p->part_uname, sizeof p->part_uname);
        if (cap_interval != RES_MON_CLOSED && p->vol_visible) {
            x.sample(F_PART_SIZE, l, static_cast<double>(p->total_vol) * capacity_kb_bytes);
            x.sample(F_PART_USED, l, static_cast<double>(p->use_vol) * capacity_kb_bytes);
            if (p->total_vol)
                x.sample(F_PART_USED_RATIO, l, static_cast<double>(p->use_vol) / static_cast<double>(p->total_vol));
            x.sample(F_PART_WARNING, l, p->vol_flag == RES_HEALTH_WARNING);
        }
        if (ro_interval != RES_MON_CLOSED && p->ro_visible)
            x.sample(F_PART_READ_ONLY, l, p->ro_flag >= RES_HEALTH_WARNING);
    }
}

void lifetime_figures(exposition &x, const res_mom_node *node, const std::string &slot)
{
    for (const res_list_head *pos = node->lifetime_list.next; pos != &node->lifetime_list; pos = pos->next) {
        const res_mom_lifetime_node *lt = res_list_entry(pos, const res_mom_lifetime_node, list);
        labels l;
        l.add("slot", slot).add("device", lt->disk_name, sizeof lt->disk_name);
        x.sample(F_LIFETIME_LEFT, l, static_cast<double>(lt->left_lifetime));
        x.sample(F_LIFETIME_WARNING, l, lt->flag == RES_HEALTH_WARNING);
    }
}

void node_figures(exposition &x, const res_mom_node *node, uint64_t now_ms)
{
    const res_mom_node_names names = res_mom_node_names_of(node);
    std::string slot = res_mom_metrics_label_value(names.slot, sizeof names.slot);
    labels node_labels;
    node_labels.add("slot", slot);
    x.sample(F_NODE_INFO, labels(node_labels).add("card", names.card, sizeof names.card), 1);
    x.sample(F_NODE_STALE, node_labels, node->stale != 0);
    for (int k = 0; k < RES_MOM_REC_KIND_NUM; ++k) {
        auto kind = static_cast<res_mom_rec_kind>(k);
        double age = res_mom_node_age_s(node, kind, now_ms);
        if (age >= 0)
            x.sample(F_NODE_AGE, labels(node_labels).add("kind", res_mom_rec_kind_name(kind)), age);
    }
    /* What the show output leaves out (closed or unsupported monitors) is
     * left out here too, rather than shown as if it were current. */
    if (io_interval != RES_MON_CLOSED)
        io_figures(x, node, slot);
    partition_figures(x, node, slot);
    if (disk_interval != RES_MON_CLOSED && res_cli_lifetime_supported())
        lifetime_figures(x, node, slot);
}

int render_cb(struct qn_metrics_out *out, void *)
{
    std::string text = res_mom_metrics_render(res_mom_age_now_ms());
    return qn_metrics_write(out, text.data(), text.size());
}

} // namespace

std::string res_mom_metrics_label_value(const char *text, size_t size)
{
    std::string out;
    if (!text)
        return out;
    size_t n = strnlen(text, size);
    const auto *s = reinterpret_cast<const unsigned char *>(text);
    for (size_t i = 0; i < n;) {
        size_t len = res_utf8_len(s + i, n - i);
        if (len == 0) {
            out += "\xEF\xBF\xBD"; /* U+FFFD for a byte that starts no character */
            ++i;
            continue;
        }
        if (len == 1 && s[i] == '\\')
            out += "\\\\";
        else if (len == 1 && s[i] == '"')
            out += "\\\"";
        else if (len == 1 && s[i] == '\n')
            out += "\\n";
        else
            out.append(text + i, len);
        i += len;
    }
    return out;
}

std::string res_mom_metrics_render_nodes(const struct res_list_head *nodes, uint64_t now_ms)
{
    exposition x;
    settings(x);
    if (nodes && nodes->next) {
        for (const res_list_head *pos = nodes->next; pos != nodes; pos = pos->next)
            node_figures(x, res_list_entry(pos, const res_mom_node, list), now_ms);
    }
    return x.text();
}

std::string res_mom_metrics_render(uint64_t now_ms)
{
    if (res_mom_check_master() == 0)
        return res_mom_metrics_render_nodes(&res_node_list, now_ms);
    /* Only the master gathers the nodes' records; any other node shows what
     * its own monitors found. */
    res_list_head one;
    res_list_init(&one);
    res_mom_node local;
    res_mom_metrics_local_fill(&local);
    res_list_add_tail(&local.list, &one);
    std::string text = res_mom_metrics_render_nodes(&one, now_ms);
    res_mom_node_lists_clear(&local);
    return text;
}

int res_mom_metrics_init(struct qn_thread_master *master)
{
    int ret = qn_metrics_register(master, render_cb, nullptr);
    if (ret != 0)
        RES_ERR("Init metrics endpoint failed, running without it.");
    return ret;
}
