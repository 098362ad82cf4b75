#include "loop/endpoint.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int BACKLOG = 128;

void copy_path(sockaddr_un* local, const char* path, size_t most) {
    local->sun_family = AF_UNIX;
    memcpy(local->sun_path, path, strnlen(path, most));
}

/* Closes a descriptor whose connect or bind failed and returns the error number of that failure. */
int give_up(int* fd) {
    const int error = errno;
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
    return error;
}

int connect_ipv4(const char* host, int port, int type, int* fd) {
    endpoint_address address;
    *fd = -1;
    if (!endpoint_parse_peer(host, port, &address) || address.any.sa_family != AF_INET) {
        return EINVAL;
    }
    *fd = socket(AF_INET, type, 0);
    if (*fd < 0 || connect(*fd, &address.any, sizeof address.ipv4) == 0) {
        return *fd < 0 ? give_up(fd) : 0;
    }
    return errno == EINPROGRESS ? EINPROGRESS : give_up(fd);
}

int add_flag(int fd, int get, int set, int flag) {
    const int flags = fcntl(fd, get);
    return flags < 0 ? flags : fcntl(fd, set, flags | flag);
}

} // namespace

bool endpoint_is_path(const char* text) {
    return strchr(text, '/') != nullptr;
}

bool endpoint_parse(const char* text, int port, endpoint_address* address) {
    *address = {};
    if (endpoint_is_path(text)) {
        copy_path(&address->local, text, ENDPOINT_MAX_PATH);
        return true;
    }
    const uint16_t network_port = htons(static_cast<uint16_t>(port));
    if (strchr(text, ':') != nullptr) {
        address->ipv6.sin6_family = AF_INET6;
        address->ipv6.sin6_port = network_port;
        return inet_pton(AF_INET6, text, &address->ipv6.sin6_addr) == 1;
    }
    address->ipv4.sin_family = AF_INET;
    address->ipv4.sin_port = network_port;
    return inet_pton(AF_INET, text, &address->ipv4.sin_addr) == 1;
}

bool endpoint_parse_peer(const char* text, int port, endpoint_address* address) {
    return endpoint_parse(strcasecmp(text, "localhost") == 0 ? "127.0.0.1" : text, port, address);
}

socklen_t endpoint_length(const endpoint_address* address) {
    switch (address->any.sa_family) {
    case AF_UNIX:
        return sizeof address->local;
    case AF_INET6:
        return sizeof address->ipv6;
    default:
        return sizeof address->ipv4;
    }
}

void endpoint_format(const endpoint_address* address, char* text, int* port) {
    text[0] = '\0';
    *port = 0;
    if (address->any.sa_family == AF_UNIX) {
        const size_t length = strnlen(address->local.sun_path, ENDPOINT_MAX_PATH);
        memcpy(text, address->local.sun_path, length);
        text[length] = '\0';
    } else if (address->any.sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &address->ipv6.sin6_addr, text, INET6_ADDRSTRLEN);
        *port = ntohs(address->ipv6.sin6_port);
    } else {
        inet_ntop(AF_INET, &address->ipv4.sin_addr, text, INET6_ADDRSTRLEN);
        *port = ntohs(address->ipv4.sin_port);
    }
}

void endpoint_unlink(const char* text) {
    char path[ENDPOINT_MAX_PATH + 1] = {};
    memcpy(path, text, strnlen(text, ENDPOINT_MAX_PATH));
    /* There is usually nothing to remove; a file that cannot be removed makes the bind fail. */
    (void)unlink(path);
}

int endpoint_listen(const char* text, int port, int type) {
    endpoint_address address;
    if (!endpoint_parse(text, port, &address)) {
        return -1;
    }
    if (address.any.sa_family == AF_UNIX) {
        endpoint_unlink(text);
    }
    int fd = socket(address.any.sa_family, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, &address.any, endpoint_length(&address)) < 0) {
        give_up(&fd);
        return -1;
    }
    (void)endpoint_set_nonblocking(fd);
    if (type == SOCK_STREAM && listen(fd, BACKLOG) < 0) {
        /* Another socket took the port between bind and listen: nothing could ever connect. */
        give_up(&fd);
    }
    return fd;
}

int endpoint_listen_stream(const char* text, int port) {
    return endpoint_listen(text, port, SOCK_STREAM);
}

int endpoint_listen_local(const char* path) {
    return endpoint_listen(path, 0, SOCK_STREAM);
}

int endpoint_listen_datagram(const char* text, int port) {
    return endpoint_listen(text, port, SOCK_DGRAM);
}

int endpoint_connect_local(const char* path, int* fd) {
    endpoint_address address = {};
    copy_path(&address.local, path, sizeof address.local.sun_path);
    *fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (*fd >= 0 && connect(*fd, &address.any, sizeof address.local) == 0 &&
        fcntl(*fd, F_SETFL, 0) == 0) {
        return 0;
    }
    return give_up(fd);
}

int endpoint_connect_tcp(const char* host, int port, bool non_blocking, int* fd) {
    const int type = SOCK_STREAM | SOCK_CLOEXEC | (non_blocking ? SOCK_NONBLOCK : 0);
    return connect_ipv4(host, port, type, fd);
}

int endpoint_connect_udp(const char* host, int port, int* fd) {
    return connect_ipv4(host, port, SOCK_DGRAM | SOCK_CLOEXEC, fd);
}

int endpoint_set_nonblocking(int fd) {
    return add_flag(fd, F_GETFL, F_SETFL, O_NONBLOCK);
}

int endpoint_set_cloexec(int fd) {
    return add_flag(fd, F_GETFD, F_SETFD, FD_CLOEXEC);
}

int endpoint_bytes_readable(int fd) {
    int count;
    return ioctl(fd, FIONREAD, &count) < 0 ? -1 : count;
}

bool endpoint_is_local_host(const char*) {
    return true;
}
