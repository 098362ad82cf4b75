#include "loop/datagram.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "loop/endpoint.h"
#include "loop/loop.h"
#include "tests/unit/support/test_kernel.h"

namespace {

constexpr int LIMIT = 100;

/* What the callback was given, and what it does with it. */
std::vector<std::string> requests;
std::function<void(datagram_server* s, buffer* reply)> on_request;

void take_request(datagram_server* s, buffer* request, buffer* reply) {
    EXPECT_EQ(request, loop_request_scratch());
    EXPECT_EQ(reply, loop_reply_scratch());
    EXPECT_EQ(reply->length, 0u);
    requests.emplace_back(request->data, request->length);
    if (on_request) {
        on_request(s, reply);
    }
}

void answer(buffer* reply, const std::string& bytes) {
    buffer_append(reply, bytes.data(), static_cast<uint32_t>(bytes.size()));
}

/* What happens once, between the question for the waiting bytes and the call that takes them. */
std::function<void()> meanwhile;

int stop_the_loop(void*) {
    loop_stop();
    return 1;
}

} // namespace

/* Defined in the program, it takes precedence over the C library's. */
extern "C" ssize_t recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from,
                            socklen_t* length) {
    if (meanwhile) {
        std::exchange(meanwhile, {})();
    }
    return syscall(SYS_recvfrom, fd, bytes, size, flags, from, length);
}

namespace {

struct datagram_test : testing::TestWithParam<loop_backend> {
    void SetUp() override {
        requests.clear();
        on_request = {};
        meanwhile = {};
        ASSERT_TRUE(loop_init(LIMIT, GetParam()));
        s = datagram_open("127.0.0.1", 0, take_request);
        ASSERT_NE(s, nullptr);
        sockaddr_in bound = {};
        socklen_t size = sizeof bound;
        ASSERT_EQ(getsockname(s->fd, reinterpret_cast<sockaddr*>(&bound), &size), 0);
        port = ntohs(bound.sin_port);
        client = connect_client();
    }

    void TearDown() override {
        if (s != nullptr) {
            datagram_release(s);
        }
        for (const int fd : clients) {
            close(fd);
        }
        on_request = {};
    }

    int connect_client() {
        int fd = -1;
        EXPECT_EQ(endpoint_connect_udp("127.0.0.1", port, &fd), 0);
        clients.push_back(fd);
        return fd;
    }

