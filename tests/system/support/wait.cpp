#include "tests/system/support/wait.h"

#include <time.h>

namespace system_test {

long now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long>(now.tv_sec % 1000000) * 1000 + now.tv_nsec / 1000000;
}

bool eventually(const std::function<bool()>& condition, int limit_ms) {
    long start = now_ms();
    for (;;) {
        if (condition()) {
            return true;
        }
        if (now_ms() - start >= limit_ms) {
            return false;
        }
        timespec pause = {0, 3000000};
        nanosleep(&pause, nullptr);
    }
}

} // namespace system_test
