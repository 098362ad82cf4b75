/* Commands of several clients against the model of the system tests: every reply, every event and
 * every dumped file must be the same. A step is
 *
 *   0 to 3   words between blanks: a command of that client (any other letter likewise)
 *   f        the bytes of the file that is loaded next */

#include <stddef.h>
#include <stdint.h>
#include <strings.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/support/check.h"
#include "fuzz/support/clients.h"
#include "fuzz/support/files.h"
#include "fuzz/support/steps.h"
#include "fuzz/support/store_check.h"
#include "fuzz/support/world.h"
#include "stats/netdev.h"
#include "store/dump.h"
#include "store/object.h"
#include "tests/system/model/store_model.h"

using system_test::store_model;

namespace {

/* A reading client gets so much whole. */
constexpr size_t OUTPUT_MAX = 200000;

/* In how many passes. */
constexpr unsigned PASSES_MAX = 1000;

/* The library, which the model asks, reads a pattern anew at each place of a key. */
constexpr long STARS_MAX = 4;

constexpr char FILE_PATH[] = "/file";

struct run {
    fuzz_steps steps;
    std::optional<store_model> model;
    bool observes[CLIENTS];
    std::string expected[CLIENTS]; /* what each client is to get of the last command */
    std::string received[CLIENTS];
    std::string dumped; /* what it is to write, if it dumps */
    bool dumps;
    unsigned passes;
};

run state;

bool is_command(const std::vector<std::string>& words, const char* name, size_t arguments) {
    return strcasecmp(words[0].c_str(), name) == 0 && words.size() > arguments;
}

/* True for what the model leaves out: the clock, histories, brackets that libraries read in ways of
 * their own. */
bool is_left_out(const std::vector<std::string>& words) {
    for (const std::string& word : words) {
        if (is_history_key(word.c_str())) {
            return true;
        }
    }
    if (is_command(words, "expireat", 0) ||
        (is_command(words, "ttl", 1) && state.model->expires(words[1]))) {
        return true;
    }
    const bool has_pattern = is_command(words, "keys", 1) || is_command(words, "dump", 2);
    const std::string& pattern = words[is_command(words, "dump", 2) ? 2 : words.size() - 1];
    return has_pattern && (pattern.find_first_of("[\\") != std::string::npos ||
                           std::count(pattern.begin(), pattern.end(), '*') > STARS_MAX);
}

/* What the clients are to get. False when that is too much for one of them. */
bool expect(const store_model::outcome& outcome, unsigned issuer) {
    std::string events;
    for (const std::string& event : outcome.events) {
        events += event;
    }
    for (unsigned who = 0; who < CLIENTS; who++) {
        state.received[who].clear();
        state.expected[who] = who == issuer ? outcome.reply : state.observes[who] ? events : "";
    }
    return outcome.reply.size() < OUTPUT_MAX && events.size() < OUTPUT_MAX;
}

/* False ends the run. */
bool send_command(std::vector<std::string>* words, unsigned issuer) {
    if (is_left_out(*words)) {
        return true;
    }
    state.dumps = is_command(*words, "dump", 2);
    if (state.dumps || is_command(*words, "load", 1)) {
        (*words)[1] = FILE_PATH;
    }
    bool goes_on = true;
    if (is_command(*words, "observe", 0)) {
        goes_on = expect({"+OK\r\n", {}, ""}, issuer);
        state.observes[issuer] = true;
    } else {
        const bool observed =
            std::find(state.observes, state.observes + CLIENTS, true) != state.observes + CLIENTS;
        const store_model::outcome outcome =
            state.model->run(*words, observed, files_read(FILE_PATH));
        state.dumped = outcome.dumped;
        goes_on = expect(outcome, issuer);
    }
    return goes_on && clients_deliver(issuer, clients_request(*words));
}

/* True when everything has come. */
bool compare() {
    bool all = true;
    for (unsigned who = 0; who < CLIENTS; who++) {
        state.received[who] += clients_read(who);
        const std::string& expected = state.expected[who];
        fuzz_require(expected.compare(0, state.received[who].size(), state.received[who]) == 0,
                     "a client gets something else than the model says");
        all = all && state.received[who].size() == expected.size();
    }
    if (all && state.dumps) {
        fuzz_require(files_read(FILE_PATH) == state.dumped, "a dump is another");
    }
    return all;
}

bool turn() {
    if (!compare()) {
        fuzz_require(++state.passes < PASSES_MAX, "a client gets less than the model says");
        return true;
    }
    state.passes = 0;
    state.dumps = false;
    fuzz_step step;
    if (!steps_next(&state.steps, &step)) {
        return false;
    }
    if (step.kind == 'f') {
        files_write(FILE_PATH, step.text);
        return true;
    }
    std::vector<std::string> words = words_of(step.text);
    return send_command(&words, static_cast<unsigned char>(step.kind) % CLIENTS);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    world_start();
    /* The model begins with nothing. */
    object_reset();
    netdev_start();
    files_shut_in();
    files_write(FILE_PATH, "");
    state = {};
    state.steps = steps_start(bytes, size);
    state.model.emplace(size_t{0});
    clients_run(turn);
    files_let_out();
    store_check();
    return 0;
}
