/* The bus client's outbox: every write waits here until the store answered
 * it.  Writes go out in the order they were made, as soon as the link is up.
 *
 * The store's answers:
 * - taken: the write leaves the outbox (and with it any older refused write
 *   of the same record, which it replaces);
 * - link lost before the answer: the write goes again on the next link (it
 *   may or may not have been made);
 * - refused for a reason that passes (out of memory, busy with a script,
 *   read-only, loading, a permission an operator can grant): the write stays
 *   and goes again after a back-off of 100 ms doubling up to 5 s; nothing
 *   newer goes out before it, so each record's writes keep their order.  One
 *   line says a run of refusals began, one a minute while it lasts, and one
 *   that it ended;
 * - refused for good (a malformed write, a value over the store's limit,
 *   another type under the key): the write is dropped, with a counted line.
 *
 * Bound: kOutboxWrites writes and kOutboxBytes bytes; when full, the oldest
 * write not on its way is dropped first, with a counted line. */
#include "mom_internal.h"
#include "qn_thread_standin.h"

#include <event2/event.h>

#include <algorithm>
#include <chrono>

namespace {

/* While the link is down a line card writes about one record every 5 s at
 * the default intervals, so 1024 writes hold more than an hour. */
constexpr size_t kOutboxWrites = 1024;
constexpr size_t kOutboxBytes = 8 * 1024 * 1024;
constexpr int kFirstRetryMs = 100;
constexpr int kLastRetryMs = 5000;
using steady = std::chrono::steady_clock;
const auto kStillRefusedEvery = std::chrono::seconds(60);

const char *op_word(char op)
{
    return op == 'D' ? "delete" : "store";
}

/* Error codes of refusals that pass.  A server before 7 wraps the error a
 * script met: "ERR Error running script ...: -OOM ...". */
bool refusal_passes(const std::string &why)
{
    static const char *const codes[] = {"OOM",         "BUSY",       "READONLY", "NOPERM",  "MASTERDOWN", "LOADING",
                                        "TRYAGAIN",    "CLUSTERDOWN", "NOREPLICAS", "MISCONF", "NOAUTH"};
    std::string code = why.substr(0, why.find(' '));
    for (const char *c : codes)
        if (code == c || why.find(std::string(" -") + c + " ") != std::string::npos)
            return true;
    return false;
}

/* The write script's answer to a value over its limit. */
bool over_the_limit(const std::string &why)
{
    return why.compare(0, 9, "value of ") == 0 && why.find(" is over the limit") != std::string::npos;
}

} // namespace

mom_outbox::~mom_outbox()
{
    if (retry)
        event_free(retry);
}

void mom_outbox::attach(const std::string *module_name, mom_transport *t, qn_thread_master *master,
                        qn_mom_counters_t *c)
{
    module = module_name;
    transport = t;
    loop = master;
    counters = c;
}

void mom_outbox::add(char op, const std::string &key, const std::string &bytes)
{
    while (writes.size() >= kOutboxWrites || bytes_held + bytes.size() > kOutboxBytes) {
        auto oldest = std::find_if(writes.begin(), writes.end(), [](const entry &w) { return !w.in_flight; });
        if (oldest == writes.end())
            break;
        ++counters->dropped_writes;
        mom_log(module->c_str(), "%s, outbox full (%zu writes, %zu bytes): dropped the oldest, a %s of %s (%llu dropped so far)",
                transport->up() ? "store refusing writes" : "link down", writes.size(), bytes_held,
                op_word(oldest->op), oldest->key.c_str(), static_cast<unsigned long long>(counters->dropped_writes));
        drop(oldest);
    }
    entry w;
    w.id = next_id++;
    w.op = op;
    w.key = key;
    w.bytes = bytes;
    writes.push_back(std::move(w));
    bytes_held += bytes.size();
}

std::set<std::string> mom_outbox::keys() const
{
    std::set<std::string> out;
    for (const entry &w : writes)
        out.insert(w.key);
    return out;
}

bool mom_outbox::may_send() const
{
    if (!transport->up() || (retry && evtimer_pending(retry, nullptr)))
        return false;
    /* Refused writes go again only once every answer is in: a newer write
     * of the same record still on its way must not be overtaken. */
    bool refused = std::any_of(writes.begin(), writes.end(), [](const entry &w) { return w.refused; });
    return !refused || in_flight == 0;
}

