#pragma once

#include <stdint.h>

/* Seeding: the keys that stand in the store from the start, which publish the daemon's defaults to
 * clients. Each table ends with an entry whose first member is null. */

struct seed_string {
    const char* key;
    const char* value;
    uint8_t protect; /* not 0: the key cannot be deleted */
};

struct seed_field {
    const char* name;
    const char* value;
    int32_t protect; /* above 0: the field cannot be deleted */
};

struct seed_hash {
    const char* key;
    const seed_field* fields;
    uint8_t protect;        /* not 0: the key cannot be deleted */
    uint8_t protect_fields; /* not 0: no field of it can be deleted */
};

/* The built-in tables. */
extern const seed_string seed_builtin_strings[];
extern const seed_hash seed_builtin_hashes[];

/* Seeds the keyspace; either table may be null. String values are written anew, fields that exist
 * keep their value, and a key that exists with another type is skipped. Logs and announces nothing.
 */
void object_seed(const seed_string* strings, const seed_hash* hashes);
