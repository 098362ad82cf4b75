/* The ping figures as the command-line client prints them. */

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/system/support/daemon_test.h"

using namespace system_test;

namespace {

enum { DONE = 0, NIL = 1, ERROR = 2, NO_REPLY = 3, USAGE = 64 };

class tessctl_pings : public daemon_test {
  protected:
    static void expect(const std::vector<std::string>& arguments, int status,
                       const std::string& out, const std::string& complaint = "") {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        process client(tessctl_command(arguments));
        EXPECT_EQ(client.wait_exit(), status);
        EXPECT_EQ(client.out(), out);
        if (complaint.empty()) {
            EXPECT_EQ(client.err(), "");
        } else {
            EXPECT_NE(client.err().find(complaint), std::string::npos) << client.err();
        }
    }

    static void report(const std::string& text) {
        resp_client client;
        EXPECT_EQ(client.call({"set", "ping.data", text}), "+OK\r\n");
    }
};

const std::string HEAD = "target        max        min        avg       sent       lost     loss\n";

TEST_F(tessctl_pings, are_none_at_first) {
    start();
    expect({"pings"}, DONE, "no reports yet\n");
}

TEST_F(tessctl_pings, are_summed_up_for_each_target_that_has_reported) {
    start();
    report("id=3,max=40,min=10,avg=20,total=10,loss=0");
    report("id=3,max=30,min=5,avg=30,total=10,loss=2");
    report("id=20,max=7,min=7,avg=7,total=3,loss=1");
    expect({"pings"}, DONE,
           HEAD + "     3         40          5         25         20          2   10.0 %\n"
                  "    20          7          7          7          3          1   33.3 %\n");
    resp_client client;
    EXPECT_EQ(client.call({"set", "ping.del", "3"}), "+OK\r\n");
    expect({"PINGS"}, DONE,
           HEAD + "    20          7          7          7          3          1   33.3 %\n");
}

TEST_F(tessctl_pings, are_not_read_from_a_value_of_another_length) {
    start();
    resp_client client;
    for (size_t length : {0, 5, 399, 401}) {
        EXPECT_EQ(client.call({"set", "ping.snap", std::string(length, '\0')}), "+OK\r\n");
        expect({"pings"}, ERROR, "",
               "ping.snap: it has " + std::to_string(length) + " bytes, not the 400");
    }
    EXPECT_EQ(client.call({"hset", "ping.snap", "f", "v"}), "-ERR\r\n");
}

TEST_F(tessctl_pings, are_printed_as_they_come_when_raw) {
    start();
    expect({"--raw", "pings"}, DONE, "$400\r\n" + std::string(400, '\0') + "\r\n");
}

TEST_F(tessctl_pings, take_no_arguments) {
    expect({"pings", "3"}, USAGE, "", "pings takes no arguments");
    expect({"pings"}, NO_REPLY, "", "/tmp/tessard.sock");
}

/* The real daemon always has the key. */
TEST_F(tessctl_pings, may_be_unknown_to_the_daemon) {
    sockaddr_un address = {AF_UNIX, "/tmp/other.sock"};
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    process client(tessctl_command({"-a", "/tmp/other.sock", "pings"}));
    pollfd ready = {listener, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, LIMIT_MS), 1);
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    char request[256];
    const ssize_t length = recv(connection, request, sizeof request, 0);
    EXPECT_EQ(std::string(request, length > 0 ? static_cast<size_t>(length) : 0),
              "*2\r\n$3\r\nget\r\n$9\r\nping.snap\r\n");
    EXPECT_EQ(send(connection, "$-1\r\n", 5, MSG_NOSIGNAL), 5);
    EXPECT_EQ(client.wait_exit(), NIL);
    EXPECT_EQ(client.out(), "");
    EXPECT_EQ(client.err(), "tessctl: ping.snap: there is no such key\n");
    close(connection);
    close(listener);
}

} // namespace
