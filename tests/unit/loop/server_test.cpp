#include "loop/server.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "core/pool.h"
#include "loop/connection.h"
#include "loop/endpoint.h"
#include "loop/loop.h"
#include "tests/unit/support/test_clock.h"
#include "tests/unit/support/test_kernel.h"

namespace {

constexpr int LIMIT = 100;

int closes;
int closed_with;
std::vector<connection*> accepted;
std::vector<server*> overridden;

void take_input(connection* c) {
    buffer_reset(&c->input);
}

void take_other_input(connection* c) {
    buffer_reset(&c->input);
}

void note_close(connection*, int reason) {
    closes++;
    closed_with = reason;
}

void note_accept(connection* c) {
    /* The callbacks are copied before. */
    EXPECT_EQ(c->conn_ondata, take_input);
    EXPECT_EQ(c->on_close, note_close);
    accepted.push_back(c);
}

void note_override(server* s) {
    overridden.push_back(s);
}

void stop_at_pass_end(loop_closing*) {
    loop_stop();
}

struct server_test : testing::TestWithParam<loop_backend> {
    void SetUp() override {
        closes = 0;
        closed_with = -1;
        accepted.clear();
        overridden.clear();
        ASSERT_TRUE(loop_init(LIMIT, GetParam()));
        path = testing::TempDir() + "tessard-server-XXXXXX";
        const int fd = mkstemp(path.data());
        ASSERT_GE(fd, 0);
        close(fd);
    }

    void TearDown() override {
        loop_init(LIMIT, GetParam());
        for (const int fd : clients) {
            close(fd);
        }
        unlink(path.c_str());
    }

    server* open_server() {
        server* s = server_open(path.c_str(), 7);
        EXPECT_NE(s, nullptr);
        s->conn_ondata = take_input;
        s->on_close = note_close;
        return s;
    }

    /* A client's end of a new connection. */
    int connect_client() {
        int fd = -1;
        EXPECT_EQ(endpoint_connect_local(path.c_str(), &fd), 0);
        clients.push_back(fd);
        return fd;
    }

    /* Accepts one client, as the loop would. */
    connection* accept_client(server* s) {
        connect_client();
        cb_sserver(s->fd, LOOP_READABLE, s);
        return s->connections;
    }

    /* Runs one pass. Only one can be run in a test. */
    static void run_pass() {
        static loop_closing end;
        end = {nullptr, false, stop_at_pass_end};
        loop_destroy_later(&end);
        loop_run();
    }

    /* Runs so many passes, none of which waits, and calls `step` in each. */
    static void run_passes(int count, std::function<void(int pass)> step = {}) {
        struct passes {
            int fd;
            int count;
            int done;
            std::function<void(int)> step;
        } p = {eventfd(1, EFD_CLOEXEC), count, 0, std::move(step)};
        const auto on_pass = [](int, unsigned, void* argument) {
            passes* all = static_cast<passes*>(argument);
            if (all->step) {
                all->step(all->done);
            }
            if (++all->done == all->count) {
                loop_stop();
            }
        };
        loop_add_handler(p.fd, LOOP_READABLE, on_pass, &p);
        loop_run();
        loop_remove_handler(p.fd);
        close(p.fd);
    }

    /* Destroys all connections, as the end of a pass would, and frees the server. */
    static void finish(server* s) {
        for (connection* c = s->connections; c != nullptr; c = c->next) {
            connection_close(c);
        }
        while (s->connections != nullptr) {
            s->connections->closing.destroy(&s->connections->closing);
        }
        server_release(s);
    }

    std::string path;
    std::vector<int> clients;
};

bool is_at_end_of_stream(int client) {
    pollfd ready = {client, POLLIN, 0};
    char byte;
    return poll(&ready, 1, 2000) == 1 && recv(client, &byte, 1, MSG_DONTWAIT) == 0;
}

INSTANTIATE_TEST_SUITE_P(backends, server_test, testing::Values(LOOP_SELECT, LOOP_EPOLL),
                         [](const auto& backend) {
                             return backend.param == LOOP_EPOLL ? "epoll" : "select";
                         });

/* --- Opening --- */

TEST_P(server_test, is_new_with_its_address_and_one_reference) {
    server* s = server_open(path.c_str(), 7);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s->address, path.substr(0, 47).c_str());
    EXPECT_EQ(s->port, 7);
    EXPECT_EQ(s->connections, nullptr);
    EXPECT_EQ(s->conn_ondata, nullptr);
    EXPECT_EQ(s->on_close, nullptr);
    EXPECT_EQ(s->on_accept, nullptr);
    EXPECT_EQ(s->accept_override, nullptr);
    EXPECT_EQ(s->references, 1u);
    EXPECT_TRUE(loop_has_handler(s->fd));
    server_release(s);
}

