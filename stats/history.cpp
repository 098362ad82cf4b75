#include "stats/history.h"

#include <string.h>
#include <time.h>

#include "core/log.h"
#include "core/text.h"
#include "store/dump.h"

namespace {

dump_skip_hook dump_skip_hooks[HISTORY_HOOKS_MAX];
unsigned dump_skip_hook_count;
load_hook load_hooks[HISTORY_HOOKS_MAX];
unsigned load_hook_count;

uint32_t ring_size(const history_series* s) {
    return HISTORY_HEADER + s->slots * s->sample_size;
}

uint32_t now() {
    return static_cast<uint32_t>(time(nullptr));
}

/* The ring of the series, or null when its key is gone or holds something else. */
sstr ring_of(const history_series* s) {
    const object* obj = object_lookup_type(s->name, OBJ_TSTRING);
    if (obj == nullptr || obj->string == nullptr || sstr_length(obj->string) != ring_size(s)) {
        return nullptr;
    }
    return obj->string;
}

void clear_ring(const history_series* s, object* obj) {
    const uint32_t size = ring_size(s);
    if (obj->string != nullptr && sstr_length(obj->string) != size) {
        sstr_free(&obj->string);
    }
    if (obj->string == nullptr) {
        obj->string = sstr_new(nullptr, size);
    }
    memset(obj->string, 0, size_t{size} + 1);
    text_put_be32(obj->string + HISTORY_AT_PERIOD, s->period);
    text_put_be32(obj->string + HISTORY_AT_SLOTS, s->slots);
}

/* Clears `count` samples, those that the value really has. */
void clear_samples(const history_series* s, sstr value, uint32_t first, uint32_t count) {
    const uint32_t room = (sstr_length(value) - HISTORY_HEADER) / s->sample_size;
    if (first < room) {
        const uint32_t there = room - first;
        memset(value + HISTORY_HEADER + size_t{first} * s->sample_size, 0,
               size_t{count < there ? count : there} * s->sample_size);
    }
}

/* Has the effect of pushing `count` zero samples. More than a ring's worth of them only turns the
 * ring. */
void pad(history_series* s, sstr value, uint32_t count) {
    const uint32_t cleared = count < s->slots ? count : s->slots;
    const uint32_t before_turn = cleared < s->slots - s->head ? cleared : s->slots - s->head;
    clear_samples(s, value, s->head, before_turn);
    clear_samples(s, value, 0, cleared - before_turn);
    s->filled = cleared < s->slots - s->filled ? s->filled + cleared : s->slots;
    s->head = static_cast<uint32_t>((uint64_t{s->head} + count) % s->slots);
    text_put_be32(value + HISTORY_AT_FILLED, s->filled);
    text_put_be32(value + HISTORY_AT_HEAD, s->head);
}

} // namespace

void history_init(history_series* s, const char* base_name, const history_span* span,
                  uint32_t sample_size) {
    *s = {};
    s->name = sstr_new(str_format("%s.%s", base_name, span->name), SSTR_CSTRING);
    s->period = span->period;
    s->slots = span->slots;
    s->sample_size = sample_size;
    object* obj = object_get_or_create(s->name, sstr_length(s->name), OBJ_TSTRING);
    if (obj == nullptr) {
        return;
    }
    clear_ring(s, obj);
    object_set_flags(obj, OBJ_PROTECTED);
    obj->aux = s;
}

void history_init_set(history_series (&set)[HISTORY_SPANS], const char* base_name,
                      uint32_t sample_size) {
    for (unsigned i = 0; i < HISTORY_SPANS; i++) {
        history_init(&set[i], base_name, &history_standard_spans[i], sample_size);
    }
}

void history_free(history_series* s) {
    sstr_free(&s->name);
}

int history_tick(history_series* s, const void* sample) {
    s->ticks++;
    if (s->ticks < s->period) {
        return 0;
    }
    sstr ring = ring_of(s);
    if (ring != nullptr) {
        history_push(s, ring, sample);
        text_put_be32(ring + HISTORY_AT_TIME, now());
    }
    s->ticks = 0;
    return 1;
}

