#include "proto/client.h"

#include "core/log.h"
#include "core/pool.h"
#include "core/text.h"
#include "proto/observe.h"

client* current_client;

namespace {

/* Clients that have sent data since the start; wraps after 2^32 of them. */
uint32_t client_counter;

} // namespace

client* client_of(connection* c) {
    if (c->user_data == nullptr) {
        client* made = pool_new<client>();
        made->name = sstr_new(str_format("anynomous%u", client_counter++), SSTR_CSTRING);
        made->conn = c;
        c->user_data = made;
    }
    return static_cast<client*>(c->user_data);
}

void client_rename(client* c, const char* name, uint32_t length) {
    sstr_assign(&c->name, name, length);
}

void client_end_request(client* c) {
    if (c->reply != nullptr) {
        resp_free(c->reply);
        c->reply = nullptr;
    }
    if (c->request != nullptr) {
        request_free(c->request);
        c->request = nullptr;
    }
}

void client_onclose(connection* conn, int) {
    client* c = static_cast<client*>(conn->user_data);
    if (c == nullptr) {
        return;
    }
    conn->user_data = nullptr;
    if (log_wants(LOG_DEBUG)) {
        log_write(LOG_DEBUG, "closing client(\"%s\")", c->name);
    }
    client_end_request(c);
    observers_remove(c);
    sstr_free(&c->name);
    pool_delete(c);
    if (log_wants(LOG_DEBUG)) {
        log_write(LOG_DEBUG, "client destroyed");
    }
}
