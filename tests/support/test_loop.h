/* Shared test helper: the daemon's event loop with short seconds. */
#ifndef TEST_LOOP_H
#define TEST_LOOP_H

#include "qn_thread.h"
#include "qn_thread_standin.h"
#include "res_main.h"

/* Timer seconds last this many milliseconds in tests. */
constexpr int kTestSecondMs = 10;

/* Gives the daemon its loop master in res_master, one for the whole test
 * binary; each test disarms the slots it armed. */
inline void test_loop_setup()
{
    if (!res_master)
        res_master = qn_thread_master_create();
    qn_thread_master_set_second_ms(res_master, kTestSecondMs);
}

/* Runs the loop for `seconds` timer seconds. */
inline void test_loop_run(int64_t seconds)
{
    static bool stop;
    stop = false;
    qn_thread_add_timer_withname(
        res_master, [](qn_thread *) { stop = true; return 0; }, nullptr, seconds, "test_stop");
    qn_thread t;
    while (!stop && qn_thread_fetch(res_master, &t))
        qn_thread_call(&t);
}

#endif
