#include "ctl/ctl_link.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

/* Takes one client and answers OK to the first request, of which it knows the length. */
class listener {
  public:
    listener(const char* text, size_t request) {
        endpoint_address address;
        EXPECT_EQ(endpoint_parse(text, 0, &address), 1);
        fd = socket(address.any.sa_family, SOCK_STREAM, 0);
        EXPECT_EQ(bind(fd, &address.any, endpoint_length(&address)), 0);
        EXPECT_EQ(listen(fd, 1), 0);
        socklen_t size = sizeof address;
        EXPECT_EQ(getsockname(fd, &address.any, &size), 0);
        char name[ENDPOINT_TEXT_SIZE];
        endpoint_format(&address, name, &port);
        answering = std::thread([this, request] { answer(request); });
    }
    ~listener() {
        answering.join();
        close(fd);
    }

    int port = 0;

  private:
    void answer(size_t request) const {
        const int client = accept(fd, nullptr, nullptr);
        std::string bytes(request, '\0');
        EXPECT_EQ(recv(client, bytes.data(), request, MSG_WAITALL), static_cast<ssize_t>(request));
        EXPECT_EQ(send(client, "+OK\r\n", 5, MSG_NOSIGNAL), 5);
        close(client);
    }

    int fd;
    std::thread answering;
};

class tessctl_link : public ::testing::Test {
  protected:
    /* What is said on standard error while a request of that many bytes is sent to the address. */
    static std::string said_for(const char* address, size_t request) {
        const listener daemon(address, request);
        ctl_link link;
        EXPECT_TRUE(ctl_link_init(&link, address, daemon.port, 20));
        /* "*3\r\n", "$3\r\nset\r\n", "$1\r\nk\r\n" and "$nnnnn\r\n...\r\n" */
        const std::string value(request - 4 - 9 - 7 - 8 - 2, 'v');
        const char* const words[] = {"set", "k", value.c_str()};
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(ctl_link_ask(&link, 3, words), CTL_DONE);
        ctl_link_close(&link);
        return ::testing::internal::GetCapturedStderr();
    }

    std::string path = "/tmp/tessctl_link_" + std::to_string(getpid());

    ~tessctl_link() override {
        unlink(path.c_str());
    }
};

TEST_F(tessctl_link, sends_a_request_of_32_kB_without_a_word) {
    EXPECT_EQ(said_for(path.c_str(), 32768), "");
}

TEST_F(tessctl_link, warns_of_a_larger_request_and_sends_it) {
    EXPECT_EQ(said_for(path.c_str(), 32769),
              "tessctl: this request has 32769 bytes; above 32 kB it may not arrive in one piece, "
              "and the daemon closes on the rest\n");
}

TEST_F(tessctl_link, has_nothing_to_say_about_large_requests_on_other_sockets) {
    EXPECT_EQ(said_for("127.0.0.1", 32769), "");
}

TEST(tessctl_address, of_each_family_is_read) {
    ctl_link link;
    ASSERT_TRUE(ctl_link_init(&link, "/tmp/tessard.sock", 7000, 1));
    EXPECT_EQ(link.address.any.sa_family, AF_UNIX);
    EXPECT_STREQ(link.address.local.sun_path, "/tmp/tessard.sock");
    EXPECT_EQ(link.port, 0);
    ASSERT_TRUE(ctl_link_init(&link, "127.0.0.1", 7000, 1));
    EXPECT_EQ(link.address.any.sa_family, AF_INET);
    EXPECT_EQ(ntohs(link.address.ipv4.sin_port), 7000);
    EXPECT_EQ(link.port, 7000);
    ASSERT_TRUE(ctl_link_init(&link, "::1", 7000, 1));
    EXPECT_EQ(link.address.any.sa_family, AF_INET6);
    ASSERT_TRUE(ctl_link_init(&link, "LocalHost", 7000, 1));
    EXPECT_EQ(ntohl(link.address.ipv4.sin_addr.s_addr), INADDR_LOOPBACK);
}

TEST(tessctl_address, that_is_none_is_refused) {
    ctl_link link;
    for (const char* text :
         {"", "tessard.sock", "example.org", "1.2.3", "1.2.3.4.5", ":", "::1::", "localhost."}) {
        EXPECT_FALSE(ctl_link_init(&link, text, 7000, 1)) << text;
    }
}

} // namespace
