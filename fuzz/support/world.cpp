#include "fuzz/support/world.h"

#include <stdio.h>
#include <string.h>

#include "core/log.h"
#include "core/text.h"
#include "fuzz/support/check.h"
#include "loop/endpoint.h"
#include "loop/loop.h"
#include "proto/observe.h"
#include "stats/conn.h"
#include "stats/history.h"
#include "stats/host.h"
#include "stats/netdev.h"
#include "stats/ping.h"
#include "stats/tick.h"
#include "store/dump.h"
#include "store/expire.h"
#include "store/object.h"
#include "store/seed.h"
#include "tests/unit/support/test_clock.h"

namespace {

/* Every descriptor of a target lies below it. */
constexpr int DESCRIPTORS = 256;

constexpr uint32_t DAY_PERIOD = 360;

const log_sockets sockets = {endpoint_connect_local, endpoint_connect_tcp, endpoint_connect_udp,
                             endpoint_is_local_host};

struct world_state {
    uint32_t now;
    uint32_t traffic; /* bytes and packets of the interface so far */
    bool rings_are_whole;
};

world_state state;

unsigned first_byte(const std::string& text) {
    return text.empty() ? 1 : static_cast<unsigned char>(text[0]);
}

void pass(uint32_t seconds) {
    state.now += seconds;
    test_clock::set(state.now);
}

void read_traffic() {
    char text[128];
    snprintf(text, sizeof text, "eth0: %u %u 0 0 0 0 0 0 %u %u 0 0 0 0 0 0\n", state.traffic,
             state.traffic, state.traffic, state.traffic);
    FILE* file = fmemopen(text, strlen(text), "r");
    fuzz_require(file != nullptr, "no stream in memory");
    netdev_set_interval(state.now, 0);
    netdev_read(file);
    fclose(file);
}

void tick_once(uint32_t figure) {
    char text[64];
    snprintf(text, sizeof text, "Online hosts: %u\nMax Online hosts: %u\n", figure, figure);
    host_update(text);
    host_publish();
    conn_update(text_unsigned(figure));
    conn_publish();
    state.traffic += figure;
    read_traffic();
}

void tick(const std::string& text) {
    const uint32_t figure = text.empty() ? 0 : text_parse_uint32(text.c_str() + 1, nullptr, 10);
    for (unsigned left = first_byte(text) % (WORLD_TICKS_MAX + 1); left > 0; left--) {
        tick_once(figure);
    }
}

void set_blanks(const char* key, uint32_t length) {
    if (length > 0) {
        world_set_string(key,
                         std::string(length < WORLD_LENGTH_MAX ? length : WORLD_LENGTH_MAX, ' '));
        return;
    }
    object* obj = object_lookup(key);
    if (obj != nullptr) {
        state.rings_are_whole = state.rings_are_whole && obj->aux == nullptr;
        object_set_string(obj, nullptr);
    }
}

/* The first sweep only takes the time. */
void expire_now(const char* key) {
    object* obj = object_lookup(key);
    if (obj == nullptr || object_type(obj) == OBJ_TNONE) {
        return;
    }
    object_expire(obj, 0);
    object_expire_sweep();
    pass(2);
    object_expire_sweep();
}

int answer_next(object*, history_series*, int) {
    return HISTORY_NEXT;
}

/* Without a unit there is nothing to pad. */
int load_connections(const char* key, const char*, uint32_t, uint32_t* unit) {
    if (strncmp(key, "conn.", strlen("conn.")) != 0) {
        return HISTORY_NEXT;
    }
    *unit = strcmp(key, "conn.mon") == 0 ? 0 : 7;
    return HISTORY_LOAD;
}

} // namespace

void world_start() {
    state = {WORLD_START, 0, true};
    test_clock::set(state.now);
    loop_init(DESCRIPTORS, LOOP_SELECT);
    log_use_sockets(&sockets);
    const log_config config = {"syslog", nullptr, LOG_DEBUG, 0, 0};
    log_open(&config);

    object_reset();
    expire_init();
    observe_init();
    history_start();
    history_iface_algor = 1;
    object_seed(seed_builtin_strings, seed_builtin_hashes);
    module_stats_start();
    /* It would ask the machine. */
    loop_del_timer_match(stats_ontimer, nullptr);
    module_ping_start();
    for (unsigned i = 0; i < HISTORY_HOOKS_MAX; i++) {
        register_dump_skip_hook(answer_next);
        register_load_hook(load_connections);
    }
    read_traffic();
}

void world_set_string(const char* key, std::string_view value) {
    object* obj = object_get_or_create(key, SSTR_CSTRING, OBJ_TSTRING);
    if (obj == nullptr) {
        return;
    }
    state.rings_are_whole = state.rings_are_whole && obj->aux == nullptr;
    sstr text = sstr_new(value.data(), static_cast<uint32_t>(value.size()));
    object_set_string(obj, text);
    sstr_free(&text);
}

bool world_rings_are_whole() {
    return state.rings_are_whole;
}

bool world_step(const fuzz_step* step) {
    std::string text = step->text;
    switch (step->kind) {
    case 'k': {
        const std::string value = world_cut_at_blank(&text);
        world_set_string(text.c_str(), value);
        return true;
    }
    case 'z': {
        const std::string length = world_cut_at_blank(&text);
        set_blanks(text.c_str(), text_parse_uint32(length.c_str(), nullptr, 10));
        return true;
    }
    case 'y':
        (void)object_get_or_create(text.c_str(), SSTR_CSTRING, OBJ_TLIST);
        return true;
    case 'e':
        expire_now(text.c_str());
        return true;
    case 's':
        tick(text);
        return true;
    case 't':
        pass(first_byte(text));
        return true;
    case 'T':
        pass(first_byte(text) * DAY_PERIOD);
        return true;
    case 'u':
        dump_history = {};
        return true;
    case 'v':
        log_set_level(log_wants(LOG_DEBUG) ? LOG_ERROR : LOG_DEBUG);
        return true;
    default:
        return false;
    }
}

std::string world_cut_at_blank(std::string* text) {
    const size_t blank = text->find(' ');
    if (blank == std::string::npos) {
        return "";
    }
    const std::string rest = text->substr(blank + 1);
    text->resize(blank);
    return rest;
}
