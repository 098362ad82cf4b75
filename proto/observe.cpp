#include "proto/observe.h"

#include "core/buffer.h"
#include "core/log.h"
#include "proto/client.h"

client* observers;

namespace {

/* One frame, composed once and copied to every observer. */
buffer notify_buffer;

bool compose(const resp* event) {
    if (notify_buffer.initial == 0) {
        buffer_init(&notify_buffer, 0, 0);
    }
    buffer_shrink_reset(&notify_buffer);
    return resp_write_notify(event, &notify_buffer) != 0;
}

void trace_frame() {
    log_write(LOG_DEBUG, "notified clients with: ");
    if (buffer_append(&notify_buffer, "", 1) == 1) {
        log_write(LOG_DEBUG, "%s", notify_buffer.data);
    }
}

} // namespace

bool observers_add(client* c) {
    if (c->observe_prev != nullptr || c->observe_next != nullptr) {
        return false;
    }
    c->observe_next = observers;
    if (observers != nullptr) {
        observers->observe_prev = c;
    }
    c->observe_prev = c;
    observers = c;
    return true;
}

void observers_remove(client* c) {
    if (c->observe_prev == nullptr) {
        return;
    }
    client* next = c->observe_next;
    if (c->observe_prev != c) {
        c->observe_prev->observe_next = next;
        if (next != nullptr) {
            next->observe_prev = c->observe_prev;
        }
    } else {
        observers = next;
        if (next != nullptr) {
            next->observe_prev = next;
        }
    }
    c->observe_prev = nullptr;
    c->observe_next = nullptr;
}

void notify_observers(const resp* event) {
    if (observers == nullptr || !compose(event)) {
        return;
    }
    for (client* c = observers; c != nullptr; c = c->observe_next) {
        if (c != current_client) {
            connection_send(c->conn, notify_buffer.data, notify_buffer.length);
            connection_flush(c->conn);
        }
    }
    if (log_wants(LOG_DEBUG)) {
        trace_frame();
    }
}
