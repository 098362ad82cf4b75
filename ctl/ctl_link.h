#pragma once

#include <stdint.h>

#include "ctl/ctl_reply.h"
#include "ctl/ctl_status.h"
#include "loop/endpoint.h"

/* A conversation with the daemon: requests out, whole frames in. What goes wrong is said here,
 * once, on standard error, with the address in it; callers only pass the status on. */

struct ctl_link {
    const char* text; /* the address as the user gave it */
    int port;         /* 0 for a Unix path */
    endpoint_address address;
    int wait_seconds; /* for a connection and a whole reply, together */
    int fd;           /* -1 until something is asked */
    ctl_reply reply;
};

/* `text`, as endpoint_parse_peer takes it, must outlive the link. False when it is no address.
 * Nothing is connected yet. */
bool ctl_link_init(ctl_link* link, const char* text, int port, int wait_seconds);

/* Closes the connection and frees the reply. */
void ctl_link_close(ctl_link* link);

/* Sends the words as one request, connecting first when need be, and waits for the whole reply. A
 * request that may not arrive in one piece, above 32 kB on a Unix socket, is sent with a warning.
 * With CTL_DONE it is in `link->reply` until the next call; an error reply is a reply. With any
 * other status `link->reply` holds the bytes that did come. */
ctl_status ctl_link_ask(ctl_link* link, int count, const char* const* words);

/* Waits, however long it takes, for the next event of a link that observes. CTL_OUTPUT, without a
 * word, when nobody reads our standard output any more. */
ctl_status ctl_link_next_event(ctl_link* link);
