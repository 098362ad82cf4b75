#pragma once

/* Connecting a stream from within the loop, which is not held up meanwhile. */

/* Called with the connected descriptor, which is non-blocking, close-on-exec and the callee's from
 * now on, and 0; or with -1 and an error number. */
typedef void (*connect_async_done)(int fd, int error, void* argument);

/* Connects to an address text as for endpoint_parse_peer. True when the address parsed, and the
 * callback is then called exactly once, perhaps before this returns; else false, with no call. A
 * connection that fails after it was begun is reported as EHOSTUNREACH, whatever the kernel says:
 * a readable event is taken for the failure and the cause is not asked for. A socket whose
 * descriptor is not below the loop's limit is reported as EMFILE. */
bool connect_async(const char* text, int port, connect_async_done done, void* argument);
