#include "loop/endpoint.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "loop/connection.h"
#include "loop/loop.h"
#include "tests/unit/support/test_kernel.h"

namespace {

constexpr int LIMIT = 100;

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
int next_descriptor() {
    const int fd = dup(STDOUT_FILENO);
    close(fd);
    return fd;
}

bool exists(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

void create_file(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
}

int port_of(int fd) {
    endpoint_address address = {};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(fd, &address.any, &size), 0);
    return ntohs(address.ipv4.sin_port);
}

int int_option(int fd, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &value, &size), 0);
    return value;
}

bool is_nonblocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

bool is_close_on_exec(int fd) {
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

/* Clients that wait to be accepted on a path, as many as the kernel takes. */
struct full_queue {
    explicit full_queue(const std::string& path) {
        endpoint_address address;
        endpoint_parse(path.c_str(), 0, &address);
        while (waiting.size() < 1000) {
            waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            if (connect(waiting.back().fd, &address.any, endpoint_length(&address)) < 0) {
                EXPECT_EQ(errno, EAGAIN);
                waiting.pop_back();
                return;
            }
        }
    }

    std::deque<descriptor> waiting;
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

/* Garbage, so that whatever parsing leaves out is seen. */
endpoint_address filled_address() {
    endpoint_address address;
    memset(static_cast<void*>(&address), 0xa5, sizeof address);
    return address;
}

/* The address rule. */

TEST(endpoint_parse_test, a_text_with_a_slash_is_a_unix_path_whatever_the_port) {
    endpoint_address address = filled_address();
    EXPECT_EQ(endpoint_parse("/tmp/x.sock", 80, &address), 1);
    EXPECT_EQ(address.any.sa_family, AF_UNIX);
    EXPECT_STREQ(address.local.sun_path, "/tmp/x.sock");
    EXPECT_EQ(endpoint_length(&address), 110u);
}

TEST(endpoint_parse_test, a_slash_wins_over_a_colon_and_over_digits) {
    endpoint_address address;
    EXPECT_EQ(endpoint_parse("run:1/s", 1, &address), 1);
    EXPECT_EQ(address.any.sa_family, AF_UNIX);
    EXPECT_STREQ(address.local.sun_path, "run:1/s");
    EXPECT_EQ(endpoint_parse("127.0.0.1/", 1, &address), 1);
    EXPECT_EQ(address.any.sa_family, AF_UNIX);
}

TEST(endpoint_parse_test, a_path_is_cut_at_107_bytes) {
    for (const size_t length : {106u, 107u, 108u, 109u, 300u}) {
        const std::string path = "/" + std::string(length - 1, 'p');
        endpoint_address address = filled_address();
        EXPECT_EQ(endpoint_parse(path.c_str(), 0, &address), 1);
        EXPECT_EQ(std::string(address.local.sun_path, strnlen(address.local.sun_path, 108)),
                  path.substr(0, 107))
            << length;
    }
}

TEST(endpoint_parse_test, a_slash_behind_the_cut_still_makes_a_path) {
    const std::string path = std::string(120, 'p') + "/";
    endpoint_address address;
    EXPECT_EQ(endpoint_parse(path.c_str(), 0, &address), 1);
    EXPECT_EQ(address.any.sa_family, AF_UNIX);
}

TEST(endpoint_parse_test, a_text_with_a_colon_is_an_i_pv_6_address) {
    endpoint_address address = filled_address();
    EXPECT_EQ(endpoint_parse("::1", 80, &address), 1);
    EXPECT_EQ(address.any.sa_family, AF_INET6);
    EXPECT_EQ(memcmp(&address.ipv6.sin6_addr, &in6addr_loopback, sizeof in6addr_loopback), 0);
    EXPECT_EQ(address.ipv6.sin6_flowinfo, 0u);
    EXPECT_EQ(address.ipv6.sin6_scope_id, 0u);
    EXPECT_EQ(ntohs(address.ipv6.sin6_port), 80);
    EXPECT_EQ(endpoint_length(&address), 28u);
}

TEST(endpoint_parse_test, any_other_text_is_an_i_pv_4_address) {
    endpoint_address address = filled_address();
    EXPECT_EQ(endpoint_parse("127.0.0.1", 8080, &address), 1);
    EXPECT_EQ(address.any.sa_family, AF_INET);
    const unsigned char ip[] = {127, 0, 0, 1};
    EXPECT_EQ(memcmp(&address.ipv4.sin_addr, ip, sizeof ip), 0);
    const unsigned char port[] = {0x1f, 0x90};
    EXPECT_EQ(memcmp(&address.ipv4.sin_port, port, sizeof port), 0);
    EXPECT_EQ(endpoint_length(&address), 16u);
}

TEST(endpoint_parse_test, names_and_malformed_addresses_fail) {
    endpoint_address address;
    for (const char* text :
         {"localhost", "LOCALHOST", "", " ", "256.0.0.1", "127.0.0.1 ", " 127.0.0.1", "127.1",
          "127.0.0.1:80", ":", ":::", "::1%lo", "[::1]", "12345::", "example.org"}) {
        EXPECT_EQ(endpoint_parse(text, 80, &address), 0) << '"' << text << '"';
    }
}

TEST(endpoint_parse_test, a_port_keeps_its_lower_16_bits) {
    endpoint_address address;
    EXPECT_EQ(endpoint_parse("127.0.0.1", 65535, &address), 1);
    EXPECT_EQ(ntohs(address.ipv4.sin_port), 65535);
    EXPECT_EQ(endpoint_parse("127.0.0.1", 65536 + 80, &address), 1);
    EXPECT_EQ(ntohs(address.ipv4.sin_port), 80);
}

TEST(endpoint_is_path_test, looks_for_a_slash_anywhere) {
    EXPECT_TRUE(endpoint_is_path("/tmp/s"));
    EXPECT_TRUE(endpoint_is_path("./s"));
    EXPECT_TRUE(endpoint_is_path("s/"));
    EXPECT_FALSE(endpoint_is_path("127.0.0.1"));
    EXPECT_FALSE(endpoint_is_path("::1"));
    EXPECT_FALSE(endpoint_is_path(""));
}

/* Addresses as text. */

struct formatted {
    std::string text;
    int port;
};

formatted format(const endpoint_address& address) {
    char text[ENDPOINT_TEXT_SIZE];
    memset(text, '#', sizeof text);
    formatted result = {"", -1};
    endpoint_format(&address, text, &result.port);
    result.text = text;
    return result;
}

formatted parse_and_format(const char* text, int port) {
    endpoint_address address;
    EXPECT_EQ(endpoint_parse(text, port, &address), 1) << text;
    return format(address);
}

TEST(endpoint_format_test, a_unix_path_has_port_zero) {
    const formatted result = parse_and_format("/tmp/x.sock", 80);
    EXPECT_EQ(result.text, "/tmp/x.sock");
    EXPECT_EQ(result.port, 0);
}

TEST(endpoint_format_test, a_unix_path_that_fills_its_field_is_cut_at_107_bytes) {
    endpoint_address address = {};
    address.local.sun_family = AF_UNIX;
    memset(address.local.sun_path, 'p', sizeof address.local.sun_path);
    EXPECT_EQ(format(address).text, std::string(107, 'p'));
}

TEST(endpoint_format_test, internet_addresses_come_with_the_port_in_host_order) {
    formatted result = parse_and_format("192.168.100.200", 8080);
    EXPECT_EQ(result.text, "192.168.100.200");
    EXPECT_EQ(result.port, 8080);
    result = parse_and_format("::1", 65535);
    EXPECT_EQ(result.text, "::1");
    EXPECT_EQ(result.port, 65535);
}

TEST(endpoint_format_test, the_longest_i_pv_6_address_fits) {
    EXPECT_EQ(parse_and_format("1111:2222:3333:4444:5555:6666:7777:8888", 1).text,
              "1111:2222:3333:4444:5555:6666:7777:8888");
    EXPECT_EQ(parse_and_format("::ffff:255.255.255.255", 1).text, "::ffff:255.255.255.255");
}

/* Listening. */

TEST(endpoint_listen_test, a_stream_listener_is_non_blocking_reusable_close_on_exec_and_listens) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    ASSERT_GE(listener.fd, 0);
    EXPECT_EQ(int_option(listener.fd, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(int_option(listener.fd, SO_ACCEPTCONN), 1);
    EXPECT_EQ(int_option(listener.fd, SO_REUSEADDR), 1);
    EXPECT_TRUE(is_nonblocking(listener.fd));
    EXPECT_TRUE(is_close_on_exec(listener.fd));
}

TEST(endpoint_listen_test, an_i_pv_6_listener_is_bound_to_its_address_and_port) {
    const descriptor listener(endpoint_listen_stream("::1", 0));
    if (listener.fd < 0) {
        GTEST_SKIP() << "this machine has no IPv6 loopback address";
    }
    endpoint_address address = {};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(listener.fd, &address.any, &size), 0);
    EXPECT_EQ(format(address).text, "::1");
    EXPECT_GT(format(address).port, 0);
}

TEST(endpoint_listen_test, a_unix_listener_removes_a_stale_socket_file_first) {
    folder there;
    const std::string path = there.file("s");
    const descriptor stale(endpoint_listen_local(path.c_str()));
    ASSERT_GE(stale.fd, 0);
    const descriptor listener(endpoint_listen_local(path.c_str()));
    ASSERT_GE(listener.fd, 0);
    int client;
    EXPECT_EQ(endpoint_connect_local(path.c_str(), &client), 0);
    const descriptor connected(client);
    const descriptor accepted(accept(listener.fd, nullptr, nullptr));
    EXPECT_GE(accepted.fd, 0);
}

TEST(endpoint_listen_test, a_unix_listener_removes_any_file_in_its_place) {
    folder there;
    const std::string path = there.file("s");
    create_file(path);
    const descriptor listener(endpoint_listen_stream(path.c_str(), 80));
    EXPECT_GE(listener.fd, 0);
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
}

TEST(endpoint_listen_test, a_long_path_is_unlinked_and_bound_where_it_is_cut) {
    folder there;
    const std::string cut = there.file("s", 107);
    const std::string whole = there.file("s", 140);
    create_file(cut);
    create_file(whole);
    const descriptor listener(endpoint_listen_local(whole.c_str()));
    ASSERT_GE(listener.fd, 0);
    struct stat status;
    ASSERT_EQ(stat(cut.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    ASSERT_EQ(stat(whole.c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
}

TEST(endpoint_listen_test, the_backlog_is_128) {
    folder there;
    const std::string path = there.file("s");
    const descriptor listener(endpoint_listen_local(path.c_str()));
    ASSERT_GE(listener.fd, 0);
    const full_queue queue(path);
    /* The kernel refuses once more than the backlog are waiting. */
    EXPECT_EQ(queue.waiting.size(), 129u);
}

TEST(endpoint_listen_test, a_datagram_listener_is_bound_and_non_blocking) {
    const descriptor listener(endpoint_listen_datagram("127.0.0.1", 0));
    ASSERT_GE(listener.fd, 0);
    EXPECT_EQ(int_option(listener.fd, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(int_option(listener.fd, SO_REUSEADDR), 1);
    EXPECT_GT(port_of(listener.fd), 0);
    EXPECT_TRUE(is_nonblocking(listener.fd));
    EXPECT_TRUE(is_close_on_exec(listener.fd));
}

TEST(endpoint_listen_test, a_datagram_listener_may_have_a_path) {
    folder there;
    const std::string path = there.file("s");
    const descriptor listener(endpoint_listen_datagram(path.c_str(), 0));
    EXPECT_GE(listener.fd, 0);
    EXPECT_TRUE(exists(path));
}

TEST(endpoint_listen_test, an_address_that_does_not_parse_fails) {
    EXPECT_LT(endpoint_listen_stream("localhost", 0), 0);
    EXPECT_LT(endpoint_listen_datagram("localhost", 0), 0);
    EXPECT_LT(endpoint_listen("1.2.3", 0, SOCK_STREAM), 0);
}

TEST(endpoint_listen_test, without_a_socket_it_fails) {
    const no_descriptors none;
    EXPECT_EQ(endpoint_listen_stream("127.0.0.1", 0), -1);
}

TEST(endpoint_listen_test, a_failed_bind_leaves_no_descriptor_behind) {
    folder there;
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    const int before = next_descriptor();
    EXPECT_EQ(endpoint_listen_stream("127.0.0.1", port_of(listener.fd)), -1);
    EXPECT_EQ(endpoint_listen_local((there.path + "/missing/s").c_str()), -1);
    EXPECT_EQ(next_descriptor(), before);
}

TEST(endpoint_unlink_test, removes_what_listening_would_bind) {
    folder there;
    const std::string cut = there.file("s", 107);
    create_file(cut);
    endpoint_unlink((cut + "more").c_str());
    EXPECT_FALSE(exists(cut));
    endpoint_unlink(cut.c_str()); /* nothing there: no harm */
}

/* Connecting. */

TEST(endpoint_connect_local_test, connects_a_blocking_stream) {
    folder there;
    const std::string path = there.file("s");
    const descriptor listener(endpoint_listen_local(path.c_str()));
    int fd = -7;
    EXPECT_EQ(endpoint_connect_local(path.c_str(), &fd), 0);
    const descriptor connected(fd);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(int_option(fd, SO_TYPE), SOCK_STREAM);
    EXPECT_FALSE(is_nonblocking(fd));
    EXPECT_TRUE(is_close_on_exec(fd));
}

TEST(endpoint_connect_local_test, a_failure_is_reported_and_leaves_no_descriptor) {
    folder there;
    const std::string path = there.file("s");
    const int before = next_descriptor();
    int fd = -7;
    EXPECT_EQ(endpoint_connect_local(path.c_str(), &fd), ENOENT);
    EXPECT_EQ(fd, -1);
    create_file(path);
    fd = -7;
    EXPECT_EQ(endpoint_connect_local(path.c_str(), &fd), ECONNREFUSED);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(next_descriptor(), before);
}

/* Who made a socket in place of the log file and never accepts must not stop the daemon. */
TEST(endpoint_connect_local_test, a_listener_whose_queue_is_full_is_not_waited_for) {
    folder there;
    const std::string path = there.file("s");
    const descriptor listener(endpoint_listen_local(path.c_str()));
    ASSERT_GE(listener.fd, 0);
    const full_queue queue(path);
    const int before = next_descriptor();
    int fd = -7;
    alarm(20); /* ends the test where it waits */
    EXPECT_EQ(endpoint_connect_local(path.c_str(), &fd), EAGAIN);
    alarm(0);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(next_descriptor(), before);
}

TEST(endpoint_connect_local_test, a_path_is_cut_at_108_bytes) {
    folder there;
    const std::string path = there.file("s", 108);
    endpoint_address address = {};
    address.local.sun_family = AF_UNIX;
    memcpy(address.local.sun_path, path.data(), 108);
    const descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(listener.fd, &address.any, sizeof address.local), 0);
    ASSERT_EQ(listen(listener.fd, 1), 0);
    int fd = -7;
    EXPECT_EQ(endpoint_connect_local((path + "more").c_str(), &fd), 0);
    const descriptor connected(fd);
    EXPECT_GE(fd, 0);
}

TEST(endpoint_connect_tcp_test, localhost_in_any_case_means_the_loopback_address) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    for (const char* host : {"localhost", "LocalHost", "LOCALHOST", "127.0.0.1"}) {
        int fd = -7;
        EXPECT_EQ(endpoint_connect_tcp(host, port_of(listener.fd), false, &fd), 0) << host;
        const descriptor connected(fd);
        ASSERT_GE(fd, 0);
        EXPECT_FALSE(is_nonblocking(fd));
        EXPECT_TRUE(is_close_on_exec(fd));
    }
}

TEST(endpoint_connect_tcp_test, a_host_that_does_not_parse_gives_einval) {
    for (const char* host : {"::1", "example.org", "", "/tmp/s", "localhost "}) {
        int fd = -7;
        EXPECT_EQ(endpoint_connect_tcp(host, 80, false, &fd), EINVAL) << host;
        EXPECT_EQ(fd, -1);
    }
}

TEST(endpoint_connect_tcp_test, a_refusal_is_reported_and_leaves_no_descriptor) {
    const closed_port port;
    const int before = next_descriptor();
    int fd = -7;
    EXPECT_EQ(endpoint_connect_tcp("localhost", port.number, false, &fd), ECONNREFUSED);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(next_descriptor(), before);
}

TEST(endpoint_connect_tcp_test, without_blocking_a_connection_in_the_making_keeps_its_descriptor) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    int fd = -7;
    EXPECT_EQ(endpoint_connect_tcp("localhost", port_of(listener.fd), true, &fd), EINPROGRESS);
    const descriptor connected(fd);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(is_nonblocking(fd));
}

TEST(endpoint_connect_udp_test, connects_a_blocking_datagram_socket) {
    const descriptor receiver(endpoint_listen_datagram("127.0.0.1", 0));
    int fd = -7;
    EXPECT_EQ(endpoint_connect_udp("LOCALHOST", port_of(receiver.fd), &fd), 0);
    const descriptor connected(fd);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(int_option(fd, SO_TYPE), SOCK_DGRAM);
    EXPECT_FALSE(is_nonblocking(fd));
    EXPECT_TRUE(is_close_on_exec(fd));
    EXPECT_EQ(send(fd, "hello", 5, 0), 5);
    char bytes[16];
    EXPECT_EQ(recv(receiver.fd, bytes, sizeof bytes, 0), 5);
}

TEST(endpoint_connect_udp_test, a_host_that_does_not_parse_gives_einval) {
    int fd = -7;
    EXPECT_EQ(endpoint_connect_udp("::1", 80, &fd), EINVAL);
    EXPECT_EQ(fd, -1);
}

TEST(endpoint_connect_test, without_a_socket_the_reason_is_returned) {
    int local = -7;
    int tcp = -7;
    int udp = -7;
    {
        const no_descriptors none;
        EXPECT_EQ(endpoint_connect_local("/tmp/s", &local), EMFILE);
        EXPECT_EQ(endpoint_connect_tcp("localhost", 80, false, &tcp), EMFILE);
        EXPECT_EQ(endpoint_connect_udp("localhost", 80, &udp), EMFILE);
    }
    EXPECT_EQ(local, -1);
    EXPECT_EQ(tcp, -1);
    EXPECT_EQ(udp, -1);
}

/* Connecting with a callback. */

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

struct endpoint_connect_async_test : testing::TestWithParam<loop_backend> {
    void SetUp() override {
        ASSERT_NE(loop_init(LIMIT, GetParam()), 0);
    }

    /* Runs until the callback was called, at most some seconds. */
    void run() {
        loop_add_timer(10000, stop_the_loop, nullptr);
        loop_run();
    }

    outcome result = {0, -7, -7};
};

INSTANTIATE_TEST_SUITE_P(backends, endpoint_connect_async_test,
                         testing::Values(LOOP_SELECT, LOOP_EPOLL), [](const auto& backend) {
                             return backend.param == LOOP_EPOLL ? "epoll" : "select";
                         });

TEST_P(endpoint_connect_async_test, an_address_that_does_not_parse_gives_zero_and_no_call) {
    EXPECT_EQ(endpoint_connect_async("example.org", 80, on_connected, &result), 0);
    EXPECT_EQ(result.calls, 0);
}

TEST_P(endpoint_connect_async_test, an_immediate_success_is_reported_at_once) {
    folder there;
    const std::string path = there.file("s");
    const descriptor listener(endpoint_listen_local(path.c_str()));
    EXPECT_EQ(endpoint_connect_async(path.c_str(), 0, on_connected, &result), 1);
    const descriptor connected(result.fd);
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.error, 0);
    ASSERT_GE(result.fd, 0);
    EXPECT_TRUE(is_nonblocking(result.fd));
    EXPECT_TRUE(is_close_on_exec(result.fd));
    EXPECT_FALSE(loop_has_handler(result.fd));
}

TEST_P(endpoint_connect_async_test,
       an_immediate_failure_is_reported_at_once_with_its_error_number) {
    folder there;
    const int before = next_descriptor();
    EXPECT_EQ(endpoint_connect_async(there.file("s").c_str(), 0, on_connected, &result), 1);
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, ENOENT);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_P(endpoint_connect_async_test, without_a_socket_the_reason_is_reported_at_once) {
    {
        const no_descriptors none;
        EXPECT_EQ(endpoint_connect_async("127.0.0.1", 80, on_connected, &result), 1);
    }
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, EMFILE);
}

TEST_P(endpoint_connect_async_test, a_connection_is_reported_when_it_becomes_writable) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    EXPECT_EQ(endpoint_connect_async("127.0.0.1", port_of(listener.fd), on_connected, &result), 1);
    EXPECT_EQ(result.calls, 0);
    run();
    const descriptor connected(result.fd);
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.error, 0);
    ASSERT_GE(result.fd, 0);
    EXPECT_FALSE(loop_has_handler(result.fd));
    EXPECT_EQ(send(result.fd, "x", 1, MSG_NOSIGNAL), 1);
}

TEST_P(endpoint_connect_async_test, localhost_in_any_case_means_the_loopback_address) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    EXPECT_EQ(endpoint_connect_async("LocalHost", port_of(listener.fd), on_connected, &result), 1);
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

TEST_P(endpoint_connect_async_test, an_i_pv_6_address_is_connected) {
    const descriptor listener(endpoint_listen_stream("::1", 0));
    if (listener.fd < 0) {
        GTEST_SKIP() << "this machine has no IPv6 loopback address";
    }
    endpoint_address bound = {};
    socklen_t size = sizeof bound;
    ASSERT_EQ(getsockname(listener.fd, &bound.any, &size), 0);
    EXPECT_EQ(endpoint_connect_async("::1", format(bound).port, on_connected, &result), 1);
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

TEST_P(endpoint_connect_async_test, a_descriptor_at_the_limit_is_closed_and_reported_as_too_many) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    const int port = port_of(listener.fd);
    std::vector<int> taken;
    do {
        taken.push_back(dup(STDOUT_FILENO));
        ASSERT_GE(taken.back(), 0);
    } while (taken.back() < LIMIT - 1);
    EXPECT_EQ(endpoint_connect_async("127.0.0.1", port, on_connected, &result), 1);
    EXPECT_EQ(next_descriptor(), LIMIT);
    for (const int fd : taken) {
        close(fd);
    }
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, EMFILE);
}

