/* Per-node store. */
#include "mom/res_mom_data.h"
#include "misc/res_zlog.h"

#include "qn_ndm.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct res_mom_node res_local_node;
struct res_list_head res_node_list = {&res_node_list, &res_node_list};

void res_mom_node_lists_init(struct res_mom_node *node)
{
    res_list_init(&node->disk_io_list);
    res_list_init(&node->proc_io_list);
    res_list_init(&node->part_list);
    res_list_init(&node->lifetime_list);
}

void res_mom_node_lists_clear(struct res_mom_node *node)
{
    res_mom_clear_proc_io_list(&node->proc_io_list);
    res_mom_clear_disk_io_list(&node->disk_io_list);
    res_mom_clear_part_list(&node->part_list);
    res_mom_clear_lifetime_list(&node->lifetime_list);
}

namespace {

bool res_mom_data_ready = false;

bool res_mom_same_index(const struct res_mom_node *node, const int32_t *index)
{
    return memcmp(&node->devid, index, 3 * sizeof(int32_t)) == 0;
}

/* Whether a stored key (NUL-terminated) is exactly `length` characters of name. */
bool res_mom_key_match(const char *stored, const char *name, int length)
{
    return strlen(stored) == static_cast<size_t>(length) && strncmp(stored, name, static_cast<size_t>(length)) == 0;
}

void res_mom_copy_key(char *dst, size_t size, const char *name, int length)
{
    size_t n = static_cast<size_t>(length) < size - 1 ? static_cast<size_t>(length) : size - 1;
    memcpy(dst, name, n);
    dst[n] = '\0';
}

/* The node list in order, for the debug log. */
void res_mom_log_node_list(void)
{
    char text[768];
    size_t used = 0;
    text[0] = '\0';
    for (struct res_list_head *pos = res_node_list.next; pos != &res_node_list && used < sizeof text - 1;
         pos = pos->next) {
        const struct res_mom_node *n = res_list_entry(pos, struct res_mom_node, list);
        int w = snprintf(text + used, sizeof text - used, " [%d,%d,%d uslot %d]", n->devid, n->slotid, n->sslotid,
                         n->user_slot);
        if (w < 0)
            break;
        used += static_cast<size_t>(w);
    }
    RES_VERBOSE("local_list now:%s", text);
}

/* The entry of `list` whose key equals the first `length` characters of
 * `name` (same length), or a new zeroed one appended at the tail with the key
 * copied in; null only when it cannot be allocated. */
template <typename T, size_t N>
T *res_mom_find_or_add(struct res_list_head *list, char (T::*key)[N], const char *name, int length)
{
    for (struct res_list_head *pos = list->next; pos != list; pos = pos->next) {
        T *e = res_list_entry(pos, T, list);
        if (res_mom_key_match(e->*key, name, length))
            return e;
    }
    T *e = static_cast<T *>(calloc(1, sizeof(T)));
    if (!e)
        return nullptr;
    res_mom_copy_key(e->*key, N, name, length);
    res_list_add_tail(&e->list, list);
    return e;
}

/* Overwrites an entry's data with `entry`'s, keeping its place in its
 * list. */
template <typename T>
void res_mom_overwrite(T *e, const T *entry)
{
    struct res_list_head keep = e->list;
    memcpy(e, entry, sizeof *e);
    e->list = keep;
}

/* Appends a heap copy of `entry` to `list`; -1, logged under the entry
 * point's name `fn`, when it cannot be allocated. */
template <typename T>
int res_mom_append_copy(const char *fn, const T *entry, struct res_list_head *list)
{
    auto *e = static_cast<T *>(malloc(sizeof(T)));
    if (!e) {
        res_log(RES_CH_BOTH, RES_GATE_ERR, QN_ZLOG_LEVEL_ERROR, RES_SRC_FILE, fn, __LINE__, "malloc failed.");
        return -1;
    }
    memcpy(e, entry, sizeof *e);
    res_list_add_tail(&e->list, list);
    return 0;
}

} // namespace

