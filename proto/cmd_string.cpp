#include "core/pool.h"
#include "core/text.h"
#include "proto/cmd.h"

namespace {

void add_to_object(client* c, object* obj, int64_t delta, const char* reason) {
    if (object_incr(obj, &delta) == 0) {
        resp_error(c->reply, nullptr, reason);
        return;
    }
    resp_integer(c->reply, delta);
}

void add_to_key(client* c, int64_t delta, const char* reason) {
    object* obj = cmd_key_or_error(c, OBJ_TSTRING);
    if (obj != nullptr) {
        add_to_object(c, obj, delta, reason);
    }
}

/* The key is made before the number is looked at, so a bad number leaves an empty string behind its
 * error. */
void add_argument_to_key(client* c, bool negate, const char* reason) {
    object* obj = cmd_key_or_error(c, OBJ_TSTRING);
    if (obj == nullptr) {
        return;
    }
    char* end;
    int64_t delta = text_parse_int64(cmd_arg(c, 1), &end, 0);
    if (end == cmd_arg(c, 1)) {
        resp_error(c->reply, nullptr, reason);
        return;
    }
    if (negate) {
        /* Without overflow: the most negative number stays itself. */
        delta = static_cast<int64_t>(-static_cast<uint64_t>(delta));
    }
    add_to_object(c, obj, delta, reason);
}

/* Assigns every pair of key and value, then announces each key once, with its last value. */
void assign_pairs(const client* c) {
    const uint32_t pairs = c->request->argc / 2;
    if (pairs == 0) {
        return;
    }
    /* The objects are remembered, because searching for each again takes as long as the assignment:
     * a client may send thousands of keys of one hash value. */
    const size_t size = pairs * sizeof(object*);
    object** objects = static_cast<object**>(pool_alloc(size));
    for (uint32_t i = 0; i < pairs; i++) {
        objects[i] = object_to_assign(cmd_arg(c, 2 * i));
        object_defer(objects[i]);
        object_set_string(objects[i], cmd_arg(c, 2 * i + 1));
    }
    for (uint32_t i = 0; i < pairs; i++) {
        /* A string-change hook of an earlier key may have deleted this one. */
        if (!object_has(objects[i], OBJ_DEAD)) {
            object_flush(objects[i]);
        }
    }
    pool_free(objects, size);
}

bool every_key_is_missing(const client* c) {
    for (uint32_t i = 0; i < c->request->argc; i += 2) {
        if (object_lookup(cmd_arg(c, i)) != nullptr) {
            return false;
        }
    }
    return true;
}

} // namespace

void cmd_append(client* c) {
    object* obj = cmd_key_or_error(c, OBJ_TSTRING);
    if (obj == nullptr) {
        return;
    }
    object_append(obj, cmd_arg(c, 1));
    resp_integer(c->reply, sstr_length(obj->string));
}

void cmd_incr(client* c) {
    add_to_key(c, 1, CMD_NO_NUMBER_INCR);
}

void cmd_decr(client* c) {
    add_to_key(c, -1, CMD_NO_NUMBER_DECR);
}

void cmd_incrby(client* c) {
    add_argument_to_key(c, false, CMD_NO_NUMBER_INCR);
}

void cmd_decrby(client* c) {
    add_argument_to_key(c, true, CMD_NO_NUMBER_DECR);
}

void cmd_get(client* c) {
    const object* obj = object_lookup(cmd_arg(c, 0));
    if (obj == nullptr || object_type(obj) == OBJ_TNONE) {
        resp_bulk(c->reply, RESP_NIL);
    } else if (object_type(obj) != OBJ_TSTRING) {
        cmd_reply_wrong_type(c);
    } else {
        resp_bulk(c->reply, object_string(obj));
    }
}

void cmd_set(client* c) {
    object* obj = object_to_assign(cmd_arg(c, 0));
    object_set_string(obj, cmd_arg(c, 1));
    resp_status(c->reply, nullptr);
}

/* The new value is assigned by cmd_getset_assign, since the reply borrows the old one. A hash or
 * list has no value to show and becomes a string with that. */
void cmd_getset(client* c) {
    const object* obj = object_lookup_type(cmd_arg(c, 0), OBJ_TSTRING);
    resp_bulk(c->reply, obj != nullptr ? object_string(obj) : RESP_NIL);
}

void cmd_getset_assign(client* c) {
    if (c->request->argc < 2) {
        return;
    }
    object* obj = object_lookup(cmd_arg(c, 0));
    if (obj != nullptr) {
        object_set_string(obj, cmd_arg(c, 1));
    }
}

void cmd_setnx(client* c) {
    object* obj = nullptr;
    if (object_lookup(cmd_arg(c, 0)) == nullptr) {
        obj = cmd_key_or_create(c, OBJ_TSTRING);
    }
    if (obj != nullptr) {
        object_set_string(obj, cmd_arg(c, 1));
    }
    resp_integer(c->reply, obj != nullptr ? 1 : 0);
}

void cmd_setex(client* c) {
    object* obj = cmd_key_or_error(c, OBJ_TSTRING);
    if (obj == nullptr) {
        return;
    }
    char* end;
    const int32_t seconds = text_parse_int32(cmd_arg(c, 1), &end, 10);
    if (end == cmd_arg(c, 1)) {
        resp_error(c->reply, nullptr, "no seconds");
        return;
    }
    object_set_string_ttl(obj, static_cast<uint32_t>(seconds), cmd_arg(c, 2));
    resp_status(c->reply, nullptr);
}

void cmd_strlen(client* c) {
    const object* obj = object_lookup(cmd_arg(c, 0));
    if (obj == nullptr) {
        resp_integer(c->reply, 0);
    } else if (object_type(obj) != OBJ_TSTRING) {
        cmd_reply_wrong_type(c);
    } else {
        resp_integer(c->reply, sstr_length(object_string(obj)));
    }
}

void cmd_mget(client* c) {
    for (uint32_t i = 0; i < c->request->argc; i++) {
        const object* obj = object_lookup_type(cmd_arg(c, i), OBJ_TSTRING);
        resp_add(c->reply, obj != nullptr ? object_string(obj) : RESP_NIL);
    }
}

void cmd_mset(client* c) {
    assign_pairs(c);
    resp_status(c->reply, nullptr);
}

void cmd_msetnx(client* c) {
    const bool all = every_key_is_missing(c);
    if (all) {
        assign_pairs(c);
    }
    resp_integer(c->reply, all ? 1 : 0);
}
