#pragma once

#include <stdint.h>

#include "core/buffer.h"

/* The process-wide log: lines to standard output, to a file that is used as a ring of about 31 KiB,
 * to a Unix, TCP or UDP socket, or nowhere.
 *
 * Call sites use LOG, so that nothing is formatted for a message that is not written.
 * Text that came from outside is an argument, never the format.
 *
 * The log never reports its own failures and never waits for a reader: a file that cannot be
 * created falls back to standard output, a socket that does not take a line loses it, a lost socket
 * is tried again at most once a second. Standard output loses lines while it is a pipe or a socket
 * that is full; before the next one that is taken a warning says how many. A line that does not fit
 * a page may then be there in part. */

enum log_level : uint32_t {
    LOG_DEBUG = 0,
    LOG_INFO = 1,
    LOG_WARN = 2,
    LOG_ERROR = 3,
    LOG_FATAL = 4
};

struct log_config {
    const char* target; /* null keeps the present one */
    const char* ident;  /* carried for the command line, never read by the log */
    uint32_t level;     /* 5 and above keep the present one */
    int32_t colour;     /* below 0 keeps, 0 switches off, above switches on */
    int32_t timestamps; /* likewise */
};

/* How the log reaches sockets, which stand above it. A connect stores a descriptor that is
 * close-on-exec, or -1; what it returns beside is not looked at. */
struct log_sockets {
    int (*connect_local)(const char* path, int* fd);
    int (*connect_tcp)(const char* host, int port, bool non_blocking, int* fd);
    int (*connect_udp)(const char* host, int port, int* fd);
    bool (*is_local_host)(const char* host); /* of a target "HOST:PORT" */
};

/* Start-up hands the record over before it opens the log; it must outlive the log. Without one, a
 * target that is a socket is as one that nobody listens at. */
void log_use_sockets(const log_sockets* sockets);

/* The first level whose name the text begins with, in any case of letters ("Warning" is warn);
 * LOG_INFO when there is none. */
uint32_t log_parse_level(const char* text);

/* Takes the configuration over (null: none) and (re)opens the target. The first opening also
 * ignores the signals of failed writes for the process (core/descriptor.h). The target is one of
 *
 *   "stdout", "stderr"        standard output
 *   "syslog"                  nowhere
 *   "unix://PATH"             Unix stream socket
 *   "tcp://HOST:PORT", "udp://HOST:PORT"
 *   "/PATH"                   the socket at that path, if it is one, else a file
 *   "HOST:PORT"               TCP to this machine, whatever the host
 *   anything else             a file
 *
 * A file is emptied. One that has another name too, or is reached through a symbolic link, is as
 * one that cannot be created: others may have laid it there to have their target overwritten. A
 * link to a socket is followed, since nothing is lost behind it. */
void log_open(const log_config* config);

/* Replaces the target and reopens it; null does nothing. */
void log_set_target(const char* target);

/* Stores a level below 5; others are ignored. */
void log_set_level(uint32_t level);

/* The configured level; LOG_DEBUG before the log is opened. */
uint32_t log_configured_level();

/* True when a message of this level is to be written. */
inline bool log_wants(uint32_t level) {
    return log_configured_level() < level + 1;
}

/* Writes one line if its level is wanted; else nothing is formatted and no argument evaluated. */
#define LOG(level, ...)                                                                            \
    do {                                                                                           \
        if (log_wants(level)) {                                                                    \
            log_write(level, __VA_ARGS__);                                                         \
        }                                                                                          \
    } while (false)

/* Writes one line, whatever the configured level. A message of 512 bytes or more ends in a NUL
 * before the line feed. LOG_FATAL ends the process with exit status 255 and does not return. Opens
 * the log first if nobody has. */
void log_write(uint32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* The same for bytes that stand in a buffer, up to their first NUL. Appends one; without room for
 * it nothing is written. */
void log_write_buffer(uint32_t level, buffer* text);

/* A broken invariant of the units above the log: a fatal line with the expression, unit and line,
 * and with it the end of the process. */
[[noreturn]] void log_assert_failed(const char* expression, const char* unit, int line);

/* Ends the process so when the invariant does not hold. */
inline void log_require(bool holds, const char* expression, const char* unit, int line) {
    if (!holds) {
        log_assert_failed(expression, unit, line);
    }
}
