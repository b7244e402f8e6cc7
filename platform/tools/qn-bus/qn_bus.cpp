/* qn-bus: plays the device manager and the other platform services on the
 * bus, for an operator or a test.  It uses the same bus client and the same
 * STOVIG_CONFIG / [bus] url as the daemon. */
#include "qn_mom.h"
#include "qn_mom_standin.h"
#include "qn_platform_config.h"
#include "qn_text_escape.h"
#include "qn_thread.h"

#include "proto/p_dev.pb-c.h"
#include "proto/p_utils.pb-c.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

const char kUsage[] =
    "usage: qn-bus COMMAND [ARGS]\n"
    "\n"
    "Plays the device manager and the other platform services on the shared bus\n"
    "named by the config file in STOVIG_CONFIG ([bus] url = redis://HOST:PORT).\n"
    "Without one there is no shared bus (each process would have its own), and\n"
    "qn-bus refuses to run.  When the store cannot be reached within 3 seconds it\n"
    "says so (\"cannot reach ...\") and exits with status 1; so it does when the\n"
    "store refuses any of its writes (out of memory, read-only...).\n"
    "\n"
    "Commands:\n"
    "  inventory [--keep] FILE\n"
    "                     publish the card record (p_dev.card_info, database 1) of\n"
    "                     every card of a chassis inventory, and every node's role\n"
    "                     record (p_dev.dp_lib_grole); with --keep, stay running as\n"
    "                     the device manager: when the store comes back empty\n"
    "                     (restarted without persistence) the records are written\n"
    "                     again, as last changed (also by other qn-bus commands)\n"
    "  online SLOT [DEVID]   set the card in physical slot SLOT online\n"
    "  offline SLOT [DEVID]  set the card in physical slot SLOT offline\n"
    "  master SLOT [DEVID]   move the master role to the node in SLOT: its role\n"
    "                     record says DM_ROLE_MASTER (1), the other control modules\n"
    "                     and boxes DM_ROLE_SLAVE (2), line cards DM_ROLE_NONE (0)\n"
    "  upgrade STATUS     write p_utils.upgrade_global_status (database 3), STATUS 0..4\n"
    "  issu STATE         write p_utils.issu_n_global_info (database 12), STATE 0..1\n"
    "  raw DB KEY TEXT    store TEXT as raw bytes under a storage key (fault tests)\n"
    "  dump DB            print every record of database DB decoded as text\n"
    "\n"
    "Inventory file: one card per line, '#' starts a comment, fields are key=value:\n"
    "  slot=PHY_SLOT user_slot=N type=cm|lc|box [devid=D] [name=NAME]\n"
    "  [online=1|0] [master=1]\n"
    "e.g.\n"
    "  slot=1 user_slot=1 type=cm name=CM-A master=1\n"
    "  slot=2 user_slot=2 type=cm name=CM-B\n"
    "  slot=5 user_slot=3 type=lc name=LC-48X\n"
    "\n"
    "Role records exist once per node: a node reads the one stored under its own\n"
    "device id and physical slot ([node] devid, phy_slot of its config file).\n"
    "The card's node type travels in card_info.static_info.node_type (1 box, 2\n"
    "control module, 3 line card), so that 'master' can rebuild every role record\n"
    "from the card records alone.  The card record's key member t_mod is\n"
    "devid * 1000 + slot.\n";

struct card {
    int devid = 0;
    int slot = -1;
    int user_slot = -1;
    int node_type = 2;
    std::string name;
    bool online = true;
    bool master = false;
};

/* How long qn-bus waits for the store: to connect, and for an answer. */
const int kConnectMs = 3000;
const int kAnswerMs = 10000;

qn_thread_master *master_loop;
qn_mom_client_t *client;
bool done;
bool timed_out;

/* Runs the loop until `done` or `ms` milliseconds have passed; false on the
 * latter. */