TEST_P(endpoint_connect_async_test, a_closed_local_port_is_reported_as_unreachable) {
    const closed_port port;
    const int fd = next_descriptor();
    EXPECT_EQ(endpoint_connect_async("127.0.0.1", port.number, on_connected, &result), 1);
    EXPECT_EQ(result.calls, 0);
    run();
    EXPECT_EQ(result.calls, 1);
    EXPECT_EQ(result.fd, -1);
    EXPECT_EQ(result.error, EHOSTUNREACH);
    EXPECT_FALSE(loop_has_handler(fd));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_P(endpoint_connect_async_test, the_callback_may_make_a_connection_of_the_descriptor) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    static connection* made;
    made = nullptr;
    const auto make_connection = [](int fd, int, void*) {
        made = loop_add_connection(fd, nullptr);
        loop_stop();
    };
    EXPECT_EQ(endpoint_connect_async("127.0.0.1", port_of(listener.fd), make_connection, nullptr),
              1);
    run();
    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(loop_has_handler(made->fd));
    /* The loop runs no more, so it must not be left with the record. */
    made->closing.queued = true;
    connection_close(made);
    made->closing.destroy(&made->closing);
}

/* The next attempt has the number of the descriptor that failed. */
TEST_P(endpoint_connect_async_test, the_callback_of_a_failure_may_try_again_at_once) {
    const closed_port port;
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    struct attempts {
        int next_port;
        outcome second;
    } all = {port_of(listener.fd), result};
    const auto try_again = [](int, int error, void* argument) {
        EXPECT_EQ(error, EHOSTUNREACH);
        attempts* a = static_cast<attempts*>(argument);
        EXPECT_EQ(endpoint_connect_async("127.0.0.1", a->next_port, on_connected, &a->second), 1);
    };
    EXPECT_EQ(endpoint_connect_async("127.0.0.1", port.number, try_again, &all), 1);
    run();
    const descriptor connected(all.second.fd);
    EXPECT_EQ(all.second.calls, 1);
    EXPECT_EQ(all.second.error, 0);
}

