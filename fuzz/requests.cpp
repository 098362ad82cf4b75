/* Bytes of clients: parsing, dispatch, replies and events, on a live store with observers,
 * histories and keys that expire. A step is
 *
 *   0 to 3   bytes delivered in one piece to that client (any other letter likewise)
 *   A to D   words between blanks, delivered to a client as a request
 *   E to H   the same by a client that hangs up at once
 *   h        the clients in its text, "013", hang up
 *   r        they stop reading, or go on
 *
 * and what world_step knows. */

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "ctl/ctl_reply.h"
#include "fuzz/support/check.h"
#include "fuzz/support/clients.h"
#include "fuzz/support/files.h"
#include "fuzz/support/steps.h"
#include "fuzz/support/store_check.h"
#include "fuzz/support/world.h"

namespace {

struct run {
    fuzz_steps steps;
    bool reads[CLIENTS];
    ctl_reply replies[CLIENTS]; /* what a client has read and not yet understood */
};

run state;

unsigned client_of_letter(char letter) {
    return static_cast<unsigned char>(letter) % CLIENTS;
}

/* All that the daemon sends is whole, well-formed frames; only the end of the stream may cut one.
 */
void read_replies(unsigned who) {
    ctl_reply* reply = &state.replies[who];
    const std::string bytes = clients_read(who);
    for (size_t done = 0; done < bytes.size();) {
        size_t room;
        char* place = ctl_reply_room(reply, &room);
        fuzz_require(place != nullptr, "a frame is too large");
        room = room < bytes.size() - done ? room : bytes.size() - done;
        memcpy(place, bytes.data() + done, room);
        ctl_reply_added(reply, room);
        done += room;
        while (ctl_reply_parse(reply) == CTL_WHOLE) {
            ctl_reply_next(reply);
        }
        fuzz_require(reply->broken == nullptr, "a client got what is no frame");
    }
    if (!clients_connected(who)) {
        ctl_reply_free(reply);
    }
}

void hang_up(unsigned who) {
    clients_hang_up(who);
    ctl_reply_free(&state.replies[who]);
}

void carry_out(const fuzz_step* step) {
    switch (step->kind) {
    case 'A':
    case 'B':
    case 'C':
    case 'D':
        (void)clients_deliver(static_cast<unsigned>(step->kind - 'A'),
                              clients_request(words_of(step->text)));
        break;
    case 'E':
    case 'F':
    case 'G':
    case 'H':
        (void)clients_deliver(static_cast<unsigned>(step->kind - 'E'),
                              clients_request(words_of(step->text)));
        hang_up(static_cast<unsigned>(step->kind - 'E'));
        break;
    case 'h':
        for (const char letter : step->text) {
            hang_up(client_of_letter(letter));
        }
        break;
    case 'r':
        for (const char letter : step->text) {
            state.reads[client_of_letter(letter)] = !state.reads[client_of_letter(letter)];
        }
        break;
    default:
        if (!world_step(step)) {
            (void)clients_deliver(client_of_letter(step->kind), step->text);
        }
    }
}

bool turn() {
    for (unsigned who = 0; who < CLIENTS; who++) {
        if (state.reads[who]) {
            read_replies(who);
        }
    }
    fuzz_step step;
    if (!steps_next(&state.steps, &step)) {
        store_check();
        rings_check(false);
        return false;
    }
    carry_out(&step);
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    world_start();
    files_shut_in();
    state.steps = steps_start(bytes, size);
    for (unsigned who = 0; who < CLIENTS; who++) {
        state.reads[who] = true;
        ctl_reply_init(&state.replies[who]);
    }
    clients_run(turn);
    for (ctl_reply& reply : state.replies) {
        ctl_reply_free(&reply);
    }
    files_let_out();
    store_check();
    return 0;
}