bool run_loop(int ms)
{
    const qn_platform_config *cfg = qn_platform_config_get();
    int second_ms = cfg && cfg->second_ms > 0 ? cfg->second_ms : 1000;
    timed_out = false;
    qn_thread *deadline = qn_thread_add_timer_withname(
        master_loop,
        [](qn_thread *) {
            timed_out = done = true;
            return 0;
        },
        nullptr, (ms + second_ms - 1) / second_ms, "qn_bus_deadline");
    qn_thread t;
    while (!done && qn_thread_fetch(master_loop, &t))
        qn_thread_call(&t);
    done = false;
    if (!timed_out)
        qn_thread_cancel(deadline);
    return !timed_out;
}

/* "cannot reach redis://HOST:PORT: reason", and the status to exit with. */
int unreachable(const char *what)
{
    char why[256];
    if (qn_mom_client_link_error(client, why, sizeof why) == 0)
        snprintf(why, sizeof why, "%s: %s", qn_platform_config_get()->bus_url.c_str(), what);
    fprintf(stderr, "qn-bus: cannot reach %s\n", why);
    return 1;
}

/* Waits until every command sent so far has been carried out: replies on
 * one connection come in order, so the end of a scan follows them all.
 * 0, or the exit status when the store did not answer. */
int settle()
{
    PUtils__StovigDbg pattern = P_UTILS__STOVIG_DBG__INIT;
    PUtils__Nodeindex idx = P_UTILS__NODEINDEX__INIT;
    pattern.index = &idx;
    if (qn_mom_scan(client, QN_MOM_DEV_DB, &pattern.base, 0,
                    [](void *, qn_mom_reply_t *r) {
                        if (r->scan_state == QN_MOM_SCAN_OVER)
                            done = true;
                        return 0;
                    },
                    nullptr) != 0 ||
        !run_loop(kAnswerMs))
        return unreachable("no answer within 10 s, writes may be lost");
    return 0;
}

bool parse_int(const std::string &s, int *out)
{
    char *end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 10);
    if (s.empty() || *end || errno)
        return false;
    *out = static_cast<int>(v);
    return true;
}

bool parse_inventory(const char *path, std::vector<card> *cards)
{
    std::ifstream f(path);
    if (!f) {
        fprintf(stderr, "qn-bus: cannot read inventory %s: %s\n", path, strerror(errno));
        return false;
    }
    std::string line;
    int lineno = 0;
    while (std::getline(f, line)) {
        ++lineno;
        size_t hash = line.find('#');
        if (hash != std::string::npos)
            line.erase(hash);
        std::istringstream in(line);
        std::string tok;
        card c;
        bool any = false;
        while (in >> tok) {
            any = true;
            size_t eq = tok.find('=');
            std::string k = tok.substr(0, eq), v = eq == std::string::npos ? "" : tok.substr(eq + 1);
            bool ok = eq != std::string::npos;
            int n = 0;
            if (!ok) {
            } else if (k == "slot") {
                ok = parse_int(v, &c.slot);
            } else if (k == "user_slot") {
                ok = parse_int(v, &c.user_slot);
            } else if (k == "devid") {
                ok = parse_int(v, &c.devid);
            } else if (k == "type") {
                c.node_type = v == "box" ? 1 : v == "cm" ? 2 : v == "lc" ? 3 : 0;
                ok = c.node_type != 0;
            } else if (k == "name") {
                c.name = v;
            } else if (k == "online") {
                ok = parse_int(v, &n) && (n == 0 || n == 1);
                c.online = n == 1;
            } else if (k == "master") {
                ok = parse_int(v, &n) && (n == 0 || n == 1);
                c.master = n == 1;
            } else {
                ok = false;
            }
            if (!ok) {
                fprintf(stderr, "qn-bus: %s:%d: bad field '%s'\n", path, lineno, tok.c_str());
                return false;
            }
        }
        if (!any)
            continue;
        if (c.slot < 0 || c.user_slot < 0) {
            fprintf(stderr, "qn-bus: %s:%d: slot= and user_slot= are required\n", path, lineno);
            return false;
        }
        cards->push_back(c);
    }
    return true;
}

