/* Event loop on libevent.  libevent callbacks only move work onto a ready
 * queue; the owner of the loop takes tasks one at a time with
 * qn_thread_fetch() and runs them with qn_thread_call(), so every callback of
 * the process runs on that one thread, one task at a time. */
#include "qn_thread.h"
#include "qn_thread_standin.h"
#include "qn_ham.h"
#include "qn_platform_config.h"

#include <unistd.h>

#include <event2/event.h>

#include <cerrno>
#include <cstdio>
#include <deque>
#include <new>
#include <unordered_map>
#include <unordered_set>

struct qn_thread_master {
    struct event_base *base = nullptr;
    int second_ms = 1000;
    bool started = false;
    std::deque<qn_thread> ready;                          /* fetched in order */
    std::unordered_map<qn_thread *, struct event *> armed; /* timers and reads */
    std::unordered_set<qn_thread *> owned;                 /* library-allocated tasks */
};

namespace {

void queue_task(qn_thread_master *m, qn_thread *t)
{
    qn_thread copy = *t;
    copy.target = t;
    m->ready.push_back(copy);
}

void on_libevent(evutil_socket_t, short, void *arg)
{
    auto *t = static_cast<qn_thread *>(arg);
    qn_thread_master *m = t->master;
    auto it = m->armed.find(t);
    if (it != m->armed.end()) {
        event_free(it->second);
        m->armed.erase(it);
    }
    /* The scheduled flag stays set until the task is fetched, so a slot whose
     * task waits in the ready queue still counts as armed. */
    queue_task(m, t);
}

struct timeval to_timeval(const qn_thread_master *m, int64_t seconds)
{
    int64_t ms = seconds * m->second_ms;
    struct timeval tv;
    tv.tv_sec = ms / 1000;
    tv.tv_usec = (ms % 1000) * 1000;
    return tv;
}

bool arm(qn_thread_master *m, qn_thread *t, short what, const struct timeval *tv)
{
    struct event *ev = event_new(m->base, what == EV_READ ? t->fd : -1, what, on_libevent, t);
    if (!ev)
        return false;
    if (event_add(ev, tv) != 0) {
        event_free(ev);
        return false;
    }
    m->armed[t] = ev;
    t->state |= QN_THREAD_SCHEDULED;
    return true;
}

qn_thread *new_owned(qn_thread_master *m, uint8_t type, qn_thread_func func, void *arg, const char *name)
{
    auto *t = new (std::nothrow) qn_thread{};
    if (!t)
        return nullptr;
    t->type = type;
    t->func = func;
    t->arg = arg;
    t->name = name;
    t->master = m;
    t->fd = -1;
    m->owned.insert(t);
    return t;
}

void drop_owned(qn_thread_master *m, qn_thread *t)
{
    if (m->owned.erase(t))
        delete t;
}

} // namespace

