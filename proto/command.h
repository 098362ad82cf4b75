#pragma once

#include <stdint.h>

#include "loop/connection.h"
#include "proto/client.h"

/* Dispatch: from bytes in a connection's input to a reply in its output.
 *
 * One request is served for each delivery of input. What follows it in the same delivery is
 * dropped, and a request that is not whole closes the connection without a word: the daemon keeps
 * no half-read requests, and its clients send each request with one write and wait for the reply.
 */

/* Reads the client's request (its name in upper case) and fills its reply with one setter, or
 * leaves it empty, in which case nothing is sent. */
typedef void (*command_handler)(client* c);

/* How many arguments after the name a command takes. */
enum command_rule : uint32_t {
    RULE_ANY = 0,
    RULE_ONE = 1, /* at least so many */
    RULE_TWO = 2,
    RULE_THREE = 3,
    RULE_EVEN = 5,     /* 0 included */
    RULE_KEY_PAIRS = 8 /* at least 3 and odd: a key, then pairs */
};

struct command {
    const char* name; /* lower case */
    command_handler handler;
    uint32_t arg_rule;
};

constexpr unsigned COMMANDS = 49;

/* All commands, in the order in which they are documented. */
extern const command command_table[COMMANDS];

/* True when a command with this rule takes `argc` arguments. A rule that is not named above takes
 * any. */
bool command_accepts(uint32_t arg_rule, uint32_t argc);

/* The server's data callback: serves one request and empties the input. */
void client_ondata(connection* conn);

/* The server's close callback: takes the client of the connection, if there is one, off the
 * observers and frees it. */
void client_onclose(connection* conn, int reason);
