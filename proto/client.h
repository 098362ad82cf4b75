#pragma once

#include <stdint.h>

#include "core/sstr.h"
#include "loop/connection.h"
#include "proto/request.h"
#include "proto/resp.h"

/* The record of a client, made when its connection first delivers data and kept in the connection's
 * user data until the connection is destroyed. */

struct client {
    sstr name; /* "anynomous%u" until "hello" replaces it */
    connection* conn;
    struct request* request; /* the request being executed, null between requests */
    resp* reply;             /* the reply being built, null between requests */
    client* observe_prev;    /* links in `observers`, null when the client does not observe */
    client* observe_next;
};

/* The client whose command is being executed; null otherwise, so in timers and collectors. */
extern client* current_client;

/* Returns the client of a connection; makes and names it the first time. */
client* client_of(connection* c);

/* Replaces the name by a copy of the `length` bytes. */
void client_rename(client* c, const char* name, uint32_t length);

/* Frees the request and the reply of a client, if there are any. */
void client_end_request(client* c);

/* Frees a client with all that it holds. The caller has taken it off the observers
 * (observers_remove) and sets its connection's user_data to null. */
void client_free(client* c);