void history_push(history_series* s, sstr value, const void* sample) {
    if (s->filled < s->slots) {
        s->filled++;
        text_put_be32(value + HISTORY_AT_FILLED, s->filled);
    }
    const uint32_t offset = HISTORY_HEADER + s->head * s->sample_size;
    /* A record may have been loaded into a value that is shorter than the ring. */
    if (offset + s->sample_size <= sstr_length(value)) {
        memcpy(value + offset, sample, s->sample_size);
    }
    s->head++;
    if (s->head == s->slots) {
        s->head = 0;
    }
    text_put_be32(value + HISTORY_AT_HEAD, s->head);
}

void history_reset(history_series* s) {
    s->ticks = 0;
    s->filled = 0;
    s->head = 0;
    sstr ring = ring_of(s);
    if (ring != nullptr) {
        text_put_be32(ring + HISTORY_AT_FILLED, 0);
        text_put_be32(ring + HISTORY_AT_HEAD, 0);
    }
}

void register_dump_skip_hook(dump_skip_hook hook) {
    if (dump_skip_hook_count < HISTORY_HOOKS_MAX) {
        dump_skip_hooks[dump_skip_hook_count++] = hook;
    }
}

void register_load_hook(load_hook hook) {
    if (load_hook_count < HISTORY_HOOKS_MAX) {
        load_hooks[load_hook_count++] = hook;
    }
}

bool history_dump_record(object* obj, int fd) {
    history_series* s = obj->aux;
    if (s == nullptr) {
        return true;
    }
    for (unsigned i = 0; i < dump_skip_hook_count; i++) {
        if (dump_skip_hooks[i](obj, s, fd) == HISTORY_SKIP) {
            return true;
        }
    }
    const sstr value = object_string(obj);
    uint32_t length = HISTORY_HEADER + s->filled * s->sample_size;
    if (length > sstr_length(value)) {
        length = sstr_length(value);
    }
    return dump_write_record(fd, obj->key, sstr_length(obj->key), value, length);
}

void history_load_record(const char* key, const char* data, uint32_t length) {
    uint32_t unit = 1;
    int answer = HISTORY_NEXT;
    for (unsigned i = 0; i < load_hook_count && answer != HISTORY_LOAD; i++) {
        answer = load_hooks[i](key, data, length, &unit);
        if (answer == HISTORY_SKIP) {
            return;
        }
    }
    object* obj = object_lookup_type(key, OBJ_TSTRING);
    if (obj != nullptr && obj->aux != nullptr) {
        history_load(obj->aux, obj, data, length, unit);
    }
}

void history_load(history_series* s, object* obj, const char* data, uint32_t length,
                  uint32_t unit) {
    if (obj->string == nullptr || sstr_length(obj->string) < length || length < HISTORY_HEADER) {
        return;
    }
    const uint32_t filled = text_get_be32(data + HISTORY_AT_FILLED);
    const uint32_t head = text_get_be32(data + HISTORY_AT_HEAD);
    if (filled > s->slots || head >= s->slots) {
        return;
    }
    s->filled = filled;
    s->head = head;
    memcpy(obj->string, data, length);

    const uint32_t stamp = text_get_be32(data + HISTORY_AT_TIME);
    const uint32_t present = now();
    const int64_t seconds = int64_t{s->period} * unit;
    const int32_t span =
        seconds > 0 ? static_cast<int32_t>(static_cast<int32_t>(present - stamp) / seconds) : 0;
    if (span > 0) {
        LOG(LOG_INFO, "loading %s: (%d-%d)/(%d*%d)  -> span = %d", obj->key,
            static_cast<int>(present), static_cast<int>(stamp), static_cast<int>(s->period),
            static_cast<int>(unit), span);
        pad(s, obj->string, static_cast<uint32_t>(span));
    }
    text_put_be32(obj->string + HISTORY_AT_TIME, present);
}

void history_start() {
    dump_skip_hook_count = 0;
    load_hook_count = 0;
    dump_history.write_record = history_dump_record;
    dump_history.load_record = history_load_record;
}
