#include "core/pool.h"

#include <stdlib.h>
#include <string.h>

#include "core/fault.h"

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr bool OWN_BLOCKS = true;
#else
constexpr bool OWN_BLOCKS = false;
#endif

constexpr size_t CLASSES = 52;
constexpr size_t SLAB_SIZE = 2048;

struct pool_class {
    uint32_t objsize; /* block size in bytes; 0 until the class is first used */
    void* slabs;      /* the newest slab */
    void* free;       /* the block freed last */
};

/* A free block, and likewise the head of a slab, seen as a link. */
struct link {
    void* next;
};

pool_class classes[CLASSES];

void* heap_alloc(size_t size) {
    void* block = malloc(size);
    if (block == nullptr) {
        fault_no_memory();
    }
    return block;
}

uint32_t block_size(size_t size) {
    const size_t rounded = ((size < 4 ? 4 : size) + 3) & ~size_t{3};
    return static_cast<uint32_t>((rounded + sizeof(void*) - 1) & ~(sizeof(void*) - 1));
}

void add_slab(pool_class* c) {
    char* slab = static_cast<char*>(heap_alloc(SLAB_SIZE));
    reinterpret_cast<link*>(slab)->next = c->slabs;
    if (c->slabs != nullptr) {
        /* The two newest slabs point at each other. The chain is never walked; it only keeps every slab
         * reachable for leak checkers in the common case. */
        static_cast<link*>(c->slabs)->next = slab;
    }
    c->slabs = slab;

    const size_t blocks = (SLAB_SIZE - sizeof(link)) / c->objsize;
    char* block = slab + sizeof(link);
    c->free = block;
    for (size_t i = 1; i < blocks; i++, block += c->objsize) {
        reinterpret_cast<link*>(block)->next = block + c->objsize;
    }
    reinterpret_cast<link*>(block)->next = nullptr;
}

} // namespace

void* pool_alloc(size_t size) {
    if (size == 0) {
        return nullptr;
    }
    if (OWN_BLOCKS || size > POOL_MAX_SIZE) {
        return heap_alloc(size);
    }
    pool_class* c = &classes[(size + 3) >> 2];
    if (c->objsize == 0) {
        c->objsize = block_size(size);
    }
    if (c->free == nullptr) {
        add_slab(c);
    }
    void* block = c->free;
    c->free = static_cast<link*>(block)->next;
    return block;
}

void* pool_alloc_zeroed(size_t size) {
    void* block = pool_alloc(size);
    if (block != nullptr) {
        memset(block, 0, size);
    }
    return block;
}

void pool_free(void* block, size_t size) {
    if (OWN_BLOCKS || size > POOL_MAX_SIZE) {
        free(block);
        return;
    }
    pool_class* c = &classes[(size + 3) >> 2];
    static_cast<link*>(block)->next = c->free;
    c->free = block;
}
