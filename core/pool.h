#pragma once

#include <stddef.h>
#include <stdint.h>

/* Pooled allocation of small records.
 *
 * Every small record of the daemon (objects, table entries, list nodes, hash fields, string bodies) comes
 * from here. A block is named by its size alone: the caller gives the size back when it frees, so no
 * block carries a header. Sizes fall into 52 classes of 4 bytes' step; 204 bytes is the largest pooled
 * size, from 205 on malloc and free do the work.
 *
 * Invariants:
 * 1. A class's free list links its free blocks through their first word; the block freed last is handed
 *    out first.
 * 2. A slab is one malloc(2048): one pointer to the previous slab, then as many blocks as fit into the
 *    rest, chained in address order. Slabs are never given back to the system.
 * 3. Blocks are aligned to the size of a pointer: 4 bytes on the device, 8 on 64-bit hosts, where a
 *    class's block size is its 4-byte figure rounded up to 8. Records that hold 64-bit integers must
 *    therefore declare them as `pool_int64`.
 *
 * In a build with AddressSanitizer every block is an allocation of its own, so that an overrun or a use
 * after free is caught where it happens.
 *
 * Exhausted memory ends the process (fault_no_memory); no call here returns null for want of it. */

/* A 64-bit integer as a field of a pooled record: on the device blocks are aligned to 4 bytes only. */
typedef int64_t pool_int64 __attribute__((aligned(4)));

/* The largest size that the pool itself serves, in bytes. */
constexpr size_t POOL_MAX_SIZE = 204;

/* Returns a block of at least `size` bytes, uninitialised; null when `size` is 0. The caller owns it and
 * frees it with pool_free and the same size. */
void* pool_alloc(size_t size);

/* The same, filled with zero bytes. */
void* pool_alloc_zeroed(size_t size);

/* Takes back a block. `size` must be the size that it was allocated with: another size files the block
 * under the wrong class. A null pointer is allowed only with a size above POOL_MAX_SIZE. */
void pool_free(void* block, size_t size);
