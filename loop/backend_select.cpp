#include <string.h>
#include <sys/select.h>

#include "loop/loop.h"

namespace {

struct select_state {
    fd_set read_set;
    fd_set write_set;
    int highest; /* highest registered descriptor, -1 when none was registered yet */
};

select_state state;

/* The kernel's view of a set: one long word for every so many descriptors. Looking at whole words keeps the
 * cost of an idle descriptor near zero. */
constexpr int WORD_BITS = 8 * sizeof(unsigned long);
constexpr int WORDS = FD_SETSIZE / WORD_BITS;
static_assert(sizeof(fd_set) == WORDS * sizeof(unsigned long));

int backend_init(int) {
    FD_ZERO(&state.read_set);
    FD_ZERO(&state.write_set);
    state.highest = -1;
    return 1;
}

void backend_add(int fd, unsigned mask) {
    if (fd >= FD_SETSIZE) {
        return;
    }
    if ((mask & LOOP_READABLE) != 0) {
        FD_SET(fd, &state.read_set);
    }
    if ((mask & LOOP_WRITABLE) != 0) {
        FD_SET(fd, &state.write_set);
    }
    if (fd > state.highest) {
        state.highest = fd;
    }
}

bool is_registered(int fd) {
    return FD_ISSET(fd, &state.read_set) || FD_ISSET(fd, &state.write_set);
}

void backend_del(int fd, unsigned mask) {
    if (fd >= FD_SETSIZE) {
        return;
    }
    if ((mask & LOOP_READABLE) != 0) {
        FD_CLR(fd, &state.read_set);
    }
    if ((mask & LOOP_WRITABLE) != 0) {
        FD_CLR(fd, &state.write_set);
    }
    if (fd == state.highest) {
        while (state.highest > 0 && !is_registered(state.highest)) {
            state.highest--;
        }
    }
}

/* A copy of the words of `set` that hold descriptors up to the highest. */
void copy_words(fd_set* copy, const fd_set* set, int words) {
    memcpy(copy, set, static_cast<size_t>(words) * sizeof(unsigned long));
}

void load_word(unsigned long* word, const fd_set* set, int index) {
    memcpy(word, reinterpret_cast<const char*>(set) + static_cast<size_t>(index) * sizeof *word,
           sizeof *word);
}

int backend_wait(int timeout_ms, loop_event* events) {
    timeval timeout = {timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    fd_set readable;
    fd_set writable;
    const int words = state.highest / WORD_BITS + 1;
    copy_words(&readable, &state.read_set, words);
    copy_words(&writable, &state.write_set, words);
    if (select(state.highest + 1, &readable, &writable, nullptr, &timeout) < 1) {
        return 0;
    }
    int count = 0;
    for (int i = 0; i < words; i++) {
        unsigned long read_word;
        unsigned long write_word;
        load_word(&read_word, &readable, i);
        load_word(&write_word, &writable, i);
        for (unsigned long any = read_word | write_word; any != 0; any &= any - 1) {
            if (count == LOOP_MAX_EVENTS) {
                return count;
            }
            const int bit = __builtin_ctzl(any);
            unsigned mask = 0;
            if ((read_word >> bit & 1) != 0) {
                mask |= LOOP_READABLE;
            }
            if ((write_word >> bit & 1) != 0) {
                mask |= LOOP_WRITABLE;
            }
            events[count++] = {i * WORD_BITS + bit, mask};
        }
    }
    return count;
}

void backend_fini() {}

} // namespace

const loop_backend_operations loop_select_backend = {backend_init, backend_add, backend_del, backend_wait,
                                                     backend_fini};
