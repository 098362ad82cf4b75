#include "ctl/ctl_top.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "ctl/ctl_board.h"
#include "ctl/ctl_net.h"
#include "ctl/ctl_plot.h"
#include "ctl/ctl_screen.h"
#include "ctl/ctl_series.h"
#include "ctl/ctl_text.h"

namespace {

constexpr int64_t PERIOD_MS = 1000;

/* Interfaces come seldom, and looking for them makes the daemon look at every key. */
constexpr unsigned ROUNDS_PER_SEARCH = 5;

constexpr char HISTORY_SUFFIX[] = ".10m";

/* The machine's own gauges. The key's text is the value, the history its samples. */
struct source {
    const char* name;
    ctl_unit unit;
    const char* key;
    const char* history; /* null: the values seen are the samples */
};

constexpr source SOURCES[] = {
    {"CPU", CTL_UNIT_PERCENT, "cpu.load", "cpu.10m"},
    {"Memory", CTL_UNIT_PERCENT, "mem.load", nullptr},
    {"Hosts", CTL_UNIT_COUNT, "host.num", "host.10m"},
    {"Connections", CTL_UNIT_COUNT, "conn", "conn.10m"},
};
constexpr unsigned SOURCE_COUNT = sizeof SOURCES / sizeof SOURCES[0];
constexpr unsigned INTERFACES_MAX = (CTL_BOARD_GAUGES - SOURCE_COUNT) / 2;

/* Interfaces' names end before 32 bytes. */
constexpr size_t HISTORY_KEY_SIZE = 32 + sizeof HISTORY_SUFFIX;

/* The most columns and rows; a terminal of more is drawn on in part. */
constexpr unsigned SCREEN_MAX = 500;

struct top_state {
    ctl_link* link;
    bool utf8;
    unsigned rounds;
    unsigned interfaces; /* keys of histories that may be those of interfaces, in order */
    unsigned unknown;    /* and how many more there are */
    char histories[INTERFACES_MAX][HISTORY_KEY_SIZE];
    char clock[24];
    ctl_board board;
};

/* A static record: too large for the stack of a small device. */
top_state state;

/* The history under a key, when there is one: valid until the next request. */
ctl_status fetch_series(const char* key, ctl_series* series, bool* found) {
    const char* const words[] = {"get", key};
    const ctl_status status = ctl_link_ask(state.link, 2, words);
    *found = false;
    if (status == CTL_DONE && state.link->reply.kind == '$') {
        const ctl_text value = ctl_reply_item(&state.link->reply, 0);
        *found =
            value.bytes != nullptr && ctl_series_decode(ctl_text_of(key), value, series) == nullptr;
    }
    return status;
}

ctl_status collect_values() {
    const char* words[1 + SOURCE_COUNT] = {"mget"};
    for (unsigned i = 0; i < SOURCE_COUNT; i++) {
        words[1 + i] = SOURCES[i].key;
    }
    const ctl_status status = ctl_link_ask(state.link, 1 + SOURCE_COUNT, words);
    const ctl_reply* reply = &state.link->reply;
    const bool whole = status == CTL_DONE && reply->kind == '*' && reply->count == SOURCE_COUNT;
    for (unsigned i = 0; i < SOURCE_COUNT; i++) {
        ctl_gauge* gauge = &state.board.gauges[i];
        int64_t value = 0;
        gauge->known = whole && ctl_text_number(ctl_reply_item(reply, i), 0, UINT32_MAX, &value);
        gauge->value = static_cast<uint32_t>(value);
        if (gauge->known && SOURCES[i].history == nullptr) {
            ctl_gauge_push(gauge, gauge->value);
        }
    }
    return status;
}

ctl_status collect_samples() {
    ctl_status status = CTL_DONE;
    for (unsigned i = 0; i < SOURCE_COUNT && status == CTL_DONE; i++) {
        if (SOURCES[i].history == nullptr) {
            continue;
        }
        ctl_series series;
        bool found;
        status = fetch_series(SOURCES[i].history, &series, &found);
        state.board.gauges[i].count = 0;
        if (found) {
            ctl_gauge_take(&state.board.gauges[i], &series, 0);
        }
    }
    return status;
}

bool is_own_history(const char* key) {
    for (const source& s : SOURCES) {
        if (s.history != nullptr && strcmp(s.history, key) == 0) {
            return true;
        }
    }
    return false;
}

int compare_keys(const void* a, const void* b) {
    return strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
}

/* Takes note of a key that may be an interface's history. */
void note_history(ctl_text key) {
    char name[HISTORY_KEY_SIZE] = {};
    if (key.bytes == nullptr || key.length >= sizeof name ||
        memchr(key.bytes, '\0', key.length) != nullptr) {
        return;
    }
    memcpy(name, key.bytes, key.length);
    if (is_own_history(name)) {
        return;
    }
    if (state.interfaces == INTERFACES_MAX) {
        state.unknown++;
        return;
    }
    memcpy(state.histories[state.interfaces++], name, sizeof name);
}

ctl_status search_interfaces() {
    const char* const words[] = {"keys", "*.10m"};
    const ctl_status status = ctl_link_ask(state.link, 2, words);
    const ctl_reply* reply = &state.link->reply;
    state.interfaces = 0;
    state.unknown = 0;
    for (uint32_t i = 0; status == CTL_DONE && reply->kind == '*' && i < reply->count; i++) {
        note_history(ctl_reply_item(reply, i));
    }
    qsort(state.histories, state.interfaces, sizeof state.histories[0], compare_keys);
    return status;
}

/* Adds the gauge of one figure; its value is the last sample, which is a second old at most. */
void add_gauge(ctl_text name, const char* suffix, const ctl_series* series, unsigned figure) {
    ctl_gauge* gauge = &state.board.gauges[state.board.count++];
    ctl_gauge_init(gauge, name, suffix, CTL_UNIT_RATE);
    ctl_gauge_take(gauge, series, figure);
    gauge->known = gauge->count > 0;
    gauge->value = gauge->known ? gauge->samples[gauge->count - 1] : 0;
}

ctl_status collect_interfaces() {
    ctl_status status = state.rounds % ROUNDS_PER_SEARCH == 0 ? search_interfaces() : CTL_DONE;
    state.rounds++;
    state.board.count = SOURCE_COUNT;
    state.board.left_out = 2 * state.unknown;
    for (unsigned i = 0; i < state.interfaces && status == CTL_DONE; i++) {
        ctl_series series;
        bool found;
        status = fetch_series(state.histories[i], &series, &found);
        /* Anybody may have made a key of such a name. */
        if (found && ctl_series_is_interface(&series)) {
            const ctl_text name = {state.histories[i],
                                   strlen(state.histories[i]) - strlen(HISTORY_SUFFIX)};
            add_gauge(name, " rx", &series, CTL_INTERFACE_RXB);
            add_gauge(name, " tx", &series, CTL_INTERFACE_TXB);
        }
    }
    return status;
}

ctl_status collect() {
    const time_t now = time(nullptr);
    tm parts;
    if (localtime_r(&now, &parts) == nullptr ||
        strftime(state.clock, sizeof state.clock, "%H:%M:%S", &parts) == 0) {
        state.clock[0] = '\0';
    }
    ctl_status status = collect_values();
    status = status == CTL_DONE ? collect_samples() : status;
    return status == CTL_DONE ? collect_interfaces() : status;
}

void start(ctl_link* link) {
    state = {};
    state.link = link;
    state.utf8 = ctl_plot_utf8();
    state.board.address = link->text;
    state.board.port = link->port;
    state.board.clock = state.clock;
    state.board.count = SOURCE_COUNT;
    for (unsigned i = 0; i < SOURCE_COUNT; i++) {
        ctl_gauge_init(&state.board.gauges[i], ctl_text_of(SOURCES[i].name), "", SOURCES[i].unit);
    }
}

unsigned limited(unsigned number) {
    return number < SCREEN_MAX ? number : SCREEN_MAX;
}

ctl_status draw() {
    unsigned width;
    unsigned height;
    if (ctl_screen_is_new()) {
        fputs("\x1b[2J", stdout);
    }
    ctl_screen_size(&width, &height);
    ctl_board_draw(stdout, &state.board, limited(width), limited(height), state.utf8);
    return fflush(stdout) == 0 ? CTL_DONE : CTL_OUTPUT;
}

ctl_status run() {
    int64_t next = ctl_net_now() + PERIOD_MS;
    ctl_status status = draw();
    while (status == CTL_DONE) {
        switch (ctl_screen_wait(next)) {
        case CTL_SCREEN_QUIT:
            return CTL_DONE;
        case CTL_SCREEN_DRAW:
            break;
        case CTL_SCREEN_TIME:
            status = collect();
            /* Rounds that were missed are not made up for. */
            next += PERIOD_MS;
            if (next < ctl_net_now()) {
                next = ctl_net_now() + PERIOD_MS;
            }
            break;
        }
        if (status == CTL_DONE) {
            status = draw();
        }
    }
    return status;
}

} // namespace

ctl_status ctl_top(ctl_call* call) {
    if (call->count != 1 || call->raw) {
        return ctl_call_wrong_usage("top takes no arguments and has no raw form");
    }
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
        fputs("tessctl: top needs a terminal as standard input and output\n", stderr);
        return CTL_USAGE;
    }
    tzset();
    start(call->link);
    ctl_status status = collect();
    if (status == CTL_DONE && ctl_screen_open()) {
        status = run();
        ctl_screen_close();
    }
    return status;
}
