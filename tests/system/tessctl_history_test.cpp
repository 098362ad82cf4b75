/* Histories as the command-line client prints them: those that the daemon keeps by itself, and
 * values that somebody laid under such a key. */

#include <fcntl.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "tests/system/support/daemon_test.h"
#include "tests/unit/ctl/ring_value.h"

using namespace system_test;

namespace {

enum { DONE = 0, NIL = 1, ERROR = 2, USAGE = 64 };

class tessctl_history : public daemon_test {
  protected:
    struct result {
        int status;
        std::string out;
        std::string err;
    };

    static result run(std::vector<std::string> arguments, const process_options& options = {}) {
        if (arguments.empty() || arguments[0] != "--raw") {
            arguments.insert(arguments.begin(), "history");
        }
        process client(tessctl_command(arguments), options);
        const int status = client.wait_exit();
        return {status, client.out(), client.err()};
    }

    /* Prints exactly this, with status 0. */
    static void expect_prints(const std::vector<std::string>& arguments, const std::string& out,
                              const process_options& options = {}) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const result r = run(arguments, options);
        EXPECT_EQ(r.status, DONE);
        EXPECT_EQ(r.out, out);
        EXPECT_EQ(r.err, "");
    }

    static void expect_complains(const std::vector<std::string>& arguments, int status,
                                 const std::string& text) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const result r = run(arguments);
        EXPECT_EQ(r.status, status);
        EXPECT_EQ(r.out, "");
        EXPECT_NE(r.err.find(text), std::string::npos) << r.err;
    }

    /* Lays a value under a key that no collector writes to. */
    static void lay(const std::string& key, const std::string& value) {
        resp_client client;
        EXPECT_EQ(client.call({"set", key, value}), "+OK\r\n");
    }
};

/* 1700000000 is 2023-11-14 22:13:20 in UTC. */
const std::string CPU = ring_of_bytes({1700000000, 12, 3, 3, 1}, {7, 100, 0});

TEST_F(tessctl_history, prints_the_samples_that_the_daemon_takes) {
    start();
    const long before = time(nullptr);
    std::string text;
    ASSERT_TRUE(eventually([&] {
        text = run({"--csv", "cpu.10m"}).out;
        return std::count(text.begin(), text.end(), '\n') >= 3;
    })) << text;
    EXPECT_EQ(text.rfind("time,percent\n", 0), 0U) << text;

    tm last = {};
    const size_t line = text.rfind('\n', text.size() - 2) + 1;
    const char* end = strptime(text.c_str() + line, "%Y-%m-%dT%H:%M:%SZ,", &last);
    ASSERT_NE(end, nullptr) << text;
    EXPECT_GE(timegm(&last), before - 1);
    EXPECT_LE(timegm(&last), time(nullptr));
    const int percent = atoi(end);
    EXPECT_TRUE(percent >= 0 && percent <= 100) << text;
}

TEST_F(tessctl_history, prints_the_histories_of_hosts_and_connections) {
    sandbox::add_tool("hostmon", "echo 'Online hosts: 5'\necho 'Max Online hosts: 9'\n");
    sandbox::add_tool("conntrack", "echo 'cpu=0 123 x'\n");
    start();
    EXPECT_TRUE(eventually([&] {
        return run({"--csv", "host.10m"}).out.find("Z,5\n") != std::string::npos;
    }));
    EXPECT_TRUE(eventually([&] {
        return run({"--csv", "conn.10m"}).out.find("Z,123\n") != std::string::npos;
    }));
}

TEST_F(tessctl_history, prints_what_ping_targets_report) {
    start();
    resp_client client;
    for (const char* report :
         {"id=3,max=40,min=10,avg=20,total=10,loss=0", "id=3,max=30,min=5,avg=30,total=10,loss=2",
          "id=3,max=20,min=12,avg=15,total=10,loss=1"}) {
        EXPECT_EQ(client.call({"set", "ping.data", report}), "+OK\r\n");
    }
    expect_prints({"--csv", "ping3.day"}, "sample,max,min,avg,total,loss\n1,40,12,30,30,3\n");
    const result table = run({"ping3.day"});
    EXPECT_EQ(table.out.rfind("ping3.day: a sample is 3 reports, at times not known;", 0), 0U)
        << table.out;
    expect_prints({"ping3.week"}, "ping3.week: no samples yet\n");
}

TEST_F(tessctl_history, prints_every_form) {
    start();
    lay("cpu.test", CPU);
    expect_prints({"cpu.test"}, "time                    percent\n"
                                "2023-11-14 22:12:56         100\n"
                                "2023-11-14 22:13:08           0\n"
                                "2023-11-14 22:13:20           7\n");
    expect_prints({"--csv", "cpu.test"}, "time,percent\n"
                                         "2023-11-14T22:12:56Z,100\n"
                                         "2023-11-14T22:13:08Z,0\n"
                                         "2023-11-14T22:13:20Z,7\n");
    expect_prints(
        {"cpu.test", "--json"},
        "{\"key\":\"cpu.test\",\"last\":\"2023-11-14T22:13:20Z\",\"period_seconds\":12,\"slots\":3,"
        "\"samples\":[\n"
        "{\"time\":\"2023-11-14T22:12:56Z\",\"percent\":100},\n"
        "{\"time\":\"2023-11-14T22:13:08Z\",\"percent\":0},\n"
        "{\"time\":\"2023-11-14T22:13:20Z\",\"percent\":7}\n"
        "]}\n");
    const std::string plot = run({"--plot", "cpu.test"}).out;
    /* Three samples of 24 columns each, on 72. */
    EXPECT_EQ(plot.rfind("cpu.test: percent, 3 samples\n   100 +########################\n", 0), 0U)
        << plot;
    EXPECT_NE(plot.find("     0 +" + std::string(36, '-') + "+" + std::string(34, '-') + "+\n"),
              std::string::npos)
        << plot;
}

