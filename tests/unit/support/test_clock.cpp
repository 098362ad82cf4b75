#include "tests/unit/support/test_clock.h"

#include <sys/time.h>
#include <time.h>

namespace {

bool frozen_now;
timeval frozen_time;

} // namespace

/* Defined in the program, these take precedence over the C library's. Its own parts, and the test
 * library's clocks, do not come this way. */

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept {
    if (frozen_now) {
        *tv = frozen_time;
        return 0;
    }
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tv->tv_sec = now.tv_sec;
    tv->tv_usec = static_cast<decltype(tv->tv_usec)>(now.tv_nsec / 1000);
    return 0;
}

extern "C" time_t time(time_t* result) noexcept {
    timeval tv;
    gettimeofday(&tv, nullptr);
    if (result != nullptr) {
        *result = tv.tv_sec;
    }
    return tv.tv_sec;
}

void test_clock::set(int64_t sec, int64_t usec) {
    frozen_now = true;
    frozen_time = {};
    frozen_time.tv_sec = static_cast<time_t>(sec);
    frozen_time.tv_usec = static_cast<decltype(frozen_time.tv_usec)>(usec);
}

void test_clock::release() {
    frozen_now = false;
}
