/* Event-loop library: one master per thread, timer slots owned by the caller,
 * file-descriptor readiness tasks and immediate events.  Every callback runs as
 * a task handed out by qn_thread_fetch() and executed by qn_thread_call(). */
#ifndef QN_THREAD_H
#define QN_THREAD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct qn_thread_master;
struct qn_thread;

typedef int (*qn_thread_func)(struct qn_thread *thread);

/* Bit of qn_thread.state set while a timer slot is scheduled. */
#define QN_THREAD_SCHEDULED 0x02

/* A task.  Timer slots are statically allocated by their owners and zeroed
 * before first use; the library keeps its own bookkeeping out of the slot, so
 * zeroing an unarmed slot is always safe. */
struct qn_thread {
    uint8_t state;                   /* QN_THREAD_SCHEDULED while armed */
    uint8_t type;                    /* QN_THREAD_TYPE_* of the last arming */
    qn_thread_func func;
    void *arg;
    const char *name;
    int64_t interval;                /* seconds, timers only */
    int fd;                          /* readiness tasks only */
    int64_t val;                     /* immediate events only */
    struct qn_thread_master *master;
    struct qn_thread *target;        /* in a fetched task: the slot it runs for */
};

enum {
    QN_THREAD_TYPE_NONE = 0,
    QN_THREAD_TYPE_TIMER = 1,
    QN_THREAD_TYPE_READ = 2,
    QN_THREAD_TYPE_EVENT = 3,
};

#define QN_THREAD_ARG(t) ((t)->arg)
#define QN_THREAD_FD(t) ((t)->fd)
#define QN_THREAD_VAL(t) ((t)->val)

/* Null (errno set) when the loop cannot be created.  When the platform
 * configuration cannot be read, its reason is printed, the process withdraws
 * from HAM (ham_cancel_proc) and ends with status 78 (QN_PLATFORM_EX_CONFIG). */
struct qn_thread_master *qn_thread_master_create(void);

/* Blocks until a task is ready and copies it into *fetch.  Returns null only
 * when nothing is armed, watched or queued, so nothing can ever be delivered. */
struct qn_thread *qn_thread_fetch(struct qn_thread_master *m, struct qn_thread *fetch);

/* Runs a fetched task: its function is called with the slot it was armed on. */
void qn_thread_call(struct qn_thread *fetched);

/* Arms a caller-owned timer slot: func(slot) runs once after `interval`
 * seconds.  0, or -1 (errno EINVAL/EBUSY) when the slot is already armed or an
 * argument is bad. */
int qn_thread_insert_timer(struct qn_thread_master *m, struct qn_thread *slot, qn_thread_func func,
                           void *arg, int64_t interval, const char *name);

/* Arms a library-owned one-shot timer; the task is freed after it ran or was
 * cancelled.  Returns the task, or null. */
struct qn_thread *qn_thread_add_timer_withname(struct qn_thread_master *m, qn_thread_func func,
                                               void *arg, int64_t interval, const char *name);

/* Watches `fd` for readability: func(task) runs once when it is readable;
 * re-add to keep watching.  Returns the library-owned task, or null. */
struct qn_thread *qn_thread_add_read(struct qn_thread_master *m, qn_thread_func func, void *arg,
                                     int fd, const char *name);

/* Queues func(task) to run as the next tasks, in the order queued. */
struct qn_thread *qn_thread_add_event(struct qn_thread_master *m, qn_thread_func func, void *arg,
                                      int64_t val, const char *name);

/* Disarms a timer slot or a library-owned task; harmless when not armed. */
void qn_thread_cancel(struct qn_thread *t);

#ifdef __cplusplus
}
#endif

#endif
