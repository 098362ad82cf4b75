#pragma once

#include <stdint.h>

/* The daemon's one associative container: a chained hash table keyed by C strings. It holds the
 * keyspace, the fields of every hash and the command table.
 *
 * It links records whose first member is a pointer to their key and never owns or frees them.
 *
 * Invariants:
 * 1. nbuckets is 0 before the first insertion and one of the growth primes afterwards; it never
 * shrinks.
 * 2. count <= nbuckets / 2: the table grows before an insertion that would break this.
 * 3. Every entry keeps the hash of its key, so growth reads no text.
 *
 * The iteration order is visible to clients, since listings, dumps and change events follow it:
 * buckets in index order, each chain from its head. A new entry becomes the head of its chain;
 * growth takes the old buckets in order, each chain from its head, and pushes every entry onto the
 * head of its new chain. */

struct htable_entry {
    void* item;    /* the record; its first member is a pointer to its NUL-terminated key */
    uint32_t hash; /* of the key */
    htable_entry* next;
};

struct htable {
    htable_entry** buckets; /* null until the first insertion */
    uint32_t nbuckets;
    uint32_t count; /* entries */
};

/* h = h * 31 + byte over the key, each byte taken as a signed char, in unsigned 32-bit arithmetic.
 */
uint32_t htable_hash(const char* key);

/* Returns an empty table, owned by the caller until htable_free. */
htable* htable_new();

/* Returns the entry of `key`. `prev`, if not null, receives the entry before it in its chain, or
 * null when it heads the chain. An absent key gives null, or with `create` a new entry whose `item`
 * the caller must set at once.
 *
 * Growing beyond 99793 buckets (the 49897th key) aborts the process. */
htable_entry* htable_find(htable* t, const char* key, htable_entry** prev, bool create);

/* Returns the stored record or null. */
void* htable_get(const htable* t, const char* key);

/* Stores a record whose key is known to be absent, without searching for it. */
void htable_add(htable* t, void* item);

/* Stores a record under the key that its first member points to. A record that was there is
 * replaced, not freed. Returns the entry. */
htable_entry* htable_put(htable* t, void* item);

/* Removes the entry of `key`, if there is one; its record is untouched. */
void htable_del(htable* t, const char* key);

/* Removes every entry and keeps the bucket array. */
void htable_clear(htable* t);

/* Clears the table and frees it. */
void htable_free(htable* t);

/* A walk over all entries in iteration order. The table must not be changed during it. */
struct htable_walk {
    const htable* table;
    uint32_t bucket;     /* the next bucket to look at */
    htable_entry* entry; /* the entry to return next, if any is left in the present chain */
};

/* Starts a walk; a null table is an empty one. */
htable_walk htable_walk_start(const htable* t);

/* Returns the next record, or null at the end. */
void* htable_walk_next(htable_walk* walk);
