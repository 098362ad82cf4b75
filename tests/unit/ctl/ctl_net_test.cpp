#include "ctl/ctl_net.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

namespace {

std::string composed(const std::vector<const char*>& words) {
    size_t length = 0;
    char* bytes = ctl_net_compose(static_cast<int>(words.size()), words.data(), &length);
    std::string request(bytes, length);
    free(bytes);
    return request;
}

TEST(tessctl_request, is_an_array_of_bulk_strings) {
    EXPECT_EQ(composed({"ping"}), "*1\r\n$4\r\nping\r\n");
    EXPECT_EQ(composed({"set", "key", ""}), "*3\r\n$3\r\nset\r\n$3\r\nkey\r\n$0\r\n\r\n");
    EXPECT_EQ(composed({"a", std::string(1000, 'x').c_str()}),
              "*2\r\n$1\r\na\r\n$1000\r\n" + std::string(1000, 'x') + "\r\n");
    EXPECT_EQ(composed({"set", "k", "a\r\nb c"}),
              "*3\r\n$3\r\nset\r\n$1\r\nk\r\n$6\r\na\r\nb c\r\n");
}

class tessctl_wire : public ::testing::Test {
  protected:
    tessctl_wire() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    }
    ~tessctl_wire() override {
        close(ends[0]);
        close(ends[1]);
    }
    int ends[2];
};

TEST_F(tessctl_wire, a_request_larger_than_the_kernel_takes_is_continued) {
    std::string bytes;
    for (int i = 0; bytes.size() < 3000000; i++) {
        bytes += std::to_string(i);
    }
    std::string got;
    std::thread reader([&] {
        char chunk[65536];
        ssize_t size;
        while (got.size() < bytes.size() &&
               (size = ctl_net_read(ends[1], chunk, sizeof chunk, ctl_net_now() + 20000, false)) >
                   0) {
            got.append(chunk, static_cast<size_t>(size));
        }
    });
    EXPECT_EQ(ctl_net_send(ends[0], bytes.data(), bytes.size(), ctl_net_now() + 20000), 0);
    reader.join();
    EXPECT_TRUE(got == bytes);
}

TEST_F(tessctl_wire, sending_ends_with_the_deadline) {
    std::string bytes(3000000, 'x');
    EXPECT_EQ(ctl_net_send(ends[0], bytes.data(), bytes.size(), ctl_net_now() + 50), -ETIMEDOUT);
}

TEST_F(tessctl_wire, sending_to_one_who_has_gone_is_an_error_not_a_signal) {
    signal(SIGPIPE, SIG_DFL);
    shutdown(ends[1], SHUT_RDWR);
    EXPECT_EQ(ctl_net_send(ends[0], "x", 1, ctl_net_now() + 50), -EPIPE);
}

TEST_F(tessctl_wire, reading_ends_with_the_deadline) {
    char byte;
    int64_t begin = ctl_net_now();
    EXPECT_EQ(ctl_net_read(ends[0], &byte, 1, begin + 50, false), -ETIMEDOUT);
    EXPECT_GE(ctl_net_now(), begin + 50);
}

TEST_F(tessctl_wire, the_end_of_the_stream_is_seen_behind_the_bytes) {
    char bytes[8];
    ASSERT_EQ(send(ends[1], "abc", 3, 0), 3);
    shutdown(ends[1], SHUT_WR);
    EXPECT_EQ(ctl_net_read(ends[0], bytes, sizeof bytes, CTL_FOREVER, false), 3);
    EXPECT_EQ(ctl_net_read(ends[0], bytes, sizeof bytes, CTL_FOREVER, false), 0);
}

TEST(tessctl_connecting, says_why_it_failed) {
    endpoint_address address;
    ASSERT_EQ(endpoint_parse("/nowhere/at/all.sock", 0, &address), 1);
    EXPECT_EQ(ctl_net_connect(&address, 100, ctl_net_now() + 1000), -ENOENT);
}

TEST(tessctl_connecting, leaves_room_for_the_whole_request) {
    endpoint_address address;
    ASSERT_EQ(endpoint_parse(("/tmp/tessctl_net_" + std::to_string(getpid())).c_str(), 0, &address),
              1);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, &address.any, endpoint_length(&address)), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    int fd = ctl_net_connect(&address, 150000, ctl_net_now() + 5000);
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    std::string request(150000, 'x');
    EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL), 150000);
    close(fd);

    close(listener);
    unlink(address.local.sun_path);
}

TEST(tessctl_connecting, waits_for_a_place_in_a_full_queue_until_the_deadline) {
    endpoint_address address;
    ASSERT_EQ(endpoint_parse(("/tmp/tessctl_net_" + std::to_string(getpid())).c_str(), 0, &address),
              1);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, &address.any, endpoint_length(&address)), 0);
    ASSERT_EQ(listen(listener, 0), 0);
    int waiting = ctl_net_connect(&address, 1, ctl_net_now() + 5000);
    ASSERT_GE(waiting, 0);
    EXPECT_EQ(ctl_net_connect(&address, 1, ctl_net_now() + 60), -ETIMEDOUT);

    std::thread server([&] {
        usleep(100000);
        close(accept(listener, nullptr, nullptr));
    });
    int next = ctl_net_connect(&address, 1, ctl_net_now() + 20000);
    EXPECT_GE(next, 0);
    server.join();
    close(next);
    close(waiting);
    close(listener);
    unlink(address.local.sun_path);
}

} // namespace
