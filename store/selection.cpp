#include "store/selection.h"

#include <stdlib.h>

#include "core/fault.h"
#include "core/pattern.h"

void selection_make(selection* s, const char* keys, unsigned types) {
    const htable* keyspace = object_keyspace();
    const size_t most = keyspace != nullptr ? keyspace->count : 0;
    *s = {static_cast<object**>(malloc(most * sizeof(object*) + 1)), 0};
    if (s->objects == nullptr) {
        fault_no_memory();
    }
    pattern wanted;
    pattern_compile(&wanted, keys);
    htable_walk walk = htable_walk_start(keyspace);
    while (object* obj = static_cast<object*>(htable_walk_next(&walk))) {
        if ((types & 1U << object_type(obj)) != 0 && pattern_match(&wanted, obj->key)) {
            s->objects[s->count++] = obj;
        }
    }
    pattern_free(&wanted);
}

void selection_free(selection* s) {
    free(s->objects);
}
