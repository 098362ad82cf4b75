#include <stdlib.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "core/fault.h"
#include "loop/loop.h"

namespace {

struct epoll_state {
    int fd;               /* -1 when none */
    int limit;            /* descriptors below this have a slot; -1 when none */
    uint16_t* registered; /* by descriptor: the EPOLL bits that the kernel watches for us */
};

epoll_state state = {-1, -1, nullptr};

uint16_t kernel_bits(unsigned mask) {
    unsigned bits = 0;
    if ((mask & LOOP_READABLE) != 0) {
        bits |= EPOLLIN;
    }
    if ((mask & LOOP_WRITABLE) != 0) {
        bits |= EPOLLOUT;
    }
    return static_cast<uint16_t>(bits);
}

/* A failure is ignored: the descriptor then yields no events, and its connection is found dead by
 * the next read or write. */
void control(int operation, int fd, unsigned bits) {
    epoll_event event = {};
    event.events = bits;
    event.data.fd = fd;
    (void)epoll_ctl(state.fd, operation, fd, &event);
}

bool backend_init(int limit) {
    if (state.fd < 0) {
        state.fd = epoll_create1(EPOLL_CLOEXEC);
        if (state.fd >= 0) {
            state.registered = static_cast<uint16_t*>(
                calloc(static_cast<size_t>(limit), sizeof *state.registered));
            if (state.registered == nullptr) {
                fault_no_memory();
            }
            state.limit = limit;
        }
    }
    return state.fd >= 0;
}

void backend_add(int fd, unsigned mask) {
    const uint16_t bits = kernel_bits(mask);
    if (fd >= state.limit || bits == 0) {
        return;
    }
    const uint16_t before = state.registered[fd];
    state.registered[fd] = static_cast<uint16_t>(before | bits);
    control(before != 0 ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, state.registered[fd]);
}

void backend_del(int fd, unsigned mask) {
    if (fd >= state.limit) {
        return;
    }
    state.registered[fd] = static_cast<uint16_t>(state.registered[fd] & ~kernel_bits(mask));
    control(state.registered[fd] != 0 ? EPOLL_CTL_MOD : EPOLL_CTL_DEL, fd, state.registered[fd]);
}

int backend_wait(int timeout_ms, loop_event* events) {
    epoll_event ready[LOOP_MAX_EVENTS];
    const int count = epoll_wait(state.fd, ready, LOOP_MAX_EVENTS, timeout_ms);
    for (int i = 0; i < count; i++) {
        unsigned mask = 0;
        if ((ready[i].events & (EPOLLIN | EPOLLHUP)) != 0) {
            mask |= LOOP_READABLE;
        }
        if ((ready[i].events & EPOLLERR) != 0) {
            mask |= LOOP_ERROR;
        }
        if ((ready[i].events & EPOLLOUT) != 0) {
            mask |= LOOP_WRITABLE;
        }
        events[i] = {ready[i].data.fd, mask};
    }
    return count > 0 ? count : 0;
}

void backend_fini() {
    if (state.fd >= 0) {
        close(state.fd);
    }
    free(state.registered);
    state = {-1, -1, nullptr};
}

} // namespace

const loop_backend_operations loop_epoll_backend = {backend_init, backend_add, backend_del,
                                                    backend_wait, backend_fini};