TEST_P(endpoint_connect_async_test,
       a_readable_event_is_taken_for_a_failure_even_when_the_peer_only_spoke_first) {
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    const int fd = next_descriptor();
    EXPECT_EQ(endpoint_connect_async("127.0.0.1", port_of(listener.fd), on_connected, &result), 1);
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
TEST(endpoint_connect_async_by_epoll_test, an_error_event_alone_is_a_failure_too) {
    ASSERT_NE(loop_init(LIMIT, LOOP_EPOLL), 0);
    outcome result = {0, -7, -7};
    const descriptor listener(endpoint_listen_stream("127.0.0.1", 0));
    const int fd = next_descriptor();
    EXPECT_EQ(endpoint_connect_async("127.0.0.1", port_of(listener.fd), on_connected, &result), 1);
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

/* Flags, counts and the rest. */

TEST(endpoint_flags_test, are_added_to_those_that_are_there) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const descriptor in(ends[0]);
    const descriptor out(ends[1]);
    ASSERT_EQ(fcntl(ends[1], F_SETFL, O_APPEND), 0);
    EXPECT_EQ(endpoint_set_nonblocking(ends[1]), 0);
    EXPECT_TRUE(is_nonblocking(ends[1]));
    EXPECT_NE(fcntl(ends[1], F_GETFL) & O_APPEND, 0);
    EXPECT_FALSE(is_close_on_exec(ends[1]));
    EXPECT_EQ(endpoint_set_cloexec(ends[1]), 0);
    EXPECT_TRUE(is_close_on_exec(ends[1]));
}

TEST(endpoint_flags_test, fail_on_a_descriptor_that_is_not_open) {
    const int fd = next_descriptor();
    EXPECT_LT(endpoint_set_nonblocking(fd), 0);
    EXPECT_LT(endpoint_set_cloexec(fd), 0);
}

TEST(endpoint_bytes_readable_test, counts_what_waits) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const descriptor in(ends[0]);
    const descriptor out(ends[1]);
    EXPECT_EQ(endpoint_bytes_readable(ends[0]), 0);
    ASSERT_EQ(write(ends[1], "hello", 5), 5);
    EXPECT_EQ(endpoint_bytes_readable(ends[0]), 5);
    EXPECT_EQ(endpoint_bytes_readable(next_descriptor()), -1);
}

TEST(endpoint_is_local_host_test, every_host_is_this_machine) {
    EXPECT_TRUE(endpoint_is_local_host("localhost"));
    EXPECT_TRUE(endpoint_is_local_host("192.0.2.1"));
    EXPECT_TRUE(endpoint_is_local_host(""));
}

} // namespace
