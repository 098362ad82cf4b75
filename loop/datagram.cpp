#include "loop/datagram.h"

#include <unistd.h>

#include "core/pool.h"
#include "loop/endpoint.h"
#include "loop/loop.h"

namespace {

/* The server whose callback is being called; null as soon as that has released it. Neither its
 * record nor its descriptor can be asked then, since both may have been given to somebody else. */
datagram_server* serving;

void on_readable(int fd, unsigned mask, void* argument) {
    datagram_server* s = static_cast<datagram_server*>(argument);
    if ((mask & LOOP_READABLE) == 0) {
        return;
    }
    const int waiting = endpoint_bytes_readable(fd);
    if (waiting == 0) {
        /* An empty datagram is no request, but left in the queue it would hide those behind it.
         * Looked at first, since a full one may have come meanwhile. */
        char byte;
        if (recv(fd, &byte, sizeof byte, MSG_DONTWAIT | MSG_PEEK | MSG_TRUNC) == 0) {
            (void)recv(fd, &byte, sizeof byte, MSG_DONTWAIT);
        }
    }
    if (waiting < 1) {
        return;
    }
    buffer* request = loop_request_scratch();
    buffer* reply = loop_reply_scratch();
    char* bytes = buffer_reserve(request, static_cast<uint32_t>(waiting));
    if (bytes == nullptr) {
        return;
    }
    endpoint_address sender = {};
    socklen_t sender_length = sizeof sender;
    const ssize_t size =
        recvfrom(fd, bytes, static_cast<size_t>(waiting), 0, &sender.any, &sender_length);
    if (size >= 0) {
        buffer_truncate(request, static_cast<uint32_t>(waiting - size));
        serving = s;
        s->callback(s, request, reply);
        if (serving != nullptr && reply->length > 0) {
            /* Datagrams may be lost anywhere, here as well. */
            (void)sendto(fd, reply->data, reply->length, MSG_NOSIGNAL, &sender.any, sender_length);
        }
    }
    buffer_reset(request);
    buffer_reset(reply);
}

} // namespace

datagram_server* datagram_open(const char* address, int port, datagram_callback callback) {
    const int fd = endpoint_listen_datagram(address, port);
    if (fd < 0) {
        return nullptr;
    }
    if (fd >= loop_maxfd()) {
        close(fd);
        return nullptr;
    }
    datagram_server* s = pool_new<datagram_server>();
    s->fd = fd;
    s->callback = callback;
    loop_add_handler(fd, LOOP_READABLE, on_readable, s);
    return s;
}

void datagram_release(datagram_server* s) {
    if (s == serving) {
        serving = nullptr;
    }
    loop_remove_handler(s->fd);
    close(s->fd);
    s->fd = -1;
    pool_delete(s);
}
