#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

/* Addresses and sockets: one rule that turns a text and a port into a socket address, listening
 * sockets, outgoing connections and descriptor flags.
 *
 * Host names are not resolved: the daemon must never wait for a name server. Only the other side of
 * a connection may be the word "localhost". Every descriptor made here is close-on-exec and owned
 * by the caller.
 *
 * Nothing here logs. Failures are told in three ways: a truth is a bool; what hands out a number or
 * sets a flag returns a negative value; connecting, of which the caller may want the reason,
 * returns 0 or an error number. */

union endpoint_address {
    sockaddr any;
    sockaddr_un local;
    sockaddr_in ipv4;
    sockaddr_in6 ipv6;
};

/* The longest Unix path that is bound; a longer one is cut here. Connecting takes all 108 bytes of
 * the field.
 */
constexpr unsigned ENDPOINT_MAX_PATH = 107;

/* Room for an address as text, NUL included: any path or IPv6 address. */
constexpr unsigned ENDPOINT_TEXT_SIZE = 110;

/* True for an address text that means a Unix path: one that contains "/". */
bool endpoint_is_path(const char* text);

/* Text with "/": a Unix path (the port is ignored); with ":": an IPv6 address; else an IPv4
 * address. False when inet_pton rejects the text. */
bool endpoint_parse(const char* text, int port, endpoint_address* address);

/* The same for the other side of a connection: "localhost" in any case means 127.0.0.1. */
bool endpoint_parse_peer(const char* text, int port, endpoint_address* address);

/* Bytes of the address that bind and connect are given: 110, 28 or 16. */
socklen_t endpoint_length(const endpoint_address* address);

/* Writes the address as text (`text` holds ENDPOINT_TEXT_SIZE bytes) and its port in host order;
 * the port of a Unix path is 0. */
void endpoint_format(const endpoint_address* address, char* text, int* port);

/* Removes the socket file that listening on `text` would bind, cut in the same place. */
void endpoint_unlink(const char* text);

/* Listening, non-blocking sockets of the given type (SOCK_STREAM or SOCK_DGRAM). A Unix path is
 * unlinked first; SO_REUSEADDR is set; streams listen with a backlog of 128. */
int endpoint_listen(const char* text, int port, int type);
int endpoint_listen_stream(const char* text, int port);
int endpoint_listen_local(const char* path);
int endpoint_listen_datagram(const char* text, int port);

/* Outgoing connections. `*fd` is -1 on failure. `localhost` in any case means 127.0.0.1; TCP and
 * UDP take IPv4 only. A Unix listener whose queue is full is not waited for (EAGAIN), so that one
 * that never accepts cannot stop the daemon; the descriptor blocks as usual. With `non_blocking`,
 * EINPROGRESS is returned with a valid descriptor, and the caller waits for it to become writable.
 */
int endpoint_connect_local(const char* path, int* fd);
int endpoint_connect_tcp(const char* host, int port, bool non_blocking, int* fd);
int endpoint_connect_udp(const char* host, int port, int* fd);

/* Add a descriptor flag. Return what fcntl says. */
int endpoint_set_nonblocking(int fd);
int endpoint_set_cloexec(int fd);

/* How many bytes wait to be read. */
int endpoint_bytes_readable(int fd);

/* Whether a host of the log's host:port form is this machine. Always true: logs stay on the device.
 */
bool endpoint_is_local_host(const char* host);
