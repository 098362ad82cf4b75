#include "loop/server.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/fault.h"
#include "core/pool.h"
#include "loop/endpoint.h"

namespace {

constexpr uint32_t ACCEPT_PAUSE_MS = 100;

/* Gives up one reference; the last one frees the record. */
void unref(server* s) {
    s->references--;
    if (s->references == 0) {
        pool_delete(s);
    }
}

void leave(connection* c) {
    if (c->prev != nullptr) {
        c->prev->next = c->next;
    } else {
        c->owner->connections = c->next;
    }
    if (c->next != nullptr) {
        c->next->prev = c->prev;
    }
    unref(c->owner);
}

void join(connection* c, server* owner) {
    c->owner = owner;
    c->leave = leave;
    c->next = owner->connections;
    if (c->next != nullptr) {
        c->next->prev = c;
    }
    owner->connections = c;
    owner->references++;
}

/* The client went away again, or the next pass may have more luck. */
bool is_passing(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED;
}

int resume_accepting(void* argument) {
    loop_modify_handler(static_cast<server*>(argument)->fd, LOOP_READABLE, 0);
    return 1;
}

/* For when there is no descriptor or memory to accept with. The client waits in the kernel's queue
 * and keeps the listener readable meanwhile: if it were still watched, no pass would ever wait. */
void pause_accepting(server* s) {
    loop_modify_handler(s->fd, 0, LOOP_READABLE);
    loop_add_timer(ACCEPT_PAUSE_MS, resume_accepting, s);
}

void expect_free_slot(int fd) {
    if (!(fd < loop_maxfd() && !loop_has_handler(fd))) {
        fault_abort("fd < maxfd && files[fd].cb == ((void *)0)", "loop", LOOP_FAULT_ADD_CONNECTION,
                    "loop_add_connection");
    }
}

} // namespace

server* server_open(const char* address, int port) {
    if (address == nullptr) {
        address = "0.0.0.0";
    }
    const int fd = endpoint_listen_stream(address, port);
    if (fd < 0) {
        return nullptr;
    }
    if (fd >= loop_maxfd()) {
        close(fd);
        return nullptr;
    }
    server* s = pool_new<server>();
    s->fd = fd;
    s->port = port;
    s->references = 1;
    memcpy(s->address, address, strnlen(address, sizeof s->address - 1));
    loop_add_handler(fd, LOOP_READABLE, cb_sserver, s);
    return s;
}

connection* loop_add_connection(int fd, server* owner) {
    expect_free_slot(fd);
    if (endpoint_set_nonblocking(fd) < 0 || endpoint_set_cloexec(fd) < 0) {
        return nullptr;
    }
    connection* c = connection_open(fd);
    if (owner != nullptr) {
        join(c, owner);
    }
    return c;
}

void cb_sserver(int fd, unsigned mask, void* argument) {
    server* s = static_cast<server*>(argument);
    if ((mask & LOOP_READABLE) == 0) {
        return;
    }
    if (s->accept_override != nullptr) {
        s->accept_override(s);
        return;
    }
    if (s->conn_ondata == nullptr) {
        fault_abort("s->conn_ondata != ((void *)0)", "loop", LOOP_FAULT_ACCEPT, "cb_sserver");
    }
    const int accepted = accept4(fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted < 0) {
        if (!is_passing(errno)) {
            pause_accepting(s);
        }
        return;
    }
    if (accepted >= loop_maxfd()) {
        close(accepted);
        return;
    }
    expect_free_slot(accepted);
    connection* c = connection_open(accepted);
    join(c, s);
    c->conn_ondata = s->conn_ondata;
    c->on_close = s->on_close;
    if (s->on_accept != nullptr) {
        s->on_accept(c);
    }
}

void server_release(server* s) {
    loop_del_timer_match(resume_accepting, s);
    loop_remove_handler(s->fd);
    close(s->fd);
    s->fd = -1;
    unref(s);
}