    /* A client that takes datagrams from anybody. */
    int unconnected_client() {
        clients.push_back(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        return clients.back();
    }

    void send_to_server(int fd, const std::string& bytes) const {
        endpoint_address address;
        endpoint_parse("127.0.0.1", port, &address);
        ASSERT_EQ(sendto(fd, bytes.data(), bytes.size(), 0, &address.any, sizeof address.ipv4),
                  static_cast<ssize_t>(bytes.size()));
    }

    static void send_from(int fd, const std::string& bytes) {
        ASSERT_EQ(send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    static std::string receive(int fd) {
        std::string bytes(70000, '\0');
        const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        return size < 0 ? "nothing" : bytes.substr(0, static_cast<size_t>(size));
    }

    void send_next() const {
        send_from(client, "next");
    }

    /* Runs until so many requests were taken, at most some seconds. One run a test. */
    static void run_until(size_t count) {
        const auto then = on_request;
        on_request = [=](datagram_server* server, buffer* reply) {
            if (then) {
                then(server, reply);
            }
            if (requests.size() == count) {
                loop_stop();
            }
        };
        loop_add_timer(10000, stop_the_loop, nullptr);
        loop_run();
    }

    datagram_server* s = nullptr;
    int port = 0;
    int client = -1;
    std::vector<int> clients;
};

INSTANTIATE_TEST_SUITE_P(backends, datagram_test, testing::Values(LOOP_SELECT, LOOP_EPOLL),
                         [](const auto& backend) {
                             return backend.param == LOOP_EPOLL ? "epoll" : "select";
                         });

TEST_P(datagram_test, the_callbacks_reply_goes_back_to_the_sender) {
    on_request = [&](datagram_server* called, buffer* reply) {
        EXPECT_EQ(called, s);
        answer(reply, "reply to " + requests.back());
    };
    const int other = connect_client();
    send_from(client, "one");
    send_from(other, "two");
    run_until(2);
    EXPECT_EQ(requests, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(receive(client), "reply to one");
    EXPECT_EQ(receive(other), "reply to two");
}

TEST_P(datagram_test, without_reply_nothing_is_sent) {
    send_from(client, "one");
    run_until(1);
    EXPECT_EQ(receive(client), "nothing");
}

TEST_P(datagram_test, each_datagram_is_a_request_of_its_own) {
    send_from(client, "a longer one comes first");
    send_from(client, "b");
    send_from(client, std::string("c\0c", 3));
    run_until(3);
    EXPECT_EQ(requests,
              (std::vector<std::string>{"a longer one comes first", "b", std::string("c\0c", 3)}));
}

TEST_P(datagram_test, a_large_datagram_is_taken_and_answered_whole) {
    std::string bytes;
    for (int i = 0; i < 60000; i++) {
        bytes += static_cast<char>(i % 251);
    }
    on_request = [&](datagram_server*, buffer* reply) { answer(reply, bytes); };
    send_from(client, bytes);
    run_until(1);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(requests[0] == bytes);
    EXPECT_TRUE(receive(client) == bytes);
}

TEST_P(datagram_test, the_scratch_buffers_are_emptied_afterwards) {
    on_request = [](datagram_server*, buffer* reply) { answer(reply, "reply"); };
    send_from(client, "request");
    run_until(1);
    EXPECT_EQ(requests.size(), 1u);
    EXPECT_EQ(loop_request_scratch()->length, 0u);
    EXPECT_EQ(loop_reply_scratch()->length, 0u);
}

TEST_P(datagram_test, an_empty_datagram_is_no_request_and_hides_none_behind_it) {
    send_from(client, "");
    send_from(client, "");
    send_from(client, "behind");
    run_until(1);
    EXPECT_EQ(requests, (std::vector<std::string>{"behind"}));
    EXPECT_EQ(loop_request_scratch()->length, 0u);
}

TEST_P(datagram_test, may_listen_on_a_path) {
    std::string folder = testing::TempDir() + "tessard-datagram-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string path = folder + "/server";
    const std::string own = folder + "/client";
    datagram_server* local = datagram_open(path.c_str(), 0, take_request);
    ASSERT_NE(local, nullptr);
    on_request = [](datagram_server*, buffer* reply) { answer(reply, "reply"); };

    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    clients.push_back(sender);
    endpoint_address address;
    endpoint_parse(own.c_str(), 0, &address);
    ASSERT_EQ(bind(sender, &address.any, endpoint_length(&address)), 0);
    endpoint_parse(path.c_str(), 0, &address);
    ASSERT_EQ(connect(sender, &address.any, endpoint_length(&address)), 0);
    send_from(sender, "request");
    run_until(1);
    EXPECT_EQ(receive(sender), "reply");

    datagram_release(local);
    unlink(path.c_str());
    unlink(own.c_str());
    rmdir(folder.c_str());
}

TEST_P(datagram_test, a_reply_that_nobody_can_receive_is_lost) {
    std::string path = testing::TempDir() + "tessard-datagram-XXXXXX";
    close(mkstemp(path.data()));
    datagram_server* local = datagram_open(path.c_str(), 0, take_request);
    ASSERT_NE(local, nullptr);
    on_request = [](datagram_server*, buffer* reply) { answer(reply, "reply"); };
    const int sender =
        socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0); /* without an address of its own */
    clients.push_back(sender);
    endpoint_address address;
    endpoint_parse(path.c_str(), 0, &address);
    ASSERT_EQ(connect(sender, &address.any, endpoint_length(&address)), 0);
    send_from(sender, "one");
    send_from(sender, "two");
    run_until(2);
    EXPECT_EQ(requests, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(loop_reply_scratch()->length, 0u);
    datagram_release(local);
    unlink(path.c_str());
}

TEST_P(datagram_test, listens_without_blocking_and_is_close_on_exec) {
    EXPECT_TRUE(loop_has_handler(s->fd));
    EXPECT_EQ(s->callback, take_request);
    EXPECT_NE(fcntl(s->fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(s->fd, F_GETFD), FD_CLOEXEC);
}

TEST_P(datagram_test, an_address_that_cannot_be_listened_on_gives_null) {
    EXPECT_EQ(datagram_open("localhost", 0, take_request), nullptr);
    EXPECT_EQ(datagram_open("/dev/null/s", 0, take_request), nullptr);
}

TEST_P(datagram_test, a_descriptor_at_the_limit_gives_null_and_is_closed) {
    std::vector<int> taken;
    do {
        taken.push_back(dup(STDOUT_FILENO));
        ASSERT_GE(taken.back(), 0);
    } while (taken.back() < LIMIT - 1);
    EXPECT_EQ(datagram_open("127.0.0.1", 0, take_request), nullptr);
    EXPECT_EQ(fcntl(LIMIT, F_GETFD), -1);
    for (const int fd : taken) {
        close(fd);
    }
}

TEST_P(datagram_test, a_question_for_the_waiting_bytes_that_fails_loses_no_datagram) {
    send_from(client, "kept");
    send_from(client, "kept too");
    test_kernel::ioctl_failures = {EIO, ENOMEM};
    run_until(2);
    EXPECT_EQ(test_kernel::ioctl_failures.size(), 0u);
    EXPECT_EQ(requests, (std::vector<std::string>{"kept", "kept too"}));
}

TEST_P(datagram_test, one_that_is_shorter_than_what_waited_is_no_longer_than_itself) {
    send_from(client, "a long one");
    meanwhile = [&] {
        EXPECT_EQ(receive(s->fd), "a long one");
        send_from(client, "short");
    };
    run_until(1);
    EXPECT_FALSE(meanwhile);
    EXPECT_EQ(requests, (std::vector<std::string>{"short"}));
    EXPECT_EQ(loop_request_scratch()->length, 0u);
}

TEST_P(datagram_test, one_that_is_gone_meanwhile_is_no_request) {
    send_from(client, "gone");
    meanwhile = [&] {
        EXPECT_EQ(receive(s->fd), "gone");
        loop_add_timer(
            0,
            [](void* datagram) {
                static_cast<datagram_test*>(datagram)->send_next();
                return 1;
            },
            this);
    };
    run_until(1);
    EXPECT_FALSE(meanwhile);
    EXPECT_EQ(requests, (std::vector<std::string>{"next"}));
    EXPECT_EQ(loop_request_scratch()->length, 0u);
}

TEST_P(datagram_test, a_full_one_that_comes_in_place_of_an_empty_one_is_a_request) {
    send_from(client, "");
    meanwhile = [&] {
        EXPECT_EQ(receive(s->fd), "");
        send_from(client, "full");
    };
    run_until(1);
    EXPECT_FALSE(meanwhile);
    EXPECT_EQ(requests, (std::vector<std::string>{"full"}));
}

TEST_P(datagram_test, release_stops_listening) {
    const int fd = s->fd;
    datagram_release(s);
    s = nullptr;
    EXPECT_FALSE(loop_has_handler(fd));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_P(datagram_test, may_be_released_from_its_callback) {
    on_request = [&](datagram_server* called, buffer* reply) {
        answer(reply, "too late");
        datagram_release(called);
        s = nullptr;
    };
    send_from(client, "request");
    send_from(client, "one more");
    run_until(1);
    EXPECT_EQ(requests, (std::vector<std::string>{"request"}));
    EXPECT_EQ(loop_request_scratch()->length, 0u);
    EXPECT_EQ(loop_reply_scratch()->length, 0u);
}

/* The number of the server's descriptor is given to another socket before the callback returns. */
TEST_P(datagram_test, a_server_that_its_callback_released_answers_through_no_other_socket) {
    const int number = s->fd;
    int foreign = -1;
    on_request = [&](datagram_server* called, buffer* reply) {
        answer(reply, "too late");
        datagram_release(called);
        s = nullptr;
        foreign = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    };
    const int anyones = unconnected_client();
    send_to_server(anyones, "request");
    run_until(1);
    EXPECT_EQ(foreign, number);
    EXPECT_EQ(receive(anyones), "nothing");
    EXPECT_EQ(loop_reply_scratch()->length, 0u);
    close(foreign);
}

TEST_P(datagram_test, nor_through_the_server_that_takes_its_place) {
    const int number = s->fd;
    on_request = [&](datagram_server* called, buffer* reply) {
        answer(reply, "too late");
        datagram_release(called);
        s = datagram_open("127.0.0.1", 0, take_request);
    };
    const int anyones = unconnected_client();
    send_to_server(anyones, "request");
    run_until(1);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->fd, number);
    EXPECT_EQ(receive(anyones), "nothing");
}

} // namespace
