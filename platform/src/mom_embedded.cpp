/* In-process store: the bus of a stand-alone box.  One store per process,
 * shared by every client of the process; a change is announced to each of
 * them, and they queue the replies on their own loops. */
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

std::set<mom_hooks *> &clients()
{
    static std::set<mom_hooks *> s;
    return s;
}

void announce(char op, const std::string &key, const std::string &old_bytes, const std::string &new_bytes)
{
    /* Copy: announcing never re-enters the set, but a client may go away later. */
    std::set<mom_hooks *> now = clients();
    for (mom_hooks *h : now)
        h->transport_change(op, key, old_bytes, new_bytes);
}

struct embedded : mom_transport {
    mom_hooks *hooks;
    bool started = false;

    explicit embedded(mom_hooks *h) : hooks(h) { clients().insert(h); }
    ~embedded() override { clients().erase(hooks); }

    const char *name() const override { return "embedded"; }
    bool up() const override { return started; }
    void start() override
    {
        started = true;
        hooks->transport_up();
    }
    int put(char op, const std::string &key, const std::string &bytes) override
    {
        auto &s = store();
        auto it = s.find(key);
        std::string old = it == s.end() ? std::string() : it->second;
        s[key] = bytes;
        announce(op, key, old, bytes);
        return 0;
    }
    int del(const std::string &key) override
    {
        auto &s = store();
        auto it = s.find(key);
        if (it == s.end())
            return 0;
        std::string old = std::move(it->second);
        s.erase(it);
        announce('D', key, old, std::string());
        return 0;
    }
    int scan(const std::string &prefix, bool exact, mom_scan_done done) override
    {
        std::vector<mom_entry> out;
        auto &s = store();
        for (auto it = s.lower_bound(prefix); it != s.end(); ++it) {
            if (exact ? it->first != prefix : it->first.compare(0, prefix.size(), prefix) != 0)
                break;
            out.push_back({it->first, it->second});
        }
        done(0, std::move(out));
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