void mom_outbox::flush()
{
    /* The in-process store answers inside write(): the answer must not
     * start a second pass over the outbox. */
    if (flushing)
        return;
    flushing = true;
    while (may_send()) {
        auto it = std::find_if(writes.begin(), writes.end(), [](const entry &w) { return !w.in_flight; });
        if (it == writes.end())
            break;
        it->in_flight = true;
        it->refused = false;
        ++in_flight;
        uint64_t id = it->id;
        entry w = *it;
        if (transport->write(w.op, w.key, w.bytes,
                             [this, id](int error, const std::string &why) { answered(id, error, why); }) != 0) {
            auto again = find(id);
            if (again != writes.end() && again->in_flight) {
                again->in_flight = false;
                --in_flight;
            }
            break;
        }
    }
    flushing = false;
}

std::deque<mom_outbox::entry>::iterator mom_outbox::find(uint64_t id)
{
    return std::find_if(writes.begin(), writes.end(), [id](const entry &w) { return w.id == id; });
}

std::deque<mom_outbox::entry>::iterator mom_outbox::drop(std::deque<entry>::iterator it)
{
    bytes_held -= it->bytes.size();
    return writes.erase(it);
}

void mom_outbox::answered(uint64_t id, int error, const std::string &why)
{
    auto it = find(id);
    if (it == writes.end() || !it->in_flight)
        return;
    it->in_flight = false;
    --in_flight;
    if (error == QN_MOM_ERR_NOTCONN) {
        /* The link went: the write goes again on the next one. */
    } else if (error == 0) {
        taken(it);
    } else if (refusal_passes(why)) {
        refused(it, why);
    } else {
        unsigned long long *count = over_the_limit(why) ? &counters->refused_writes : &counters->rejected_writes;
        ++*count;
        mom_log(module->c_str(), "%s of %s refused by the store: %s; dropped (%llu refused %s so far)",
                op_word(it->op), it->key.c_str(), why.c_str(), *count,
                count == &counters->refused_writes ? "for their size" : "for good");
        drop(it);
    }
    flush();
}

void mom_outbox::taken(std::deque<entry>::iterator it)
{
    std::string key = it->key;
    uint64_t id = it->id;
    drop(it);
    /* Older refused writes of the same record are replaced by this one. */
    for (auto w = writes.begin(); w != writes.end() && w->id < id;) {
        if (w->key == key && w->refused) {
            w = drop(w);
        } else {
            ++w;
        }
    }
    if (refusing) {
        refusing = false;
        mom_log(module->c_str(), "the store takes writes again (%llu refused so far)",
                static_cast<unsigned long long>(counters->store_refusals));
    }
    retry_ms = kFirstRetryMs;
}

void mom_outbox::refused(std::deque<entry>::iterator it, const std::string &why)
{
    it->refused = true;
    ++counters->store_refusals;
    auto n = static_cast<unsigned long long>(counters->store_refusals);
    steady::time_point now = steady::now();
    bool waiting = retry && evtimer_pending(retry, nullptr);
    if (!refusing) {
        refusing = true;
        refusing_logged = now;
        mom_log(module->c_str(), "%s of %s refused by the store: %s; kept, retrying in %d ms (%llu refused so far)",
                op_word(it->op), it->key.c_str(), why.c_str(), retry_ms, n);
    } else if (now - refusing_logged >= kStillRefusedEvery) {
        refusing_logged = now;
        mom_log(module->c_str(), "the store still refuses writes: %s (%llu refused so far)", why.c_str(), n);
    }
    if (waiting)
        return;
    if (!retry)
        retry = evtimer_new(qn_thread_master_event_base(loop), on_retry, this);
    if (!retry)
        return;
    struct timeval tv = {retry_ms / 1000, (retry_ms % 1000) * 1000};
    evtimer_add(retry, &tv);
    retry_ms = std::min(retry_ms * 2, kLastRetryMs);
}

void mom_outbox::on_retry(evutil_socket_t, short, void *arg)
{
    static_cast<mom_outbox *>(arg)->flush();
}