TEST_F(tessctl_history, prints_local_time_in_the_table_alone) {
    start();
    lay("cpu.test", ring_of_bytes({1700000000, 12, 1, 1, 0}, {7}));
    process_options there;
    there.environment = {"TZ=TEST-2"};
    expect_prints({"cpu.test"},
                  "time                    percent\n2023-11-15 00:13:20           7\n", there);
    expect_prints({"--csv", "cpu.test"}, "time,percent\n2023-11-14T22:13:20Z,7\n", there);
}

TEST_F(tessctl_history, plots_in_the_terminals_width) {
    start();
    lay("cpu.test", ring_of_bytes({1700000000, 1, 600, 600, 0}, std::string(600, '\x32')));
    const int terminal = sandbox::add_terminal("/dev/ttyT");
    ASSERT_GE(terminal, 0);
    winsize size = {};
    size.ws_col = 40;
    size.ws_row = 24;
    ASSERT_EQ(ioctl(terminal, TIOCSWINSZ, &size), 0);
    process_options on_terminal;
    on_terminal.before_exec = [] { dup2(open("/dev/ttyT", O_WRONLY | O_NOCTTY | O_CLOEXEC), 1); };
    EXPECT_EQ(run({"--plot", "cpu.test"}, on_terminal).status, DONE);
    char text[8192];
    const ssize_t length = read(terminal, text, sizeof text);
    const std::string seen(text, length > 0 ? static_cast<size_t>(length) : 0);
    EXPECT_NE(seen.find("    50 +" + std::string(32, '#') + "\n"), std::string::npos) << seen;
    EXPECT_NE(seen.find("     0 +" + std::string(16, '-') + "+" + std::string(14, '-') + "+\n"),
              std::string::npos)
        << seen;
}

TEST_F(tessctl_history, plots_with_blocks_where_the_environment_promises_utf8) {
    start();
    lay("cpu.test", ring_of_bytes({1700000000, 1, 1, 1, 0}, {100}));
    process_options utf8;
    utf8.environment = {"LC_ALL=C.UTF-8"};
    EXPECT_NE(run({"--plot", "cpu.test"}, utf8).out.find("   100 +█"), std::string::npos);
    EXPECT_NE(run({"--plot", "cpu.test"}).out.find("   100 +#"), std::string::npos);
}

TEST_F(tessctl_history, says_when_there_is_no_such_key) {
    start();
    expect_complains({"nothing.10m"}, NIL, "tessctl: nothing.10m: there is no such key\n");
    expect_complains({"--json", "nothing.10m"}, NIL, "there is no such key");
}

TEST_F(tessctl_history, says_why_a_value_is_no_history) {
    start();
    lay("cpu.text", "hello");
    lay("cpu.none", "");
    lay("cpu.size", CPU + "x");
    lay("cpu.slots", ring_of_bytes({1, 1, 0, 0, 0}, "abc"));
    lay("cpu.many", ring_of_bytes({1, 1, 3, 4, 0}, "abc"));
    lay("cpu.head", ring_of_bytes({1, 1, 3, 3, 3}, "abc"));
    lay("cpu.huge",
        ring_of_bytes({0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff}, "abc"));
    lay("host.bytes", CPU);
    lay("noname", CPU);
    for (const char* form : {"--csv", "--json", "--plot"}) {
        expect_complains({form, "cpu.text"}, ERROR, "cpu.text: it is too short");
        expect_complains({form, "cpu.none"}, ERROR, "cpu.none: it is too short");
        expect_complains({form, "cpu.size"}, ERROR, "its length does not fit");
        expect_complains({form, "cpu.slots"}, ERROR, "no slots");
        expect_complains({form, "cpu.many"}, ERROR, "more slots are filled");
        expect_complains({form, "cpu.head"}, ERROR, "the next slot");
        expect_complains({form, "cpu.huge"}, ERROR, "its length does not fit");
        expect_complains({form, "host.bytes"}, ERROR, "another size");
        expect_complains({form, "noname"}, ERROR, "its name does not tell");
    }
    resp_client client;
    client.call({"hset", "hash.10m", "field", "value"});
    expect_complains({"hash.10m"}, ERROR, "hash.10m: the daemon gives no string for it");
}

TEST_F(tessctl_history, prints_the_frame_alone_when_raw) {
    start();
    lay("cpu.test", "hello");
    expect_prints({"--raw", "history", "cpu.test"}, "$5\r\nhello\r\n");
    const result missing = run({"--raw", "history", "nothing"});
    EXPECT_EQ(missing.status, NIL);
    EXPECT_EQ(missing.out, "$-1\r\n");
}

TEST_F(tessctl_history, takes_one_key_and_one_form) {
    expect_complains({}, USAGE, "needs a key");
    expect_complains({"--csv"}, USAGE, "needs a key");
    expect_complains({"--", "a", "b"}, USAGE, "takes one key");
    expect_complains({"a", "b"}, USAGE, "takes one key");
    expect_complains({"--csv", "--json", "a"}, USAGE, "one form");
    expect_complains({"--xml", "a"}, USAGE, "knows --csv, --json and --plot only");
    start();
    lay("--csv", "x");
    expect_complains({"--csv", "--csv", "--", "--csv"}, ERROR, "--csv: it is too short");
}

} // namespace
