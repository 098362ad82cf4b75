#include "fuzz/support/store_check.h"

#include <stdint.h>
#include <string.h>

#include "core/text.h"
#include "fuzz/support/check.h"
#include "proto/client.h"
#include "proto/observe.h"
#include "stats/history.h"
#include "store/dump.h"
#include "store/object.h"

namespace {

constexpr uint32_t growth_primes[] = {11, 23, 97, 397, 1597, 6577, 25523, 99793};

constexpr unsigned KNOWN_FLAGS = OBJ_TYPE_MASK | OBJ_EXPIRE_MASK | OBJ_DEFERRED | OBJ_CHANGED |
                                 OBJ_DEAD | OBJ_PROTECTED | OBJ_FIELDS_PROTECTED;

bool is_growth_prime(uint32_t n) {
    for (const uint32_t prime : growth_primes) {
        if (prime == n) {
            return true;
        }
    }
    return false;
}

const char* key_of(const htable_entry* entry) {
    return *static_cast<const char* const*>(entry->item);
}

void check_entry(const htable* t, uint32_t bucket, const htable_entry* entry) {
    fuzz_require(entry->item != nullptr, "an entry has no record");
    fuzz_require(entry->hash == htable_hash(key_of(entry)), "an entry has another key's hash");
    fuzz_require(entry->hash % t->nbuckets == bucket, "an entry stands in another bucket");
    fuzz_require(htable_get(t, key_of(entry)) == entry->item, "a key stands in a table twice");
}

void check_table(const htable* t) {
    fuzz_require(t->nbuckets == 0 || is_growth_prime(t->nbuckets), "buckets are no growth prime");
    fuzz_require((t->nbuckets == 0) == (t->buckets == nullptr), "buckets without an array");
    fuzz_require(t->count <= t->nbuckets / 2, "a table is more than half full");
    uint32_t count = 0;
    for (uint32_t i = 0; i < t->nbuckets; i++) {
        for (const htable_entry* entry = t->buckets[i]; entry != nullptr; entry = entry->next) {
            check_entry(t, i, entry);
            count++;
            fuzz_require(count <= t->count, "a table has more entries than it counts");
        }
    }
    fuzz_require(count == t->count, "a table has fewer entries than it counts");
}

void check_string(const char* s) {
    fuzz_require(s[sstr_length(s)] == '\0', "a string has no NUL behind it");
}

void check_list(const dlist* list) {
    fuzz_require((list->head == nullptr) == (list->tail == nullptr), "a list has one end");
    uint32_t count = 0;
    const dlist_node* before = nullptr;
    for (const dlist_node* node = list->head; node != nullptr; node = node->next) {
        fuzz_require(node->prev == before, "a node does not link back");
        fuzz_require(node->value != nullptr, "a node has no value");
        check_string(static_cast<const char*>(node->value));
        before = node;
        count++;
        fuzz_require(count <= list->count, "a list has more nodes than it counts");
    }
    fuzz_require(before == list->tail, "the tail is not the last node");
    fuzz_require(count == list->count, "a list has fewer nodes than it counts");
}

void check_fields(const htable* hash) {
    check_table(hash);
    htable_walk walk = htable_walk_start(hash);
    while (const hash_field* field = static_cast<const hash_field*>(htable_walk_next(&walk))) {
        check_string(field->name);
        if (field->value != nullptr) {
            check_string(field->value);
        }
        fuzz_require((field->fflags & ~FIELD_PROTECTED) == 0, "a field waits for an announcement");
    }
}

void check_value(const object* obj) {
    switch (object_type(obj)) {
    case OBJ_TNONE:
        fuzz_require(obj->value == nullptr, "an object without a type has a value");
        break;
    case OBJ_TSTRING:
        if (obj->string != nullptr) {
            check_string(obj->string);
        }
        break;
    case OBJ_TLIST:
        fuzz_require(obj->list != nullptr, "a list object has no list");
        check_list(obj->list);
        break;
    case OBJ_THASH:
        fuzz_require(obj->hash != nullptr, "a hash object has no table");
        check_fields(obj->hash);
        break;
    default:
        fuzz_require(false, "an object has an unknown type");
    }
}

void check_object(const object* obj) {
    check_string(obj->key);
    fuzz_require((obj->flags & ~KNOWN_FLAGS) == 0, "an object has an unknown flag");
    fuzz_require((obj->flags & OBJ_EXPIRE_MASK) != OBJ_EXPIRE_MASK, "an object expires twice");
    fuzz_require((obj->flags & OBJ_DEFERRED) == 0, "a command left its mark");
    /* Lists and private keys keep the mark: they announce nothing. */
    const bool announces = object_type(obj) != OBJ_TLIST && obj->key[0] != '_';
    fuzz_require((obj->flags & OBJ_CHANGED) == 0 || !announces, "a change was not announced");
    check_value(obj);
}

void check_ring(const object* obj, bool whole) {
    const history_series* s = obj->aux;
    fuzz_require(strcmp(s->name, obj->key) == 0, "a key has another key's series");
    fuzz_require(s->filled <= s->slots, "a series counts more samples than slots");
    fuzz_require(s->head < s->slots, "a series would write behind its ring");
    fuzz_require(s->ticks < s->period, "a series has missed a sample");
    if (!whole || !is_history_key(obj->key)) {
        return;
    }
    fuzz_require(object_type(obj) == OBJ_TSTRING && obj->string != nullptr, "a ring has no value");
    fuzz_require(sstr_length(obj->string) == HISTORY_HEADER + s->slots * s->sample_size,
                 "a ring has another length");
    fuzz_require(text_get_be32(obj->string + HISTORY_AT_FILLED) == s->filled,
                 "a header counts otherwise");
    fuzz_require(text_get_be32(obj->string + HISTORY_AT_HEAD) == s->head,
                 "a header writes elsewhere");
}

void check_observers() {
    const client* before = nullptr;
    for (const client* c = observers; c != nullptr; c = c->observe_next) {
        fuzz_require(c->observe_prev == (before != nullptr ? before : c),
                     "an observer does not link back");
        fuzz_require(c->conn->user_data == c, "an observer belongs to no connection");
        before = c;
    }
}

} // namespace

void store_check() {
    check_observers();
    const htable* keyspace = object_keyspace();
    if (keyspace == nullptr) {
        return;
    }
    check_table(keyspace);
    htable_walk walk = htable_walk_start(keyspace);
    while (const object* obj = static_cast<const object*>(htable_walk_next(&walk))) {
        check_object(obj);
    }
}

void rings_check(bool whole) {
    htable_walk walk = htable_walk_start(object_keyspace());
    while (const object* obj = static_cast<const object*>(htable_walk_next(&walk))) {
        if (obj->aux != nullptr) {
            check_ring(obj, whole);
        }
    }
}
