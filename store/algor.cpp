#include "store/algor.h"

#include <string.h>

#include "core/fault.h"
#include "core/pool.h"

namespace {

/* The line at which the end of the growth is reported. Operators recognise it, so it does not move
 * with the source. */
constexpr int LINE_NEXT_PRIME = 460;

const uint32_t primes[] = {11, 23, 97, 397, 1597, 6577, 25523, 99793};

uint32_t next_prime(uint32_t n) {
    for (const uint32_t prime : primes) {
        if (prime > n) {
            return prime;
        }
    }
    fault_abort("0", "algor", LINE_NEXT_PRIME, "next_prime");
}

const char* item_key(const void* item) {
    return *static_cast<const char* const*>(item);
}

htable_entry* chain_of(const htable* t, uint32_t hash) {
    return t->nbuckets != 0 ? t->buckets[hash % t->nbuckets] : nullptr;
}

bool holds(const htable_entry* entry, uint32_t hash, const char* key) {
    return entry->hash == hash && strcmp(item_key(entry->item), key) == 0;
}

size_t array_size(uint32_t nbuckets) {
    return size_t{nbuckets} * sizeof(htable_entry*);
}

void push(htable_entry** buckets, uint32_t nbuckets, htable_entry* entry) {
    htable_entry** head = &buckets[entry->hash % nbuckets];
    entry->next = *head;
    *head = entry;
}

void grow(htable* t) {
    const uint32_t n = next_prime(t->nbuckets);
    htable_entry** buckets = static_cast<htable_entry**>(pool_alloc_zeroed(array_size(n)));
    for (uint32_t i = 0; i < t->nbuckets; i++) {
        htable_entry* next;
        for (htable_entry* entry = t->buckets[i]; entry != nullptr; entry = next) {
            next = entry->next;
            push(buckets, n, entry);
        }
    }
    if (t->buckets != nullptr) {
        pool_free(t->buckets, array_size(t->nbuckets));
    }
    t->buckets = buckets;
    t->nbuckets = n;
}

/* Every new key and field comes through here. */
inline htable_entry* insert(htable* t, uint32_t hash) {
    if (t->count >= t->nbuckets >> 1) {
        grow(t);
    }
    htable_entry* entry = pool_new<htable_entry>();
    entry->hash = hash;
    push(t->buckets, t->nbuckets, entry);
    t->count++;
    return entry;
}

} // namespace

/* Two bytes a turn, since every request hashes two keys: (h * 31 + a) * 31 + b is h * 961 + a * 31
 * + b. */
uint32_t htable_hash(const char* key) {
    const signed char* p = reinterpret_cast<const signed char*>(key);
    uint32_t h = 0;
    for (;;) {
        const int a = p[0];
        if (a == 0) {
            return h;
        }
        const int b = p[1];
        if (b == 0) {
            return h * 31 + static_cast<uint32_t>(a);
        }
        h = h * 961 + static_cast<uint32_t>(a * 31 + b);
        p += 2;
    }
}

htable* htable_new() {
    return pool_new<htable>();
}

htable_entry* htable_find(htable* t, const char* key, htable_entry** prev, bool create) {
    const uint32_t hash = htable_hash(key);
    htable_entry* before = nullptr;
    htable_entry* entry = chain_of(t, hash);
    while (entry != nullptr && !holds(entry, hash, key)) {
        before = entry;
        entry = entry->next;
    }
    if (entry == nullptr) {
        before = nullptr;
        if (create) {
            entry = insert(t, hash);
        }
    }
    if (prev != nullptr) {
        *prev = before;
    }
    return entry;
}

/* Apart from htable_find because nearly every request ends here. */
void* htable_get(const htable* t, const char* key) {
    const uint32_t hash = htable_hash(key);
    for (const htable_entry* entry = chain_of(t, hash); entry != nullptr; entry = entry->next) {
        if (holds(entry, hash, key)) {
            return entry->item;
        }
    }
    return nullptr;
}

void htable_add(htable* t, void* item) {
    insert(t, htable_hash(item_key(item)))->item = item;
}

htable_entry* htable_put(htable* t, void* item) {
    htable_entry* entry = htable_find(t, item_key(item), nullptr, true);
    entry->item = item;
    return entry;
}

void htable_del(htable* t, const char* key) {
    htable_entry* prev;
    htable_entry* entry = htable_find(t, key, &prev, false);
    if (entry == nullptr) {
        return;
    }
    if (prev == nullptr) {
        t->buckets[entry->hash % t->nbuckets] = entry->next;
    } else {
        prev->next = entry->next;
    }
    t->count--;
    pool_delete(entry);
}

void htable_clear(htable* t) {
    for (uint32_t i = 0; i < t->nbuckets; i++) {
        htable_entry* next;
        for (htable_entry* entry = t->buckets[i]; entry != nullptr; entry = next) {
            next = entry->next;
            pool_delete(entry);
        }
        t->buckets[i] = nullptr;
    }
    t->count = 0;
}

void htable_free(htable* t) {
    htable_clear(t);
    if (t->buckets != nullptr) {
        pool_free(t->buckets, array_size(t->nbuckets));
    }
    pool_delete(t);
}

htable_walk htable_walk_start(const htable* t) {
    return {t, 0, nullptr};
}

void* htable_walk_next(htable_walk* walk) {
    while (walk->entry == nullptr) {
        if (walk->table == nullptr || walk->bucket >= walk->table->nbuckets) {
            return nullptr;
        }
        walk->entry = walk->table->buckets[walk->bucket++];
    }
    void* item = walk->entry->item;
    walk->entry = walk->entry->next;
    return item;
}
