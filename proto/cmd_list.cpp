#include "core/log.h"
#include "core/text.h"
#include "proto/cmd.h"
#include "proto/observe.h"

namespace {

typedef void (*push_operation)(object* obj, const char* text);
typedef sstr (*pop_operation)(object* obj);

object* list_of_key(const client* c) {
    return object_lookup_type(cmd_arg(c, 0), OBJ_TLIST);
}

/* True when the key exists with a type other than list. */
bool key_clashes(const client* c) {
    const object* obj = object_lookup(cmd_arg(c, 0));
    return obj != nullptr && object_type(obj) != OBJ_TLIST;
}

void push_all(client* c, push_operation push) {
    if (observers == nullptr && key_clashes(c)) {
        cmd_reply_wrong_type(c);
        return;
    }
    object* obj = cmd_key_or_create(c, OBJ_TLIST);
    if (obj == nullptr) {
        /* While anyone observes, a clash of types is answered with silence. */
        return;
    }
    object_defer(obj);
    for (uint32_t i = 1; i < c->request->argc; i++) {
        push(obj, cmd_arg(c, i));
    }
    object_flush_list(obj);
    resp_integer(c->reply, obj->list->count);
}

/* Pushes the first value alone. */
void push_existing(client* c, push_operation push) {
    object* obj = list_of_key(c);
    if (obj == nullptr) {
        resp_integer(c->reply, 0);
        return;
    }
    push(obj, cmd_arg(c, 1));
    resp_integer(c->reply, obj->list->count);
}

/* The item is freed by cmd_pop_destroy, after the reply that shows it was written. */
void pop(client* c, pop_operation take) {
    object* obj = list_of_key(c);
    const sstr item = obj != nullptr ? take(obj) : nullptr;
    resp_bulk(c->reply, item != nullptr ? item : RESP_NIL);
}

int64_t magnitude(int64_t index) {
    return index < 0 ? -index : index;
}

/* Adds the items at the indexes of equal sign from start to stop, |start| <= |stop|. Walks over
 * what is there, however far the numbers reach. */
void add_range(client* c, const dlist* list, int64_t start, int64_t stop) {
    const bool from_tail = start < 0;
    const dlist_node* node = dlist_node_at(list, start);
    for (int64_t left = magnitude(stop) - magnitude(start); node != nullptr && left >= 0; left--) {
        resp_add(c->reply, static_cast<sstr>(node->value));
        node = from_tail ? node->prev : node->next;
    }
}

} // namespace

void cmd_lpush(client* c) {
    push_all(c, object_lpush);
}

void cmd_rpush(client* c) {
    push_all(c, object_rpush);
}

void cmd_lpushx(client* c) {
    push_existing(c, object_lpush);
}

void cmd_rpushx(client* c) {
    push_existing(c, object_rpush);
}

void cmd_lpop(client* c) {
    pop(c, object_lpop);
}

void cmd_rpop(client* c) {
    pop(c, object_rpop);
}

void cmd_pop_destroy(client* c) {
    resp_pop_destroy(c->reply);
}

void cmd_llen(client* c) {
    const object* obj = object_lookup(cmd_arg(c, 0));
    if (obj == nullptr) {
        resp_integer(c->reply, 0);
    } else if (object_type(obj) != OBJ_TLIST) {
        cmd_reply_wrong_type(c);
    } else {
        resp_integer(c->reply, obj->list->count);
    }
}

void cmd_lindex(client* c) {
    object* obj = list_of_key(c);
    if (obj == nullptr) {
        cmd_reply_wrong_type(c);
        return;
    }
    char* end;
    const int32_t index = text_parse_int32(cmd_arg(c, 1), &end, 10);
    const int32_t count = obj->list->count;
    if (end != cmd_arg(c, 1) && (index > count - 1 || index < -count)) {
        resp_bulk(c->reply, RESP_NIL);
        return;
    }
    /* Without digits the index is 0, which an empty list answers with the empty bulk. */
    resp_bulk(c->reply, object_lindex(obj, index));
}

/* Reading beyond the cap raises it, which stays so for the clients that rely on it. */
void cmd_lrange(client* c) {
    object* obj = list_of_key(c);
    if (obj == nullptr) {
        cmd_reply_wrong_type(c);
        return;
    }
    dlist* list = obj->list;
    char* end;
    const int32_t start = text_parse_int32(cmd_arg(c, 1), &end, 0);
    if (end != cmd_arg(c, 1) && start > list->max - 1) {
        resp_bulk(c->reply, RESP_NIL);
        return;
    }
    int32_t stop = text_parse_int32(cmd_arg(c, 2), &end, 10);
    LOG(LOG_DEBUG, "start with (%d) and stop with (%d).", start, stop);
    if (end == cmd_arg(c, 2)) {
        resp_error(c->reply, nullptr, "no stop index");
        return;
    }
    if (stop <= list->max - 1) {
        stop = stop < list->count - 1 ? stop : list->count - 1;
    } else {
        list->max = static_cast<uint16_t>(stop);
    }
    if ((start < 0) != (stop < 0) || magnitude(stop) < magnitude(start)) {
        resp_bulk(c->reply, RESP_NIL);
        return;
    }
    resp_add(c->reply, nullptr);
    add_range(c, list, start, stop);
}

void cmd_lmaxlen(client* c) {
    object* obj = object_lookup(cmd_arg(c, 0));
    if (obj == nullptr) {
        resp_integer(c->reply, 0);
        return;
    }
    if (object_type(obj) != OBJ_TLIST) {
        cmd_reply_wrong_type(c);
        return;
    }
    char* end;
    const int32_t n = text_parse_int32(cmd_arg(c, 1), &end, 0);
    if (end != cmd_arg(c, 1) && n >= 1) {
        if (n < obj->list->count) {
            object_ltrim_tail(obj, 0, static_cast<uint32_t>(obj->list->count - n));
        }
        obj->list->max = static_cast<uint16_t>(n);
    }
    resp_integer(c->reply, obj->list->max);
}