int put_card(const card &c)
{
    PDev__CardInfo rec = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardStaticInfo st = P_DEV__CARD_STATIC_INFO__INIT;
    PDev__CardStaticInfoIndex sti = P_DEV__CARD_STATIC_INFO_INDEX__INIT;
    idx.t_mod = c.devid * 1000 + c.slot;
    idx.devid = c.devid;
    idx.slotid = c.slot;
    rec.index = &idx;
    rec.is_online = c.online;
    rec.user_slot = c.user_slot;
    rec.name = const_cast<char *>(c.name.c_str());
    st.index = &sti;
    st.node_type = c.node_type;
    st.name = const_cast<char *>(c.name.c_str());
    rec.static_info = &st;
    return qn_mom_set(client, QN_MOM_TUNNER_DB, &rec.base, 0, 0);
}

/* Every node's role record, with `master` (devid, slot) as the master. */
int put_roles(const std::vector<card> &cards, int mdev, int mslot)
{
    int ret = 0;
    for (const card &c : cards) {
        PDev__DpLibGrole g = P_DEV__DP_LIB_GROLE__INIT;
        PDev__CardInfoIndex gm = P_DEV__CARD_INFO_INDEX__INIT;
        gm.devid = mdev;
        gm.slotid = mslot;
        gm.t_mod = mdev * 1000 + mslot;
        g.dev_num = 1;
        g.global_master = &gm;
        if (c.devid == mdev && c.slot == mslot)
            g.my_grole = P_DEV__DM_ROLE_E__DM_ROLE_MASTER;
        else if (c.node_type == 1 || c.node_type == 2)
            g.my_grole = P_DEV__DM_ROLE_E__DM_ROLE_SLAVE;
        else
            g.my_grole = P_DEV__DM_ROLE_E__DM_ROLE_NONE;
        qn_mom_client_set_node(client, c.devid, c.slot);
        int r = qn_mom_set(client, QN_MOM_TUNNER_DB, &g.base, 0, 0);
        if (r != 0)
            ret = r;
    }
    return ret;
}

/* The cards now on the bus. */
std::vector<card> read_cards()
{
    static std::vector<card> got;
    got.clear();
    PDev__CardInfo pattern = P_DEV__CARD_INFO__INIT;
    PDev__CardInfoIndex idx = P_DEV__CARD_INFO_INDEX__INIT;
    pattern.index = &idx;
    int ret = qn_mom_scan(client, QN_MOM_TUNNER_DB, &pattern.base, 0,
                          [](void *, qn_mom_reply_t *r) {
                              if (r->scan_state == QN_MOM_SCAN_OVER) {
                                  done = true;
                                  return 0;
                              }
                              auto *rec = reinterpret_cast<const PDev__CardInfo *>(r->res ? r->res->value : nullptr);
                              if (!rec || !rec->index)
                                  return 0;
                              card c;
                              c.devid = rec->index->devid;
                              c.slot = rec->index->slotid;
                              c.user_slot = rec->user_slot;
                              c.online = rec->is_online;
                              c.name = rec->name ? rec->name : "";
                              c.node_type = rec->static_info ? rec->static_info->node_type : 2;
                              got.push_back(c);
                              return 0;
                          },
                          nullptr);
    if (ret == 0 && !run_loop(kAnswerMs))
        exit(unreachable("no answer within 10 s"));
    return got;
}

/* ---- dump ---- */

const ProtobufCMessageDescriptor *descriptor_of(const std::string &name)
{
    static const ProtobufCMessageDescriptor *const all[] = {
        &p_utils__stovig_disk_info__descriptor,  &p_utils__stovig_part_info__descriptor,
        &p_utils__stovig_part_ro__descriptor,    &p_utils__stovig_io__descriptor,
        &p_utils__stovig_smpl_intrl__descriptor, &p_utils__stovig_dbg__descriptor,
        &p_utils__upgrade_global_status__descriptor, &p_utils__issu_n_global_info__descriptor,
        &p_dev__card_info__descriptor,           &p_dev__dp_lib_grole__descriptor,
        &p_dev__card_static_info__descriptor,
    };
    for (const ProtobufCMessageDescriptor *d : all)
        if (name == d->name)
            return d;
    return nullptr;
}

