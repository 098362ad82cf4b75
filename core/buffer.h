#pragma once

#include <stdarg.h>
#include <stdint.h>

/* The growable byte queue: appended at the end, consumed from the front.
 *
 * Connections collect input, output and refused output in buffers, the log composes its lines in
 * one. The caller owns the record; the unit owns the allocation behind `base`.
 *
 * Invariants:
 * 1. base <= mark <= data, and data + length <= base + capacity. All pointers are null while
 * capacity is 0.
 * 2. The space before `mark` is free; what lies between mark and data is consumed but not yet
 * reclaimed.
 * 3. The capacity is 0 or the initial capacity times a power of two, and never above the limit.
 * 4. Growth asks for strict room: a buffer is never filled to its last byte.
 *
 * An append that the limit forbids, or that the heap cannot satisfy, fails by its return value and
 * leaves the buffer unchanged. */

struct buffer {
    char* base;        /* start of the allocation */
    char* mark;        /* start of the region not yet compacted */
    uint32_t capacity; /* size of the allocation in bytes */
    char* data;        /* first unconsumed byte */
    uint32_t length;   /* number of unconsumed bytes from data */
    uint32_t initial;  /* size of the first allocation */
    uint32_t limit;    /* largest allowed capacity */
};

constexpr uint32_t BUFFER_DEFAULT_INITIAL = 1024;
constexpr uint32_t BUFFER_DEFAULT_LIMIT = 4194304;
constexpr uint32_t BUFFER_UNBOUNDED = UINT32_MAX;

/* An empty buffer of the default sizes, for those of a whole process. */
constexpr buffer BUFFER_EMPTY = {
    nullptr, nullptr, 0, nullptr, 0, BUFFER_DEFAULT_INITIAL, BUFFER_DEFAULT_LIMIT};

/* Makes an empty buffer; allocates nothing. 0 picks the default initial size or limit. */
void buffer_init(buffer* b, uint32_t initial, uint32_t limit);

/* The rare paths of buffer_reserve: moving the content down, and growing. */
char* buffer_make_room(buffer* b, uint32_t n);

/* Returns a pointer to `n` new bytes at the end, or null. The length counts them at once and the
 * caller fills them. Earlier pointers into the buffer are invalid afterwards. */
inline char* buffer_reserve(buffer* b, uint32_t n) {
    const uint32_t end = static_cast<uint32_t>(b->data - b->base) + b->length;
    if (b->mark == b->base && n < b->capacity - end) {
        b->length += n;
        return b->base + end;
    }
    return buffer_make_room(b, n);
}

/* Appends `n` bytes, which must not lie in this buffer. Returns n, or 0 when there is no room. */
uint32_t buffer_append(buffer* b, const void* bytes, uint32_t n);

/* Append formatted text. A text below 512 bytes is appended without its NUL and its length
 * returned. A longer text is followed by a NUL that is counted in the buffer's length but not in
 * the result. 0 when there is no room. Readers of the log see the counted NUL, so it stays. */
uint32_t buffer_vprintf(buffer* b, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
uint32_t buffer_printf(buffer* b, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* Drops min(n, length) bytes from the front. Returns where the data began: those bytes stay
 * readable until the next append, compaction or reset. */
char* buffer_consume(buffer* b, uint32_t n);

/* Drops min(n, length) bytes from the end and returns the new length. */
uint32_t buffer_truncate(buffer* b, uint32_t n);

/* Lets go of what was consumed since the last call and returns how many bytes that were. The rest
 * is moved to the front only when it is shorter than the space before it, so that moving stays
 * cheap. */
uint32_t buffer_compact(buffer* b);

/* Empties the buffer and keeps the allocation. */
void buffer_reset(buffer* b);

/* Empties the buffer and gives back what it grew beyond its initial size. */
void buffer_shrink_reset(buffer* b);

/* Frees the allocation. Initial size and limit stay, so the buffer can be used again. */
void buffer_free(buffer* b);
