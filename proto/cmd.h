#pragma once

#include "proto/client.h"
#include "store/object.h"

/* The command handlers, by family. Each reads the client's request, whose argument count has passed
 * its rule, and fills the client's reply. What a command answers stands beside it: OK, :n an
 * integer, bulk a string, nil, [...] a multibulk, error "-ERR" alone. */

/* cmd_key.cpp: the connection and the keyspace */
void cmd_hello(client* c);    /* [name]: renames the client for the log; OK */
void cmd_ping(client* c);     /* OK */
void cmd_observe(client* c);  /* announces changes to this client from now on; OK */
void cmd_keys(client* c);     /* pattern: [keys that match], deleted ones too; too dear: error */
void cmd_exists(client* c);   /* key: :1 or :0 */
void cmd_expire(client* c);   /* key seconds: :1; no key or no number :0 */
void cmd_persist(client* c);  /* key: :1 when an expiry was removed, else :0 */
void cmd_del(client* c);      /* key...: :number deleted; protected keys stay */
void cmd_expireat(client* c); /* key time: as expire */
void cmd_ttl(client* c);      /* key: :seconds left; :-1 without an expiry, :-2 without the key */
void cmd_type(client* c);     /* key: bulk none, string, list or hash */

/* cmd_dump.cpp */
void cmd_dump(client* c); /* path pattern: :0 or :errno; too dear: error */
void cmd_load(client* c); /* path: :0 or :errno */

/* cmd_string.cpp. Where nothing else is said, an absent key is made a string, and one of another
 * type is an error. */
void cmd_append(client* c); /* key text: :new length */
void cmd_incr(client* c);   /* key: :sum; no number in it: error */
void cmd_decr(client* c);   /* key: as incr */
void cmd_decrby(client* c); /* key n: as incrby */
void cmd_incrby(client* c); /* key n: :sum; n in any base of C; no number: error */
void cmd_get(client* c);    /* key: bulk or nil */
void cmd_set(client* c);    /* key value: OK, whatever type the key had */
void cmd_getset(client* c); /* key value: bulk of the old value; no key: nil, and it stays so */
void cmd_strlen(client* c); /* key: :length, :0 without the key */
void cmd_setex(client* c);  /* key seconds value: OK; no number: error */
void cmd_setnx(client* c);  /* key value: :1, or :0 when the key exists */
void cmd_mget(client* c);   /* key...: [bulk or nil for each]; another type: nil */
void cmd_mset(client* c);   /* key value...: OK, whatever types the keys had */
void cmd_msetnx(client* c); /* key value...: :1, or :0 when one of the keys exists */

/* The hook of "getset", run after the old value was written: assigns the new one. */
void cmd_getset_assign(client* c);

/* cmd_hash.cpp. What only reads or deletes takes a key of another type for a missing one; to the
 * others such a key is an error, and a missing one is made a hash. */
void cmd_hlen(client* c);    /* key: :fields */
void cmd_hexists(client* c); /* key field: :1 or :0 */
void cmd_hkeys(client* c);   /* key: [fields] in table order */
void cmd_hvals(client* c);   /* key: [values] in the same order */
void cmd_hgetall(client* c); /* key: [field value...] in the same order */
void cmd_hget(client* c);    /* key field: bulk or nil */
void cmd_hmget(client* c);   /* key field...: [bulk or nil for each] */
void cmd_hset(client* c);    /* key field value: :1 when the field was new, else :0 */
void cmd_hsetnx(client* c);  /* key field value: :1, or :0 when the field exists */
void cmd_hincrby(client* c); /* key field n: :sum; no number in the field: error */
void cmd_hmset(client* c);   /* key field value...: OK, announced as one change */
void cmd_hdel(client* c);    /* key field...: :number deleted; protected fields stay */

/* cmd_list.cpp. While any client observes, lpush and rpush answer a key of another type with
 * silence. */
void cmd_lpush(client* c);   /* key item...: :length, at most the cap; another type: error */
void cmd_lpushx(client* c);  /* key item: :length; missing or another type: :0 */
void cmd_lpop(client* c);    /* key: bulk or nil */
void cmd_rpush(client* c);   /* as lpush */
void cmd_rpushx(client* c);  /* as lpushx */
void cmd_rpop(client* c);    /* as lpop */
void cmd_llen(client* c);    /* key: :length, :0 without the key; another type: error */
void cmd_lmaxlen(client* c); /* key n: sets the cap when n >= 1; :cap, :0 without the key */
void cmd_lrange(client* c);  /* key start stop: [items] or nil; no list or no stop: error */
void cmd_lindex(client* c);  /* key index: bulk or nil; no list: error */

/* The hook of "lpop" and "rpop", run after the item was written: frees it. */
void cmd_pop_destroy(client* c);

/* --- What the handlers share --- */

inline sstr cmd_arg(const client* c, uint32_t index) {
    return c->request->argv[index];
}

/* The key's object, looked up or made with a type by the bytes of the first argument; null when the
 * key holds another type. */
inline object* cmd_key_or_create(const client* c, unsigned type) {
    return object_get_or_create(cmd_arg(c, 0), sstr_length(cmd_arg(c, 0)), type);
}

/* The error of a key that is missing where one must be, or of another type. */
inline void cmd_reply_wrong_type(client* c) {
    resp_error(c->reply, nullptr, "missing key or wrong type");
}

/* As cmd_key_or_create, with the error replied where it gives null. */
inline object* cmd_key_or_error(client* c, unsigned type) {
    object* obj = cmd_key_or_create(c, type);
    if (obj == nullptr) {
        cmd_reply_wrong_type(c);
    }
    return obj;
}

/* The reasons of increments that fail. */
constexpr char CMD_NO_NUMBER_INCR[] = "failed to INCR on non-number value";
constexpr char CMD_NO_NUMBER_DECR[] = "failed to DECR on non-number value";
