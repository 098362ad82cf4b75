#pragma once

#include <stdint.h>

/* The wall clock as records keep it, and the time that has passed since. */

/* A time since 1970 in the 32 bits that records have for each part. */
struct clock_time {
    uint32_t sec;
    uint32_t usec;
};

clock_time clock_now();

/* Milliseconds from the stored time to now, the microseconds' share truncated toward zero. A clock
 * that was set back gives a negative value and resets the stored time to now. */
int64_t clock_elapsed_ms(clock_time* since, const clock_time* now);
