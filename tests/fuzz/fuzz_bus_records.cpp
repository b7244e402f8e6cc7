/* Bus records as the master receives them: the first input byte picks the
 * record kind, the second the kind of reply it arrives in (subscription or
 * scan), the rest is decoded as that record and handed to the master's
 * callback, which saves it into the node store and writes its event lines.
 * The node the record names is put in the store first, so that the save goes
 * all the way. */
#include "fuzz_common.h"

#include "misc/res_escape.h"
#include "mom/res_mom_conf.h"
#include "mom/res_mom_data.h"
#include "mom/res_mom_disk.h"
#include "mom/res_mom_io.h"
#include "mom/res_mom_main.h"
#include "mom/res_mom_part.h"
#include "misc/res_zlog.h"
#include "mon/res_mon_main.h"
#include "proto/p_utils.pb-c.h"
#include "res_main.h"

#include "qn_mom.h"
#include "qn_thread.h"

#include <cstdlib>
#include <cstring>

namespace {

struct record_kind {
    const ProtobufCMessageDescriptor *desc;
    qn_mom_cb_t sub;
    qn_mom_cb_t scan;
};

const record_kind kinds[] = {
    {&p_utils__stovig_io__descriptor, res_mom_sub_io_cb, res_mom_scan_io_cb},
    {&p_utils__stovig_part_info__descriptor, res_mom_sub_vol_cb, res_mom_scan_vol_cb},
    {&p_utils__stovig_part_ro__descriptor, res_mom_sub_ro_cb, res_mom_scan_ro_cb},
    {&p_utils__stovig_disk_info__descriptor, res_mom_sub_disk_cb, res_mom_scan_disk_cb},
    {&p_utils__upgrade_global_status__descriptor, res_mom_sub_upgrade_cb, res_mom_scan_upgrade_cb},
    {&p_utils__issu_n_global_info__descriptor, res_mom_sub_issu_cb, res_mom_scan_issu_cb},
    {&p_utils__stovig_smpl_intrl__descriptor, res_mom_sub_conf_cb, res_mom_scan_conf_cb},
    {&p_utils__stovig_dbg__descriptor, res_mom_sub_dbg_cb, res_mom_scan_dbg_cb},
};

/* Reply kinds a record can arrive in (a confirmation would start a scan on
 * the bus, which the harness has not got). */
const int reply_kinds[] = {QN_MOM_REPLY_VALUE, QN_MOM_REPLY_SET, QN_MOM_REPLY_HSET, QN_MOM_REPLY_DEL,
                           QN_MOM_REPLY_SCAN};

/* The index of a record that carries one (field 5 of every node record). */
const PUtils__Nodeindex *record_index(const ProtobufCMessage *m)
{
    const ProtobufCFieldDescriptor *f = protobuf_c_message_descriptor_get_field(m->descriptor, 5);
    if (!f || f->type != PROTOBUF_C_TYPE_MESSAGE || f->descriptor != &p_utils__nodeindex__descriptor)
        return nullptr;
    return *reinterpret_cast<PUtils__Nodeindex *const *>(reinterpret_cast<const char *>(m) + f->offset);
}

void add_node(const PUtils__Nodeindex *idx)
{
    int32_t key[3] = {idx->t_devid, idx->t_slotid, idx->t_sslotid};
    if (res_mom_get_node_by_index2(key))
        return;
    struct res_mom_node *n = res_mom_malloc_node_init();
    if (!n)
        return;
    n->devid = idx->t_devid;
    n->slotid = idx->t_slotid;
    n->sslotid = idx->t_sslotid;
    n->user_slot = idx->t_slotid;
    if (res_mom_add_node_info_list(n) != 0)
        free(n);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = [] {
        fuzz_open_log();
        res_master = qn_thread_master_create();
        /* A storage type whose lifetime reset runs no commands. */
        res_disk_type = RES_DISK_SSD;
        return true;
    }();
    (void)ready;
    if (size < 2)
        return 0;
    const record_kind &kind = kinds[data[0] % (sizeof kinds / sizeof kinds[0])];
    int reply_type = reply_kinds[data[1] % (sizeof reply_kinds / sizeof reply_kinds[0])];
    ProtobufCMessage *m = protobuf_c_message_unpack(kind.desc, nullptr, size - 2, data + 2);
    if (!m)
        return 0;
    res_mom_data_init();
    res_local_node.devid = 0;
    res_local_node.slotid = 1;
    res_local_node.sslotid = 0;
    res_local_node.user_slot = 1;
    if (const PUtils__Nodeindex *idx = record_index(m))
        add_node(idx);

    qn_mom_res_t res = {0, reply_type == QN_MOM_REPLY_DEL ? nullptr : m};
    qn_mom_reply_t reply = {};
    reply.type = reply_type;
    reply.db = QN_MOM_MONITOR_DB;
    reply.res = &res;
    if (reply_type == QN_MOM_REPLY_SCAN)
        kind.scan(nullptr, &reply);
    else
        kind.sub(nullptr, &reply);
    /* A second, identical delivery: the stored flags now equal the sent
     * ones, so this exercises the "no change" side. */
    if (reply_type != QN_MOM_REPLY_DEL)
        kind.sub(nullptr, &reply);

    protobuf_c_message_free_unpacked(m, nullptr);
    res_mom_data_init();
    res_dbg_level = 0;
    res_mom_upgrade_flag = 0;
    return 0;
}
