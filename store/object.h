#pragma once

#include <stdint.h>

#include "core/sstr.h"
#include "store/algor.h"
#include "store/event.h"
#include "store/record.h"

/* The keyspace: objects by key, and the operations that change them. What an object is stands in
 * record.h, who is told of its changes in event.h; both come with this header.
 *
 * The keyspace owns its objects; an object owns its key and its value. A pointer to an object is
 * good until the next expiry sweep, which alone destroys records: deleting only marks them `dead`,
 * and lookups then treat them as absent. A borrowed value is good until the object is next changed.
 *
 * Every change is traced at debug level. Those of strings and hashes are announced, at once or at
 * the end of a change in steps; a list announces nothing.
 *
 * The operations below that assert a type end the process through a fatal log line when it is
 * violated: callers look objects up by type first. */

/* Destroys the keyspace with every object and forgets the hooks, so that a test starts fresh. */
void object_reset();

/* The keyspace table, null before the first object is made. For walks in iteration order. */
htable* object_keyspace();

/* Returns the object of `key` (`length` bytes, or SSTR_CSTRING) if it has the type, making it when
 * there is none or only a dead one; null when the key holds another type. A new string has no
 * value. The key keeps all its bytes, but is found by those before its first NUL: there must be one
 * behind it. */
object* object_get_or_create(const char* key, uint32_t length, unsigned type);

/* Returns the object of `key` for an assignment, which makes a string of any type: an object that
 * is there is returned whatever it is, otherwise a new string without value. Never null. Searches
 * once. */
object* object_to_assign(sstr key);

/* Returns the object, or null when it is absent or dead; the second form also when its type
 * differs. */
object* object_lookup(const char* key);
object* object_lookup_type(const char* key, unsigned type);

/* Marks the object dead and returns 1; a protected one is refused with 0. */
int object_delete(object* obj);

/* --- Expiry: what a key carries; expire.h has the sweep that acts on it --- */

/* Sets a time to live in seconds, counted from now. Asserts an object with a type. */
void object_expire(object* obj, uint32_t ttl);

/* Sets an absolute expiry time in seconds since the epoch. Asserts an object with a type. */
void object_expire_at(object* obj, uint32_t when);

/* Removes the expiry. Returns 1, or 0 when there was none. */
int object_persist(object* obj);

/* --- Strings --- */

/* Makes the object a string with a copy of `value` (null: none), whatever it was, and removes its
 * expiry; the second form sets a time to live in seconds instead. */
void object_set_string(object* obj, sstr value);
void object_set_string_ttl(object* obj, uint32_t ttl, sstr value);

/* Appends `value`, which must not be null. Asserts a string. */
void object_append(object* obj, sstr value);

/* Adds `*delta` as sstr_incr does, with the new value in `*delta`. Returns 0, with nothing
 * announced, when the value is no number. Asserts a string. */
int object_incr(object* obj, int64_t* delta);

/* --- Hashes --- */

/* Returns the field or null. `obj` is a hash. */
hash_field* object_hash_field(const object* obj, const char* field);

/* Sets a field to a copy of `value`, which must not be null, and makes a typeless object a hash.
 * Returns 1 when the field was new. Asserts a hash or typeless object. */
int object_hash_set(object* obj, sstr field, sstr value);

/* Adds to a field, making it when absent, as object_incr does. Asserts a hash. */
int object_hash_incr(object* obj, sstr field, int64_t* delta);

/* Dooms a field: it stays readable until the next announcement removes it. Returns 1, or 0 when the
 * field is absent or protected, by itself or with all fields of the object. Asserts a hash. */
int object_hash_del(object* obj, const char* field);

/* Sets or clears a field's protection. Returns the field or null. Asserts a hash. */
hash_field* object_hash_protect(object* obj, const char* field, bool on);

/* --- Lists: the object must hold its list, as object_get_or_create gives it --- */

/* Push a copy of the C string. A full list drops the item at its other end. */
void object_lpush(object* obj, const char* text);
void object_rpush(object* obj, const char* text);

/* Remove an end item and return it, owned by the caller; null when the list is empty. Assert a
 * list. */
sstr object_rpop(object* obj);
sstr object_lpop(object* obj);

/* Returns the item at an index (see dlist_node_at), borrowed, or null. Asserts a list. */
sstr object_lindex(object* obj, int64_t index);

/* With `mode` 0, removes up to `n` items, taken as 16 bits, from the tail; nothing with any other
 * mode. Asserts a list. */
void object_ltrim_tail(object* obj, int mode, uint32_t n);
