#include "tests/system/support/resp_client.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

namespace system_test {

std::string request_frame(const std::vector<std::string>& words) {
    std::string frame = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string& word : words) {
        frame += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    }
    return frame;
}

static int connect_to(const sockaddr* address, socklen_t length) {
    int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    /* The limit also holds for connect(), which waits while the daemon's queue of new connections
     * is full. */
    timeval limit = {LIMIT_MS / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (connect(fd, address, length) == 0) {
        return fd;
    }
    int reason = errno;
    close(fd);
    errno = reason;
    return -1;
}

resp_client::resp_client(const std::string& address, int port) {
    if (address.find('/') != std::string::npos) {
        sockaddr_un path = {};
        path.sun_family = AF_UNIX;
        memcpy(path.sun_path, address.data(), std::min(address.size(), sizeof path.sun_path - 1));
        fd = connect_to(reinterpret_cast<sockaddr*>(&path), sizeof path);
    } else if (address.find(':') != std::string::npos) {
        sockaddr_in6 host = {};
        host.sin6_family = AF_INET6;
        host.sin6_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET6, address.c_str(), &host.sin6_addr);
        fd = connect_to(reinterpret_cast<sockaddr*>(&host), sizeof host);
    } else {
        sockaddr_in host = {};
        host.sin_family = AF_INET;
        host.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, address.c_str(), &host.sin_addr);
        fd = connect_to(reinterpret_cast<sockaddr*>(&host), sizeof host);
    }
}

resp_client::~resp_client() {
    close();
}

resp_client::resp_client(resp_client&& other) noexcept
    : fd(other.fd), unread(std::move(other.unread)) {
    other.fd = -1;
}

resp_client& resp_client::operator=(resp_client&& other) noexcept {
    std::swap(fd, other.fd);
    std::swap(unread, other.unread);
    return *this;
}

bool resp_client::send(const std::string& bytes) {
    sockaddr_storage own = {};
    socklen_t length = sizeof own;
    if (bytes.size() > ONE_PIECE &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) == 0 &&
        own.ss_family == AF_UNIX) {
        ADD_FAILURE() << bytes.size() << " bytes may come apart on a Unix socket";
    }
    return send_in_pieces(bytes);
}

bool resp_client::send_in_pieces(const std::string& bytes) {
    ssize_t sent;
    do {
        sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(bytes.size());
}

/* Waits for one more piece and puts it behind the unread bytes. */
resp_client::more resp_client::receive(int limit_ms) {
    if (fd < 0) {
        return more::closed;
    }
    pollfd wait = {fd, POLLIN, 0};
    if (poll(&wait, 1, limit_ms < 0 ? 0 : limit_ms) <= 0) {
        return more::nothing;
    }
    char chunk[65536];
    ssize_t got = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
        return more::nothing;
    }
    if (got <= 0) {
        return more::closed;
    }
    unread.append(chunk, static_cast<size_t>(got));
    return more::bytes;
}

std::string resp_client::take(size_t count) {
    std::string taken = unread.substr(0, count);
    unread.erase(0, count);
    return taken;
}

/* The length of the frame that starts there: 0 while it is not whole, -1 when it is no frame at
 * all. */
long resp_client::whole_frame(size_t start) const {
    size_t line_end = unread.find("\r\n", start);
    if (line_end == std::string::npos) {
        return 0;
    }
    long length = static_cast<long>(line_end + 2 - start);
    long number = atol(unread.c_str() + start + 1);
    switch (unread[start]) {
    case '+':
    case '-':
    case ':':
        return length;
    case '$':
        if (number >= 0) {
            length += number + 2;
        }
        return unread.size() - start >= static_cast<size_t>(length) ? length : 0;
    case '*':
    case '!':
        for (long element = 0; element < number; element++) {
            size_t at = start + static_cast<size_t>(length);
            long part = at < unread.size() ? whole_frame(at) : 0;
            if (part <= 0) {
                return part;
            }
            length += part;
        }
        return length;
    default:
        return -1;
    }
}

std::string resp_client::frame(int limit_ms) {
    long end = now_ms() + limit_ms;
    for (;;) {
        long length = unread.empty() ? 0 : whole_frame(0);
        if (length > 0) {
            return take(static_cast<size_t>(length));
        }
        if (length < 0) {
            return take(unread.size()) + "<no frame>";
        }
        more result = receive(static_cast<int>(end - now_ms()));
        if (result == more::closed) {
            return take(unread.size()) + "<closed>";
        }
        if (result == more::nothing && now_ms() >= end) {
            return take(unread.size()) + "<nothing came>";
        }
    }
}

std::string resp_client::call(const std::vector<std::string>& words, int limit_ms) {
    if (!send(request_frame(words))) {
        return take(unread.size()) + "<closed>";
    }
    return frame(limit_ms);
}

std::string resp_client::bytes(size_t count, int limit_ms) {
    long end = now_ms() + limit_ms;
    while (unread.size() < count) {
        more result = receive(static_cast<int>(end - now_ms()));
        if (result == more::closed) {
            return take(unread.size()) + "<closed>";
        }
        if (result == more::nothing && now_ms() >= end) {
            return take(unread.size()) + "<nothing came>";
        }
    }
    return take(count);
}

std::string resp_client::until_closed(int limit_ms) {
    long end = now_ms() + limit_ms;
    for (;;) {
        more result = receive(static_cast<int>(end - now_ms()));
        if (result == more::closed) {
            return take(unread.size());
        }
        if (result == more::nothing && now_ms() >= end) {
            return take(unread.size()) + "<still open>";
        }
    }
}

std::string resp_client::during(int ms) {
    long end = now_ms() + ms;
    for (;;) {
        more result = receive(static_cast<int>(end - now_ms()));
        if (result == more::closed) {
            return take(unread.size()) + "<closed>";
        }
        if (now_ms() >= end) {
            return take(unread.size());
        }
    }
}

bool resp_client::hung_up() const {
    pollfd wait = {fd, POLLRDHUP, 0};
    return fd < 0 ||
           (poll(&wait, 1, 0) > 0 && (wait.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0);
}

void resp_client::end_sending() {
    shutdown(fd, SHUT_WR);
}

void resp_client::close() {
    if (fd >= 0) {
        ::close(fd);
    }
    fd = -1;
}

bool resp_client::hold_unread(int count) {
    /* Twice as much again, since the kernel counts its own bookkeeping against the limit. */
    int size = count * 3;
    return setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) == 0;
}

} // namespace system_test
