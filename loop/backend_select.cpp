#include <sys/select.h>

#include "loop/loop.h"

namespace {

/* The kernel's own view of a set: an array of long words, the lowest descriptor in the lowest bit.
 * Looking at whole words keeps the cost of an idle descriptor near zero. */
constexpr int WORD_BITS = 8 * sizeof(unsigned long);
constexpr int WORDS = FD_SETSIZE / WORD_BITS;

struct word_set {
    unsigned long words[WORDS];
};
static_assert(sizeof(fd_set) == sizeof(word_set));

struct select_state {
    word_set readable; /* watched for reading */
    word_set writable; /* watched for writing */
    int highest;       /* highest registered descriptor, -1 when none was registered yet */
};

select_state state;

unsigned long bit_of(int fd) {
    return 1UL << (fd % WORD_BITS);
}

bool is_registered(int fd) {
    const unsigned long any =
        state.readable.words[fd / WORD_BITS] | state.writable.words[fd / WORD_BITS];
    return (any & bit_of(fd)) != 0;
}

bool backend_init(int) {
    state = {};
    state.highest = -1;
    return true;
}

void backend_add(int fd, unsigned mask) {
    if (fd >= FD_SETSIZE) {
        return;
    }
    if ((mask & LOOP_READABLE) != 0) {
        state.readable.words[fd / WORD_BITS] |= bit_of(fd);
    }
    if ((mask & LOOP_WRITABLE) != 0) {
        state.writable.words[fd / WORD_BITS] |= bit_of(fd);
    }
    if (fd > state.highest) {
        state.highest = fd;
    }
}

void backend_del(int fd, unsigned mask) {
    if (fd >= FD_SETSIZE) {
        return;
    }
    if ((mask & LOOP_READABLE) != 0) {
        state.readable.words[fd / WORD_BITS] &= ~bit_of(fd);
    }
    if ((mask & LOOP_WRITABLE) != 0) {
        state.writable.words[fd / WORD_BITS] &= ~bit_of(fd);
    }
    if (fd == state.highest) {
        while (state.highest > 0 && !is_registered(state.highest)) {
            state.highest--;
        }
    }
}

/* Appends the events of one word of both sets. Returns the new count, at most LOOP_MAX_EVENTS. */
int collect(int first_fd, unsigned long readable, unsigned long writable, loop_event* events,
            int count) {
    for (unsigned long any = readable | writable; any != 0 && count < LOOP_MAX_EVENTS;
         any &= any - 1) {
        const int bit = __builtin_ctzl(any);
        const unsigned mask = static_cast<unsigned>((readable >> bit & 1) * LOOP_READABLE |
                                                    (writable >> bit & 1) * LOOP_WRITABLE);
        events[count++] = {first_fd + bit, mask};
    }
    return count;
}

int backend_wait(int timeout_ms, loop_event* events) {
    timeval timeout = {timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    word_set readable;
    word_set writable;
    const int words = state.highest / WORD_BITS + 1;
    for (int i = 0; i < words; i++) {
        readable.words[i] = state.readable.words[i];
        writable.words[i] = state.writable.words[i];
    }
    if (select(state.highest + 1, reinterpret_cast<fd_set*>(&readable),
               reinterpret_cast<fd_set*>(&writable), nullptr, &timeout) < 1) {
        return 0;
    }
    int count = 0;
    for (int i = 0; i < words; i++) {
        count = collect(i * WORD_BITS, readable.words[i], writable.words[i], events, count);
    }
    return count;
}

void backend_fini() {}

} // namespace

const loop_backend_operations loop_select_backend = {backend_init, backend_add, backend_del,
                                                     backend_wait, backend_fini};
