#pragma once

#include <stdint.h>

/* The wall clock as the units under test read it, through time() and gettimeofday(). It is the
 * system's until a test sets it; from then on it stands still and moves as the test moves it. */
namespace test_clock {

void set(int64_t sec, int64_t usec = 0);

/* Gives the clock back to the system. */
void release();

/* For the length of a scope. */
struct frozen {
    explicit frozen(int64_t sec, int64_t usec = 0) {
        set(sec, usec);
    }
    ~frozen() {
        release();
    }
    frozen(const frozen&) = delete;
    frozen& operator=(const frozen&) = delete;
};

} // namespace test_clock
