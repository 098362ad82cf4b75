#include "tests/unit/stats/fast_clock.h"

#include <dlfcn.h>
#include <stdint.h>
#include <time.h>

namespace {

constexpr int64_t FACTOR = 50;
constexpr int64_t SECOND = 1000000000;

/* When the clock began to run fast, in nanoseconds; below 0 it does not. */
int64_t fast_since = -1;

int real_clock(clockid_t clock, timespec* now) {
    /* The name that the C library gives it where times have 64 bits by choice. */
    static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(
        dlsym(RTLD_NEXT, sizeof(time_t) > sizeof(long) ? "__clock_gettime64" : "clock_gettime"));
    return real(clock, now);
}

int64_t nanoseconds() {
    timespec now;
    real_clock(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * SECOND + now.tv_nsec;
}

} // namespace

/* Defined in the program, this takes precedence over the C library's. */
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (clock != CLOCK_MONOTONIC || fast_since < 0) {
        return real_clock(clock, now);
    }
    const int64_t shown = fast_since + (nanoseconds() - fast_since) * FACTOR;
    now->tv_sec = static_cast<time_t>(shown / SECOND);
    now->tv_nsec = static_cast<long>(shown % SECOND);
    return 0;
}

unit_test::fast_clock::fast_clock() {
    fast_since = nanoseconds();
}

unit_test::fast_clock::~fast_clock() {
    fast_since = -1;
}
