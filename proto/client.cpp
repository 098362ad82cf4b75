#include "proto/client.h"

#include "core/pool.h"
#include "core/text.h"

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

void client_free(client* c) {
    client_end_request(c);
    sstr_free(&c->name);
    pool_delete(c);
}
