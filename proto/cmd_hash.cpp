#include "core/text.h"
#include "proto/cmd.h"

namespace {

/* What a walk over a hash shows of each field. */
enum shown : unsigned { SHOW_NAME = 1, SHOW_VALUE = 2 };

const object* hash_of_key(const client* c) {
    return object_lookup_type(cmd_arg(c, 0), OBJ_THASH);
}

/* The field that the second argument names. */
hash_field* field_of_key(const client* c) {
    const object* obj = hash_of_key(c);
    return obj != nullptr ? object_hash_field(obj, cmd_arg(c, 1)) : nullptr;
}

void reply_fields(client* c, unsigned show) {
    resp_add(c->reply, nullptr);
    const object* obj = hash_of_key(c);
    htable_walk walk = htable_walk_start(obj != nullptr ? obj->hash : nullptr);
    while (const hash_field* field = static_cast<hash_field*>(htable_walk_next(&walk))) {
        if ((show & SHOW_NAME) != 0) {
            resp_add(c->reply, field->name);
        }
        if ((show & SHOW_VALUE) != 0) {
            resp_add(c->reply, field->value);
        }
    }
}

} // namespace

void cmd_hlen(client* c) {
    const object* obj = hash_of_key(c);
    resp_integer(c->reply, obj != nullptr ? obj->hash->count : 0);
}

void cmd_hexists(client* c) {
    resp_integer(c->reply, field_of_key(c) != nullptr ? 1 : 0);
}

void cmd_hget(client* c) {
    const hash_field* field = field_of_key(c);
    resp_bulk(c->reply, field != nullptr ? field->value : RESP_NIL);
}

void cmd_hmget(client* c) {
    /* The key may be long: it is looked up once. */
    const object* obj = hash_of_key(c);
    for (uint32_t i = 1; i < c->request->argc; i++) {
        const hash_field* field = obj != nullptr ? object_hash_field(obj, cmd_arg(c, i)) : nullptr;
        resp_add(c->reply, field != nullptr ? field->value : RESP_NIL);
    }
}

void cmd_hkeys(client* c) {
    reply_fields(c, SHOW_NAME);
}

void cmd_hvals(client* c) {
    reply_fields(c, SHOW_VALUE);
}

void cmd_hgetall(client* c) {
    reply_fields(c, SHOW_NAME | SHOW_VALUE);
}

void cmd_hset(client* c) {
    object* obj = cmd_key_or_error(c, OBJ_THASH);
    if (obj == nullptr) {
        return;
    }
    resp_integer(c->reply, object_hash_set(obj, cmd_arg(c, 1), cmd_arg(c, 2)));
}

void cmd_hsetnx(client* c) {
    if (field_of_key(c) != nullptr) {
        resp_integer(c->reply, 0);
        return;
    }
    object* obj = cmd_key_or_error(c, OBJ_THASH);
    if (obj == nullptr) {
        return;
    }
    object_hash_set(obj, cmd_arg(c, 1), cmd_arg(c, 2));
    resp_integer(c->reply, 1);
}

/* An increment that is no number counts as 0, which stays so for the clients that rely on it. */
void cmd_hincrby(client* c) {
    object* obj = cmd_key_or_error(c, OBJ_THASH);
    if (obj == nullptr) {
        return;
    }
    int64_t delta = text_parse_int64(cmd_arg(c, 2), nullptr, 0);
    if (object_hash_incr(obj, cmd_arg(c, 1), &delta) == 0) {
        resp_error(c->reply, nullptr, CMD_NO_NUMBER_INCR);
        return;
    }
    resp_integer(c->reply, delta);
}

void cmd_hmset(client* c) {
    object* obj = cmd_key_or_error(c, OBJ_THASH);
    if (obj == nullptr) {
        return;
    }
    object_defer(obj);
    for (uint32_t i = 1; i + 1 < c->request->argc; i += 2) {
        object_hash_set(obj, cmd_arg(c, i), cmd_arg(c, i + 1));
    }
    object_flush(obj);
    resp_status(c->reply, nullptr);
}

/* A field named twice counts twice: it is only marked until the end of the command. */
void cmd_hdel(client* c) {
    object* obj = object_lookup_type(cmd_arg(c, 0), OBJ_THASH);
    if (obj == nullptr) {
        resp_integer(c->reply, 0);
        return;
    }
    object_defer(obj);
    int64_t deleted = 0;
    for (uint32_t i = 1; i < c->request->argc; i++) {
        deleted += object_hash_del(obj, cmd_arg(c, i));
    }
    object_flush(obj);
    resp_integer(c->reply, deleted);
}
