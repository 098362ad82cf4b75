#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <functional>

#include "loop/loop.h"
#include "tests/unit/support/test_clock.h"

namespace unit_test {

/* Runs the loop for so many tenths of a second, however long that takes: the clock stands still but
 * for one step before each scan of the timers, and no pass waits. `look` is called when so many
 * tenths have passed, from 0 on, and everything that was due then has been done. The loop must have
 * been initialised by the running clock or the one that stands still. */
inline void run_loop_by_tenths(int tenths, const std::function<void(int)>& look) {
    struct run {
        const std::function<void(int)>& look;
        const int tenths;
        const clock_time start;
        int passed;

        static void step(int, unsigned, void* argument) {
            run* r = static_cast<run*>(argument);
            r->look(r->passed);
            if (r->passed == r->tenths) {
                loop_stop();
                return;
            }
            r->passed++;
            const int64_t usec = r->start.usec + int64_t{r->passed} * 100000;
            test_clock::set(r->start.sec + usec / 1000000, usec % 1000000);
        }
    } r = {look, tenths, *loop_now(), 0};
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    /* Always ready, so no pass waits. */
    loop_add_handler(ends[0], LOOP_READABLE, run::step, &r);
    const test_clock::frozen clock(r.start.sec, r.start.usec);
    loop_run();
    loop_remove_handler(ends[0]);
    for (const int fd : ends) {
        close(fd);
    }
}

} // namespace unit_test
