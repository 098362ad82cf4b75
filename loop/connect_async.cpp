#include "loop/connect_async.h"

#include <errno.h>
#include <unistd.h>

#include "core/pool.h"
#include "loop/endpoint.h"
#include "loop/loop.h"

namespace {

/* What a connection in the making needs when its first event comes. */
struct connecting {
    connect_async_done done;
    void* argument;
};

void on_connecting(int fd, unsigned mask, void* argument) {
    connecting* record = static_cast<connecting*>(argument);
    const connecting pending = *record;
    pool_delete(record);
    loop_remove_handler(fd);
    /* An error event alone, which epoll may give, is a failure too: nobody else would close the
     * socket. */
    const bool failed = (mask & LOOP_READABLE) != 0 || (mask & LOOP_WRITABLE) == 0;
    if (failed) {
        close(fd);
    }
    pending.done(failed ? -1 : fd, failed ? EHOSTUNREACH : 0, pending.argument);
}

/* Begins the connection. Returns 0 when it stands already, EINPROGRESS when it is in the making,
 * else the error number of the failure. */
int begin(int fd, const endpoint_address* address) {
    if (fd >= loop_maxfd()) {
        return EMFILE;
    }
    return fd >= 0 && connect(fd, &address->any, endpoint_length(address)) == 0 ? 0 : errno;
}

} // namespace

bool connect_async(const char* text, int port, connect_async_done done, void* argument) {
    endpoint_address address;
    if (!endpoint_parse_peer(text, port, &address)) {
        return false;
    }
    const int fd = socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int error = begin(fd, &address);
    if (error == EINPROGRESS) {
        connecting* record = pool_new<connecting>();
        *record = {done, argument};
        loop_add_handler(fd, LOOP_READABLE | LOOP_WRITABLE, on_connecting, record);
        return true;
    }
    if (error != 0 && fd >= 0) {
        close(fd);
    }
    done(error == 0 ? fd : -1, error, argument);
    return true;
}