void print_message(std::string *out, const ProtobufCMessage *m);

/* Text from the bus, for a terminal: every byte that is not printable ASCII
 * (and the backslash and the quote) as \xNN. */
std::string printable(const char *s, size_t len)
{
    return qn_escape_bytes(std::string_view(s, len), "\"");
}

void print_value(std::string *out, const ProtobufCFieldDescriptor *f, const void *p)
{
    char buf[64];
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
        snprintf(buf, sizeof buf, "%d", *static_cast<const int32_t *>(p));
        break;
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        snprintf(buf, sizeof buf, "%u", *static_cast<const uint32_t *>(p));
        break;
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        snprintf(buf, sizeof buf, "%lld", static_cast<long long>(*static_cast<const int64_t *>(p)));
        break;
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(*static_cast<const uint64_t *>(p)));
        break;
    case PROTOBUF_C_TYPE_DOUBLE:
        snprintf(buf, sizeof buf, "%g", *static_cast<const double *>(p));
        break;
    case PROTOBUF_C_TYPE_FLOAT:
        snprintf(buf, sizeof buf, "%g", static_cast<double>(*static_cast<const float *>(p)));
        break;
    case PROTOBUF_C_TYPE_BOOL:
        snprintf(buf, sizeof buf, "%s", *static_cast<const protobuf_c_boolean *>(p) ? "true" : "false");
        break;
    case PROTOBUF_C_TYPE_ENUM: {
        int v = *static_cast<const int *>(p);
        const ProtobufCEnumValue *ev =
            protobuf_c_enum_descriptor_get_value(static_cast<const ProtobufCEnumDescriptor *>(f->descriptor), v);
        snprintf(buf, sizeof buf, "%s", ev ? ev->name : std::to_string(v).c_str());
        break;
    }
    case PROTOBUF_C_TYPE_STRING: {
        const char *s = *static_cast<char *const *>(p);
        *out += "\"" + printable(s ? s : "", s ? strlen(s) : 0) + "\"";
        return;
    }
    case PROTOBUF_C_TYPE_BYTES: {
        auto *b = static_cast<const ProtobufCBinaryData *>(p);
        *out += "0x";
        for (size_t i = 0; i < b->len; ++i) {
            snprintf(buf, sizeof buf, "%02x", b->data[i]);
            *out += buf;
        }
        return;
    }
    case PROTOBUF_C_TYPE_MESSAGE: {
        auto *sub = *static_cast<const ProtobufCMessage *const *>(p);
        if (sub)
            print_message(out, sub);
        else
            *out += "null";
        return;
    }
    }
    *out += buf;
}

void print_message(std::string *out, const ProtobufCMessage *m)
{
    const ProtobufCMessageDescriptor *d = m->descriptor;
    *out += "{";
    for (unsigned i = 0; i < d->n_fields; ++i) {
        const ProtobufCFieldDescriptor *f = &d->fields[i];
        const char *base = reinterpret_cast<const char *>(m);
        if (i)
            *out += ", ";
        *out += f->name;
        *out += ": ";
        if (f->label == PROTOBUF_C_LABEL_REPEATED) {
            size_t n = *reinterpret_cast<const size_t *>(base + f->quantifier_offset);
            const char *arr = *reinterpret_cast<char *const *>(base + f->offset);
            size_t sz = f->type == PROTOBUF_C_TYPE_MESSAGE || f->type == PROTOBUF_C_TYPE_STRING ? sizeof(void *)
                        : f->type == PROTOBUF_C_TYPE_BYTES                                      ? sizeof(ProtobufCBinaryData)
                        : f->type == PROTOBUF_C_TYPE_DOUBLE || f->type == PROTOBUF_C_TYPE_INT64 ||
                                f->type == PROTOBUF_C_TYPE_UINT64 || f->type == PROTOBUF_C_TYPE_SINT64 ||
                                f->type == PROTOBUF_C_TYPE_FIXED64 || f->type == PROTOBUF_C_TYPE_SFIXED64
                            ? 8
                            : 4;
            *out += "[";
            for (size_t k = 0; k < n; ++k) {
                if (k)
                    *out += ", ";
                print_value(out, f, arr + k * sz);
            }
            *out += "]";
        } else {
            print_value(out, f, base + f->offset);
        }
    }
    *out += "}";
}