int res_mom_data_init(void)
{
    if (res_mom_data_ready) {
        /* Set up again: drop whatever the store held. */
        struct res_list_head *pos, *n;
        res_list_for_each_safe(pos, n, &res_node_list)
        {
            struct res_mom_node *node = res_list_entry(pos, struct res_mom_node, list);
            if (node == &res_local_node)
                continue;
            res_list_del(&node->list);
            res_mom_node_lists_clear(node);
            free(node);
        }
        res_mom_node_lists_clear(&res_local_node);
    }
    memset(&res_local_node, 0, sizeof res_local_node);
    res_local_node.devid = -1;
    res_local_node.slotid = -1;
    res_local_node.sslotid = -1;
    res_local_node.user_slot = -1;
    res_local_node.role = -1;
    res_mom_node_lists_init(&res_local_node);
    res_list_init(&res_node_list);
    res_list_add_tail(&res_local_node.list, &res_node_list);
    /* Diagnostics pick the syslog call by the local role. */
    res_zlog_role = &res_local_node.role;
    res_mom_data_ready = true;
    return 0;
}

struct res_mom_node *res_mom_malloc_node_init(void)
{
    auto *node = static_cast<struct res_mom_node *>(calloc(1, sizeof(struct res_mom_node)));
    if (!node) {
        RES_ERR("malloc failed.");
        return nullptr;
    }
    node->devid = -1;
    node->slotid = -1;
    node->sslotid = -1;
    node->user_slot = -1;
    node->role = -1;
    res_mom_node_lists_init(node);
    return node;
}

int res_mom_add_node_info_list(struct res_mom_node *node)
{
    if (res_node_list.next == &res_local_node.list && res_local_node.list.next == &res_node_list) {
        res_list_add_tail(&node->list, &res_node_list);
        RES_DBG("only master node exist, add tail.");
        res_mom_log_node_list();
        return 0;
    }
    /* The local node stays first and is never compared. */
    for (struct res_list_head *pos = res_node_list.next->next; pos != &res_node_list; pos = pos->next) {
        struct res_mom_node *cur = res_list_entry(pos, struct res_mom_node, list);
        if (cur->user_slot >= node->user_slot) {
            res_list_insert(&node->list, pos->prev, pos);
            RES_DBG("add new[%p] between [%p] and [%p]", static_cast<void *>(&node->list),
                    static_cast<void *>(node->list.prev), static_cast<void *>(pos));
            res_mom_log_node_list();
            return 0;
        }
    }
    res_list_add_tail(&node->list, &res_node_list);
    RES_DBG("loop to list tail, add tail.");
    res_mom_log_node_list();
    return 0;
}

struct res_mom_node *res_mom_get_node_by_index2(const int32_t *index)
{
    if (!index)
        return nullptr;
    RES_VERBOSE("try to get device[%d, %d, %d] in local_list.", index[0], index[1], index[2]);
    for (struct res_list_head *pos = res_node_list.next; pos != &res_node_list; pos = pos->next) {
        struct res_mom_node *node = res_list_entry(pos, struct res_mom_node, list);
        if (res_mom_same_index(node, index)) {
            RES_VERBOSE("in local_list.");
            return node;
        }
    }
    RES_VERBOSE("not in local_list.");
    return nullptr;
}

struct res_mom_node *res_mom_get_node_by_index(const PUtils__Nodeindex *index)
{
    if (!index)
        return nullptr;
    const int32_t idx[3] = {index->t_devid, index->t_slotid, index->t_sslotid};
    return res_mom_get_node_by_index2(idx);
}

int res_mom_clear_node_by_index(const int32_t *index)
{
    if (!index)
        return 0;
    if (res_mom_same_index(&res_local_node, index)) {
        /* The local node is never removed. */
        RES_DBG("remove node[%d,%d,%d] from list.", index[0], index[1], index[2]);
        return 0;
    }
    struct res_mom_node *node = nullptr;
    for (struct res_list_head *pos = res_node_list.next; pos != &res_node_list; pos = pos->next) {
        struct res_mom_node *cur = res_list_entry(pos, struct res_mom_node, list);
        if (res_mom_same_index(cur, index)) {
            node = cur;
            break;
        }
    }
    if (!node)
        return 0;
    RES_DBG("remove node[%d,%d,%d] from list.", index[0], index[1], index[2]);
    res_list_del(&node->list);
    res_mom_node_lists_clear(node);
    free(node);
    res_mom_log_node_list();
    return 0;
}

void res_mom_fill_local_index(PUtils__Nodeindex *index)
{
    index->t_devid = res_local_node.devid;
    index->t_slotid = res_local_node.slotid;
    index->t_sslotid = res_local_node.sslotid;
}

