#include "loop/connect_async.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "loop/connection.h"
#include "loop/endpoint.h"
#include "loop/loop.h"
#include "loop/server.h"
#include "tests/unit/support/sockets.h"
#include "tests/unit/support/test_kernel.h"

using namespace unit_test;

namespace {

constexpr int LIMIT = 100;

struct outcome {
    int calls;
    int fd;
    int error;
};

void on_connected(int fd, int error, void* argument) {
    outcome* o = static_cast<outcome*>(argument);
    o->calls++;
    o->fd = fd;
    o->error = error;
    loop_stop();
}

int stop_the_loop(void*) {
    loop_stop();
    return 1;
}

struct connect_async_test : testing::TestWithParam<loop_backend> {
    void SetUp() override {
        ASSERT_TRUE(loop_init(LIMIT, GetParam()));
    }

    /* Runs until the callback was called, at most some seconds. */
    void run() {
        loop_add_timer(10000, stop_the_loop, nullptr);
        loop_run();
    }

    outcome result = {0, -7, -7};
};

INSTANTIATE_TEST_SUITE_P(backends, connect_async_test, testing::Values(LOOP_SELECT, LOOP_EPOLL),
                         [](const auto& backend) {
                             return backend.param == LOOP_EPOLL ? "epoll" : "select";
                         });

TEST_P(connect_async_test, an_address_that_does_not_parse_gives_zero_and_no_call) {
    EXPECT_FALSE(connect_async("example.org", 80, on_connected, &result));
    EXPECT_EQ(result.calls, 0);
}

TEST_P(connect_async_test, an_immediate_success_is_reported_at_once) {
    folder there;
    const std::string path = there.file("s");
    const descriptor listener(endpoint_listen_local(path.c_str()));
    EXPECT_TRUE(connect_async(path.c_str(), 0, on_connected, &result));
    const descriptor connected(result.fd);
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.error, 0);
    ASSERT_GE(result.fd, 0);
    EXPECT_TRUE(is_nonblocking(result.fd));
    EXPECT_TRUE(is_close_on_exec(result.fd));
    EXPECT_FALSE(loop_has_handler(result.fd));
}

TEST_P(connect_async_test, an_immediate_failure_is_reported_at_once_with_its_error_number) {
    folder there;
    const int before = next_descriptor();
    EXPECT_TRUE(connect_async(there.file("s").c_str(), 0, on_connected, &result));
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, ENOENT);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_P(connect_async_test, without_a_socket_the_reason_is_reported_at_once) {
    {
        const no_descriptors none;
        EXPECT_TRUE(connect_async("127.0.0.1", 80, on_connected, &result));
    }
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, EMFILE);
}

TEST_P(connect_async_test, a_connection_is_reported_when_it_becomes_writable) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    EXPECT_TRUE(connect_async("127.0.0.1", port_of(listener.fd), on_connected, &result));
    EXPECT_EQ(result.calls, 0);
    run();
    const descriptor connected(result.fd);
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.error, 0);
    ASSERT_GE(result.fd, 0);
    EXPECT_FALSE(loop_has_handler(result.fd));
    EXPECT_EQ(send(result.fd, "x", 1, MSG_NOSIGNAL), 1);
}

TEST_P(connect_async_test, localhost_in_any_case_means_the_loopback_address) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    EXPECT_TRUE(connect_async("LocalHost", port_of(listener.fd), on_connected, &result));
    run();
    const descriptor connected(result.fd);
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.error, 0);
    endpoint_address peer = {};
    socklen_t size = sizeof peer;
    ASSERT_EQ(getpeername(result.fd, &peer.any, &size), 0);
    EXPECT_EQ(format(peer).text, "127.0.0.1");
    EXPECT_EQ(format(peer).port, port_of(listener.fd));
}

TEST_P(connect_async_test, an_i_pv_6_address_is_connected) {
    const descriptor listener(endpoint_listen_stream("::1", 0));
    if (listener.fd < 0) {
        GTEST_SKIP() << "this machine has no IPv6 loopback address";
    }
    endpoint_address bound = {};
    socklen_t size = sizeof bound;
    ASSERT_EQ(getsockname(listener.fd, &bound.any, &size), 0);
    EXPECT_TRUE(connect_async("::1", format(bound).port, on_connected, &result));
    run();
    const descriptor connected(result.fd);
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.error, 0);
    endpoint_address peer = {};
    size = sizeof peer;
    ASSERT_EQ(getpeername(result.fd, &peer.any, &size), 0);
    EXPECT_EQ(format(peer).text, "::1");
    EXPECT_EQ(format(peer).port, format(bound).port);
}

