#pragma once

#include <stddef.h>
#include <stdint.h>

/* Pooled allocation of small records.
 *
 * Every small record of the daemon (objects, table entries, list nodes, hash fields, string bodies)
 * comes from here. A block is named by its size alone: the caller gives the size back when it
 * frees, so no block carries a header. Sizes fall into 52 classes of 4 bytes' step, of which the
 * first is never used; 204 bytes is the largest pooled size, from 205 on malloc and free do the
 * work.
 *
 * Invariants:
 * 1. A class's free list links its free blocks through their first word; the block freed last is
 * handed out first.
 * 2. A slab is one malloc(2048): one pointer to another slab, then as many blocks as fit into the
 * rest, chained in address order. Slabs are never given back to the system.
 * 3. Blocks are aligned to the size of a pointer: 4 bytes on the device, 8 on 64-bit hosts, where a
 *    class's block size is its 4-byte figure rounded up to 8. Records that hold 64-bit integers
 * must therefore declare them as `pool_int64`.
 *
 * In a build with AddressSanitizer every block is an allocation of its own, so that an overrun, a
 * use after free, or a size that is not the block's is caught where it happens.
 *
 * Exhausted memory ends the process (fault_no_memory); no call here returns null for want of it. */

/* A 64-bit integer as a field of a pooled record: on the device blocks are aligned to 4 bytes only.
 */
typedef int64_t pool_int64 __attribute__((aligned(4)));
static_assert(alignof(pool_int64) == 4);

/* The largest size that the pool itself serves, in bytes. */
constexpr size_t POOL_MAX_SIZE = 204;

#ifdef __SANITIZE_ADDRESS__
constexpr bool POOL_OWN_BLOCKS = true;
#else
constexpr bool POOL_OWN_BLOCKS = false;
#endif

/* A free block, and likewise the head of a slab, seen as a link. */
struct pool_link {
    pool_link* next;
};

struct pool_class {
    uint32_t objsize; /* block size in bytes; 0 until the class has a slab */
    pool_link* slabs; /* the newest slab */
    pool_link* free;  /* the block freed last */
};

/* By (size + 3) >> 2. Used by the calls below alone. */
extern pool_class pool_classes[(POOL_MAX_SIZE >> 2) + 1];

/* The rare paths of pool_alloc: a size beyond the pool, and a class without a free block, of whose
 * new slab the first block is returned. */
void* pool_alloc_heap(size_t size);
pool_link* pool_add_slab(size_t size);

/* Returns a block of at least `size` bytes, uninitialised; null when `size` is 0. The caller owns
 * it and frees it with pool_free and the same size. */
inline void* pool_alloc(size_t size) {
    if (POOL_OWN_BLOCKS || size - 1 >= POOL_MAX_SIZE) {
        return pool_alloc_heap(size);
    }
    pool_class* c = &pool_classes[(size + 3) >> 2];
    pool_link* block = c->free != nullptr ? c->free : pool_add_slab(size);
    c->free = block->next;
    return block;
}

/* The rare path of pool_free. */
void pool_free_heap(void* block, size_t size);

/* Takes back a block. `size` must be the size that it was allocated with: another size files the
 * block under the wrong class. A null pointer is allowed only with a size above POOL_MAX_SIZE. */
inline void pool_free(void* block, size_t size) {
    if (POOL_OWN_BLOCKS || size > POOL_MAX_SIZE) {
        pool_free_heap(block, size);
        return;
    }
    pool_class* c = &pool_classes[(size + 3) >> 2];
    pool_link* link = static_cast<pool_link*>(block);
    link->next = c->free;
    c->free = link;
}

/* The same for one record, zeroed. */
template <typename Record> Record* pool_new() {
    static_assert(alignof(Record) <= sizeof(void*),
                  "a block is aligned to a pointer: see pool_int64");
    Record* record = static_cast<Record*>(pool_alloc(sizeof(Record)));
    *record = {};
    return record;
}

template <typename Record> void pool_delete(Record* record) {
    pool_free(record, sizeof(Record));
}

/* A zeroed block, for arrays; null when `size` is 0. */
void* pool_alloc_zeroed(size_t size);