extern "C" {

qn_thread_master *qn_thread_master_create(void)
{
    const qn_platform_config *cfg = qn_platform_config_get();
    if (!cfg) {
        /* Nothing can run on a wrong configuration: its reason, just
         * printed, stays the last word.  The process ends here, past the
         * daemon's own exit path, so it withdraws from HAM itself (which
         * prints nothing): a stop on purpose, not a crash to restart from. */
        ham_cancel_proc(getpid());
        fflush(stdout);
        fflush(stderr);
        _exit(QN_PLATFORM_EX_CONFIG);
    }
    auto *m = new (std::nothrow) qn_thread_master;
    if (!m) {
        errno = ENOMEM;
        return nullptr;
    }
    m->base = event_base_new();
    if (!m->base) {
        delete m;
        errno = ENOMEM;
        return nullptr;
    }
    m->second_ms = cfg->second_ms;
    return m;
}

qn_thread *qn_thread_fetch(qn_thread_master *m, qn_thread *fetch)
{
    if (!m || !fetch)
        return nullptr;
    if (!m->started) {
        m->started = true;
        qn_platform_startup_done();
    }
    for (;;) {
        if (!m->ready.empty()) {
            *fetch = m->ready.front();
            m->ready.pop_front();
            fetch->target->state &= static_cast<uint8_t>(~QN_THREAD_SCHEDULED);
            return fetch;
        }
        /* Counts every event added to the base, the bus client's sockets too. */
        if (event_base_get_num_events(m->base, EVENT_BASE_COUNT_ADDED) == 0)
            return nullptr;
        if (event_base_loop(m->base, EVLOOP_ONCE) < 0)
            return nullptr;
    }
}

void qn_thread_call(qn_thread *fetched)
{
    if (!fetched || !fetched->target)
        return;
    qn_thread *target = fetched->target;
    if (fetched->func)
        fetched->func(target);
    /* Library-owned tasks are one-shot, unless the callback re-armed them. */
    qn_thread_master *m = fetched->master;
    if (m && m->owned.count(target) && !(target->state & QN_THREAD_SCHEDULED))
        drop_owned(m, target);
}

int qn_thread_insert_timer(qn_thread_master *m, qn_thread *slot, qn_thread_func func, void *arg,
                           int64_t interval, const char *name)
{
    if (!m || !slot || !func || interval < 0) {
        errno = EINVAL;
        return -1;
    }
    if (slot->state & QN_THREAD_SCHEDULED) {
        errno = EBUSY;
        return -1;
    }
    slot->type = QN_THREAD_TYPE_TIMER;
    slot->func = func;
    slot->arg = arg;
    slot->name = name;
    slot->interval = interval;
    slot->master = m;
    slot->target = nullptr;
    struct timeval tv = to_timeval(m, interval);
    if (!arm(m, slot, 0, &tv)) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

qn_thread *qn_thread_add_timer_withname(qn_thread_master *m, qn_thread_func func, void *arg,
                                        int64_t interval, const char *name)
{
    if (!m || !func || interval < 0)
        return nullptr;
    qn_thread *t = new_owned(m, QN_THREAD_TYPE_TIMER, func, arg, name);
    if (!t)
        return nullptr;
    t->interval = interval;
    struct timeval tv = to_timeval(m, interval);
    if (!arm(m, t, 0, &tv)) {
        drop_owned(m, t);
        return nullptr;
    }
    return t;
}

qn_thread *qn_thread_add_read(qn_thread_master *m, qn_thread_func func, void *arg, int fd, const char *name)
{
    if (!m || !func || fd < 0)
        return nullptr;
    qn_thread *t = new_owned(m, QN_THREAD_TYPE_READ, func, arg, name);
    if (!t)
        return nullptr;
    t->fd = fd;
    if (!arm(m, t, EV_READ, nullptr)) {
        drop_owned(m, t);
        return nullptr;
    }
    return t;
}

qn_thread *qn_thread_add_event(qn_thread_master *m, qn_thread_func func, void *arg, int64_t val, const char *name)
{
    if (!m || !func)
        return nullptr;
    qn_thread *t = new_owned(m, QN_THREAD_TYPE_EVENT, func, arg, name);
    if (!t)
        return nullptr;
    t->val = val;
    t->state |= QN_THREAD_SCHEDULED;
    queue_task(m, t);
    return t;
}

void qn_thread_cancel(qn_thread *t)
{
    if (!t || !t->master)
        return;
    qn_thread_master *m = t->master;
    auto it = m->armed.find(t);
    if (it != m->armed.end()) {
        event_free(it->second);
        m->armed.erase(it);
    }
    for (auto q = m->ready.begin(); q != m->ready.end();) {
        if (q->target == t)
            q = m->ready.erase(q);
        else
            ++q;
    }
    t->state &= static_cast<uint8_t>(~QN_THREAD_SCHEDULED);
    drop_owned(m, t);
}

} // extern "C"

struct event_base *qn_thread_master_event_base(qn_thread_master *m)
{
    return m ? m->base : nullptr;
}

void qn_thread_master_set_second_ms(qn_thread_master *m, int ms)
{
    if (m && ms > 0)
        m->second_ms = ms;
}
