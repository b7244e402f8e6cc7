/* In-process store: the bus of a stand-alone box.  One store per process,
 * shared by every client of the process; a change is announced to each of
 * them, numbered by one process-wide counter, and they queue the replies on
 * their own loops.  The link never goes down. */
#include "mom_internal.h"
#include "qn_mom_standin.h"

#include <map>
#include <set>

namespace {

std::map<std::string, std::string> &store()
{
    static std::map<std::string, std::string> s;
    return s;
}

uint64_t &last_change()
{
    static uint64_t n = 0;
    return n;
}

struct embedded;

std::set<embedded *> &clients()
{
    static std::set<embedded *> s;
    return s;
}

struct embedded : mom_transport {
    mom_hooks *hooks;
    bool started = false;

    explicit embedded(mom_hooks *h) : hooks(h) { clients().insert(this); }
    ~embedded() override { clients().erase(this); }

    static void announce(const embedded *writer, char op, const std::string &key, const std::string &old_bytes,
                         const std::string &new_bytes)
    {
        mom_change c;
        c.pos.seq = ++last_change();
        c.op = op;
        c.key = key;
        c.old_bytes = old_bytes;
        c.new_bytes = new_bytes;
        /* Copy: announcing never re-enters the set, but a client may go away later. */
        std::set<embedded *> now = clients();
        for (embedded *e : now) {
            if (!e->started)
                continue;
            c.from_self = e == writer;
            e->hooks->transport_change(c);
        }
    }

    const char *name() const override { return "embedded"; }
    bool up() const override { return started; }
    void start() override
    {
        started = true;
        mom_link_up up;
        up.first = true;
        up.at.seq = last_change();
        up.from = up.at;
        hooks->transport_up(up);
    }
    int write(char op, const std::string &key, const std::string &bytes, mom_write_done done) override
    {
        auto &s = store();
        auto it = s.find(key);
        if (op == 'D') {
            if (it != s.end()) {
                std::string old = std::move(it->second);
                s.erase(it);
                announce(this, 'D', key, old, std::string());
            }
        } else if (op != 'R' || it == s.end()) {
            std::string old = it == s.end() ? std::string() : it->second;
            s[key] = bytes;
            announce(this, op == 'R' ? 'S' : op, key, old, bytes);
        }
        done(0, std::string());
        return 0;
    }
    int scan(const std::string &prefix, bool exact, mom_scan_done done) override
    {
        std::vector<mom_entry> out;
        auto &s = store();
        for (auto it = s.lower_bound(prefix); it != s.end(); ++it) {
            if (exact ? it->first != prefix : it->first.compare(0, prefix.size(), prefix) != 0)
                break;
            mom_entry e;
            e.key = it->first;
            e.size = it->second.size();
            if (e.size > QN_MOM_MAX_VALUE)
                e.oversized = true;
            else
                e.bytes = it->second;
            out.push_back(std::move(e));
        }
        mom_pos at;
        at.seq = last_change();
        done(0, at, std::move(out));
        return 0;
    }
};

} // namespace

std::unique_ptr<mom_transport> mom_embedded_create(mom_hooks *hooks, qn_thread_master *)
{
    return std::make_unique<embedded>(hooks);
}

extern "C" void qn_mom_embedded_reset(void)
{
    store().clear();
}
