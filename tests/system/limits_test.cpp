/* The limits that whoever starts the daemon may set it: how many descriptors it may have, and how
 * large its files may grow. */

#include <sys/resource.h>
#include <unistd.h>

#include <sstream>

#include "tests/system/support/daemon_test.h"

using namespace system_test;

namespace {

process_options with_limit(__rlimit_resource what, rlim_t soft, rlim_t hard) {
    process_options options;
    options.before_exec = [=] {
        const rlimit limit = {soft, hard};
        if (setrlimit(what, &limit) != 0) {
            _exit(126);
        }
    };
    return options;
}

/* Processor time that a process has used so far, in clock ticks. */
long used_ticks(pid_t pid) {
    const std::string text = read_file("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string skipped;
    long user = 0;
    long system = 0;
    /* The state is the third field; user and system time are the 14th and 15th. */
    for (int field = 3; field < 14; field++) {
        fields >> skipped;
    }
    fields >> user >> system;
    return user + system;
}

class few_descriptors : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        SKIP_UNDER_EMULATOR("the limits are the emulator's too");
    }

    /* Each in its place; of those that are not served, the first is the next. */
    void connect_clients(size_t count) {
        clients = std::vector<resp_client>(count);
        for (resp_client& client : clients) {
            ASSERT_TRUE(client.send(request_frame({"ping"})));
        }
        served = 0;
        while (served < count && clients[served].frame(served == 0 ? LIMIT_MS : 500) == "+OK\r\n") {
            served++;
        }
    }

    std::vector<resp_client> clients;
    size_t served = 0;
};

class small_files : public daemon_test {};

} // namespace

TEST_F(few_descriptors, clients_wait_for_one_and_are_served_once_another_leaves) {
    start({}, "/tmp/tessard.sock", 0, with_limit(RLIMIT_NOFILE, 16, 16));
    connect_clients(30);
    ASSERT_GT(served, 3u);
    ASSERT_LT(served, 16u);
    EXPECT_EQ(clients[1].call({"ping"}), "+OK\r\n");
    EXPECT_EQ(clients[served].during(500), "");

    clients[0].close();
    EXPECT_EQ(clients[served].frame(), "+OK\r\n");
    EXPECT_EQ(clients[1].call({"ping"}), "+OK\r\n");
}

TEST_F(few_descriptors, waiting_for_one_costs_next_to_nothing) {
    process& daemon = start({}, "/tmp/tessard.sock", 0, with_limit(RLIMIT_NOFILE, 16, 16));
    connect_clients(30);
    ASSERT_LT(served, 16u);
    const long before = used_ticks(daemon.pid());
    const long start_ms = now_ms();
    usleep(2000000);
    const long ticks = used_ticks(daemon.pid()) - before;
    const long percent = ticks * 100000 / sysconf(_SC_CLK_TCK) / (now_ms() - start_ms);
    EXPECT_LT(percent, 5);
}

TEST_F(few_descriptors, a_limit_that_may_be_raised_is_raised) {
    start({}, "/tmp/tessard.sock", 0, with_limit(RLIMIT_NOFILE, 16, 1024));
    connect_clients(90);
    EXPECT_EQ(served, 90u);
}

TEST_F(small_files, a_log_that_may_not_grow_to_its_size_ends_nobody) {
    process& daemon =
        start({"-l", "debug"}, "/tmp/tessard.sock", 0, with_limit(RLIMIT_FSIZE, 20000, 20000));
    resp_client client;
    /* Some 130 bytes each: the log is to begin again at 31744 bytes, more than once. */
    for (int i = 0; i < 600; i++) {
        ASSERT_EQ(client.call({"ping"}), "+OK\r\n") << i;
    }
    EXPECT_TRUE(daemon.running());
    EXPECT_EQ(read_file("/tmp/tessard.log").size(), 20000u);
    EXPECT_EQ(client.call({"hello", "late"}), "+OK\r\n");
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
        return read_file("/tmp/tessard.log").find("client(\"late\")") != std::string::npos;
    })) << "the log did not go on";
}

TEST_F(small_files, a_dump_that_may_not_grow_to_its_size_ends_nobody) {
    process& daemon = start({}, "/tmp/tessard.sock", 0, with_limit(RLIMIT_FSIZE, 20000, 20000));
    resp_client client;
    ASSERT_EQ(client.call({"set", "k", std::string(30000, 'v')}), "+OK\r\n");
    EXPECT_EQ(client.call({"dump", "/tmp/dump", "k"}).substr(0, 1), ":");
    EXPECT_EQ(client.call({"strlen", "k"}), ":30000\r\n");
    EXPECT_TRUE(daemon.running());
}
