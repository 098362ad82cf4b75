#include "stats/ping.h"

#include <stdio.h>
#include <string.h>

#include "core/log.h"
#include "core/pool.h"
#include "core/text.h"
#include "stats/stat_value.h"

namespace {

constexpr char SNAP_KEY[] = "ping.snap";

struct ping_figures {
    uint32_t max;
    uint32_t min;
    uint32_t avg;
    uint32_t total; /* probes sent */
    uint32_t loss;  /* probes lost */
};
static_assert(sizeof(ping_figures) == PING_ENTRY_SIZE, "an entry has every figure");

struct ping_stat {
    uint32_t id;
    char name[8];       /* "ping" and the id: the base name of the series */
    uint32_t avg_count; /* reports with an average that are folded into the summary */
    ping_figures summary;
    ping_figures accumulated[HISTORY_PING_SPANS]; /* since the last sample of each span */
    history_series history[HISTORY_PING_SPANS];
};

ping_stat* targets[PING_TARGETS]; /* by id - 1, null until the first report */

bool is_target(int64_t id) {
    return id >= 1 && id <= PING_TARGETS;
}

uint32_t larger(uint32_t a, uint32_t b) {
    return a > b ? a : b;
}

void put_figures(char* bytes, const ping_figures* f) {
    text_put_be32(bytes + PING_AT_MAX, f->max);
    text_put_be32(bytes + PING_AT_MIN, f->min);
    text_put_be32(bytes + PING_AT_AVG, f->avg);
    text_put_be32(bytes + PING_AT_TOTAL, f->total);
    text_put_be32(bytes + PING_AT_LOSS, f->loss);
}

/* Understands a report; all six numbers must be there and the target in range. */
bool parse_report(const char* text, uint32_t* id, ping_figures* f) {
    long long n[6];
    if (sscanf(text, "id=%lld,max=%lld,min=%lld,avg=%lld,total=%lld,loss=%lld", &n[0], &n[1], &n[2],
               &n[3], &n[4], &n[5]) != 6 ||
        !is_target(n[0])) {
        return false;
    }
    *id = static_cast<uint32_t>(n[0]);
    *f = {stat_signed_reading(n[1]), stat_signed_reading(n[2]), stat_signed_reading(n[3]),
          stat_signed_reading(n[4]), stat_signed_reading(n[5])};
    return true;
}

ping_stat* target_of(uint32_t id) {
    ping_stat** target = &targets[id - 1];
    if (*target == nullptr) {
        *target = pool_new<ping_stat>();
        (*target)->id = id;
        snprintf((*target)->name, sizeof(*target)->name, "ping%u", id);
        for (unsigned i = 0; i < HISTORY_PING_SPANS; i++) {
            history_init(&(*target)->history[i], (*target)->name, &history_ping_spans[i],
                         PING_ENTRY_SIZE);
        }
    }
    return *target;
}

/* The accumulator keeps the largest minimum of its span, on purpose. */
void update_history(ping_stat* target, unsigned span, const ping_figures* report) {
    ping_figures* sum = &target->accumulated[span];
    sum->max = larger(sum->max, report->max);
    sum->min = larger(sum->min, report->min);
    sum->avg = larger(sum->avg, report->avg);
    sum->total += report->total;
    sum->loss += report->loss;
    char sample[PING_ENTRY_SIZE];
    put_figures(sample, sum);
    if (history_tick(&target->history[span], sample) == 1) {
        *sum = {};
    }
}

void update_summary(ping_stat* target, const ping_figures* report) {
    ping_figures* sum = &target->summary;
    sum->total += report->total;
    sum->loss += report->loss;
    sum->max = larger(sum->max, report->max);
    if (sum->min == 0 || (report->min != 0 && report->min < sum->min)) {
        sum->min = report->min;
    }
    if (report->avg != 0) {
        const double n = target->avg_count;
        sum->avg = static_cast<uint32_t>(sum->avg / (n + 1.0) * n + report->avg / (n + 1.0));
        target->avg_count++;
    }
}

const object* find_snap() {
    return object_lookup_type(SNAP_KEY, OBJ_TSTRING);
}

/* Writes a target's entry; `snap` may be null, or replaced by something shorter. */
void publish_summary(const object* snap, const ping_stat* target) {
    if (snap != nullptr && snap->string != nullptr && sstr_length(snap->string) >= PING_SNAP_SIZE) {
        put_figures(snap->string + ping_entry_offset(target->id), &target->summary);
    }
}

/* Apart from the hook, which runs on every change and nearly always has nothing to do. */
[[gnu::noinline]] void take_report(const char* text) {
    uint32_t id;
    ping_figures report;
    if (!parse_report(text, &id, &report)) {
        return;
    }
    ping_stat* target = target_of(id);
    for (unsigned span = 0; span < HISTORY_PING_SPANS; span++) {
        update_history(target, span, &report);
    }
    update_summary(target, &report);
    publish_summary(find_snap(), target);
}

void trace(const char* text) {
    LOG(LOG_INFO, "%s", text);
}

void clear_target(ping_stat* target) {
    memset(target->accumulated, 0, sizeof target->accumulated);
    target->summary = {};
    target->avg_count = 0;
    for (history_series& series : target->history) {
        history_reset(&series);
    }
}

[[gnu::noinline]] void delete_target(const char* text) {
    const int32_t id = text_parse_int32(text, nullptr, 10);
    if (!is_target(id)) {
        return;
    }
    LOG(LOG_INFO, "pingxx-before-release:id=%d", id);
    LOG(LOG_INFO, "pingxx-inside-release:id=%d", id);
    ping_stat* target = targets[id - 1];
    if (target == nullptr) {
        return;
    }
    trace("pingxx-inside-release:state is not NULL");
    clear_target(target);
    const object* snap = find_snap();
    if (snap != nullptr) {
        trace("pingxx-inside-release:obj ping.snap is not NULL");
        publish_summary(snap, target);
    }
}

/* The N of a key such as "ping7.day"; 0 for keys of other names or out of range. */
uint32_t target_number(const char* key) {
    if (strncmp(key, "ping", 4) != 0) {
        return 0;
    }
    const int32_t n = text_parse_int32(key + 4, nullptr, 10);
    return is_target(n) ? static_cast<uint32_t>(n) : 0;
}

void forget_targets() {
    for (ping_stat*& target : targets) {
        if (target != nullptr) {
            history_free_set(target->history);
            pool_delete(target);
            target = nullptr;
        }
    }
}

} // namespace

