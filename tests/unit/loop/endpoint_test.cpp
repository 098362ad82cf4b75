#include "loop/endpoint.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <string>
#include <vector>

#include "tests/unit/support/sockets.h"

using namespace unit_test;

namespace {

bool exists(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

void create_file(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
}

int int_option(int fd, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, option, &value, &size), 0);
    return value;
}

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

/* Garbage, so that whatever parsing leaves out is seen. */
endpoint_address filled_address() {
    endpoint_address address;
    memset(static_cast<void*>(&address), 0xa5, sizeof address);
    return address;
}

/* --- The address rule --- */

TEST(endpoint_parse_test, a_text_with_a_slash_is_a_unix_path_whatever_the_port) {
    endpoint_address address = filled_address();
    EXPECT_TRUE(endpoint_parse("/tmp/x.sock", 80, &address));
    EXPECT_EQ(address.any.sa_family, AF_UNIX);
    EXPECT_STREQ(address.local.sun_path, "/tmp/x.sock");
    EXPECT_EQ(endpoint_length(&address), 110u);
}

TEST(endpoint_parse_test, a_slash_wins_over_a_colon_and_over_digits) {
    endpoint_address address;
    EXPECT_TRUE(endpoint_parse("run:1/s", 1, &address));
    EXPECT_EQ(address.any.sa_family, AF_UNIX);
    EXPECT_STREQ(address.local.sun_path, "run:1/s");
    EXPECT_TRUE(endpoint_parse("127.0.0.1/", 1, &address));
    EXPECT_EQ(address.any.sa_family, AF_UNIX);
}

TEST(endpoint_parse_test, a_path_is_cut_at_107_bytes) {
    for (const size_t length : {106u, 107u, 108u, 109u, 300u}) {
        const std::string path = "/" + std::string(length - 1, 'p');
        endpoint_address address = filled_address();
        EXPECT_TRUE(endpoint_parse(path.c_str(), 0, &address));
        EXPECT_EQ(std::string(address.local.sun_path, strnlen(address.local.sun_path, 108)),
                  path.substr(0, 107))
            << length;
    }
}

TEST(endpoint_parse_test, a_slash_behind_the_cut_still_makes_a_path) {
    const std::string path = std::string(120, 'p') + "/";
    endpoint_address address;
    EXPECT_TRUE(endpoint_parse(path.c_str(), 0, &address));
    EXPECT_EQ(address.any.sa_family, AF_UNIX);
}

TEST(endpoint_parse_test, a_text_with_a_colon_is_an_i_pv_6_address) {
    endpoint_address address = filled_address();
    EXPECT_TRUE(endpoint_parse("::1", 80, &address));
    EXPECT_EQ(address.any.sa_family, AF_INET6);
    EXPECT_EQ(memcmp(&address.ipv6.sin6_addr, &in6addr_loopback, sizeof in6addr_loopback), 0);
    EXPECT_EQ(address.ipv6.sin6_flowinfo, 0u);
    EXPECT_EQ(address.ipv6.sin6_scope_id, 0u);
    EXPECT_EQ(ntohs(address.ipv6.sin6_port), 80);
    EXPECT_EQ(endpoint_length(&address), 28u);
}

TEST(endpoint_parse_test, any_other_text_is_an_i_pv_4_address) {
    endpoint_address address = filled_address();
    EXPECT_TRUE(endpoint_parse("127.0.0.1", 8080, &address));
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
        EXPECT_FALSE(endpoint_parse(text, 80, &address)) << '"' << text << '"';
    }
}

TEST(endpoint_parse_test, a_port_keeps_its_lower_16_bits) {
    endpoint_address address;
    EXPECT_TRUE(endpoint_parse("127.0.0.1", 65535, &address));
    EXPECT_EQ(ntohs(address.ipv4.sin_port), 65535);
    EXPECT_TRUE(endpoint_parse("127.0.0.1", 65536 + 80, &address));
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

/* --- Addresses as text --- */

formatted parse_and_format(const char* text, int port) {
    endpoint_address address;
    EXPECT_TRUE(endpoint_parse(text, port, &address)) << text;
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

/* --- Listening --- */

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

/* --- Connecting --- */

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

/* --- Flags, counts and the rest --- */

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
