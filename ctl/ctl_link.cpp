#include "ctl/ctl_link.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ctl/ctl_net.h"

namespace {

/* A Unix socket carries bytes in pieces of 32 kB and a little more. The daemon takes what is there
 * for a whole request, and with more than one piece it may look while the next is being copied. */
constexpr size_t WHOLE_MAX = 32768;

constexpr const char* NOT_AWAITED = "another kind of frame was due";

/* "tessctl: ADDRESS: " and the text. */
__attribute__((format(printf, 2, 3))) void complain(const ctl_link* link, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fprintf(stderr, "tessctl: %s", link->text);
    if (link->port != 0) {
        fprintf(stderr, " port %d", link->port);
    }
    fputs(": ", stderr);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    va_end(arguments);
}

ctl_status complain_closed(const ctl_link* link) {
    if (link->reply.kind == 0 && ctl_reply_untouched(&link->reply)) {
        complain(link, "the daemon closed the connection without a reply");
    } else {
        complain(link, "the daemon closed the connection in the middle of a reply");
    }
    return CTL_NO_REPLY;
}

ctl_status complain_broken(const ctl_link* link) {
    complain(link, "the reply is malformed: %s", link->reply.broken);
    return CTL_NO_REPLY;
}

ctl_status complain_read(const ctl_link* link, int error) {
    if (error == ETIMEDOUT) {
        complain(link, "no reply within %d s", link->wait_seconds);
    } else {
        complain(link, "the connection is lost: %s", strerror(error));
    }
    return CTL_NO_REPLY;
}

/* Reads until a frame is whole. With `events`, the frame is one pushed to an observer; else it is a
 * reply. */
ctl_status read_frame(ctl_link* link, int64_t deadline, bool events) {
    ctl_state state;
    while ((state = ctl_reply_parse(&link->reply)) == CTL_MORE) {
        size_t size;
        char* room = ctl_reply_room(&link->reply, &size);
        if (room == nullptr) {
            return complain_broken(link);
        }
        const ssize_t got = ctl_net_read(link->fd, room, size, deadline, events);
        if (got == -EPIPE && events) {
            return CTL_OUTPUT;
        }
        /* A daemon that closes with bytes of ours unread resets the connection. */
        if (got == 0 || got == -ECONNRESET) {
            return complain_closed(link);
        }
        if (got < 0) {
            return complain_read(link, static_cast<int>(-got));
        }
        ctl_reply_added(&link->reply, static_cast<size_t>(got));
    }
    if (state == CTL_WHOLE && (link->reply.kind == '!') != events) {
        link->reply.broken = NOT_AWAITED;
        state = CTL_BROKEN;
    }
    return state == CTL_WHOLE ? CTL_DONE : complain_broken(link);
}

/* Most requests that are larger do arrive, so this is no reason not to send one. */
void warn_of_size(const ctl_link* link, size_t length) {
    if (link->address.any.sa_family == AF_UNIX && length > WHOLE_MAX) {
        fprintf(stderr,
                "tessctl: this request has %zu bytes; above 32 kB it may not arrive in one piece, "
                "and the daemon closes on the rest\n",
                length);
    }
}

ctl_status send_request(ctl_link* link, const char* request, size_t length, int64_t deadline) {
    if (link->fd < 0) {
        const int fd = ctl_net_connect(&link->address, length, deadline);
        if (fd < 0) {
            complain(link, "cannot reach the daemon: %s", strerror(-fd));
            return CTL_NO_REPLY;
        }
        link->fd = fd;
    }
    warn_of_size(link, length);
    const int error = ctl_net_send(link->fd, request, length, deadline);
    /* A daemon that has closed may have replied before; reading finds out. */
    if (error < 0 && error != -EPIPE && error != -ECONNRESET) {
        return complain_read(link, -error);
    }
    return CTL_DONE;
}

} // namespace

bool ctl_link_init(ctl_link* link, const char* text, int port, int wait_seconds) {
    *link = {};
    link->text = text;
    link->port = endpoint_is_path(text) ? 0 : port;
    link->wait_seconds = wait_seconds;
    link->fd = -1;
    ctl_reply_init(&link->reply);
    return endpoint_parse_peer(text, port, &link->address);
}

void ctl_link_close(ctl_link* link) {
    if (link->fd >= 0) {
        close(link->fd);
        link->fd = -1;
    }
    ctl_reply_free(&link->reply);
}

ctl_status ctl_link_ask(ctl_link* link, int count, const char* const* words) {
    size_t length;
    char* request = ctl_net_compose(count, words, &length);
    if (request == nullptr) {
        fputs("tessctl: out of memory\n", stderr);
        return CTL_NO_MEMORY;
    }
    const int64_t deadline = ctl_net_now() + static_cast<int64_t>(link->wait_seconds) * 1000;
    ctl_reply_next(&link->reply);
    const ctl_status sent = send_request(link, request, length, deadline);
    free(request);
    return sent == CTL_DONE ? read_frame(link, deadline, false) : sent;
}

ctl_status ctl_link_next_event(ctl_link* link) {
    ctl_reply_next(&link->reply);
    return read_frame(link, CTL_FOREVER, true);
}