TEST_P(server_test, listens_without_blocking_and_is_close_on_exec) {
    server* s = open_server();
    int listening = 0;
    socklen_t size = sizeof listening;
    EXPECT_EQ(getsockopt(s->fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size), 0);
    EXPECT_EQ(listening, 1);
    EXPECT_NE(fcntl(s->fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(s->fd, F_GETFD), FD_CLOEXEC);
    server_release(s);
}

TEST_P(server_test, listens_on_all_addresses_when_none_is_given) {
    server* s = server_open(nullptr, 0);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s->address, "0.0.0.0");
    sockaddr_in bound = {};
    socklen_t size = sizeof bound;
    ASSERT_EQ(getsockname(s->fd, reinterpret_cast<sockaddr*>(&bound), &size), 0);
    EXPECT_EQ(bound.sin_family, AF_INET);
    EXPECT_EQ(bound.sin_addr.s_addr, htonl(INADDR_ANY));
    server_release(s);
}

TEST_P(server_test, keeps_at_most_47_bytes_of_its_address_and_listens_on_all_of_it) {
    std::string folder = testing::TempDir() + "tessard-a-folder-with-a-name-of-some-length-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string full = folder + "/s";
    ASSERT_GT(full.size(), 48u);
    server* s = server_open(full.c_str(), 0);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(std::string(s->address), full.substr(0, 47));
    int client = -1;
    EXPECT_EQ(endpoint_connect_local(full.c_str(), &client), 0);
    close(client);
    server_release(s);
    unlink(full.c_str());
    rmdir(folder.c_str());
}

TEST_P(server_test, an_address_that_cannot_be_listened_on_gives_null) {
    EXPECT_EQ(server_open("localhost", 0), nullptr);
    EXPECT_EQ(server_open((path + "/below-a-file").c_str(), 0), nullptr);
}

TEST_P(server_test, a_descriptor_at_the_limit_gives_null_and_is_closed) {
    std::vector<int> taken;
    do {
        taken.push_back(dup(STDOUT_FILENO));
        ASSERT_GE(taken.back(), 0);
    } while (taken.back() < LIMIT - 1);
    EXPECT_EQ(server_open(path.c_str(), 0), nullptr);
    EXPECT_EQ(fcntl(LIMIT, F_GETFD), -1);
    for (const int fd : taken) {
        close(fd);
    }
}

/* --- Accepting --- */

TEST_P(server_test, an_accepted_connection_gets_its_callbacks_and_is_counted) {
    server* s = open_server();
    s->on_accept = note_accept;
    const connection* first = accept_client(s);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->owner, s);
    EXPECT_EQ(s->references, 2u);
    const connection* second = accept_client(s);
    EXPECT_EQ(second->next, first);
    EXPECT_EQ(s->references, 3u);
    ASSERT_EQ(accepted.size(), 2u);
    EXPECT_EQ(accepted[0], first);
    EXPECT_EQ(accepted[1], second);
    EXPECT_NE(fcntl(first->fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(first->fd, F_GETFD), FD_CLOEXEC);
    finish(s);
}

TEST_P(server_test, an_accepted_connection_never_blocks_even_when_no_flag_can_be_set) {
    server* s = open_server();
    connect_client();
    test_kernel::fcntl_failures = {EIO, EIO, EIO, EIO};
    cb_sserver(s->fd, LOOP_READABLE, s);
    test_kernel::fcntl_failures.clear();
    ASSERT_NE(s->connections, nullptr);
    EXPECT_NE(fcntl(s->connections->fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(s->connections->fd, F_GETFD), FD_CLOEXEC);
    finish(s);
}

TEST_P(server_test, the_accept_callback_is_optional) {
    server* s = open_server();
    const connection* c = accept_client(s);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->conn_ondata, take_input);
    EXPECT_EQ(c->on_close, note_close);
    finish(s);
}

TEST_P(server_test, callbacks_are_those_of_the_time_of_acceptance) {
    server* s = open_server();
    const connection* c = accept_client(s);
    s->conn_ondata = take_other_input;
    s->on_close = nullptr;
    EXPECT_EQ(c->conn_ondata, take_input);
    EXPECT_EQ(c->on_close, note_close);
    const connection* next = accept_client(s);
    EXPECT_EQ(next->conn_ondata, take_other_input);
    EXPECT_EQ(next->on_close, nullptr);
    finish(s);
}

TEST_P(server_test, one_connection_is_accepted_for_each_readiness) {
    server* s = open_server();
    connect_client();
    connect_client();
    connect_client();
    run_pass();
    EXPECT_EQ(s->references, 2u);
    cb_sserver(s->fd, LOOP_READABLE, s);
    EXPECT_EQ(s->references, 3u);
    cb_sserver(s->fd, LOOP_READABLE, s);
    EXPECT_EQ(s->references, 4u);
    finish(s);
}

