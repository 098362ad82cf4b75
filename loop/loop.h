#pragma once

#include <stdint.h>

#include "core/buffer.h"
#include "core/clock.h"

/* The reactor: descriptor handlers, interval timers and the run loop that everything in the daemon
 * runs from.
 *
 * One thread. A pass of the loop reads the clock, waits at most 100 ms for readiness, calls the
 * handlers of the ready descriptors, scans the timers when at least 100 ms have passed since the
 * last scan, and at its end destroys what was closed during the pass. Handlers and timer callbacks
 * may add, change and remove handlers and timers, their own included, and may stop the loop.
 *
 * The unit never logs. Broken invariants abort through fault_abort. */

/* The lines in the messages of the assertions. They do not follow the source, and they are those of
 * one unit `loop`, whatever unit of this folder finds the fault: operators know them. */
enum loop_fault_line : int {
    LOOP_FAULT_ADD_HANDLER = 515,
    LOOP_FAULT_ACCEPT = 551,
    LOOP_FAULT_ADD_CONNECTION = 690
};

/* Bits of an event mask. */
enum loop_mask : unsigned { LOOP_READABLE = 1, LOOP_WRITABLE = 2, LOOP_ERROR = 4 };

enum loop_backend : int { LOOP_SELECT = -1, LOOP_EPOLL = 1 };

/* Called with the descriptor, the mask of what is ready and the argument it was registered with. */
typedef void (*loop_handler)(int fd, unsigned mask, void* argument);

/* Called with the argument of the timer; 0 keeps the timer, anything else removes it. */
typedef int (*loop_timer_callback)(void* argument);

struct loop_event {
    int32_t fd;
    uint32_t mask;
};

/* The most events that one wait returns. */
constexpr int LOOP_MAX_EVENTS = 100;

/* How the loop learns of readiness. `add` and `del` take LOOP_READABLE and LOOP_WRITABLE. */
struct loop_backend_operations {
    bool (*init)(int limit);            /* false: nothing can be watched */
    void (*add)(int fd, unsigned mask); /* watch for these too */
    void (*del)(int fd, unsigned mask); /* watch for these no longer */
    int (*wait)(int timeout_ms,
                loop_event* events); /* fills events; 0 on time-out, error and signal */
    void (*fini)();
};

/* select: reports LOOP_READABLE and LOOP_WRITABLE in ascending order of descriptors, never
 * LOOP_ERROR. */
extern const loop_backend_operations loop_select_backend;
/* epoll: a hang-up counts as readable, an error as LOOP_ERROR. */
extern const loop_backend_operations loop_epoll_backend;

/* An interval timer. It fires at the first scan at which its interval has passed and counts the
 * next interval from that scan, so firing times drift by up to the granularity of 100 ms. */
struct loop_timer {
    clock_time last; /* fire time, or creation */
    uint32_t interval_ms;
    loop_timer_callback callback; /* null: deleted while it was running */
    void* argument;
    loop_timer* prev;
    loop_timer* next;
};

/* Something that outlives the pass in which it was closed. The record is embedded in its owner,
 * which sets `destroy` and zeroes the rest. */
struct loop_closing {
    loop_closing* next;
    bool queued;
    void (*destroy)(loop_closing* closing);
};

/* Makes the loop fresh: no handlers, no timers, the clock read. Every descriptor that is registered
 * later must be below `limit`. LOOP_EPOLL chooses epoll, any other selector select. Returns what
 * the backend's init returns. */
bool loop_init(int limit, int selector);

/* The descriptor limit given to loop_init. */
int loop_maxfd();

/* True when the slot of `fd` has a handler. `fd` must be a descriptor below the limit. */
bool loop_has_handler(int fd);

/* Current time as read at the top of the pass and again before the timer scan. */
const clock_time* loop_now();

/* Registers the handler of a descriptor and watches for `mask`. A handler that was there is
 * replaced. `fd` must not be negative. Aborts when it is not below the limit. */
void loop_add_handler(int fd, unsigned mask, loop_handler handler, void* argument);

/* Watches for the bits of `add` too, then no longer for those of `remove`. A descriptor out of
 * range is ignored. */
void loop_modify_handler(int fd, unsigned add, unsigned remove);

/* Forgets the descriptor; events of the same batch that are still to come find an empty slot. A
 * descriptor at or above the limit is ignored. */
void loop_remove_handler(int fd);

/* Returns a new timer, which the loop owns. It first fires one interval after now. */
loop_timer* loop_add_timer(uint32_t interval_ms, loop_timer_callback callback, void* argument);

/* Deletes a timer; null is ignored. A timer that is deleted from its own callback is freed when the
 * callback returns. */
void loop_del_timer(loop_timer* timer);

/* Deletes the newest timer with this callback and argument, if there is one. */
void loop_del_timer_match(loop_timer_callback callback, const void* argument);

/* Hands a closed record over for destruction at the end of the pass. A record that is queued
 * already stays queued once. */
void loop_destroy_later(loop_closing* closing);

/* Ends loop_run. From a handler: no further handler of the batch is called and timers are not
 * scanned. From a timer's callback: the scan runs to its end. What was closed is destroyed in both
 * cases. */
void loop_stop();

/* Runs until the loop is stopped. Returns the flag that stopped it, true. */
bool loop_run();

/* Two scratch buffers for datagram servers: what came in and what goes out. */
buffer* loop_request_scratch();
buffer* loop_reply_scratch();
