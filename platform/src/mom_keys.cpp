/* Storage keys of bus records.  protobuf-c descriptors cannot carry our key
 * flags, so the key field and key members of each record type are listed
 * here, by message full name and field number. */
#include "mom_internal.h"

#include <cstdio>
#include <cstring>

namespace {

struct key_rule {
    const char *full_name;
    uint32_t key_field;                 /* 0: the type has one record per scope */
    std::vector<uint32_t> members;      /* key members inside the key field */
    bool node_scoped;                   /* one record per node */
};

const std::vector<key_rule> &rules()
{
    static const std::vector<key_rule> table = {
        {"p_utils.stovig_disk_info", 5, {1, 2, 3, 4}, false},
        {"p_utils.stovig_part_info", 5, {1, 2, 3, 4}, false},
        {"p_utils.stovig_part_ro", 5, {1, 2, 3, 4}, false},
        {"p_utils.stovig_io", 5, {1, 2, 3, 4}, false},
        {"p_utils.stovig_smpl_intrl", 5, {1, 2, 3, 4}, false},
        {"p_utils.stovig_dbg", 5, {1, 2, 3, 4}, false},
        {"p_dev.card_info", 5, {1}, false},
        {"p_dev.card_static_info", 5, {1}, false},
        /* The device manager's role table as each node sees it. */
        {"p_dev.dp_lib_grole", 0, {}, true},
    };
    return table;
}

const key_rule *rule_of(const ProtobufCMessageDescriptor *desc)
{
    for (const key_rule &r : rules())
        if (strcmp(r.full_name, desc->name) == 0)
            return &r;
    return nullptr;
}

std::string node_part(int32_t devid, int32_t slot)
{
    char buf[32];
    snprintf(buf, sizeof buf, "@%d.%d", devid, slot);
    return buf;
}

bool read_varint(const std::string &b, size_t *pos, uint64_t *v)
{
    uint64_t out = 0;
    for (int shift = 0; shift < 64; shift += 7) {
        if (*pos >= b.size())
            return false;
        uint8_t c = static_cast<uint8_t>(b[(*pos)++]);
        out |= static_cast<uint64_t>(c & 0x7f) << shift;
        if (!(c & 0x80)) {
            *v = out;
            return true;
        }
    }
    return false;
}

} // namespace

std::string mom_db_prefix(uint32_t db)
{
    return "qnmom:" + std::to_string(db) + ":";
}

bool mom_key_of(const ProtobufCMessage *record, uint32_t db, int32_t node_devid, int32_t node_slot,
                std::string *key)
{
    if (!record || !record->descriptor)
        return false;
    const ProtobufCMessageDescriptor *desc = record->descriptor;
    std::string k = mom_db_prefix(db) + desc->name + ":";
    const key_rule *r = rule_of(desc);
    if (r && r->node_scoped) {
        *key = k + node_part(node_devid, node_slot);
        return true;
    }
    if (!r || r->key_field == 0) {
        *key = k;
        return true;
    }
    const ProtobufCFieldDescriptor *f = protobuf_c_message_descriptor_get_field(desc, r->key_field);
    if (!f || f->type != PROTOBUF_C_TYPE_MESSAGE)
        return false;
    auto *sub = *reinterpret_cast<const ProtobufCMessage *const *>(reinterpret_cast<const char *>(record) +
                                                                   f->offset);
    if (!sub)
        return false;
    std::string vals;
    for (uint32_t m : r->members) {
        const ProtobufCFieldDescriptor *mf = protobuf_c_message_descriptor_get_field(sub->descriptor, m);
        if (!mf || mf->label == PROTOBUF_C_LABEL_REPEATED)
            return false;
        int32_t v;
        memcpy(&v, reinterpret_cast<const char *>(sub) + mf->offset, sizeof v);
        if (!vals.empty())
            vals += '.';
        vals += std::to_string(v);
    }
    *key = k + vals;
    return true;
}

std::string mom_type_prefix(const ProtobufCMessageDescriptor *desc, uint32_t db, int32_t node_devid,
                            int32_t node_slot, bool *exact)
{
    std::string p = mom_db_prefix(db) + desc->name + ":";
    const key_rule *r = rule_of(desc);
    *exact = r && r->node_scoped;
    if (*exact)
        p += node_part(node_devid, node_slot);
    return p;
}

bool mom_key_split(const std::string &key, uint32_t *db, std::string *full_name)
{
    if (key.compare(0, 6, "qnmom:") != 0)
        return false;
    size_t a = key.find(':', 6);
    if (a == std::string::npos || a == 6)
        return false;
    size_t b = key.find(':', a + 1);
    if (b == std::string::npos)
        return false;
    char *end = nullptr;
    unsigned long n = strtoul(key.c_str() + 6, &end, 10);
    if (end != key.c_str() + a)
        return false;
    *db = static_cast<uint32_t>(n);
    *full_name = key.substr(a + 1, b - a - 1);
    return true;
}

bool mom_wire_field(const std::string &bytes, uint32_t number, std::string *out)
{
    out->clear();
    size_t pos = 0;
    while (pos < bytes.size()) {
        size_t start = pos;
        uint64_t tag;
        if (!read_varint(bytes, &pos, &tag))
            return false;
        uint64_t v;
        switch (tag & 7) {
        case 0:
            if (!read_varint(bytes, &pos, &v))
                return false;
            break;
        case 1:
            pos += 8;
            break;
        case 2:
            if (!read_varint(bytes, &pos, &v) || v > bytes.size() - pos)
                return false;
            pos += v;
            break;
        case 5:
            pos += 4;
            break;
        default:
            return false;
        }
        if (pos > bytes.size())
            return false;
        if ((tag >> 3) == number)
            out->append(bytes, start, pos - start);
    }
    return true;
}

bool mom_pos_parse(const std::string &text, mom_pos *out)
{
    size_t dash = text.find('-');
    if (dash == std::string::npos || dash == 0 || dash + 1 >= text.size())
        return false;
    uint64_t v[2] = {0, 0};
    const std::string parts[2] = {text.substr(0, dash), text.substr(dash + 1)};
    for (int i = 0; i < 2; ++i) {
        for (char c : parts[i]) {
            if (c < '0' || c > '9' || v[i] > (UINT64_MAX - 9) / 10)
                return false;
            v[i] = v[i] * 10 + static_cast<uint64_t>(c - '0');
        }
    }
    out->ms = v[0];
    out->seq = v[1];
    return true;
}

std::string mom_pos_text(const mom_pos &p)
{
    return std::to_string(p.ms) + "-" + std::to_string(p.seq);
}
