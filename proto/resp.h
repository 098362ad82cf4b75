#pragma once

#include <stdint.h>

#include "core/buffer.h"
#include "core/pool.h"
#include "core/sstr.h"

/* Reply records and their frames on the wire.
 *
 * A handler fills one reply with exactly one setter (or with resp_add, any number of times); the
 * dispatcher writes it and frees it. A reply never owns the strings that it shows: texts are
 * literals, bulks and elements are stored values, borrowed from the handler's call until the frame
 * is written. The one exception is a popped list item, which resp_pop_destroy frees after it was
 * written.
 *
 * Every error on the wire is "-ERR\r\n". A setter on a reply that is already filled is a broken
 * invariant and ends the process with a fatal log line. */

enum resp_type : uint32_t {
    RESP_TNONE = 0,
    RESP_TSTATUS = 1,
    RESP_TERROR = 2,
    RESP_TINTEGER = 3,
    RESP_TBULK = 4,
    RESP_TMBULK = 5
};

/* Marks a nil bulk, "$-1", as a value and as an element. An absent string (null) is something else:
 * an empty bulk as a value, and nothing at all as an element. */
#define RESP_NIL (reinterpret_cast<sstr>(UINTPTR_MAX))

struct resp_element {
    sstr str;
    resp_element* next;
};

struct resp_list {
    resp_element* head;
    resp_element* tail;
    uint32_t count;
};

struct resp {
    uint32_t type; /* resp_type, names the member in use */
    union {
        const char* text; /* status or error; may be null */
        pool_int64 integer;
        sstr bulk;
        resp_list list;
    };
};

/* Returns a new reply of type RESP_TNONE, owned by the caller until resp_free. */
resp* resp_new();

/* A status; a null text is written as "OK". */
void resp_status(resp* r, const char* text);

/* An error. `reason` says in the source what went wrong; it never reaches the wire. */
void resp_error(resp* r, const char* text, const char* reason);

void resp_integer(resp* r, int64_t value);

/* A bulk: a borrowed string, null (an empty bulk) or RESP_NIL. */
void resp_bulk(resp* r, sstr str);

/* Appends an element to a multibulk; an empty reply becomes one first. A null `str` adds no
 * element. */
void resp_add(resp* r, sstr str);

/* Append the frame to `out`: of the reply, and of a multibulk as a pushed event ("!" in place of
 * "*"). Return 0 when the frame is not whole, since the buffer's limit or the heap has no room for
 * it, and the caller then gives it up; else not 0. Nothing is written for RESP_TNONE, and the
 * result is 0 too. */
uint32_t resp_write(const resp* r, buffer* out);
uint32_t resp_write_notify(const resp* r, buffer* out);

/* A bound on the size of the reply's frame in bytes; UINT32_MAX for multibulks, which are not
 * counted up. */
uint32_t resp_size_bound(const resp* r);

/* Frees the record and its element nodes, not the strings. */
void resp_free(resp* r);

/* Destroys the string that a bulk reply holds, if it holds one. */
void resp_pop_destroy(resp* r);
