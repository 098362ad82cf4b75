#pragma once

#include "proto/client.h"
#include "store/object.h"

/* The command handlers, by family. Each reads the client's request, whose argument count has passed its
 * rule, and fills the client's reply; the protocol's manual says what they answer. */

/* cmd_key.cpp: the connection and the keyspace */
void cmd_hello(client* c);
void cmd_ping(client* c);
void cmd_observe(client* c);
void cmd_keys(client* c);
void cmd_exists(client* c);
void cmd_expire(client* c);
void cmd_persist(client* c);
void cmd_del(client* c);
void cmd_expireat(client* c);
void cmd_ttl(client* c);
void cmd_type(client* c);

/* cmd_dump.cpp */
void cmd_dump(client* c);
void cmd_load(client* c);

/* cmd_string.cpp */
void cmd_append(client* c);
void cmd_incr(client* c);
void cmd_decr(client* c);
void cmd_decrby(client* c);
void cmd_incrby(client* c);
void cmd_get(client* c);
void cmd_set(client* c);
void cmd_getset(client* c);
void cmd_strlen(client* c);
void cmd_setex(client* c);
void cmd_setnx(client* c);
void cmd_mget(client* c);
void cmd_mset(client* c);
void cmd_msetnx(client* c);

/* The hook of "getset", run after the old value was written: assigns the new one. */
void cmd_getset_assign(client* c);

/* cmd_hash.cpp */
void cmd_hlen(client* c);
void cmd_hexists(client* c);
void cmd_hkeys(client* c);
void cmd_hvals(client* c);
void cmd_hgetall(client* c);
void cmd_hget(client* c);
void cmd_hmget(client* c);
void cmd_hset(client* c);
void cmd_hsetnx(client* c);
void cmd_hincrby(client* c);
void cmd_hmset(client* c);
void cmd_hdel(client* c);

/* cmd_list.cpp */
void cmd_lpush(client* c);
void cmd_lpushx(client* c);
void cmd_lpop(client* c);
void cmd_rpush(client* c);
void cmd_rpushx(client* c);
void cmd_rpop(client* c);
void cmd_llen(client* c);
void cmd_lmaxlen(client* c);
void cmd_lrange(client* c);
void cmd_lindex(client* c);

/* The hook of "lpop" and "rpop", run after the item was written: frees it. */
void cmd_pop_destroy(client* c);

/* --- What the handlers share --- */

inline sstr cmd_arg(const client* c, uint32_t index) {
    return c->request->argv[index];
}

/* The key's object, looked up or made with a type by the bytes of the first argument; null when the key
 * holds another type. */
inline object* cmd_key_or_create(const client* c, unsigned type) {
    return object_get_or_create(cmd_arg(c, 0), sstr_length(cmd_arg(c, 0)), type);
}

/* The error of a key that is missing where one must be, or of another type. */
inline void cmd_reply_wrong_type(client* c) {
    resp_error(c->reply, nullptr, "missing key or wrong type");
}
