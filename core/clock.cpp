#include "core/clock.h"

#include <sys/time.h>

clock_time clock_now() {
    timeval now;
    gettimeofday(&now, nullptr);
    return {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec)};
}

int64_t clock_elapsed_ms(clock_time* since, const clock_time* now) {
    const int64_t elapsed =
        (int64_t{now->sec} - since->sec) * 1000 + (int64_t{now->usec} - since->usec) / 1000;
    if (elapsed < 0) {
        *since = *now;
    }
    return elapsed;
}
