#pragma once

#include <stdint.h>

#include "core/buffer.h"

/* A datagram server: one callback for each datagram, its answer sent back to the sender. Start-up
 * opens none. */

struct datagram_server;

/* `request` holds the datagram, which is never empty: empty ones are dropped. What the callback
 * leaves in `reply` is sent back, nothing when it is empty. Both buffers belong to the loop and are
 * emptied afterwards. The callback may release the server; then nothing is sent. */
typedef void (*datagram_callback)(datagram_server* s, buffer* request, buffer* reply);

struct datagram_server {
    int32_t fd;
    datagram_callback callback;
};

/* Listens on an address (see endpoint_parse) and port. Returns the server, or null when that fails
 * or its descriptor is not below the loop's limit. */
datagram_server* datagram_open(const char* address, int port, datagram_callback callback);

/* Stops listening and frees the server. */
void datagram_release(datagram_server* s);
