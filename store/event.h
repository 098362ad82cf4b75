#pragma once

#include "core/sstr.h"
#include "store/record.h"

/* Change events: who is told of the change of a string or hash, when, and what.
 *
 * A change of a string is told to the string-change hooks and then to the observers ("MSET" key
 * value); a change of a hash to the observers alone ("HDEL" key field..., then "HMSET" key and
 * pairs of field and value). Lists, deletions and expiries are told to nobody, nor is anything of a
 * key that begins with "_".
 *
 * A change is told at once, or, while the object is `deferred`, with all others by object_flush. */

/* How an event leaves the store. Observation fills this in at start-up; the store does not know
 * what an event is made of. The strings of an event are borrowed until it is sent. */
struct event_announcer_hooks {
    bool watched;                           /* somebody is to be told: no event is made otherwise */
    void* (*begin)(sstr name, sstr key);    /* returns a new event */
    void (*add)(void* event, sstr element); /* appends to it */
    void (*send)(void* event);              /* tells everybody who watches, and frees it */
};

extern event_announcer_hooks event_announcer;

/* Called with a changed string object, whose value it must not change: an event may borrow it. The
 * result is ignored. */
typedef int (*string_change_hook)(object* obj);

/* Adds a hook, at start-up; they are called in order of registration. One more than fit ends the
 * process through a fatal log line: a unit that does not hear of its key must not look alive. */
constexpr unsigned STRING_CHANGE_HOOKS_MAX = 4;
void object_register_string_hook(string_change_hook hook);

/* Begins a change in steps. */
inline void object_defer(object* obj) {
    object_set_flags(obj, OBJ_DEFERRED);
}

/* Ends a change in steps: announces it, if there was one. Nothing for lists and when none was
 * begun. */
void object_flush(object* obj);

/* The same for a list: only clears the mark. */
void object_flush_list(object* obj);

/* Notes that a string or hash has changed: announces it, unless a change in steps is under way. */
void object_changed(object* obj);

/* The same for one field that was set. When the object has no other change to announce, the table
 * need not be walked for marks. */
void object_field_changed(object* obj, hash_field* field);

/* Announces the changes of a string or hash now and removes the doomed fields of a hash, those of a
 * private key too. */
void object_notify(object* obj);

/* Makes the event names, together with the keyspace. */
void event_make_names();

/* Frees the names and forgets the hooks, together with the keyspace. */
void event_reset();
