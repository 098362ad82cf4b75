#include "core/descriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool is_plain(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink <= 1;
}

/* A pipe that is ready has room for PIPE_BUF bytes. */
size_t write_to_pipe(int fd, const char* bytes, size_t size) {
    size_t done = 0;
    pollfd ready = {fd, POLLOUT, 0};
    while (done < size && poll(&ready, 1, 0) == 1) {
        const size_t left = size - done;
        const ssize_t written = write(fd, bytes + done, left < PIPE_BUF ? left : PIPE_BUF);
        if (written <= 0) {
            break;
        }
        done += static_cast<size_t>(written);
    }
    return done;
}

size_t write_to_socket(int fd, const char* bytes, size_t size) {
    const ssize_t sent = send(fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent > 0 ? static_cast<size_t>(sent) : 0;
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

size_t descriptor_write_ready(int fd, const char* bytes, size_t size) {
    struct stat status;
    const mode_t mode = fstat(fd, &status) == 0 ? status.st_mode : 0;
    if (S_ISFIFO(mode)) {
        return write_to_pipe(fd, bytes, size);
    }
    if (S_ISSOCK(mode)) {
        return write_to_socket(fd, bytes, size);
    }
    (void)!write(fd, bytes, size);
    return size;
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