void module_ping_start() {
    forget_targets();
    object* snap = object_get_or_create(SNAP_KEY, SSTR_CSTRING, OBJ_TSTRING);
    if (snap != nullptr) {
        const char zeros[PING_SNAP_SIZE] = {};
        sstr_assign(&snap->string, zeros, PING_SNAP_SIZE);
        object_set_flags(snap, OBJ_PROTECTED);
    }
    object_register_string_hook(ping_data_hook);
    register_dump_skip_hook(ping_dump_hook);
    register_load_hook(ping_load_hook);
}

int ping_data_hook(object* obj) {
    if (object_key_is(obj, "ping.data")) {
        take_report(object_string(obj));
    } else if (object_key_is(obj, "ping.del")) {
        delete_target(object_string(obj));
    }
    return 0;
}

int ping_dump_hook(object* obj, history_series*, int) {
    /* The entry with index N is target N + 1; behind the last target there is none. */
    const uint32_t n = target_number(obj->key);
    return n != 0 && n < PING_TARGETS && targets[n] != nullptr ? HISTORY_SKIP : HISTORY_NEXT;
}

int ping_load_hook(const char* key, const char*, uint32_t length, uint32_t*) {
    return target_number(key) != 0 && length >= HISTORY_HEADER + PING_ENTRY_SIZE ? HISTORY_SKIP
                                                                                 : HISTORY_NEXT;
}
