#pragma once

#include <stdint.h>

#include "store/object.h"

/* The objects whose keys match a pattern (core/pattern.h), in the order of the keyspace: what
 * "keys" lists and "dump" writes.
 *
 * They are all found before the caller does anything that a client could see, so that a request
 * that comes to nothing leaves nothing half done. */

struct selection {
    object** objects; /* the keyspace's; good until the next sweep */
    uint32_t count;
};

/* Which types are wanted, as bits. */
constexpr unsigned SELECT_STRINGS = 1U << OBJ_TSTRING;
constexpr unsigned SELECT_TYPED = SELECT_STRINGS | 1U << OBJ_TLIST | 1U << OBJ_THASH;

/* Looks at every object, dead ones included. False, with a line in the log at warn level and
 * nothing to give back, when the pattern has spent its budget or the heap has no room. */
bool selection_make(selection* s, const char* keys, unsigned types);

/* Gives back the memory that a selection owns. */
void selection_free(selection* s);
