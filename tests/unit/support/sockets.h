#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "loop/endpoint.h"

namespace unit_test {

/* A folder of the test's own, removed with everything in it. */
struct folder {
    folder() : path(testing::TempDir() + "tessard-endpoint-XXXXXX") {
        EXPECT_NE(mkdtemp(path.data()), nullptr);
    }

    ~folder() {
        for (const std::string& file : files) {
            unlink(file.c_str());
        }
        rmdir(path.c_str());
    }

    folder(const folder&) = delete;
    folder& operator=(const folder&) = delete;

    /* A path in the folder, filled up with "x" to `length` bytes when that is given. */
    std::string file(const std::string& name, size_t length = 0) {
        std::string full = path + "/" + name;
        if (full.size() < length) {
            full.append(length - full.size(), 'x');
        }
        files.push_back(full);
        return full;
    }

    std::string path;
    std::vector<std::string> files;
};

/* A descriptor that is closed with the test. */
struct descriptor {
    explicit descriptor(int number) : fd(number) {}
    ~descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;

    int fd;
};

/* The number that the next descriptor of the process gets: what leaks, raises it. */
inline int next_descriptor() {
    const int fd = dup(STDOUT_FILENO);
    close(fd);
    return fd;
}

inline int port_of(int fd) {
    endpoint_address address = {};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(fd, &address.any, &size), 0);
    return ntohs(address.ipv4.sin_port);
}

inline bool is_nonblocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

inline bool is_close_on_exec(int fd) {
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

/* A port of 127.0.0.1 on which nothing listens, and nobody else will. */
struct closed_port {
    closed_port() : held(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        endpoint_address address;
        endpoint_parse("127.0.0.1", 0, &address);
        EXPECT_EQ(bind(held.fd, &address.any, endpoint_length(&address)), 0);
        number = port_of(held.fd);
    }

    descriptor held;
    int number;
};

/* While it stands, the process gets no new descriptors. */
struct no_descriptors {
    no_descriptors() {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        const rlimit none = {0, before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~no_descriptors() {
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    }
    no_descriptors(const no_descriptors&) = delete;
    no_descriptors& operator=(const no_descriptors&) = delete;

    rlimit before;
};

struct formatted {
    std::string text;
    int port;
};

inline formatted format(const endpoint_address& address) {
    char text[ENDPOINT_TEXT_SIZE];
    memset(text, '#', sizeof text);
    formatted result = {"", -1};
    endpoint_format(&address, text, &result.port);
    result.text = text;
    return result;
}

} // namespace unit_test