void dump_entry(void *, const char *key, const char *full_name, const void *bytes, size_t len)
{
    if (!key) {
        done = true;
        return;
    }
    if (!bytes) {
        printf("%s <%zu bytes, over the %d-byte limit, not read>\n", printable(key, strlen(key)).c_str(), len,
               QN_MOM_MAX_VALUE);
        return;
    }
    const ProtobufCMessageDescriptor *d = descriptor_of(full_name ? full_name : "");
    ProtobufCMessage *m =
        d ? protobuf_c_message_unpack(d, nullptr, len, static_cast<const uint8_t *>(bytes)) : nullptr;
    if (!m) {
        printf("%s <undecodable, %zu bytes>\n", printable(key, strlen(key)).c_str(), len);
        return;
    }
    std::string text;
    print_message(&text, m);
    printf("%s %s\n", printable(key, strlen(key)).c_str(), text.c_str());
    protobuf_c_message_free_unpacked(m, nullptr);
}

int connect_client()
{
    master_loop = qn_thread_master_create();
    if (!master_loop) {
        fprintf(stderr, "qn-bus: cannot create the event loop\n");
        return 2;
    }
    client = qn_mom_client_init("QN-BUS", master_loop);
    if (!client)
        return 2;
    if (qn_mom_client_connect(client, QN_MOM_TUNNER_DB,
                              [](qn_mom_client_t *, uint32_t, void *) {
                                  done = true;
                                  return 0;
                              },
                              nullptr) != 0)
        return 2;
    if (!run_loop(kConnectMs))
        return unreachable("no answer within 3 s");
    return 0;
}

int report(const char *what, int ret)
{
    if (ret != 0) {
        fprintf(stderr, "qn-bus: %s failed with %d\n", what, ret);
        return 1;
    }
    ret = settle();
    if (ret != 0)
        return ret;
    /* Every write has had its answer: any the store refused (even one kept
     * for a retry the tool will not wait for) fails the command. */
    qn_mom_counters_t n{};
    qn_mom_client_counters(client, &n);
    size_t left = qn_mom_client_outbox(client);
    unsigned long long refusals = n.store_refusals + n.rejected_writes + n.refused_writes;
    if (refusals == 0 && left == 0)
        return 0;
    unsigned long long writes = n.rejected_writes + n.refused_writes + left;
    fprintf(stderr, "qn-bus: %s: the store refused %llu write%s (%llu refusal%s), %zu not made\n", what, writes,
            writes == 1 ? "" : "s", refusals, refusals == 1 ? "" : "s", left);
    return 1;
}

/* Stays on the bus as the device manager until killed: the client writes
 * the records back whenever the store comes back empty. */
int keep_running()
{
    fprintf(stderr, "qn-bus: keeping the inventory on %s (pid %d)\n", qn_platform_config_get()->bus_url.c_str(),
            static_cast<int>(getpid()));
    qn_thread t;
    while (qn_thread_fetch(master_loop, &t))
        qn_thread_call(&t);
    return 1;
}

