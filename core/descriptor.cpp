#include "core/descriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool is_plain(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

} // namespace

int descriptor_open_untrusted(const char* path, int flags, mode_t mode) {
    return open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
}

int descriptor_open_plain(const char* path, int flags, mode_t mode) {
    const int fd = descriptor_open_untrusted(path, (flags & ~O_TRUNC) | O_NOFOLLOW, mode);
    if (fd < 0) {
        return -1;
    }
    int error = is_plain(fd) ? 0 : ELOOP;
    if (error == 0 && (flags & O_TRUNC) != 0 && ftruncate(fd, 0) < 0) {
        error = errno;
    }
    if (error != 0) {
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

void descriptor_raise_limit(unsigned count) {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) < 0 || limit.rlim_cur >= count) {
        return;
    }
    limit.rlim_cur = count < limit.rlim_max ? count : limit.rlim_max;
    /* Whoever is left without a descriptor then copes with that. */
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

void descriptor_ignore_write_signals() {
    (void)signal(SIGPIPE, SIG_IGN);
    (void)signal(SIGXFSZ, SIG_IGN);
}

void descriptor_restore_write_signals() {
    (void)signal(SIGPIPE, SIG_DFL);
    (void)signal(SIGXFSZ, SIG_DFL);
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
