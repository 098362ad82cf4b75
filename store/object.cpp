#include "store/object.h"

#include <time.h>

#include "core/log.h"
#include "core/pool.h"
#include "store/check.h"

namespace {

htable* keyspace; /* made with the first object */

void set_type(object* obj, unsigned type) {
    object_clear_flags(obj, OBJ_TYPE_MASK);
    object_set_flags(obj, type);
}

void require_string(const object* obj, object_line line) {
    object_require(object_type(obj) == OBJ_TSTRING, "obj->type == OBJ_TSTRING", line);
}

void require_hash(const object* obj, object_line line) {
    object_require(object_type(obj) == OBJ_THASH, "obj->type == OBJ_THASH", line);
}

void require_list(const object* obj, object_line line) {
    object_require(object_type(obj) == OBJ_TLIST, "obj->type == OBJ_TLIST", line);
}

void require_typed(const object* obj, object_line line) {
    object_require(object_type(obj) != OBJ_TNONE, "obj->type != OBJ_TNONE", line);
}

void make_keyspace() {
    keyspace = htable_new();
    event_make_names();
}

object* new_object(const char* key, uint32_t length) {
    object* obj = pool_new<object>();
    obj->key = sstr_new(key, length);
    return obj;
}

void give_type(object* obj, unsigned type) {
    obj->aux = nullptr;
    set_type(obj, type);
    obj->value = nullptr;
    if (type == OBJ_TLIST) {
        obj->list = dlist_new(DLIST_UNCAPPED);
    } else if (type == OBJ_THASH) {
        obj->hash = htable_new();
    }
}

/* What is left of object_to_assign when the key is absent (null) or dead. Apart from it because
 * nearly every request finds its key. */
[[gnu::noinline]] object* make_string(object* dead, sstr key) {
    object* obj = dead;
    if (obj != nullptr) {
        object_free_value(obj, true);
    } else {
        if (keyspace == nullptr) {
            make_keyspace();
        }
        obj = new_object(key, sstr_length(key));
        htable_add(keyspace, obj);
    }
    give_type(obj, OBJ_TSTRING);
    return obj;
}

/* A new value discards a list or a hash, but keeps the flags: the change may be one of several
 * steps. */
void become_string(object* obj) {
    if (object_type(obj) != OBJ_TSTRING) {
        object_free_value(obj, false);
        obj->value = nullptr;
        set_type(obj, OBJ_TSTRING);
    }
}

void trace_string(const object* obj) {
    LOG(LOG_DEBUG, "\"%s\"(string): updated to \"%s\"", obj->key, object_string(obj));
}

void trace_field(const object* obj, const hash_field* field) {
    LOG(LOG_DEBUG, "\"%s\"(hash): field \"%s\" updated to \"%s\"", obj->key, field->name,
        field->value);
}

void trace_push(const object* obj, const char* command, const dlist_node* pushed) {
    LOG(LOG_DEBUG, "\"%s\"(list): %s to \"%s\"", obj->key, command,
        pushed != nullptr ? static_cast<char*>(pushed->value) : "");
}

void assign_string(object* obj, sstr value) {
    become_string(obj);
    if (value == nullptr) {
        sstr_free(&obj->string);
    } else {
        sstr_assign(&obj->string, value, sstr_length(value));
    }
    trace_string(obj);
}

hash_field* field_or_new(object* obj, sstr name, bool* is_new) {
    htable_entry* entry = htable_find(obj->hash, name, nullptr, true);
    *is_new = entry->item == nullptr;
    if (*is_new) {
        hash_field* field = pool_new<hash_field>();
        field->name = sstr_new(name, sstr_length(name));
        entry->item = field;
    }
    return static_cast<hash_field*>(entry->item);
}

} // namespace

void object_reset() {
    event_reset();
    if (keyspace == nullptr) {
        return;
    }
    htable_walk walk = htable_walk_start(keyspace);
    while (object* obj = static_cast<object*>(htable_walk_next(&walk))) {
        object_free_value(obj, false);
        sstr_free(&obj->key);
        pool_delete(obj);
    }
    htable_free(keyspace);
    keyspace = nullptr;
}

