#include "core/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

int descriptor_open_untrusted(const char* path, int flags, mode_t mode) {
    return open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
}

void descriptor_hold_standard(bool working) {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        const int wrong_way = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (fcntl(fd, F_GETFD) < 0) {
            /* The lowest number that is free is this one. */
            (void)open("/dev/null", working ? O_RDWR : wrong_way);
        }
    }
}
