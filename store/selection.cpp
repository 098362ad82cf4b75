#include "store/selection.h"

#include <stdlib.h>

#include "core/log.h"
#include "core/pattern.h"

namespace {

void collect(selection* s, pattern* wanted, unsigned types) {
    htable_walk walk = htable_walk_start(object_keyspace());
    object* obj;
    while (!pattern_spent(wanted) &&
           (obj = static_cast<object*>(htable_walk_next(&walk))) != nullptr) {
        if ((types & 1U << object_type(obj)) != 0 && pattern_match(wanted, obj->key)) {
            s->objects[s->count++] = obj;
        }
    }
}

} // namespace

bool selection_make(selection* s, const char* keys, unsigned types) {
    const size_t most = object_keyspace() != nullptr ? object_keyspace()->count : 0;
    *s = {static_cast<object**>(malloc(most * sizeof(object*) + 1)), 0};
    pattern wanted;
    const char* trouble = "no memory";
    if (pattern_compile(&wanted, keys) && s->objects != nullptr) {
        collect(s, &wanted, types);
        trouble = pattern_spent(&wanted) ? "too many steps" : nullptr;
    }
    pattern_free(&wanted);
    if (trouble == nullptr) {
        return true;
    }
    selection_free(s);
    LOG(LOG_WARN, "pattern (%.64s) is given up: %s", keys, trouble);
    return false;
}

void selection_free(selection* s) {
    free(s->objects);
}
