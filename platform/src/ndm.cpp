/* Device manager stand-in.  Identity comes from the config file; card names
 * and user slots from the card records, and the role from the node's own
 * role record, which the cache follows on the bus with a client of its own. */
#include "qn_ndm.h"
#include "qn_mom.h"
#include "qn_mom_standin.h"
#include "qn_platform_config.h"

#include "proto/p_dev.pb-c.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>

namespace {

struct card {
    int32_t devid, slotid, sslotid, user_slot;
    bool online;
    std::string name;
};

struct dm_cache {
    std::set<uint32_t> objects;
    qn_mom_client_t *client = nullptr;
    std::map<int32_t, card> cards;      /* by t_mod */
    bool have_role = false;
    int32_t role = 0;
    bool told_no_cards = false;
};

dm_cache cache;

const qn_platform_config &cfg()
{
    static const qn_platform_config defaults;
    const qn_platform_config *c = qn_platform_config_get();
    return c ? *c : defaults;
}

void take_card(const PDev__CardInfo *c)
{
    if (!c || !c->index)
        return;
    card k{c->index->devid, c->index->slotid, c->index->sslotid, c->user_slot, c->is_online != 0,
           c->name ? c->name : ""};
    cache.cards[c->index->t_mod] = k;
}

/* The end of the first card scan on a shared bus: with no card on it,
 * nothing plays the device manager yet, and a master would list only itself;
 * say so once.  A stand-alone box on the embedded bus has no inventory. */
void check_inventory(const qn_mom_reply_t *r)
{
    if (r->error || cache.told_no_cards || cfg().bus_url.empty())
        return;
    cache.told_no_cards = true;
    if (cache.cards.empty())
        fprintf(stderr,
                "dm_cache: no card records on the bus (p_dev.card_info, database 1): until the device manager "
                "publishes them (qn-bus inventory FILE), a master lists only itself\n");
}

int on_card(void *, qn_mom_reply_t *r)
{
    if (r && r->scan_state == QN_MOM_SCAN_OVER) {
        check_inventory(r);
        return 0;
    }
    if (!r || r->error || !r->res || r->res->error)
        return 0;
    if (r->type == QN_MOM_REPLY_DEL)
        return 0;
    take_card(reinterpret_cast<const PDev__CardInfo *>(r->res->value));
    return 0;
}

int on_role(void *, qn_mom_reply_t *r)
{
    if (!r || r->error || !r->res || r->res->error)
        return 0;
    if (r->type == QN_MOM_REPLY_DEL) {
        cache.have_role = false;
        return 0;
    }
    auto *g = reinterpret_cast<const PDev__DpLibGrole *>(r->res->value);
    if (g) {
        cache.have_role = true;
        /* Read as the number it holds: a value outside the enumeration
         * (whatever a writer put on the bus) is not a valid enum load. */
        static_assert(sizeof g->my_grole == sizeof cache.role, "protobuf-c enums are int-sized");
        memcpy(&cache.role, &g->my_grole, sizeof cache.role);
    }
    return 0;
}

/* Reads the followed records again: changes made while the link was down
 * were not announced. */
int rescan(qn_mom_client_t *c, uint32_t db, int)
{
    if (cache.objects.count(DM_OBJ_CARD_INFO)) {
        PDev__CardInfo pattern = P_DEV__CARD_INFO__INIT;
        PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
        pattern.index = &idx;
        qn_mom_scan(c, db, &pattern.base, 0, on_card, nullptr);
    }
    if (cache.objects.count(DM_OBJ_DP_LIB_GROLE)) {
        PDev__DpLibGrole pattern = P_DEV__DP_LIB_GROLE__INIT;
        qn_mom_scan(c, db, &pattern.base, 0, on_role, nullptr);
    }
    return 0;
}

int on_connected(qn_mom_client_t *c, uint32_t db, void *)
{
    if (cache.objects.count(DM_OBJ_CARD_INFO)) {
        PDev__CardInfo pattern = P_DEV__CARD_INFO__INIT;
        PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
        pattern.index = &idx;
        qn_mom_subscribe(c, db, &pattern.base, 0, on_card, nullptr);
        qn_mom_scan(c, db, &pattern.base, 0, on_card, nullptr);
    }
    if (cache.objects.count(DM_OBJ_DP_LIB_GROLE)) {
        PDev__DpLibGrole pattern = P_DEV__DP_LIB_GROLE__INIT;
        qn_mom_subscribe(c, db, &pattern.base, 0, on_role, nullptr);
        qn_mom_scan(c, db, &pattern.base, 0, on_role, nullptr);
    }
    return 0;
}

const card *local_card()
{
    for (const auto &[mod, k] : cache.cards)
        if (k.devid == cfg().devid && k.slotid == cfg().phy_slot)
            return &k;
    return nullptr;
}

int copy_out(const std::string &s, char *buf, uint32_t size)
{
    if (!buf || size == 0)
        return -1;
    snprintf(buf, size, "%s", s.c_str());
    return 0;
}

} // namespace

extern "C" {

int dm_cache_sub_obj(uint32_t obj)
{
    switch (obj) {
    case DM_OBJ_DP_LIB_MY_INFO:
    case DM_OBJ_3:
    case DM_OBJ_DP_LIB_MY_CHSS_INFO:
    case DM_OBJ_DP_LIB_GROLE:
    case DM_OBJ_DEVICE_STATIC_INFO:
    case DM_OBJ_CARD_INFO:
        cache.objects.insert(obj);
        return 0;
    default:
        return -1;
    }
}

int dm_cache_init(struct qn_thread_master *master, const char *name)
{
    if (!master || !name || !*name)
        return -1;
    if (cache.client)
        return 0;
    cache.client = qn_mom_client_init(name, master);
    if (!cache.client)
        return -1;
    qn_mom_client_set_reconnect_cb(cache.client, QN_MOM_TUNNER_DB, rescan);
    return qn_mom_client_connect(cache.client, QN_MOM_TUNNER_DB, on_connected, nullptr) == 0 ? 0 : -1;
}

void dm_cache_reset(void)
{
    if (cache.client)
        qn_mom_client_free(cache.client);
    cache = dm_cache{};
}

int32_t ndm_get_my_devid(void)
{
    return cfg().devid;
}

int32_t ndm_get_my_phy_slot(void)
{
    return cfg().phy_slot;
}

int32_t ndm_get_my_user_slot(void)
{
    const card *k = local_card();
    if (k)
        return k->user_slot;
    return cfg().user_slot;
}

int32_t ndm_get_my_node_type(void)
{
    return cfg().node_type;
}

int32_t ndm_get_my_dev_grole(void)
{
    if (cache.have_role)
        return cache.role;
    return cfg().role;
}

int ndm_get_user_slot_name(int32_t devid, int32_t user_slot, int32_t, char *buf, uint32_t size)
{
    if (!buf || size == 0)
        return -1;
    if (devid == cfg().devid && user_slot == cfg().user_slot && !cfg().slot_name.empty())
        return copy_out(cfg().slot_name, buf, size);
    return copy_out("slot" + std::to_string(user_slot), buf, size);
}

int ndm_get_card_name_by_slot(int32_t devid, int32_t user_slot, int32_t, char *buf, uint32_t size)
{
    if (!buf || size == 0)
        return -1;
    for (const auto &[mod, k] : cache.cards)
        if (k.devid == devid && k.user_slot == user_slot && !k.name.empty())
            return copy_out(k.name, buf, size);
    if (devid == cfg().devid && user_slot == cfg().user_slot)
        return copy_out(cfg().card_name.empty() ? "box" : cfg().card_name, buf, size);
    return -1;
}

} // extern "C"
