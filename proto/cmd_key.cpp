#include <time.h>

#include "core/log.h"
#include "core/text.h"
#include "proto/cmd.h"
#include "proto/observe.h"
#include "store/selection.h"

void cmd_hello(client* c) {
    const sstr name = cmd_arg(c, 0);
    client_rename(c, name, sstr_length(name));
    LOG(LOG_DEBUG, "HELLO from client  %d", static_cast<int>(c->request->argc));
    resp_status(c->reply, nullptr);
}

void cmd_ping(client* c) {
    resp_status(c->reply, nullptr);
}

void cmd_observe(client* c) {
    if (!observers_add(c)) {
        LOG(LOG_WARN, "client(\"%s\") redundantly watch", c->name);
    }
    resp_status(c->reply, nullptr);
}

/* A key that was deleted is listed as long as its record stands: only the type is looked at. */
void cmd_keys(client* c) {
    selection found;
    if (!selection_make(&found, cmd_arg(c, 0), SELECT_TYPED)) {
        resp_error(c->reply, nullptr, "pattern beyond its budget or memory");
        return;
    }
    resp_add(c->reply, nullptr);
    for (uint32_t i = 0; i < found.count; i++) {
        resp_add(c->reply, found.objects[i]->key);
    }
    selection_free(&found);
}

void cmd_exists(client* c) {
    resp_integer(c->reply, object_lookup(cmd_arg(c, 0)) != nullptr ? 1 : 0);
}

void cmd_expire(client* c) {
    object* obj = object_lookup(cmd_arg(c, 0));
    char* end;
    const int64_t seconds = text_parse_int64(cmd_arg(c, 1), &end, 10);
    if (obj == nullptr || end == cmd_arg(c, 1)) {
        resp_integer(c->reply, 0);
        return;
    }
    object_expire(obj, static_cast<uint32_t>(seconds));
    resp_integer(c->reply, 1);
}

void cmd_expireat(client* c) {
    object* obj = object_lookup(cmd_arg(c, 0));
    char* end;
    const int32_t when = text_parse_int32(cmd_arg(c, 1), &end, 10);
    if (obj == nullptr || end == cmd_arg(c, 1)) {
        resp_integer(c->reply, 0);
        return;
    }
    object_expire_at(obj, static_cast<uint32_t>(when));
    resp_integer(c->reply, 1);
}

void cmd_persist(client* c) {
    object* obj = object_lookup(cmd_arg(c, 0));
    resp_integer(c->reply, obj != nullptr ? object_persist(obj) : 0);
}

/* Deletions are announced to nobody: an event carries the value that a key has now. */
void cmd_del(client* c) {
    int64_t deleted = 0;
    for (uint32_t i = 0; i < c->request->argc; i++) {
        object* obj = object_lookup(cmd_arg(c, i));
        if (obj != nullptr && object_type(obj) != OBJ_TNONE) {
            deleted += object_delete(obj);
        }
    }
    resp_integer(c->reply, deleted);
}

void cmd_ttl(client* c) {
    const object* obj = object_lookup(cmd_arg(c, 0));
    if (obj == nullptr) {
        resp_integer(c->reply, -2);
        return;
    }
    uint32_t end = obj->expire_arg;
    switch (obj->flags & OBJ_EXPIRE_MASK) {
    case OBJ_EXPIRE_ABSOLUTE:
        break;
    case OBJ_EXPIRE_TTL:
        end += obj->expire_base;
        break;
    default:
        resp_integer(c->reply, -1);
        return;
    }
    resp_integer(c->reply, static_cast<int32_t>(end - static_cast<uint32_t>(time(nullptr))));
}

void cmd_type(client* c) {
    resp_bulk(c->reply, object_type_name(object_lookup(cmd_arg(c, 0))));
}
