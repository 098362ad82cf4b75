#include "loop/loop.h"

#include <stdlib.h>
#include <string.h>

#include "core/buffer.h"
#include "core/fault.h"
#include "core/pool.h"

namespace {

constexpr int WAIT_MS = 100;
constexpr int SCAN_MS = 100;

struct handler_slot {
    loop_handler cb; /* null means free */
    void* argument;
};

struct loop_state {
    int maxfd;           /* every handled descriptor is below this */
    handler_slot* files; /* maxfd slots, by descriptor */
    clock_time now;
    clock_time scan;     /* last timer scan */
    loop_timer* timers;  /* newest first */
    loop_timer* running; /* whose callback is being called */
    bool stop;
    loop_closing* closing; /* closed during this pass, oldest first */
    loop_closing** closing_end;
    buffer request_scratch;
    buffer reply_scratch;
    const loop_backend_operations* backend;
};

loop_state loop;

void read_clock() {
    loop.now = clock_now();
}

void unlink_timer(loop_timer* timer) {
    if (timer->prev != nullptr) {
        timer->prev->next = timer->next;
    } else {
        loop.timers = timer->next;
    }
    if (timer->next != nullptr) {
        timer->next->prev = timer->prev;
    }
    pool_delete(timer);
}

void dispatch(const loop_event* events, int count) {
    for (int i = 0; i < count && !loop.stop; i++) {
        const int fd = events[i].fd;
        if (fd < loop.maxfd && loop.files[fd].cb != nullptr) {
            loop.files[fd].cb(fd, events[i].mask, loop.files[fd].argument);
        }
    }
}

bool is_due(loop_timer* timer) {
    return int64_t{timer->interval_ms} <= clock_elapsed_ms(&timer->last, &loop.now);
}

void scan_timers() {
    loop_timer* next;
    for (loop_timer* timer = loop.timers; timer != nullptr; timer = next) {
        if (!is_due(timer)) {
            next = timer->next;
            continue;
        }
        timer->last = loop.now;
        loop.running = timer;
        const int remove = timer->callback(timer->argument);
        /* Only now: the callback may have deleted the timer that came next. */
        next = timer->next;
        if (remove != 0 || timer->callback == nullptr) {
            unlink_timer(timer);
        }
    }
    loop.running = nullptr;
}

void scan_timers_when_due() {
    read_clock();
    if (clock_elapsed_ms(&loop.scan, &loop.now) < SCAN_MS) {
        return;
    }
    loop.scan = loop.now;
    scan_timers();
}

/* A destruction may close further records; they go with the same pass. */
void destroy_closed() {
    while (loop.closing != nullptr) {
        loop_closing* closed = loop.closing;
        loop.closing = closed->next;
        if (loop.closing == nullptr) {
            loop.closing_end = &loop.closing;
        }
        closed->destroy(closed);
    }
}

} // namespace

bool loop_init(int limit, int selector) {
    if (loop.backend != nullptr) {
        loop.backend->fini();
    }
    while (loop.timers != nullptr) {
        unlink_timer(loop.timers);
    }
    free(loop.files);
    buffer_free(&loop.request_scratch);
    buffer_free(&loop.reply_scratch);

    loop = {};
    loop.closing_end = &loop.closing;
    read_clock();
    loop.maxfd = limit;
    loop.files = static_cast<handler_slot*>(calloc(static_cast<size_t>(limit), sizeof *loop.files));
    if (loop.files == nullptr) {
        fault_no_memory();
    }
    loop.scan = loop.now;
    buffer_init(&loop.request_scratch, 0, BUFFER_UNBOUNDED);
    buffer_init(&loop.reply_scratch, 0, BUFFER_UNBOUNDED);
    loop.backend = selector == LOOP_EPOLL ? &loop_epoll_backend : &loop_select_backend;
    return loop.backend->init(limit);
}

int loop_maxfd() {
    return loop.maxfd;
}

bool loop_has_handler(int fd) {
    return loop.files[fd].cb != nullptr;
}

const clock_time* loop_now() {
    return &loop.now;
}

void loop_add_handler(int fd, unsigned mask, loop_handler handler, void* argument) {
    if (!(fd < loop.maxfd)) {
        fault_abort("fd < maxfd", "loop", LOOP_FAULT_ADD_HANDLER, "loop_add_handler");
    }
    loop.files[fd].cb = handler;
    loop.files[fd].argument = argument;
    loop.backend->add(fd, mask);
}

void loop_modify_handler(int fd, unsigned add, unsigned remove) {
    if (fd < 0 || fd >= loop.maxfd) {
        return;
    }
    if (add != 0) {
        loop.backend->add(fd, add);
    }
    if (remove != 0) {
        loop.backend->del(fd, remove);
    }
}

void loop_remove_handler(int fd) {
    if (fd < 0 || fd >= loop.maxfd) {
        return;
    }
    loop.backend->del(fd, LOOP_READABLE | LOOP_WRITABLE | LOOP_ERROR);
    loop.files[fd].cb = nullptr;
}

loop_timer* loop_add_timer(uint32_t interval_ms, loop_timer_callback callback, void* argument) {
    loop_timer* timer = pool_new<loop_timer>();
    timer->last = loop.now;
    timer->interval_ms = interval_ms;
    timer->callback = callback;
    timer->argument = argument;
    timer->next = loop.timers;
    if (loop.timers != nullptr) {
        loop.timers->prev = timer;
    }
    loop.timers = timer;
    return timer;
}

void loop_del_timer(loop_timer* timer) {
    if (timer == nullptr) {
        return;
    }
    if (timer == loop.running) {
        timer->callback = nullptr;
        return;
    }
    unlink_timer(timer);
}

void loop_del_timer_match(loop_timer_callback callback, const void* argument) {
    for (loop_timer* timer = loop.timers; timer != nullptr; timer = timer->next) {
        if (timer->callback == callback && timer->argument == argument) {
            loop_del_timer(timer);
            return;
        }
    }
}

void loop_destroy_later(loop_closing* closing) {
    if (closing->queued) {
        return;
    }
    closing->queued = true;
    closing->next = nullptr;
    *loop.closing_end = closing;
    loop.closing_end = &closing->next;
}

void loop_stop() {
    loop.stop = true;
}

bool loop_run() {
    loop_event events[LOOP_MAX_EVENTS];
    while (!loop.stop) {
        read_clock();
        const int count = loop.backend->wait(WAIT_MS, events);
        dispatch(events, count);
        if (!loop.stop) {
            scan_timers_when_due();
        }
        destroy_closed();
    }
    return loop.stop;
}

buffer* loop_request_scratch() {
    return &loop.request_scratch;
}

buffer* loop_reply_scratch() {
    return &loop.reply_scratch;
}
