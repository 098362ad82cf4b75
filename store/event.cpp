#include "store/event.h"

#include "core/log.h"
#include "store/check.h"

event_announcer_hooks event_announcer;

namespace {

/* Event names. Only "MSET", "HMSET" and "HDEL" are ever sent; the others are made as well and never
 * used, deliberately. */
enum event_name { EVENT_MSET, EVENT_DEL, EVENT_HMSET, EVENT_HDEL, EVENT_PUSH, EVENT_POP, EVENTS };

const char* const event_texts[EVENTS] = {"MSET", "DEL", "HMSET", "HDEL", "PUSH", "POP"};

sstr event_names[EVENTS]; /* made with the keyspace */
string_change_hook string_change_hooks[STRING_CHANGE_HOOKS_MAX];
unsigned string_change_hook_count;

/* An event in the making; null, for the calls below too, when nobody would be told. */
void* begin_event(const object* obj, event_name name) {
    if (!event_announcer.watched || obj->key[0] == '_') {
        return nullptr;
    }
    return event_announcer.begin(event_names[name], obj->key);
}

void add_string(void* event, sstr element) {
    if (event != nullptr) {
        event_announcer.add(event, element);
    }
}

void send_event(void* event) {
    if (event != nullptr) {
        event_announcer.send(event);
    }
}

void notify_string(object* obj) {
    if (obj->key[0] == '_') {
        return;
    }
    void* event = begin_event(obj, EVENT_MSET);
    add_string(event, object_string(obj));
    for (unsigned i = 0; i < string_change_hook_count; i++) {
        string_change_hooks[i](obj);
    }
    object_clear_flags(obj, OBJ_CHANGED);
    send_event(event);
}

/* The doomed fields of a walk, linked through their value, the last found first. */
hash_field* previous_doomed(const hash_field* field) {
    return reinterpret_cast<hash_field*>(field->value);
}

hash_field* chain_doomed(hash_field* field, hash_field* previous) {
    sstr_free(&field->value);
    field->value = reinterpret_cast<sstr>(previous);
    field->fflags = static_cast<uint8_t>(field->fflags & ~FIELD_DOOMED);
    return field;
}

void remove_doomed(const object* obj, const hash_field* last) {
    for (const hash_field* field = last; field != nullptr; field = previous_doomed(field)) {
        LOG(LOG_DEBUG, "\"%s\"(hash): field \"%s\" deleted", obj->key, field->name);
        htable_del(obj->hash, field->name);
    }
}

void free_doomed(hash_field* last) {
    hash_field* previous;
    for (hash_field* field = last; field != nullptr; field = previous) {
        previous = previous_doomed(field);
        field->value = nullptr;
        hash_field_free(field);
    }
}

void add_field(void* event, const hash_field* field) {
    add_string(event, field->name);
    add_string(event, field->value);
}

void notify_hash(object* obj) {
    void* deletions = nullptr;
    void* updates = nullptr;
    hash_field* doomed = nullptr;
    bool any = false;
    htable_walk walk = htable_walk_start(obj->hash);
    while (hash_field* field = static_cast<hash_field*>(htable_walk_next(&walk))) {
        if ((field->fflags & FIELD_DOOMED) != 0) {
            /* Tested first: a field that was deleted and then set again within one command goes. */
            if (deletions == nullptr) {
                deletions = begin_event(obj, EVENT_HDEL);
            }
            add_string(deletions, field->name);
            doomed = chain_doomed(field, doomed);
            any = true;
        } else if ((field->fflags & FIELD_MODIFIED) != 0) {
            if (updates == nullptr) {
                updates = begin_event(obj, EVENT_HMSET);
            }
            add_field(updates, field);
            field->fflags = static_cast<uint8_t>(field->fflags & ~FIELD_MODIFIED);
            any = true;
        }
    }
    remove_doomed(obj, doomed);
    if (any) {
        object_clear_flags(obj, OBJ_CHANGED);
    }
    send_event(deletions);
    send_event(updates);
    free_doomed(doomed);
}

} // namespace

void object_register_string_hook(string_change_hook hook) {
    object_require(string_change_hook_count < STRING_CHANGE_HOOKS_MAX,
                   "string_change_hook_count < STRING_CHANGE_HOOKS_MAX", OBJECT_LINE_STRING_HOOK);
    string_change_hooks[string_change_hook_count++] = hook;
}

void object_flush(object* obj) {
    if (!object_has(obj, OBJ_DEFERRED) || object_type(obj) == OBJ_TLIST) {
        return;
    }
    object_clear_flags(obj, OBJ_DEFERRED);
    if (object_has(obj, OBJ_CHANGED | OBJ_DEAD)) {
        object_notify(obj);
    }
}

void object_flush_list(object* obj) {
    if (object_type(obj) == OBJ_TLIST) {
        object_clear_flags(obj, OBJ_DEFERRED);
    }
}

void object_changed(object* obj) {
    object_set_flags(obj, OBJ_CHANGED);
    if (!object_has(obj, OBJ_DEFERRED)) {
        object_notify(obj);
    }
}

void object_field_changed(object* obj, hash_field* field) {
    if (object_has(obj, OBJ_DEFERRED | OBJ_CHANGED)) {
        field->fflags = static_cast<uint8_t>(field->fflags | FIELD_MODIFIED);
        object_changed(obj);
        return;
    }
    void* event = begin_event(obj, EVENT_HMSET);
    add_field(event, field);
    send_event(event);
}

void object_notify(object* obj) {
    if (object_type(obj) == OBJ_TSTRING) {
        notify_string(obj);
    } else if (object_type(obj) == OBJ_THASH) {
        notify_hash(obj);
    }
}

void event_make_names() {
    for (int i = 0; i < EVENTS; i++) {
        event_names[i] = sstr_new(event_texts[i], SSTR_CSTRING);
    }
}

void event_reset() {
    string_change_hook_count = 0;
    for (sstr& name : event_names) {
        sstr_free(&name);
    }
}
