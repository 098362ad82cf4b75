#pragma once

#include <stdint.h>

/* The bounded doubly linked list behind list objects.
 *
 * The list owns its nodes, never its values. It holds at most `max` items: a push onto a full list
 * drops the item at the opposite end and hands it back to the caller.
 *
 * Invariants: head and tail are both null or both not; count is the number of nodes from head to
 * tail. */

struct dlist_node {
    dlist_node* next; /* towards the tail */
    dlist_node* prev;
    void* value; /* an sstr in list objects */
};

struct dlist {
    uint16_t count;
    uint16_t max;
    dlist_node* head;
    dlist_node* tail;
};

constexpr uint16_t DLIST_UNCAPPED = 0xFFFF;

/* Returns an empty list with the given cap, owned by the caller until dlist_free. */
dlist* dlist_new(uint16_t max);

/* Push at one end. Return null, or the value that had to go: the one at the far end of a full list,
 * or `value` itself when the cap leaves room for none. A list that stands above its cap keeps its
 * length. */
void* dlist_push_head(dlist* list, void* value);
void* dlist_push_tail(dlist* list, void* value);

/* Take the value off one end; null when the list is empty. */
void* dlist_pop_head(dlist* list);
void* dlist_pop_tail(dlist* list);

/* Returns the node at an index: 0 and above count from the head, -1 and below from the tail. Null
 * when there is none. Walks from the nearer of the two ends. */
dlist_node* dlist_node_at(const dlist* list, int64_t index);

/* Returns the value at an index, null out of range. */
void* dlist_index(const dlist* list, int64_t index);

/* Unlinks the first node from the head that holds exactly this pointer. The node is not freed and
 * the count stays as it was; nobody in the daemon calls this. */
void dlist_remove_value(dlist* list, const void* value);

/* Frees every node, not the values; the cap stays. */
void dlist_clear(dlist* list);

/* Clears the list and frees it. */
void dlist_free(dlist* list);