htable* object_keyspace() {
    return keyspace;
}

object* object_get_or_create(const char* key, uint32_t length, unsigned type) {
    if (keyspace == nullptr) {
        make_keyspace();
    }
    htable_entry* entry = htable_find(keyspace, key, nullptr, true);
    object* obj = static_cast<object*>(entry->item);
    if (obj == nullptr) {
        obj = new_object(key, length);
        entry->item = obj;
    } else if (object_has(obj, OBJ_DEAD)) {
        object_free_value(obj, true);
    }
    if (object_type(obj) == OBJ_TNONE && type != OBJ_TNONE) {
        give_type(obj, type);
    }
    return object_type(obj) == type ? obj : nullptr;
}

object* object_lookup(const char* key) {
    if (keyspace == nullptr) {
        return nullptr;
    }
    object* obj = static_cast<object*>(htable_get(keyspace, key));
    return obj == nullptr || object_has(obj, OBJ_DEAD) ? nullptr : obj;
}

object* object_to_assign(sstr key) {
    object* obj = keyspace != nullptr ? static_cast<object*>(htable_get(keyspace, key)) : nullptr;
    if (obj != nullptr && !object_has(obj, OBJ_DEAD)) {
        return obj;
    }
    return make_string(obj, key);
}

object* object_lookup_type(const char* key, unsigned type) {
    object* obj = object_lookup(key);
    return obj == nullptr || object_type(obj) != type ? nullptr : obj;
}

int object_delete(object* obj) {
    if (object_has(obj, OBJ_PROTECTED)) {
        return 0;
    }
    object_set_flags(obj, OBJ_DEAD);
    return 1;
}

void object_expire(object* obj, uint32_t ttl) {
    require_typed(obj, OBJECT_LINE_EXPIRE);
    obj->expire_base = static_cast<uint32_t>(time(nullptr));
    obj->expire_arg = ttl;
    object_clear_flags(obj, OBJ_EXPIRE_MASK);
    object_set_flags(obj, OBJ_EXPIRE_TTL);
    LOG(LOG_DEBUG, "\"%s\"(%s): set expire-TTL to %u", obj->key, object_type_name(obj), ttl);
}

void object_expire_at(object* obj, uint32_t when) {
    require_typed(obj, OBJECT_LINE_EXPIRE_AT);
    obj->expire_base = static_cast<uint32_t>(time(nullptr));
    obj->expire_arg = when;
    object_clear_flags(obj, OBJ_EXPIRE_MASK);
    object_set_flags(obj, OBJ_EXPIRE_ABSOLUTE);
}

int object_persist(object* obj) {
    if (object_type(obj) == OBJ_TNONE || !object_has(obj, OBJ_EXPIRE_MASK)) {
        return 0;
    }
    obj->expire_base = 0;
    obj->expire_arg = 0;
    object_clear_flags(obj, OBJ_EXPIRE_MASK);
    LOG(LOG_DEBUG, "\"%s\"(%s): remove expire-TTL", obj->key, object_type_name(obj));
    return 1;
}

void object_set_string(object* obj, sstr value) {
    assign_string(obj, value);
    object_persist(obj);
    object_changed(obj);
}

void object_set_string_ttl(object* obj, uint32_t ttl, sstr value) {
    assign_string(obj, value);
    object_expire(obj, ttl);
    object_changed(obj);
}

void object_append(object* obj, sstr value) {
    require_string(obj, OBJECT_LINE_APPEND);
    sstr_append(&obj->string, value, sstr_length(value));
    trace_string(obj);
    object_changed(obj);
}

int object_incr(object* obj, int64_t* delta) {
    require_string(obj, OBJECT_LINE_INCR);
    if (!sstr_incr(&obj->string, delta)) {
        return 0;
    }
    trace_string(obj);
    object_changed(obj);
    return 1;
}

hash_field* object_hash_field(const object* obj, const char* field) {
    return static_cast<hash_field*>(htable_get(obj->hash, field));
}