TEST_P(server_test, acts_on_readability_alone) {
    server* s = open_server();
    s->accept_override = note_override;
    connect_client();
    cb_sserver(s->fd, LOOP_WRITABLE, s);
    cb_sserver(s->fd, LOOP_ERROR, s);
    cb_sserver(s->fd, 0, s);
    EXPECT_EQ(overridden.size(), 0u);
    s->accept_override = nullptr;
    s->conn_ondata = nullptr; /* nor does it abort */
    cb_sserver(s->fd, LOOP_WRITABLE | LOOP_ERROR, s);
    EXPECT_EQ(s->references, 1u);
    server_release(s);
}

TEST_P(server_test, a_readiness_that_nobody_is_behind_is_ignored) {
    server* s = open_server();
    s->on_accept = note_accept;
    cb_sserver(s->fd, LOOP_READABLE, s);
    EXPECT_EQ(s->references, 1u);
    EXPECT_EQ(s->connections, nullptr);
    EXPECT_EQ(accepted.size(), 0u);
    server_release(s);
}

TEST_P(server_test, a_client_that_finds_no_descriptor_left_waits_for_one) {
    server* s = open_server();
    s->on_accept = note_accept;
    connect_client();
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    cb_sserver(s->fd, LOOP_READABLE, s);
    const uint32_t references = s->references;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(references, 1u);
    EXPECT_EQ(accepted.size(), 0u);
    EXPECT_TRUE(loop_has_handler(s->fd));
    cb_sserver(s->fd, LOOP_READABLE, s);
    EXPECT_EQ(accepted.size(), 1u);
    EXPECT_EQ(s->references, 2u);
    finish(s);
}

/* Time stands still but for what the test lets pass, so a pause that is made does not end. */
TEST_P(server_test,
       is_not_asked_again_for_a_tenth_of_a_second_when_there_is_nothing_to_accept_with) {
    for (const int error : {EMFILE, ENFILE, ENOMEM, ENOBUFS, EPERM}) {
        SCOPED_TRACE(error);
        const test_clock::frozen clock(1000);
        loop_init(LIMIT, GetParam());
        server* s = open_server();
        connect_client();
        test_kernel::accept_failures = std::deque<int>(10, error);
        run_passes(20, [&](int pass) {
            if (pass == 19) {
                EXPECT_EQ(test_kernel::accept_failures.size(), 9u);
                test_kernel::accept_failures.clear();
                test_clock::set(1000, 99000);
            }
        });
        EXPECT_EQ(s->references, 1u);
        EXPECT_TRUE(loop_has_handler(s->fd));
        finish(s);
        unlink(path.c_str());
    }
}

TEST_P(server_test, is_asked_again_when_a_tenth_of_a_second_has_passed) {
    const test_clock::frozen clock(1000);
    loop_init(LIMIT, GetParam());
    server* s = open_server();
    connect_client();
    test_kernel::accept_failures = {EMFILE, EMFILE};
    run_passes(20, [&](int pass) {
        if (pass == 5 || pass == 10) {
            EXPECT_EQ(s->references, 1u);
            test_clock::set(1000, pass * 20000);
        }
    });
    EXPECT_EQ(test_kernel::accept_failures.size(), 0u);
    EXPECT_EQ(s->references, 2u);
    finish(s);
}

TEST_P(server_test, is_asked_again_at_once_when_a_client_went_or_a_signal_came) {
    for (const int error : {ECONNABORTED, EINTR, EAGAIN}) {
        SCOPED_TRACE(error);
        const test_clock::frozen clock(1000);
        loop_init(LIMIT, GetParam());
        server* s = open_server();
        connect_client();
        test_kernel::accept_failures = {error};
        run_passes(3);
        EXPECT_EQ(s->references, 2u);
        finish(s);
        unlink(path.c_str());
    }
}

TEST_P(server_test, may_be_released_while_it_waits_for_a_descriptor) {
    const test_clock::frozen clock(1000);
    loop_init(LIMIT, GetParam());
    server* s = open_server();
    connect_client();
    test_kernel::accept_failures = {EMFILE};
    run_passes(5, [&](int pass) {
        if (pass == 3) {
            EXPECT_EQ(test_kernel::accept_failures.size(), 0u);
            server_release(s);
            test_clock::set(1001);
        }
    });
}

