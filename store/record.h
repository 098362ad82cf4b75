#pragma once

#include <stdint.h>
#include <string.h>

#include "core/sstr.h"
#include "store/algor.h"
#include "store/dlist.h"

/* The record of a key: its type and marks, its value, its expiry. What can be said of one object
 * without the keyspace that holds it and without those who hear of its changes. */

enum object_type_code : unsigned { OBJ_TNONE = 0, OBJ_TSTRING = 1, OBJ_TLIST = 2, OBJ_THASH = 3 };

/* Bits of object.flags; the type stands in the low four. */
enum object_flag : uint16_t {
    OBJ_TYPE_MASK = 0x0F,
    OBJ_EXPIRE_TTL = 0x10,      /* expires a time after it was set */
    OBJ_EXPIRE_ABSOLUTE = 0x20, /* expires after the second in which it was set, see expire.h */
    OBJ_EXPIRE_MASK = 0x30,
    OBJ_DEFERRED = 0x40,    /* a command is changing it in steps: events wait for object_flush */
    OBJ_CHANGED = 0x80,     /* changed since its last event */
    OBJ_DEAD = 0x100,       /* deleted or expired */
    OBJ_RESET_MASK = 0x1FF, /* what a fresh value clears */
    OBJ_PROTECTED = 0x200,  /* cannot be deleted: seeded keys and histories */
    OBJ_FIELDS_PROTECTED = 0x400 /* no field of it can be deleted */
};

struct history_series;

struct object {
    sstr key; /* first: the keyspace finds the object through it */
    union {
        void* value; /* null: no value */
        sstr string;
        dlist* list;
        htable* hash; /* of hash_field records */
    };
    union {
        uint32_t expire_arg;  /* seconds to live, or the absolute time */
        object* expired_next; /* during a sweep: the object found expired before this one */
    };
    history_series* aux;  /* the series whose ring the value is; null for all other keys */
    uint32_t expire_base; /* time() when the expiry was set */
    uint16_t flags;
};
/* There is one for each key: the order of its members leaves no holes. */
static_assert(sizeof(object) == (sizeof(void*) == 4 ? 24 : 40));

enum field_flag : uint8_t {
    FIELD_MODIFIED = 0x01, /* to be announced with "HMSET" */
    FIELD_DOOMED = 0x02,   /* to be announced with "HDEL" and then removed */
    FIELD_PROTECTED = 0x04 /* cannot be deleted */
};

struct hash_field {
    sstr name; /* first: the hash finds the field through it */
    sstr value;
    uint8_t fflags;
};

inline unsigned object_type(const object* obj) {
    return obj->flags & OBJ_TYPE_MASK;
}

/* True when any of the flags is set. */
inline bool object_has(const object* obj, unsigned flags) {
    return (obj->flags & flags) != 0;
}

inline void object_set_flags(object* obj, unsigned flags) {
    obj->flags = static_cast<uint16_t>(obj->flags | flags);
}

inline void object_clear_flags(object* obj, unsigned flags) {
    obj->flags = static_cast<uint16_t>(obj->flags & ~flags);
}

/* True for the object of this key. The first byte tells nearly all others apart: hooks ask on every
 * change.
 */
inline bool object_key_is(const object* obj, const char* key) {
    return obj->key[0] == key[0] && strcmp(obj->key, key) == 0;
}

/* Returns "none" (also for a null object), "string", "list" or "hash", as a string that lives for
 * ever. */
sstr object_type_name(const object* obj);

/* Returns the bytes of a string object; a string without value reads as the empty string. Borrowed.
 */
sstr object_string(const object* obj);

/* Frees the value by its type. With `reset` the object becomes typeless and loses everything but
 * its protection; without, the record is only good for being freed or given another value. */
void object_free_value(object* obj, bool reset);

/* Frees the name, the value and the record of a field, which no hash holds any longer. */
void hash_field_free(hash_field* field);
