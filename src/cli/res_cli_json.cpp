/* The show output as JSON.  Names come from other nodes and the device
 * manager and may hold any byte: they reach the document only through the
 * JSON library, which escapes quotes, backslashes and control bytes and
 * replaces bytes that are not UTF-8 with U+FFFD, so the document always
 * parses; the C1 controls it leaves as they are get escaped here. */
#include "cli/res_cli_json.h"
#include "misc/res_health.h"
#include "mom/res_mom_age.h"
#include "mom/res_mom_data.h"
#include "mon/res_mon_main.h"

#include <nlohmann/json.hpp>

#include <cstring>
#include <string>

namespace {

/* Keys keep the order they are written in, so the document reads like the text. */
using json = nlohmann::ordered_json;

/* A fixed buffer's text, never past its end. */
std::string text_of(const char *buf, size_t size)
{
    return std::string(buf, strnlen(buf, size));
}

const char *status_word(bool warning)
{
    return warning ? "warning" : "normal";
}

json section_state(const char *state)
{
    json s = json::object();
    s["state"] = state;
    return s;
}

json io_section(const res_mom_node *node)
{
    if (io_interval == RES_MON_CLOSED)
        return section_state("closed");
    if (res_list_empty(&node->disk_io_list))
        return section_state("not_ready");
    json s = section_state("ready");
    json disks = json::array();
    for (const res_list_head *pos = node->disk_io_list.next; pos != &node->disk_io_list; pos = pos->next) {
        const res_mom_disk_io_node *d = res_list_entry(pos, const res_mom_disk_io_node, list);
        json e = json::object();
        e["name"] = text_of(d->disk_name, sizeof d->disk_name);
        e["read_kb_per_s"] = d->io_read;
        e["write_kb_per_s"] = d->io_write;
        e["util_percent"] = d->io_util;
        e["status"] = status_word(d->io_flag == RES_HEALTH_WARNING);
        disks.push_back(std::move(e));
    }
    s["disks"] = std::move(disks);
    json procs = section_state(res_list_empty(&node->proc_io_list) ? "not_ready" : "ready");
    json entries = json::array();
    for (const res_list_head *pos = node->proc_io_list.next; pos != &node->proc_io_list; pos = pos->next) {
        const res_mom_proc_io_node *p = res_list_entry(pos, const res_mom_proc_io_node, list);
        json e = json::object();
        e["pid"] = static_cast<int>(p->proc_id);
        e["name"] = text_of(p->proc_name, sizeof p->proc_name);
        e["read_bytes_per_s"] = p->io_read;
        e["write_bytes_per_s"] = p->io_write;
        entries.push_back(std::move(e));
    }
    procs["entries"] = std::move(entries);
    s["processes"] = std::move(procs);
    return s;
}

/* The read-only and capacity sections list the same partitions; each keeps
 * those its own monitor has shown (visible) that still exist, and writes its
 * own fields for them. */
template <typename Entry>
json part_section(int32_t interval, const res_mom_node *node, uint32_t res_mom_part_node::*visible, Entry entry)
{
    if (interval == RES_MON_CLOSED)
        return section_state("closed");
    if (res_list_empty(&node->part_list))
        return section_state("not_ready");
    json s = section_state("ready");
    json parts = json::array();
    for (const res_list_head *pos = node->part_list.next; pos != &node->part_list; pos = pos->next) {
        const res_mom_part_node *p = res_list_entry(pos, const res_mom_part_node, list);
        if (!(p->*visible) || !p->exist)
            continue;
        json e = json::object();
        e["name"] = text_of(p->part_uname, sizeof p->part_uname);
        entry(e, p);
        parts.push_back(std::move(e));
    }
    s["partitions"] = std::move(parts);
    return s;
}

json ro_section(const res_mom_node *node)
{
    return part_section(ro_interval, node, &res_mom_part_node::ro_visible, [](json &e, const res_mom_part_node *p) {
        e["mode"] = p->ro_flag >= RES_HEALTH_WARNING ? "read-only" : "read-write";
    });
}

json capacity_section(const res_mom_node *node)
{
    return part_section(cap_interval, node, &res_mom_part_node::vol_visible, [](json &e, const res_mom_part_node *p) {
        /* The same figure as the text's "Used Rate" before rounding; a zero
         * total gives NaN, which the library writes as null. */
        float ratio = static_cast<float>(p->use_vol) / static_cast<float>(p->total_vol);
        e["total_kb"] = p->total_vol;
        e["used_kb"] = p->use_vol;
        e["used_percent"] = static_cast<double>(ratio) * 100.0;
        e["status"] = status_word(p->vol_flag == RES_HEALTH_WARNING);
    });
}

json lifetime_section(const res_mom_node *node)
{
    if (disk_interval == RES_MON_CLOSED)
        return section_state("closed");
    if (!res_cli_lifetime_supported())
        return section_state("not_supported");
    if (res_list_empty(&node->lifetime_list))
        return section_state("not_ready");
    json s = section_state("ready");
    json disks = json::array();
    for (const res_list_head *pos = node->lifetime_list.next; pos != &node->lifetime_list; pos = pos->next) {
        const res_mom_lifetime_node *l = res_list_entry(pos, const res_mom_lifetime_node, list);
        json e = json::object();
        e["name"] = text_of(l->disk_name, sizeof l->disk_name);
        e["left_months"] = l->left_lifetime;
        e["threshold_months"] = static_cast<unsigned long>(disk_threshold);
        e["status"] = status_word(l->flag == RES_HEALTH_WARNING);
        disks.push_back(std::move(e));
    }
    s["disks"] = std::move(disks);
    return s;
}

/* The library writes U+0080-U+009F as they are; a terminal may take them for
 * C1 controls (U+009B starts a control sequence), so they go out as \u
 * escapes, which read back as the same text.  The document is well-formed
 * UTF-8, so a byte c2 always starts a character. */
std::string c1_escaped(const std::string &doc)
{
    std::string out;
    out.reserve(doc.size());
    for (size_t i = 0; i < doc.size(); ++i) {
        auto next = i + 1 < doc.size() ? static_cast<unsigned char>(doc[i + 1]) : 0u;
        if (static_cast<unsigned char>(doc[i]) == 0xc2 && next >= 0x80 && next <= 0x9f) {
            static const char hex[] = "0123456789abcdef";
            out += "\\u00";
            out += hex[next >> 4];
            out += hex[next & 0xf];
            ++i;
            continue;
        }
        out += doc[i];
    }
    return out;
}

json node_doc(const res_mom_node *node, int32_t item, uint64_t now_ms)
{
    bool all = item == RES_SHOW_ALL;
    const res_mom_node_names names = res_mom_node_names_of(node);
    json n = json::object();
    n["slot"] = text_of(names.slot, sizeof names.slot);
    n["card"] = text_of(names.card, sizeof names.card);
    n["index"] = {{"devid", node->devid}, {"slotid", node->slotid}, {"sslotid", node->sslotid}};
    n["user_slot"] = node->user_slot;
    json ages = json::object();
    for (int k = 0; k < RES_MOM_REC_KIND_NUM; ++k) {
        auto kind = static_cast<res_mom_rec_kind>(k);
        double age = res_mom_node_age_s(node, kind, now_ms);
        if (age < 0)
            ages[res_mom_rec_kind_name(kind)] = nullptr;
        else
            ages[res_mom_rec_kind_name(kind)] = age;
    }
    n["age_seconds"] = std::move(ages);
    n["stale"] = node->stale != 0;
    if (all || item == RES_SHOW_IO)
        n["io"] = io_section(node);
    if (all || item == RES_SHOW_RO)
        n["readonly"] = ro_section(node);
    if (all || item == RES_SHOW_CAPACITY)
        n["capacity"] = capacity_section(node);
    if (all || item == RES_SHOW_LIFETIME)
        n["lifetime"] = lifetime_section(node);
    return n;
}

} // namespace

std::string res_cli_json_storage(int32_t item, uint64_t now_ms)
{
    if (item < RES_SHOW_IO || item > RES_SHOW_ALL)
        return {};
    json doc = json::array();
    if (res_node_list.next) {
        for (const res_list_head *pos = res_node_list.next; pos != &res_node_list; pos = pos->next)
            doc.push_back(node_doc(res_list_entry(pos, const res_mom_node, list), item, now_ms));
    }
    return c1_escaped(doc.dump(-1, ' ', false, json::error_handler_t::replace));
}

int res_cli_show_storage_json(int32_t item, res_cli_printer print)
{
    if (item < RES_SHOW_IO || item > RES_SHOW_ALL || !print)
        return -1;
    std::string doc = res_cli_json_storage(item, res_mom_age_now_ms());
    print("%s\n", doc.c_str());
    return !res_node_list.next || res_list_empty(&res_node_list) ? -4 : 0;
}