struct res_mom_node_names res_mom_node_names_of(const struct res_mom_node *node)
{
    struct res_mom_node_names names = {};
    ndm_get_user_slot_name(node->devid, node->user_slot, 0, names.slot, sizeof names.slot);
    ndm_get_card_name_by_slot(node->devid, node->user_slot, 0, names.card, sizeof names.card);
    return names;
}

struct res_mom_disk_io_node *res_mom_get_disk_io_node_by_name(struct res_list_head *list, const char *name,
                                                              int length)
{
    if (!list || !name || length < 0) {
        RES_ERR("param null.");
        return nullptr;
    }
    auto *e = res_mom_find_or_add(list, &res_mom_disk_io_node::disk_name, name, length);
    if (!e)
        RES_ERR("malloc node failed.");
    return e;
}

struct res_mom_lifetime_node *res_mom_get_lifetime_node_by_name(struct res_list_head *list, const char *name,
                                                               int length)
{
    if (!list || !name || length < 0) {
        RES_ERR("param null.");
        return nullptr;
    }
    auto *e = res_mom_find_or_add(list, &res_mom_lifetime_node::disk_name, name, length);
    if (!e)
        RES_ERR("malloc node failed.");
    return e;
}

struct res_mom_part_node *res_mom_get_part_node_by_path(struct res_list_head *list, const char *path, int length)
{
    if (!list || !path || length < 0) {
        RES_ERR("param null.");
        return nullptr;
    }
    if (length == 0)
        return nullptr;
    auto *e = res_mom_find_or_add(list, &res_mom_part_node::part_path, path, length);
    if (!e)
        RES_ERR("malloc node failed.");
    return e;
}

int res_mom_add_node_disk_io_list(const struct res_mom_disk_io_node *entry, struct res_list_head *list)
{
    if (!entry || !list)
        return -1;
    return res_mom_append_copy(__func__, entry, list);
}

int res_mom_add_node_proc_io_list(const struct res_mom_proc_io_node *entry, struct res_list_head *list)
{
    if (!entry || !list)
        return -1;
    return res_mom_append_copy(__func__, entry, list);
}

int res_mom_add_node_disk_lft_list(const struct res_mom_lifetime_node *entry, struct res_list_head *list)
{
    if (!entry || !list)
        return -1;
    size_t len = strlen(entry->disk_name);
    for (struct res_list_head *pos = list->next; pos != list; pos = pos->next) {
        auto *e = res_list_entry(pos, struct res_mom_lifetime_node, list);
        if (strlen(e->disk_name) == len && strncmp(e->disk_name, entry->disk_name, len) == 0) {
            res_mom_overwrite(e, entry);
            RES_DBG("pos->left_lifetime :%llu", static_cast<unsigned long long>(e->left_lifetime));
            return 0;
        }
    }
    return res_mom_append_copy(__func__, entry, list);
}

int res_mom_add_node_part_list(const int32_t *index, struct res_mom_part_node *entry)
{
    if (res_list_empty(&res_node_list))
        return -EINTR;
    struct res_mom_node *node = res_mom_get_node_by_index2(index);
    if (!node)
        return -ESRCH;
    for (struct res_list_head *pos = node->part_list.next; pos != &node->part_list; pos = pos->next) {
        auto *e = res_list_entry(pos, struct res_mom_part_node, list);
        if (strncmp(e->part_path, entry->part_path, RES_MOM_PATH_LEN) == 0) {
            res_mom_overwrite(e, entry);
            return 0;
        }
    }
    res_list_add_tail(&entry->list, &node->part_list);
    return 0;
}

#define RES_MOM_CLEAR_LIST(fn, type)                                   \
    int fn(struct res_list_head *list)                                 \
    {                                                                  \
        if (!list)                                                     \
            return 0;                                                  \
        struct res_list_head *pos, *n;                                 \
        res_list_for_each_safe(pos, n, list)                           \
        {                                                              \
            res_list_del(pos);                                         \
            free(res_list_entry(pos, type, list));                     \
        }                                                              \
        res_list_init(list);                                           \
        return 0;                                                      \
    }

RES_MOM_CLEAR_LIST(res_mom_clear_disk_io_list, struct res_mom_disk_io_node)
RES_MOM_CLEAR_LIST(res_mom_clear_proc_io_list, struct res_mom_proc_io_node)
RES_MOM_CLEAR_LIST(res_mom_clear_part_list, struct res_mom_part_node)
RES_MOM_CLEAR_LIST(res_mom_clear_lifetime_list, struct res_mom_lifetime_node)
