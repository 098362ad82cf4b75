#pragma once

#include <string>
#include <string_view>
#include <vector>

/* Clients of the daemon in one process with it: socket pairs, and the real loop between. The last
 * client has little room in its socket, so that output is refused soon when it does not read. */

constexpr unsigned CLIENTS = 4;

/* Called once a pass of the loop, when all that was delivered before has been served. False ends
 * the run. */
typedef bool (*clients_turn)();

/* Runs the loop, which must be fresh, with the expiry sweep on its timer. At the end every client
 * hangs up and its connection is destroyed. Checks that requests leave no input behind. */
void clients_run(clients_turn turn);

/* --- Within a turn --- */

/* Hands the bytes to a client's connection in one piece, and connects it first if it has none.
 * False, with nothing delivered, when there are none or too many for one piece. */
bool clients_deliver(unsigned who, std::string_view bytes);

/* Lets the client read all that has come for it, and returns it. */
std::string clients_read(unsigned who);

/* True while the daemon has not closed the client's connection, as far as it was read. */
bool clients_connected(unsigned who);

/* Closes the client's end. */
void clients_hang_up(unsigned who);

/* The frame of a request. */
std::string clients_request(const std::vector<std::string>& words);
