#include "proto/command.h"

#include <string.h>

#include "core/buffer.h"
#include "core/log.h"
#include "core/pool.h"
#include "core/text.h"
#include "proto/cmd.h"
#include "proto/observe.h"
#include "proto/request.h"
#include "store/algor.h"

const command command_table[COMMANDS] = {
    {"hello", cmd_hello, RULE_ONE},       {"ping", cmd_ping, RULE_ANY},
    {"dump", cmd_dump, RULE_TWO},         {"load", cmd_load, RULE_ONE},
    {"keys", cmd_keys, RULE_ONE},         {"exists", cmd_exists, RULE_ONE},
    {"expire", cmd_expire, RULE_TWO},     {"persist", cmd_persist, RULE_ONE},
    {"del", cmd_del, RULE_ONE},           {"expireat", cmd_expireat, RULE_TWO},
    {"ttl", cmd_ttl, RULE_ONE},           {"type", cmd_type, RULE_ONE},
    {"append", cmd_append, RULE_TWO},     {"incr", cmd_incr, RULE_ONE},
    {"decr", cmd_decr, RULE_ONE},         {"decrby", cmd_decrby, RULE_TWO},
    {"incrby", cmd_incrby, RULE_TWO},     {"get", cmd_get, RULE_ONE},
    {"set", cmd_set, RULE_TWO},           {"getset", cmd_getset, RULE_TWO},
    {"strlen", cmd_strlen, RULE_ONE},     {"setex", cmd_setex, RULE_THREE},
    {"setnx", cmd_setnx, RULE_TWO},       {"mget", cmd_mget, RULE_ONE},
    {"mset", cmd_mset, RULE_EVEN},        {"msetnx", cmd_msetnx, RULE_EVEN},
    {"hlen", cmd_hlen, RULE_ONE},         {"hexists", cmd_hexists, RULE_TWO},
    {"hkeys", cmd_hkeys, RULE_ONE},       {"hvals", cmd_hvals, RULE_ONE},
    {"hgetall", cmd_hgetall, RULE_ONE},   {"hget", cmd_hget, RULE_TWO},
    {"hmget", cmd_hmget, RULE_TWO},       {"hset", cmd_hset, RULE_THREE},
    {"hsetnx", cmd_hsetnx, RULE_THREE},   {"hincrby", cmd_hincrby, RULE_THREE},
    {"hmset", cmd_hmset, RULE_KEY_PAIRS}, {"hdel", cmd_hdel, RULE_TWO},
    {"lpush", cmd_lpush, RULE_TWO},       {"lpushx", cmd_lpushx, RULE_TWO},
    {"lpop", cmd_lpop, RULE_ONE},         {"rpush", cmd_rpush, RULE_TWO},
    {"rpushx", cmd_rpushx, RULE_TWO},     {"rpop", cmd_rpop, RULE_ONE},
    {"llen", cmd_llen, RULE_ONE},         {"lmaxlen", cmd_lmaxlen, RULE_TWO},
    {"lrange", cmd_lrange, RULE_THREE},   {"lindex", cmd_lindex, RULE_TWO},
    {"observe", cmd_observe, RULE_ANY},
};

