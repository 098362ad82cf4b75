#pragma once

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <string_view>

#include "core/buffer.h"
#include "loop/connection.h"
#include "loop/server.h"
#include "proto/client.h"
#include "proto/command.h"

namespace unit_test {

/* "!3\r\n$4\r\nMSET\r\n..." for a lead of '!'; a request for a lead of '*'. */
inline std::string frame(char lead, std::initializer_list<std::string_view> elements) {
    std::string bytes = lead + std::to_string(elements.size()) + "\r\n";
    for (const std::string_view element : elements) {
        bytes += "$" + std::to_string(element.size()) + "\r\n" + std::string(element) + "\r\n";
    }
    return bytes;
}

inline std::string event(std::initializer_list<std::string_view> elements) {
    return frame('!', elements);
}

/* A client at the other end of a socket pair. The test plays the loop: it delivers bytes, and it
 * destroys the connection as the end of a pass would. The loop must have been initialised. */
class test_client {
  public:
    test_client() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        peer = ends[1];
        conn = loop_add_connection(ends[0], owner());
        conn->conn_ondata = client_ondata;
        conn->on_close = client_onclose;
        /* The loop never runs here and must not be left with a record that the test destroys. */
        conn->closing.queued = true;
    }

    ~test_client() {
        disconnect();
        close(peer);
    }

    test_client(const test_client&) = delete;
    test_client& operator=(const test_client&) = delete;

    /* The client record, made now if it was not. */
    client* record() {
        return client_of(conn);
    }

    /* Delivers the bytes in one piece, as the connection's handler does, and returns what the
     * client then reads. */
    std::string deliver(std::string_view bytes) {
        buffer_append(&conn->input, bytes.data(), static_cast<uint32_t>(bytes.size()));
        client_ondata(conn);
        connection_flush(conn);
        return received();
    }

    std::string call(std::initializer_list<std::string_view> words) {
        return deliver(frame('*', words));
    }

    /* What has arrived and was not read yet. */
    std::string received() {
        std::string all;
        char chunk[65536];
        for (;;) {
            const ssize_t size = recv(peer, chunk, sizeof chunk, MSG_DONTWAIT);
            if (size <= 0) {
                return all;
            }
            all.append(chunk, static_cast<size_t>(size));
        }
    }

    /* True when the daemon has closed the connection. */
    bool is_closed() const {
        return conn == nullptr || conn->fd < 0;
    }

    /* Closes the connection, if it is open, and destroys it. */
    void disconnect() {
        if (conn != nullptr) {
            connection_close(conn);
            conn->closing.destroy(&conn->closing);
            conn = nullptr;
        }
    }

    connection* conn;

  private:
    /* Connections of clients belong to a server; this one never listens and never goes. */
    static server* owner() {
        static server listener = {-1, "", 0, nullptr, nullptr, nullptr, nullptr, nullptr, 1};
        return &listener;
    }

    int peer;
};

} // namespace unit_test
