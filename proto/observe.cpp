#include "proto/observe.h"

#include "core/buffer.h"
#include "core/log.h"
#include "proto/client.h"
#include "store/event.h"

client* observers;

namespace {

/* One frame, composed once and copied to every observer. */
buffer notify_buffer = BUFFER_EMPTY;

void send_frame() {
    for (client* c = observers; c != nullptr; c = c->observe_next) {
        if (c != current_client) {
            connection_send(c->conn, notify_buffer.data, notify_buffer.length);
            connection_flush(c->conn);
        }
    }
    if (log_wants(LOG_DEBUG)) {
        log_write(LOG_DEBUG, "notified clients with: ");
        log_write_buffer(LOG_DEBUG, &notify_buffer);
    }
}

void* begin_event(sstr name, sstr key) {
    resp* event = resp_new();
    resp_add(event, name);
    resp_add(event, key);
    return event;
}

void add_to_event(void* event, sstr element) {
    resp_add(static_cast<resp*>(event), element);
}

void send_event(void* event) {
    resp* r = static_cast<resp*>(event);
    notify_observers(r);
    resp_free(r);
}

} // namespace

void observe_init() {
    event_announcer = {observers != nullptr, begin_event, add_to_event, send_event};
}

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
    event_announcer.watched = true;
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
        event_announcer.watched = next != nullptr;
        if (next != nullptr) {
            next->observe_prev = next;
        }
    }
    c->observe_prev = nullptr;
    c->observe_next = nullptr;
}

void notify_observers(const resp* event) {
    if (observers == nullptr) {
        return;
    }
    if (resp_write_notify(event, &notify_buffer) != 0) {
        send_frame();
    }
    buffer_shrink_reset(&notify_buffer);
}
