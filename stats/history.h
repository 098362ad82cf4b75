#pragma once

#include <stdint.h>

#include "stats/formats.h"
#include "store/dump.h"
#include "store/object.h"

/* Histories: rings of samples inside the values of ordinary string keys, so that a client fetches a
 * whole history with one "get".
 *
 * A collector owns the descriptor (history_series) of each of its rings and hands it one
 * accumulated sample on every tick; the series takes one of `period` of them. The key's object
 * points back to the descriptor and cannot be deleted, but a client can overwrite the value. A
 * value that no longer has the ring's length is left alone: ticks are counted, nothing is stored.
 * stats/formats.h draws the ring byte by byte and has the spans.
 *
 * Samples go straight into the value, so a history announces nothing. */

struct history_series {
    sstr name; /* the key: base name, ".", span name; owned */
    uint32_t period;
    uint32_t ticks; /* since the last sample */
    uint32_t slots;
    uint32_t sample_size; /* bytes */
    uint32_t filled;
    uint32_t head;
};

/* Makes the series and its key. A value of the right length is cleared, any other is replaced by a
 * cleared one. When the key holds another type, the series counts without storing. The key's object
 * points to the record from then on, which must stay where it is as long as the keyspace lives. */
void history_init(history_series* s, const char* base_name, const history_span* span,
                  uint32_t sample_size);

/* The same for the five standard spans. */
void history_init_set(history_series (&set)[HISTORY_SPANS], const char* base_name,
                      uint32_t sample_size);

/* Frees what the series owns, after its keyspace. The record itself is the caller's. */
void history_free(history_series* s);

/* The same for a whole set. */
template <unsigned Spans> void history_free_set(history_series (&set)[Spans]) {
    for (history_series& series : set) {
        history_free(&series);
    }
}

/* Counts a tick. Returns 1 when it took `sample` (sample_size bytes), also when there was nowhere
 * to store it: the collector then starts a new accumulation. Else 0. */
int history_tick(history_series* s, const void* sample);

/* Writes one sample into the ring that `value` holds, which must have the header's bytes at least.
 * A sample behind the end of a short value is counted and not written. */
void history_push(history_series* s, sstr value, const void* sample);

/* Empties the ring: only the counts restart, samples and time stamp stay. */
void history_reset(history_series* s);

/* Hooks that may keep a record out of a dump or out of a load; at most HISTORY_HOOKS_MAX each,
 * further ones are ignored. */
constexpr unsigned HISTORY_HOOKS_MAX = 4;

enum history_answer : int {
    HISTORY_SKIP = 1, /* the record is not written or not loaded */
    HISTORY_NEXT = 2, /* ask the next hook */
    HISTORY_LOAD = 3  /* load it now */
};

typedef int (*dump_skip_hook)(object* obj, history_series* s, int fd);
typedef int (*load_hook)(const char* key, const char* data, uint32_t length, uint32_t* unit);

void register_dump_skip_hook(dump_skip_hook hook);
void register_load_hook(load_hook hook);

/* True for the keys whose records these are; dump and load, which stand below, ask it under the
 * name is_history_key. */
inline bool history_key_suffix(const char* key) {
    return is_history_key(key);
}

/* Writes the record of a history key: the ring's header and its filled samples, as far as the value
 * really has them. Nothing for a key without a series, and nothing when a hook says so. False as
 * dump_write_record. */
bool history_dump_record(object* obj, int fd);

/* Takes a record from a dump in: asks the hooks, then history_load. */
void history_load_record(const char* key, const char* data, uint32_t length);

/* Restores a ring from a record and pads it with a zero sample for each period that has passed
 * since the record's time stamp, in `unit` seconds a tick. A record that is shorter than its
 * header, longer than the value, or whose counts do not fit the ring, is ignored. */
void history_load(history_series* s, object* obj, const char* data, uint32_t length, uint32_t unit);

/* Hands the two record operations to dump and load. Forgets all hooks. */
void history_start();
