#pragma once

#include <setjmp.h>
#include <stdint.h>

#include "core/buffer.h"
#include "loop/loop.h"

/* Buffered, non-blocking streams: every accepted client, and the pipes of child processes.
 *
 * The layer above sees callbacks and three operations: send, flush and close. None of them returns
 * a failure. A write that fails deep inside a send jumps back (longjmp) to the innermost armed
 * operation on this connection, which closes it with a reason. Frames between that operation and
 * the write therefore hold nothing that needs a destructor.
 *
 * Life: open (fd >= 0, handler registered), closed (fd -1, the record still valid; sends are
 * dropped, a second close does nothing), destroyed at the end of the loop's pass (close callback,
 * then the record is freed). So a handler may close its connection and go on using the record until
 * it returns.
 *
 * Output: small frames are batched in `output` and written once per input event or above 4000
 * bytes; from 2000 bytes on a frame is written straight through; what the kernel refuses waits in
 * `pending` for the descriptor to become writable. While `pending` holds bytes, all new output goes
 * behind them. A frame is taken whole or the connection is closed. */

struct connection;
struct server;

enum connection_reason : int {
    CONNECTION_CLOSED = 0,       /* by the program */
    CONNECTION_READ_FAILED = 1,  /* or the input buffer is full */
    CONNECTION_WRITE_FAILED = 2, /* or the pending buffer is full */
    CONNECTION_SOCKET_ERROR = 3, /* reported by the backend */
    CONNECTION_PEER_CLOSED = 4   /* orderly end of stream */
};

/* The error number of a connection that was closed because a buffer is full. */
constexpr int CONNECTION_BUFFER_FULL = 79;

constexpr uint32_t CONNECTION_BUFFER_INITIAL = 4096;
constexpr uint32_t CONNECTION_INPUT_LIMIT = 1048576;
constexpr uint32_t CONNECTION_OUTPUT_LIMIT = 65536;
constexpr uint32_t CONNECTION_PENDING_LIMIT = 1048576;

/* New bytes stand in the connection's input buffer. */
typedef void (*connection_data_callback)(connection* c);

/* The connection is about to be destroyed; the last call with it. */
typedef void (*connection_close_callback)(connection* c, int reason);

/* Returns the next chunk of output and its length, or null when there is no more. The chunk stays
 * valid until the next call. */
typedef const char* (*connection_producer)(connection* c, uint32_t* length);

/* The connection is gone from the loop and about to be freed: who owns it forgets it. */
typedef void (*connection_leave_callback)(connection* c);

struct connection {
    int32_t fd; /* -1 once closed */
    buffer input;
    buffer output;
    server* owner; /* null when it belongs to no server, and then it is no socket */
    connection_data_callback conn_ondata;
    connection_close_callback on_close;
    connection_producer producer;
    int16_t error;   /* what caused the close: an errno, a socket error or CONNECTION_BUFFER_FULL */
    int16_t reason;  /* connection_reason */
    void* user_data; /* owned by the layer above */
    connection* prev; /* in the server's list */
    connection* next;
    buffer pending;
    jmp_buf* jump; /* innermost armed operation, null outside of one */
    loop_closing closing;
    connection_leave_callback leave; /* null without an owner */
};

/* Wraps a descriptor, which is non-blocking and close-on-exec, below the loop's limit and without
 * handler, and the connection's from now on. Watches it for input. The owner, which is the server's
 * affair (loop_add_connection in loop/server.h), is none yet. */
connection* connection_open(int fd);

/* Sends `length` bytes, which are copied or written before this returns. May close the connection;
 * a closed one drops the bytes. */
void connection_send(connection* c, const void* bytes, uint32_t length);

/* Returns the output buffer when a frame of at most `size` bytes would only be batched: below 2000
 * bytes, while nothing is pending and the batch stays within 4000. The caller composes the frame
 * there, or calls connection_fail_output when the heap has no room for it. That saves small replies
 * a copy and an armed operation, some 130 instructions. Null otherwise; the frame then goes
 * through connection_send. */
buffer* connection_batch(connection* c, uint32_t size);

/* Writes the batched output. May close the connection. */
void connection_flush(connection* c);

/* Closes with reason 0 after writing what is batched; a closed connection stays as it is. */
void connection_close(connection* c);

/* Closes because a frame could not be made whole: reason 2, error CONNECTION_BUFFER_FULL. */
void connection_fail_output(connection* c);