TEST_P(server_test, accepting_without_data_callback_aborts) {
    server* s = server_open(path.c_str(), 0);
    ASSERT_NE(s, nullptr);
    connect_client();
    EXPECT_EXIT(cb_sserver(s->fd, LOOP_READABLE, s), testing::KilledBySignal(SIGABRT),
                "loop:551: .*Assertion `s->conn_ondata != \\(\\(void \\*\\)0\\)' failed");
    server_release(s);
}

TEST_P(server_test, the_override_is_called_instead_of_accepting) {
    server* s = server_open(path.c_str(), 0); /* without data callback, which is not looked at */
    ASSERT_NE(s, nullptr);
    s->accept_override = note_override;
    connect_client();
    run_pass();
    ASSERT_EQ(overridden.size(), 1u);
    EXPECT_EQ(overridden[0], s);
    EXPECT_EQ(s->connections, nullptr);
    const int fd = accept(s->fd, nullptr, nullptr);
    EXPECT_GE(fd, 0); /* the client still waits */
    close(fd);
    server_release(s);
}

TEST_P(server_test, a_client_whose_descriptor_is_not_below_the_limit_is_closed) {
    server* s = open_server();
    s->on_accept = note_accept;
    const int client = connect_client();
    std::vector<int> taken;
    do {
        taken.push_back(dup(STDOUT_FILENO));
        ASSERT_GE(taken.back(), 0);
    } while (taken.back() < LIMIT - 1);
    cb_sserver(s->fd, LOOP_READABLE, s);
    for (const int fd : taken) {
        close(fd);
    }
    EXPECT_EQ(s->references, 1u);
    EXPECT_EQ(s->connections, nullptr);
    EXPECT_EQ(accepted.size(), 0u);
    EXPECT_TRUE(is_at_end_of_stream(client));
    server_release(s);
}

TEST_P(server_test, a_client_whose_descriptor_is_the_last_below_the_limit_is_served) {
    server* s = open_server();
    connect_client();
    std::vector<int> taken;
    do {
        taken.push_back(dup(STDOUT_FILENO));
        ASSERT_GE(taken.back(), 0);
    } while (taken.back() < LIMIT - 2);
    cb_sserver(s->fd, LOOP_READABLE, s);
    for (const int fd : taken) {
        close(fd);
    }
    ASSERT_NE(s->connections, nullptr);
    EXPECT_EQ(s->connections->fd, LIMIT - 1);
    finish(s);
}

/* --- Releasing --- */

TEST_P(server_test, release_stops_listening) {
    server* s = open_server();
    const int fd = s->fd;
    server_release(s);
    EXPECT_FALSE(loop_has_handler(fd));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    int client = -1;
    EXPECT_EQ(endpoint_connect_local(path.c_str(), &client), ECONNREFUSED);
}

TEST_P(server_test, release_without_connections_frees_the_record) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "every block is an allocation of its own here, and is not handed out again";
#endif
    server* s = open_server();
    server_release(s);
    void* block = pool_alloc(sizeof(server));
    EXPECT_EQ(block, s); /* the block freed last is handed out first */
    pool_free(block, sizeof(server));
}

TEST_P(server_test, outlives_its_release_until_its_last_connection_is_destroyed) {
    server* s = open_server();
    connection* first = accept_client(s);
    connection* second = accept_client(s);
    server_release(s);
    EXPECT_EQ(s->fd, -1);
    EXPECT_EQ(s->references, 2u);
    EXPECT_EQ(s->connections, second);
    connection_send(first, "still here", 10);
    connection_flush(first);
    char bytes[16];
    EXPECT_EQ(recv(clients[0], bytes, sizeof bytes, MSG_DONTWAIT), 10);
    connection_close(first);
    connection_close(second);
    EXPECT_EQ(s->references, 2u); /* closed, but not destroyed before the end of the pass */
    run_pass();
    EXPECT_EQ(closes, 2);
    EXPECT_EQ(closed_with, 0);
}

TEST_P(server_test, is_freed_by_the_last_connection) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "every block is an allocation of its own here, and is not handed out again";
#endif
    server* s = open_server();
    connection_close(accept_client(s));
    server_release(s);
    run_pass();
    std::vector<void*> blocks;
    for (int i = 0; i < 3; i++) {
        blocks.push_back(pool_alloc(sizeof(server)));
    }
    EXPECT_TRUE(blocks[0] == s || blocks[1] == s || blocks[2] == s);
    for (void* block : blocks) {
        pool_free(block, sizeof(server));
    }
}

TEST_P(server_test, may_be_released_from_a_close_callback) {
    static server* released;
    released = open_server();
    released->on_close = [](connection*, int) {
        closes++;
        server_release(released);
        EXPECT_EQ(released->references, 1u);
    };
    connection_close(accept_client(released));
    run_pass();
    EXPECT_EQ(closes, 1);
}

} // namespace