int object_hash_set(object* obj, sstr field, sstr value) {
    object_require(object_type(obj) == OBJ_THASH || object_type(obj) == OBJ_TNONE,
                   "obj->type == OBJ_THASH || obj->type == OBJ_TNONE", OBJECT_LINE_HASH_SET);
    set_type(obj, OBJ_THASH);
    if (obj->hash == nullptr) {
        obj->hash = htable_new();
    }
    bool is_new;
    hash_field* f = field_or_new(obj, field, &is_new);
    sstr_assign(&f->value, value, sstr_length(value));
    trace_field(obj, f);
    object_field_changed(obj, f);
    return is_new ? 1 : 0;
}

int object_hash_incr(object* obj, sstr field, int64_t* delta) {
    require_hash(obj, OBJECT_LINE_HASH_INCR);
    bool is_new;
    hash_field* f = field_or_new(obj, field, &is_new);
    if (!sstr_incr(&f->value, delta)) {
        return 0;
    }
    trace_field(obj, f);
    object_field_changed(obj, f);
    return 1;
}

int object_hash_del(object* obj, const char* field) {
    require_hash(obj, OBJECT_LINE_HASH_DEL);
    if (object_has(obj, OBJ_FIELDS_PROTECTED)) {
        return 0;
    }
    hash_field* f = object_hash_field(obj, field);
    if (f == nullptr || (f->fflags & FIELD_PROTECTED) != 0) {
        return 0;
    }
    LOG(LOG_DEBUG, "\"%s\"(hash): field \"%s\" scheduled to be deleted", obj->key, f->name);
    f->fflags = static_cast<uint8_t>(f->fflags | FIELD_DOOMED);
    object_changed(obj);
    return 1;
}

hash_field* object_hash_protect(object* obj, const char* field, bool on) {
    require_hash(obj, OBJECT_LINE_HASH_PROTECT);
    hash_field* f = object_hash_field(obj, field);
    if (f != nullptr) {
        f->fflags =
            static_cast<uint8_t>(on ? f->fflags | FIELD_PROTECTED : f->fflags & ~FIELD_PROTECTED);
    }
    return f;
}

void object_lpush(object* obj, const char* text) {
    set_type(obj, OBJ_TLIST);
    sstr evicted = static_cast<sstr>(dlist_push_head(obj->list, sstr_new(text, SSTR_CSTRING)));
    trace_push(obj, "lpush", obj->list->head);
    object_set_flags(obj, OBJ_CHANGED);
    sstr_free(&evicted);
}

void object_rpush(object* obj, const char* text) {
    set_type(obj, OBJ_TLIST);
    sstr evicted = static_cast<sstr>(dlist_push_tail(obj->list, sstr_new(text, SSTR_CSTRING)));
    trace_push(obj, "rpush", obj->list->tail);
    object_set_flags(obj, OBJ_CHANGED);
    sstr_free(&evicted);
}

sstr object_rpop(object* obj) {
    require_list(obj, OBJECT_LINE_RPOP);
    sstr item = static_cast<sstr>(dlist_pop_tail(obj->list));
    if (item != nullptr) {
        LOG(LOG_DEBUG, "\"%s\"(list): rpop \"%s\"", obj->key, item);
    }
    return item;
}

sstr object_lpop(object* obj) {
    require_list(obj, OBJECT_LINE_LPOP);
    sstr item = static_cast<sstr>(dlist_pop_head(obj->list));
    if (item != nullptr) {
        LOG(LOG_DEBUG, "\"%s\"(list): lpop \"%s\"", obj->key, item);
    }
    return item;
}

sstr object_lindex(object* obj, int64_t index) {
    require_list(obj, OBJECT_LINE_LINDEX);
    return static_cast<sstr>(dlist_index(obj->list, index));
}

void object_ltrim_tail(object* obj, int mode, uint32_t n) {
    require_list(obj, OBJECT_LINE_LTRIM_TAIL);
    if (mode != 0) {
        return;
    }
    for (uint32_t left = static_cast<uint16_t>(n); left > 0 && obj->list->count > 0; left--) {
        sstr item = static_cast<sstr>(dlist_pop_tail(obj->list));
        sstr_free(&item);
    }
}
