/* Watchdog registration with HAM and its 30-second feeding from the loop. */
#ifndef RES_HAM_H
#define RES_HAM_H

#include "qn_thread.h"

#define RES_HAM_PARAM_A 120
#define RES_HAM_PARAM_B 5
#define RES_HAM_FEED_INTERVAL 30

extern struct qn_thread res_ham_feed_slot;

int res_misc_reg_ham_restart(void);
int res_reg_ham_watchdog(int a, int b);
int res_feed_ham_watchdog(int a, int b);
int res_ham_watchdog_unreg(void);
int res_ham_watchdog_init(int a, int b);
int res_misc_ham_feed_timer(struct qn_thread *thread);
int res_misc_ham_feed_loop(void);
int res_thread_start(const char *name);

#endif