int set_online(int devid, int slot, bool online)
{
    for (card &c : read_cards()) {
        if (c.devid == devid && c.slot == slot) {
            c.online = online;
            return report(online ? "online" : "offline", put_card(c));
        }
    }
    fprintf(stderr, "qn-bus: no card in slot %d of device %d on the bus\n", slot, devid);
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h")) {
        fputs(kUsage, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    std::string cmd = argv[1];
    int a = 0, b = 0;
    bool ok = true;
    bool keep = cmd == "inventory" && argc == 4 && !strcmp(argv[2], "--keep");
    if (keep) {
        argv[2] = argv[3];
        argc = 3;
    }
    if (cmd == "inventory" || cmd == "dump" || cmd == "upgrade" || cmd == "issu")
        ok = argc == 3 && (cmd == "inventory" || parse_int(argv[2], &a));
    else if (cmd == "online" || cmd == "offline" || cmd == "master")
        ok = (argc == 3 || argc == 4) && parse_int(argv[2], &a) && (argc == 3 || parse_int(argv[3], &b));
    else if (cmd == "raw")
        ok = argc == 5 && parse_int(argv[2], &a);
    else
        ok = false;
    if (!ok) {
        fprintf(stderr, "qn-bus: bad command line\n\n%s", kUsage);
        return 2;
    }
    /* Every command is about the bus other processes share: on the embedded
     * bus of this one process it would write into a store that ends with it. */
    const qn_platform_config *cfg = qn_platform_config_get();
    if (!cfg)
        return QN_PLATFORM_EX_CONFIG; /* the reason is printed */
    if (cfg->bus_url.empty()) {
        fprintf(stderr, "qn-bus: no shared bus: set STOVIG_CONFIG to a config file with [bus] url = "
                        "redis://HOST:PORT (without it each process has its own in-process bus)\n");
        return 2;
    }
    if (cmd == "inventory") {
        std::vector<card> cards;
        if (!parse_inventory(argv[2], &cards))
            return 2;
        int ret = connect_client();
        if (ret)
            return ret;
        int r = 0, mdev = -1, mslot = -1;
        for (const card &c : cards) {
            r |= put_card(c);
            if (c.master) {
                mdev = c.devid;
                mslot = c.slot;
            }
        }
        if (r == 0 && mslot >= 0)
            r = put_roles(cards, mdev, mslot);
        ret = report("inventory", r);
        if (ret != 0 || !keep)
            return ret;
        return keep_running();
    }
    int ret = connect_client();
    if (ret)
        return ret;
    if (cmd == "online" || cmd == "offline")
        return set_online(b, a, cmd == "online");
    if (cmd == "master") {
        std::vector<card> cards = read_cards();
        bool known = false;
        for (const card &c : cards)
            known = known || (c.devid == b && c.slot == a);
        if (!known) {
            fprintf(stderr, "qn-bus: no card in slot %d of device %d on the bus\n", a, b);
            return 1;
        }
        return report("master", put_roles(cards, b, a));
    }
    if (cmd == "upgrade") {
        PUtils__UpgradeGlobalStatus rec = P_UTILS__UPGRADE_GLOBAL_STATUS__INIT;
        rec.status = static_cast<PUtils__UpgradeStatusE>(a);
        return report("upgrade", qn_mom_set(client, 3, &rec.base, 0, 0));
    }
    if (cmd == "issu") {
        PUtils__IssuNGlobalInfo rec = P_UTILS__ISSU_N_GLOBAL_INFO__INIT;
        rec.state = static_cast<PUtils__IssuNGlobalStateE>(a);
        return report("issu", qn_mom_set(client, QN_MOM_MONITOR_DB, &rec.base, 0, 0));
    }
    if (cmd == "raw")
        return report("raw", qn_mom_set_raw(client, static_cast<uint32_t>(a), argv[3], argv[4], strlen(argv[4])));
    /* dump */
    ret = qn_mom_dump(client, static_cast<uint32_t>(a), dump_entry, nullptr);
    if (ret != 0) {
        fprintf(stderr, "qn-bus: dump failed with %d\n", ret);
        return 1;
    }
    if (!run_loop(kAnswerMs))
        return unreachable("no answer within 10 s");
    fflush(stdout);
    return 0;
}