namespace {

/* What is left to do for a command once its reply stands in the output, where the reply borrows a
 * string that the command takes away. */
struct post_reply_hook {
    const char* name;
    void (*hook)(client* c);
};

const post_reply_hook post_reply_hooks[] = {
    {"getset", cmd_getset_assign},
    {"rpop", cmd_pop_destroy},
    {"lpop", cmd_pop_destroy},
};

/* A command as it is found: the hook is looked up once, not for each request. */
struct command_entry {
    sstr name; /* upper case; first: the table finds the entry through it */
    const command* row;
    void (*post_reply)(client* c); /* null for most */
};

htable* command_index; /* made with the first request */

/* Empty but for the time of their use. */
buffer trace_buffer = BUFFER_EMPTY;
buffer reply_buffer = BUFFER_EMPTY; /* one frame, composed whole before it is sent */

void (*find_post_reply_hook(const char* name))(client*) {
    for (const post_reply_hook& row : post_reply_hooks) {
        if (strcmp(row.name, name) == 0) {
            return row.hook;
        }
    }
    return nullptr;
}

void make_command_index() {
    command_index = htable_new();
    for (const command& row : command_table) {
        command_entry* entry = pool_new<command_entry>();
        entry->name = sstr_new(row.name, SSTR_CSTRING);
        str_toupper(entry->name);
        entry->row = &row;
        entry->post_reply = find_post_reply_hook(row.name);
        htable_put(command_index, entry);
    }
}

const command_entry* find_command(const char* upper_name) {
    if (command_index == nullptr) {
        make_command_index();
    }
    return static_cast<command_entry*>(htable_get(command_index, upper_name));
}

/* The text ends at its first NUL, which may be one of the client's. */
void log_trace() {
    log_write_buffer(LOG_DEBUG, &trace_buffer);
    buffer_shrink_reset(&trace_buffer);
}

void trace_request(const client* c) {
    const request* r = c->request;
    buffer_printf(&trace_buffer, "Received from client(\"%s\"):\n %s(", c->name, r->name);
    for (uint32_t i = 0; i < r->argc; i++) {
        if (i > 0) {
            buffer_append(&trace_buffer, ", ", 2);
        }
        buffer_append(&trace_buffer, r->argv[i], sstr_length(r->argv[i]));
    }
    buffer_append(&trace_buffer, ")", 1);
    log_trace();
}

void trace_reply(const client* c) {
    buffer_printf(&trace_buffer, "Replied to client(\"%s\"): \n", c->name);
    resp_write(c->reply, &trace_buffer);
    log_trace();
}

/* Runs the command that the request names, or fills the reply with an error. Returns its entry, if
 * the name is known. */
const command_entry* execute(client* c) {
    const request* r = c->request;
    const command_entry* entry = find_command(r->name);
    if (entry == nullptr) {
        LOG(LOG_DEBUG, "Unknown command \"%s\", replying error.", r->name);
        resp_error(c->reply, nullptr, "Unknown command");
        return nullptr;
    }
    if (!command_accepts(entry->row->arg_rule, r->argc)) {
        resp_error(c->reply, nullptr, "Illegal arguments");
        return entry;
    }
    if (log_wants(LOG_DEBUG)) {
        trace_request(c);
    }
    entry->row->handler(c);
    if (log_wants(LOG_DEBUG)) {
        trace_reply(c);
    }
    return entry;
}

/* Hands the reply to the connection as one whole frame; a frame too large to be composed closes it.
 */
void send_reply(client* c) {
    if (c->reply->type == RESP_TNONE) {
        return;
    }
    buffer* batch = connection_batch(c->conn, resp_size_bound(c->reply));
    if (batch != nullptr) {
        if (resp_write(c->reply, batch) == 0) {
            connection_fail_output(c->conn);
        }
        return;
    }
    if (resp_write(c->reply, &reply_buffer) != 0) {
        connection_send(c->conn, reply_buffer.data, reply_buffer.length);
    } else {
        connection_fail_output(c->conn);
    }
    buffer_shrink_reset(&reply_buffer);
}

void serve(client* c) {
    str_toupper(c->request->name);
    c->reply = resp_new();
    const command_entry* entry = execute(c);
    send_reply(c);
    if (entry != nullptr && entry->post_reply != nullptr && c->request->argc >= 1) {
        entry->post_reply(c);
    }
    client_end_request(c);
}

} // namespace

bool command_accepts(uint32_t arg_rule, uint32_t argc) {
    switch (arg_rule) {
    case RULE_ONE:
    case RULE_TWO:
    case RULE_THREE:
        return argc >= arg_rule;
    case RULE_EVEN:
        return argc % 2 == 0;
    case RULE_KEY_PAIRS:
        return argc >= 3 && argc % 2 == 1;
    default:
        return true;
    }
}

void client_ondata(connection* conn) {
    client* c = client_of(conn);
    current_client = c;
    c->request = request_parse(&conn->input);
    if (c->request != nullptr) {
        serve(c);
    } else {
        connection_close(conn);
    }
    buffer_shrink_reset(&conn->input);
    current_client = nullptr;
}

void client_onclose(connection* conn, int) {
    client* c = static_cast<client*>(conn->user_data);
    if (c == nullptr) {
        return;
    }
    conn->user_data = nullptr;
    LOG(LOG_DEBUG, "closing client(\"%s\")", c->name);
    observers_remove(c);
    client_free(c);
    LOG(LOG_DEBUG, "client destroyed");
}
