#include "ctl/ctl_net.h"

#include <errno.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

namespace {

/* How long to stand back from a daemon whose queue of new connections is full. */
constexpr int QUEUE_PAUSE_MS = 20;

/* For poll(): the milliseconds left, -1 for ever. */
int time_left(int64_t deadline) {
    if (deadline == CTL_FOREVER) {
        return -1;
    }
    const int64_t left = deadline - ctl_net_now();
    return left <= 0 ? 0 : static_cast<int>(left < INT32_MAX ? left : INT32_MAX);
}

/* Waits until the descriptor is ready for `events`: 0 or a negative error number. */
int wait_ready(int fd, short events, int64_t deadline, bool watch_output) {
    for (;;) {
        /* Asked for nothing, the second entry still tells when the other end of a pipe is gone. */
        pollfd ready[2] = {{fd, events, 0}, {STDOUT_FILENO, 0, 0}};
        const int found = poll(ready, watch_output ? 2 : 1, time_left(deadline));
        if (found < 0 && errno != EINTR) {
            return -errno;
        }
        if (found > 0 && ready[0].revents != 0) {
            return 0;
        }
        if (found > 0) {
            return -EPIPE;
        }
        if (time_left(deadline) == 0) {
            return -ETIMEDOUT;
        }
    }
}

void set_option(int fd, int level, int option, int value) {
    /* Each option set here betters the odds and is not needed for what follows. */
    (void)setsockopt(fd, level, option, &value, sizeof value);
}

/* The kernel doubles what it is asked for, to cover its own records, and shows the doubled size. */
void widen(int fd, size_t burst) {
    int size = 0;
    socklen_t length = sizeof size;
    if (burst >= INT32_MAX / 2 || getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length) < 0) {
        return;
    }
    const int wanted = static_cast<int>(burst);
    if (wanted > size / 2) {
        set_option(fd, SOL_SOCKET, SO_SNDBUF, wanted);
        /* Beyond the system's limit, where we may. */
        set_option(fd, SOL_SOCKET, SO_SNDBUFFORCE, wanted);
    }
}

void prepare(int fd, int family, size_t burst) {
    widen(fd, burst);
    if (family != AF_UNIX) {
        /* A last, short segment that waits for an acknowledgement would cut the request in two. */
        set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
        /* Observing may go on for weeks; a machine that is switched off says no goodbye. */
        set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    }
}

/* Waits for a connection in the making: 0 or a negative error number. */
int finish_connect(int fd, int64_t deadline) {
    const int waited = wait_ready(fd, POLLOUT, deadline, false);
    if (waited < 0) {
        return waited;
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) < 0) {
        return -errno;
    }
    return -error;
}

int connect_by(int fd, const endpoint_address* address, int64_t deadline) {
    while (connect(fd, &address->any, endpoint_length(address)) < 0) {
        if (errno == EINPROGRESS) {
            return finish_connect(fd, deadline);
        }
        /* A Unix socket whose queue is full offers nothing to wait for. */
        if (errno != EAGAIN && errno != EINTR) {
            return -errno;
        }
        if (time_left(deadline) == 0) {
            return -ETIMEDOUT;
        }
        (void)poll(nullptr, 0, QUEUE_PAUSE_MS);
    }
    return 0;
}

/* Bytes that a head such as "$12\r\n" takes, or writes it when there is a place for it. */
size_t put_head(char* at, char kind, size_t number) {
    char text[24];
    const int length = snprintf(text, sizeof text, "%c%zu\r\n", kind, number);
    if (at != nullptr) {
        memcpy(at, text, static_cast<size_t>(length));
    }
    return static_cast<size_t>(length);
}

} // namespace

int64_t ctl_net_now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

char* ctl_net_compose(int count, const char* const* words, size_t* length) {
    size_t size = put_head(nullptr, '*', static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        const size_t bytes = strlen(words[i]);
        size += put_head(nullptr, '$', bytes) + bytes + 2;
    }
    char* request = static_cast<char*>(malloc(size));
    if (request == nullptr) {
        return nullptr;
    }
    char* at = request + put_head(request, '*', static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        const size_t bytes = strlen(words[i]);
        at += put_head(at, '$', bytes);
        memcpy(at, words[i], bytes);
        memcpy(at + bytes, "\r\n", 2);
        at += bytes + 2;
    }
    *length = size;
    return request;
}

int ctl_net_connect(const endpoint_address* address, size_t burst, int64_t deadline) {
    const int fd = socket(address->any.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -errno;
    }
    prepare(fd, address->any.sa_family, burst);
    const int error = connect_by(fd, address, deadline);
    if (error < 0) {
        close(fd);
        return error;
    }
    return fd;
}

int ctl_net_send(int fd, const char* bytes, size_t length, int64_t deadline) {
    size_t done = 0;
    while (done < length) {
        const ssize_t sent = send(fd, bytes + done, length - done, MSG_NOSIGNAL);
        if (sent >= 0) {
            done += static_cast<size_t>(sent);
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN) {
            return -errno;
        }
        const int waited = wait_ready(fd, POLLOUT, deadline, false);
        if (waited < 0) {
            return waited;
        }
    }
    return 0;
}

ssize_t ctl_net_read(int fd, char* bytes, size_t size, int64_t deadline, bool watch_output) {
    for (;;) {
        const int waited = wait_ready(fd, POLLIN, deadline, watch_output);
        if (waited < 0) {
            return waited;
        }
        const ssize_t got = recv(fd, bytes, size, 0);
        if (got >= 0) {
            return got;
        }
        if (errno != EINTR && errno != EAGAIN) {
            return -errno;
        }
    }
}
