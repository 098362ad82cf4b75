#include "store/dlist.h"

#include "core/pool.h"

namespace {

void link_head(dlist* list, dlist_node* node) {
    node->prev = nullptr;
    node->next = list->head;
    if (list->head != nullptr) {
        list->head->prev = node;
    } else {
        list->tail = node;
    }
    list->head = node;
}

void link_tail(dlist* list, dlist_node* node) {
    node->next = nullptr;
    node->prev = list->tail;
    if (list->tail != nullptr) {
        list->tail->next = node;
    } else {
        list->head = node;
    }
    list->tail = node;
}

void unlink(dlist* list, const dlist_node* node) {
    if (node->prev != nullptr) {
        node->prev->next = node->next;
    } else {
        list->head = node->next;
    }
    if (node->next != nullptr) {
        node->next->prev = node->prev;
    } else {
        list->tail = node->prev;
    }
}

/* Takes `node` out of the full list and gives it the new value; the caller links it at its new
 * place. */
void* recycle(dlist* list, dlist_node* node, void* value) {
    void* old = node->value;
    unlink(list, node);
    node->value = value;
    return old;
}

dlist_node* new_node(dlist* list, void* value) {
    dlist_node* node = pool_new<dlist_node>();
    node->value = value;
    list->count++;
    return node;
}

void* take(dlist* list, dlist_node* node) {
    if (node == nullptr) {
        return nullptr;
    }
    void* value = node->value;
    unlink(list, node);
    list->count--;
    pool_delete(node);
    return value;
}

} // namespace

dlist* dlist_new(uint16_t max) {
    dlist* list = pool_new<dlist>();
    list->max = max;
    return list;
}

void* dlist_push_head(dlist* list, void* value) {
    if (list->count < list->max) {
        link_head(list, new_node(list, value));
        return nullptr;
    }
    dlist_node* node = list->tail;
    if (node == nullptr) {
        return value;
    }
    void* old = recycle(list, node, value);
    link_head(list, node);
    return old;
}

void* dlist_push_tail(dlist* list, void* value) {
    if (list->count < list->max) {
        link_tail(list, new_node(list, value));
        return nullptr;
    }
    dlist_node* node = list->head;
    if (node == nullptr) {
        return value;
    }
    void* old = recycle(list, node, value);
    link_tail(list, node);
    return old;
}

void* dlist_pop_head(dlist* list) {
    return take(list, list->head);
}

void* dlist_pop_tail(dlist* list) {
    return take(list, list->tail);
}

dlist_node* dlist_node_at(const dlist* list, int64_t index) {
    const int64_t from_head = index >= 0 ? index : list->count + index;
    if (from_head < 0 || from_head >= list->count) {
        return nullptr;
    }
    dlist_node* node;
    if (from_head < list->count / 2) {
        node = list->head;
        for (int64_t i = 0; i < from_head; i++) {
            node = node->next;
        }
    } else {
        node = list->tail;
        for (int64_t i = list->count - 1; i > from_head; i--) {
            node = node->prev;
        }
    }
    return node;
}

void* dlist_index(const dlist* list, int64_t index) {
    const dlist_node* node = dlist_node_at(list, index);
    return node != nullptr ? node->value : nullptr;
}

void dlist_remove_value(dlist* list, const void* value) {
    for (const dlist_node* node = list->head; node != nullptr; node = node->next) {
        if (node->value == value) {
            unlink(list, node);
            return;
        }
    }
}

void dlist_clear(dlist* list) {
    dlist_node* next;
    for (dlist_node* node = list->head; node != nullptr; node = next) {
        next = node->next;
        pool_delete(node);
    }
    list->count = 0;
    list->head = nullptr;
    list->tail = nullptr;
}

void dlist_free(dlist* list) {
    dlist_clear(list);
    pool_delete(list);
}
