#include "loop/connection.h"

#include <errno.h>
#include <stddef.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/pool.h"

namespace {

constexpr size_t READ_CHUNK = 512;
constexpr uint32_t WRITE_THROUGH_SIZE = 2000;
constexpr uint32_t FLUSH_ABOVE = 4000;

void close_with_reason(connection* c, int reason);

[[noreturn]] void raise_failure(connection* c, int error, int reason) {
    c->error = static_cast<int16_t>(error);
    longjmp(*c->jump, reason);
}

/* Runs `operation` with a jump target of its own, where a failure raised inside lands; the target
 * of the operation around it is current again afterwards. Returns the failure's reason, or 0. */
template <typename Operation> int catch_failure(connection* c, Operation operation) {
    jmp_buf* const outer = c->jump;
    jmp_buf here;
    c->jump = &here;
    const int reason = setjmp(here);
    if (reason == 0) {
        operation();
    }
    c->jump = outer;
    return reason;
}

/* The same, and a failure closes the connection. */
template <typename Operation> void run_armed(connection* c, Operation operation) {
    const int reason = catch_failure(c, operation);
    if (reason != 0) {
        close_with_reason(c, reason);
    }
}

/* Sockets take the cheaper call; the connections without a server are pipes. */
ssize_t read_some(const connection* c, void* bytes, size_t size) {
    return c->owner != nullptr ? recv(c->fd, bytes, size, 0) : read(c->fd, bytes, size);
}

ssize_t write_some(const connection* c, const void* bytes, size_t size) {
    return c->owner != nullptr ? send(c->fd, bytes, size, MSG_NOSIGNAL) : write(c->fd, bytes, size);
}

/* Writes as much as the kernel takes. Returns the number of bytes written, or -1 with errno set. */
ssize_t write_all_that_goes(const connection* c, const char* bytes, uint32_t length) {
    uint32_t done = 0;
    while (done < length) {
        const ssize_t written = write_some(c, bytes + done, length - done);
        if (written > 0) {
            done += static_cast<uint32_t>(written);
        } else if (written == 0 || errno == EAGAIN || errno == EWOULDBLOCK) {
            break;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<ssize_t>(done);
}

/* May jump. */
void queue_pending(connection* c, const char* bytes, uint32_t length) {
    if (buffer_append(&c->pending, bytes, length) < length) {
        raise_failure(c, CONNECTION_BUFFER_FULL, CONNECTION_WRITE_FAILED);
    }
}

/* Needs an armed target; may jump. */
void write_through(connection* c, const char* bytes, uint32_t length) {
    if (c->fd < 0) {
        return;
    }
    if (c->pending.length > 0) {
        /* Bytes must not overtake those that the kernel refused a moment ago. */
        queue_pending(c, bytes, length);
        return;
    }
    const ssize_t written = write_all_that_goes(c, bytes, length);
    if (written < 0) {
        raise_failure(c, errno, CONNECTION_WRITE_FAILED);
    }
    if (static_cast<uint32_t>(written) < length) {
        loop_modify_handler(c->fd, LOOP_WRITABLE, 0);
        queue_pending(c, bytes + written, length - static_cast<uint32_t>(written));
    }
}

/* Needs an armed target; may jump. */
void flush_output(connection* c) {
    if (c->output.length > 0) {
        write_through(c, c->output.data, c->output.length);
        buffer_reset(&c->output);
    }
}

/* Needs an armed target; may jump. */
void send_or_batch(connection* c, const char* bytes, uint32_t length) {
    if (length >= WRITE_THROUGH_SIZE) {
        flush_output(c);
        write_through(c, bytes, length);
        return;
    }
    if (buffer_append(&c->output, bytes, length) < length) {
        raise_failure(c, CONNECTION_BUFFER_FULL, CONNECTION_WRITE_FAILED);
    }
    if (c->output.length > FLUSH_ABOVE) {
        flush_output(c);
    }
}

/* Pulls output from the producer until the kernel refuses some, which the writable event resumes.
 * Needs an armed target; may jump. */
void run_producer(connection* c) {
    while (c->producer != nullptr && c->fd >= 0 && c->pending.length == 0) {
        uint32_t length = 0;
        const char* chunk = c->producer(c, &length);
        if (chunk == nullptr) {
            c->producer = nullptr;
            flush_output(c);
        } else {
            send_or_batch(c, chunk, length);
        }
    }
}

/* Reads until the kernel has no more. Returns whether anything came; jumps at the end of the
 * stream, on an error and when the input buffer is full. */
bool read_input(connection* c) {
    char chunk[READ_CHUNK];
    bool any = false;
    for (;;) {
        const ssize_t size = read_some(c, chunk, sizeof chunk);
        if (size > 0) {
            any = true;
            if (buffer_append(&c->input, chunk, static_cast<uint32_t>(size)) == 0) {
                raise_failure(c, CONNECTION_BUFFER_FULL, CONNECTION_READ_FAILED);
            }
        } else if (size == 0) {
            if (any) {
                /* The data is delivered first; the end of the stream is seen at the next event. */
                return true;
            }
            longjmp(*c->jump, CONNECTION_PEER_CLOSED);
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return any;
        } else if (errno != EINTR) {
            raise_failure(c, errno, CONNECTION_READ_FAILED);
        }
    }
}

void on_readable(connection* c) {
    if (!read_input(c) || c->conn_ondata == nullptr) {
        return;
    }
    c->conn_ondata(c);
    if (c->fd >= 0) {
        flush_output(c);
        run_producer(c);
    }
}

void on_writable(connection* c) {
    if (c->pending.length > 0) {
        const ssize_t written = write_all_that_goes(c, c->pending.data, c->pending.length);
        if (written < 0) {
            longjmp(*c->jump, CONNECTION_WRITE_FAILED);
        }
        buffer_consume(&c->pending, static_cast<uint32_t>(written));
        buffer_compact(&c->pending);
    }
    if (c->pending.length > 0) {
        return;
    }
    /* A client that was slow once must not hold a mebibyte for the rest of its life. */
    buffer_shrink_reset(&c->pending);
    run_producer(c);
    if (c->fd >= 0 && c->pending.length == 0) {
        loop_modify_handler(c->fd, 0, LOOP_WRITABLE);
    }
}

int16_t socket_error(int fd) {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) < 0 ? 0
                                                                   : static_cast<int16_t>(error);
}

void on_event(int fd, unsigned mask, void* argument) {
    connection* const c = static_cast<connection*>(argument);
    if ((mask & LOOP_ERROR) != 0) {
        c->error = socket_error(fd);
        close_with_reason(c, CONNECTION_SOCKET_ERROR);
    }
    if ((mask & LOOP_READABLE) != 0 && c->fd >= 0) {
        run_armed(c, [c] { on_readable(c); });
    }
    if ((mask & LOOP_WRITABLE) != 0 && c->fd >= 0) {
        run_armed(c, [c] { on_writable(c); });
    }
}

void destroy(loop_closing* closing) {
    connection* c = reinterpret_cast<connection*>(reinterpret_cast<char*>(closing) -
                                                  offsetof(connection, closing));
    if (c->on_close != nullptr) {
        c->on_close(c, c->reason);
        c->on_close = nullptr;
    }
    buffer_free(&c->input);
    buffer_free(&c->output);
    buffer_free(&c->pending);
    if (c->leave != nullptr) {
        c->leave(c);
    }
    pool_delete(c);
}

void close_with_reason(connection* c, int reason) {
    if (reason == CONNECTION_CLOSED && c->output.length > 0) {
        reason = catch_failure(c, [=] { flush_output(c); });
    }
    if (c->fd >= 0) {
        loop_remove_handler(c->fd);
        close(c->fd);
        c->fd = -1;
    }
    c->reason = static_cast<int16_t>(reason);
    loop_destroy_later(&c->closing);
}

} // namespace

connection* connection_open(int fd) {
    connection* c = pool_new<connection>();
    c->fd = fd;
    c->closing.destroy = destroy;
    buffer_init(&c->input, CONNECTION_BUFFER_INITIAL, CONNECTION_INPUT_LIMIT);
    buffer_init(&c->output, CONNECTION_BUFFER_INITIAL, CONNECTION_OUTPUT_LIMIT);
    buffer_init(&c->pending, CONNECTION_BUFFER_INITIAL, CONNECTION_PENDING_LIMIT);
    loop_add_handler(fd, LOOP_READABLE, on_event, c);
    return c;
}

void connection_send(connection* c, const void* bytes, uint32_t length) {
    if (c->fd < 0) {
        return;
    }
    run_armed(c, [=] {
        const char* start = static_cast<const char*>(bytes);
        if (c->pending.length > 0) {
            queue_pending(c, start, length);
        } else {
            send_or_batch(c, start, length);
        }
    });
}

buffer* connection_batch(connection* c, uint32_t size) {
    const bool fits = c->fd >= 0 && c->pending.length == 0 && size < WRITE_THROUGH_SIZE &&
                      c->output.length + size <= FLUSH_ABOVE;
    return fits ? &c->output : nullptr;
}

void connection_flush(connection* c) {
    if (c->output.length > 0) {
        run_armed(c, [=] { flush_output(c); });
    }
}

void connection_close(connection* c) {
    if (c->fd >= 0) {
        close_with_reason(c, CONNECTION_CLOSED);
    }
}

void connection_fail_output(connection* c) {
    if (c->fd >= 0) {
        c->error = CONNECTION_BUFFER_FULL;
        close_with_reason(c, CONNECTION_WRITE_FAILED);
    }
}