TEST_P(connect_async_test, a_descriptor_at_the_limit_is_closed_and_reported_as_too_many) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    const int port = port_of(listener.fd);
    std::vector<int> taken;
    do {
        taken.push_back(dup(STDOUT_FILENO));
        ASSERT_GE(taken.back(), 0);
    } while (taken.back() < LIMIT - 1);
    EXPECT_TRUE(connect_async("127.0.0.1", port, on_connected, &result));
    EXPECT_EQ(next_descriptor(), LIMIT);
    for (const int fd : taken) {
        close(fd);
    }
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, EMFILE);
}

TEST_P(connect_async_test, a_closed_local_port_is_reported_as_unreachable) {
    const closed_port port;
    const int fd = next_descriptor();
    EXPECT_TRUE(connect_async("127.0.0.1", port.number, on_connected, &result));
    EXPECT_EQ(result.calls, 0);
    run();
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, EHOSTUNREACH);
    EXPECT_FALSE(loop_has_handler(fd));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_P(connect_async_test, the_callback_may_make_a_connection_of_the_descriptor) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    static connection* made;
    made = nullptr;
    const auto make_connection = [](int fd, int, void*) {
        made = loop_add_connection(fd, nullptr);
        loop_stop();
    };
    EXPECT_TRUE(connect_async("127.0.0.1", port_of(listener.fd), make_connection, nullptr));
    run();
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(loop_has_handler(made->fd));
    /* The loop runs no more, so it must not be left with the record. */
    made->closing.queued = true;
    connection_close(made);
    made->closing.destroy(&made->closing);
}

/* The next attempt has the number of the descriptor that failed. */
TEST_P(connect_async_test, the_callback_of_a_failure_may_try_again_at_once) {
    const closed_port port;
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    struct attempts {
        int next_port;
        outcome second;
    } all = {port_of(listener.fd), result};
    const auto try_again = [](int, int error, void* argument) {
        EXPECT_EQ(error, EHOSTUNREACH);
        attempts* a = static_cast<attempts*>(argument);
        EXPECT_TRUE(connect_async("127.0.0.1", a->next_port, on_connected, &a->second));
    };
    EXPECT_TRUE(connect_async("127.0.0.1", port.number, try_again, &all));
    run();
    const descriptor connected(all.second.fd);
    EXPECT_EQ(all.second.calls, 1);
    EXPECT_EQ(all.second.error, 0);
}

TEST_P(connect_async_test,
       a_readable_event_is_taken_for_a_failure_even_when_the_peer_only_spoke_first) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    const int fd = next_descriptor();
    EXPECT_TRUE(connect_async("127.0.0.1", port_of(listener.fd), on_connected, &result));
    endpoint_set_nonblocking(listener.fd);
    int client = -1;
    for (int i = 0; i < 10000 && client < 0; i++) {
        client = accept(listener.fd, nullptr, nullptr);
        usleep(client < 0 ? 1000 : 0);
    }
    const descriptor accepted(client);
    ASSERT_EQ(send(client, "welcome", 7, MSG_NOSIGNAL), 7);
    for (int i = 0; i < 10000 && endpoint_bytes_readable(fd) < 7; i++) {
        usleep(1000);
    }
    run();
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, EHOSTUNREACH);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

/* Only epoll reports errors. */
TEST(connect_async_by_epoll_test, an_error_event_alone_is_a_failure_too) {
    ASSERT_TRUE(loop_init(LIMIT, LOOP_EPOLL));
    outcome result = {0, -7, -7};
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    const int fd = next_descriptor();
    EXPECT_TRUE(connect_async("127.0.0.1", port_of(listener.fd), on_connected, &result));
    ASSERT_TRUE(loop_has_handler(fd));
    test_kernel::epoll_answers = {{{EPOLLERR, {.fd = fd}}}};
    loop_add_timer(10000, stop_the_loop, nullptr);
    loop_run();
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, EHOSTUNREACH);
    EXPECT_FALSE(loop_has_handler(fd));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

} // namespace
