#pragma once

#include <stdint.h>

#include "loop/connection.h"

/* The listening stream server. It is counted: one reference for its opener and one for each
 * connection, so that connections outlive its release. */

typedef void (*server_accept_callback)(connection* c);
typedef void (*server_override)(server* s);

/* Room for the address text, NUL included; a longer one is cut in the record. */
constexpr uint32_t SERVER_ADDRESS_SIZE = 48;

struct server {
    int32_t fd; /* -1 once released */
    char address[SERVER_ADDRESS_SIZE];
    int32_t port;
    connection* connections; /* newest first */
    connection_data_callback
        conn_ondata; /* copied into each connection; set before the first accept */
    connection_close_callback on_close; /* copied likewise */
    server_accept_callback on_accept;   /* optional: called with each new connection */
    server_override accept_override;    /* optional: called instead of accepting */
    uint32_t references;
};

/* Listens on an address (see endpoint_parse; null means 0.0.0.0) and port. Returns the server,
 * owned by the caller until server_release, or null, also when the descriptor is not below the
 * loop's limit. */
server* server_open(const char* address, int port);

/* Makes a connection of a descriptor, which is the connection's from now on: makes it non-blocking
 * and close-on-exec, links the record at the front of the server's list and takes a reference on
 * the server (null: none), and watches for input. Null, with the descriptor still the caller's,
 * when it cannot be made so: one that blocks would stop the daemon. Aborts when the descriptor is
 * not below the loop's limit or has a handler. */
connection* loop_add_connection(int fd, server* owner);

/* The handler of the listening descriptor; `argument` is the server. Accepts one connection for
 * each readiness. A client whose descriptor is not below the loop's limit is closed without a word.
 * One for whom the process has no descriptor or memory waits; for a tenth of a second nobody is
 * accepted, and then it is tried again. */
void cb_sserver(int fd, unsigned mask, void* argument);

/* Stops listening and gives up the opener's reference. */
void server_release(server* s);
