#pragma once

#include <stdint.h>

#include "loop/connection.h"

/* The listening stream server. It is counted: one reference for its opener and one for each
 * connection, so that connections outlive its release. */

/* Listens on an address (see endpoint_parse; null means 0.0.0.0) and port. Returns the server,
 * owned by the caller until server_release, or null, also when the descriptor is not below the
 * loop's limit. */
server* server_open(const char* address, int port);

/* The handler of the listening descriptor; `argument` is the server. Accepts one connection for
 * each readiness. A client whose descriptor is not below the loop's limit is closed without a word.
 */
void cb_sserver(int fd, unsigned mask, void* argument);

/* Stops listening and gives up the opener's reference. */
void server_release(server* s);
