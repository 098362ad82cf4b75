#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "loop/endpoint.h"

/* The wire between tessctl and the daemon: one request composed, a connection, bytes out and in,
 * and none of it waiting beyond a deadline. Nothing here prints; failures are returned as negative
 * error numbers, -ETIMEDOUT when the deadline passed. */

/* No deadline. */
constexpr int64_t CTL_FOREVER = INT64_MAX;

/* Milliseconds of a clock that never jumps; deadlines are times of this clock. */
int64_t ctl_net_now();

/* The words as one request, an array of bulk strings. Returns malloc'ed bytes, `*length` of them,
 * or null when memory is exhausted. */
char* ctl_net_compose(int count, const char* const* words, size_t* length);

/* Connects and returns the descriptor, which the caller closes. `burst` is the length of the
 * request that will follow: the daemon serves a request only when it finds all of it in one go, so
 * the kernel is asked for room to take it whole. Compose before connecting and send at once. */
int ctl_net_connect(const endpoint_address* address, size_t burst, int64_t deadline);

/* Sends everything, in one call as far as the kernel allows. Returns 0 or a negative error number.
 */
int ctl_net_send(int fd, const char* bytes, size_t length, int64_t deadline);

/* Waits for bytes and reads them. Returns their number, 0 at the end of the stream, or a negative
 * error number; also -EPIPE when standard output has lost its reader, if `watch_output` asks for
 * that to be noticed. */
ssize_t ctl_net_read(int fd, char* bytes, size_t size, int64_t deadline, bool watch_output);
