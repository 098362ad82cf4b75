/* The command line, the order of start-up and what it leaves behind: pid file, socket, seeded keys.
 */

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/usage.h"
#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

class command_line : public daemon_test {
  protected:
    void expect_usage(const std::vector<std::string>& arguments) {
        SCOPED_TRACE(arguments.front());
        process& program = launch(arguments);
        EXPECT_EQ(program.wait_exit(), 255);
        EXPECT_EQ(program.out(), usage(sandbox::tessard_path()));
        expect_no_traces();
    }

    static void expect_no_traces() {
        EXPECT_FALSE(file_exists("/tmp/tessard.pid"));
        EXPECT_FALSE(file_exists("/tmp/tessard.log"));
        EXPECT_FALSE(file_exists("/tmp/tessard.sock"));
    }

    /* The listening TCP sockets of this test's network: state 0A in the kernel's tables. */
    static int tcp_listeners() {
        int count = 0;
        for (const char* table : {"/proc/self/net/tcp", "/proc/self/net/tcp6"}) {
            std::string text = read_file(table);
            for (size_t at = text.find(" 0A "); at != std::string::npos;
                 at = text.find(" 0A ", at + 1)) {
                count++;
            }
        }
        return count;
    }

    void expect_default_socket(const std::vector<std::string>& arguments) {
        SCOPED_TRACE(arguments.empty() ? "no arguments" : arguments.front());
        process& daemon = start(arguments);
        resp_client client;
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
        EXPECT_EQ(tcp_listeners(), 0);
        daemon.stop();
    }
};

class start_up : public daemon_test {
  protected:
    static std::string started_line(pid_t pid) {
        return "application started with pid " + std::to_string(pid);
    }

    static std::vector<log_record> warnings() {
        std::vector<log_record> records = parse_log(read_file("/tmp/tessard.log"));
        const auto is_other = [](const log_record& r) { return r.level != "warn  *** "; };
        records.erase(std::remove_if(records.begin(), records.end(), is_other), records.end());
        return records;
    }

    static mode_t mode_of(const std::string& path) {
        struct stat info = {};
        lstat(path.c_str(), &info);
        return info.st_mode;
    }

    /* How long a key whose time has already come stays in a daemon that has just started, in ms. */
    long life_of_an_expired_key() {
        process& daemon = start();
        long served = now_ms();
        resp_client client;
        EXPECT_EQ(client.call({"set", "k", "v"}), "+OK\r\n");
        EXPECT_EQ(client.call({"expire", "k", "0"}), ":1\r\n");
        EXPECT_TRUE(eventually([&] { return client.call({"exists", "k"}) == ":0\r\n"; }));
        long life = now_ms() - served;
        daemon.stop();
        return life;
    }
};

class predecessor : public daemon_test {
  protected:
    static void write_pid(const std::string& text) {
        write_file("/tmp/tessard.pid", text);
    }

    void expect_spared(named_process& other) {
        start();
        EXPECT_EQ(other.wait_exit(0), STILL_RUNNING);
    }

    /* True once the process has ended; it is not reaped, and its pid stays in use. */
    static bool has_ended(const named_process& other) {
        siginfo_t info = {};
        waitid(P_PID, static_cast<id_t>(other.pid()), &info, WEXITED | WNOHANG | WNOWAIT);
        return info.si_pid == other.pid();
    }
};

class background : public daemon_test {};

class descriptors : public daemon_test {
  protected:
    /* The descriptors of a process that would stay open in a program it starts, the first three
     * left out. */
    static std::vector<std::string> inheritable(pid_t pid) {
        std::string folder_path = "/proc/" + std::to_string(pid) + "/fdinfo";
        std::vector<std::string> found;
        DIR* folder = opendir(folder_path.c_str());
        for (dirent* entry; folder != nullptr && (entry = readdir(folder)) != nullptr;) {
            if (entry->d_name[0] == '.' || atoi(entry->d_name) < 3) {
                continue;
            }
            std::string info = read_file(folder_path + "/" + entry->d_name);
            size_t flags = info.find("flags:\t");
            if (flags == std::string::npos ||
                (strtoul(info.c_str() + flags + 7, nullptr, 8) & O_CLOEXEC) == 0) {
                found.push_back(entry->d_name);
            }
        }
        if (folder != nullptr) {
            closedir(folder);
        }
        return found;
    }

    /* Where the descriptor leads, "" when it is not open. */
    static std::string target(pid_t pid, const std::string& descriptor) {
        char text[256] = "";
        std::string link = "/proc/" + std::to_string(pid) + "/fd/" + descriptor;
        ssize_t length = readlink(link.c_str(), text, sizeof text);
        return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
    }

    static size_t count(pid_t pid) {
        size_t entries = 0;
        DIR* folder = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
        for (dirent* entry; folder != nullptr && (entry = readdir(folder)) != nullptr;) {
            entries += entry->d_name[0] != '.';
        }
        if (folder != nullptr) {
            closedir(folder);
        }
        return entries;
    }
};

} // namespace

TEST_F(command_line, help_prints_the_usage_and_ends_with_255) {
    process& program = launch({"-h"});
    EXPECT_EQ(program.wait_exit(), 255);
    EXPECT_EQ(program.out(), usage(sandbox::tessard_path()));
    EXPECT_EQ(program.err(), "");
    expect_no_traces();
    expect_usage({"--help"});
}

TEST_F(command_line, an_unknown_option_prints_the_usage_and_ends_with_255) {
    expect_usage({"-x"});
    expect_usage({"--unheard-of"});
    expect_usage({"-?"});
}

TEST_F(command_line, an_option_without_its_argument_prints_the_usage_and_ends_with_255) {
    for (const char* option : {"-p", "-a", "-l", "-f", "-g"}) {
        expect_usage({option});
    }
}

TEST_F(command_line, an_argument_for_an_option_that_takes_none_prints_the_usage) {
    expect_usage({"--daemon=yes"});
    expect_usage({"--version=2"});
}

TEST_F(command_line, the_history_algorithm_never_starts_the_daemon) {
    expect_usage({"-g", "avg"});
    expect_usage({"-g", "max"});
    expect_usage({"-g", "mean"});
    expect_usage({"-gavg"});
}

TEST_F(command_line, options_before_the_help_do_not_change_it) {
    expect_usage({"-l", "debug", "-f", "stdout", "-h"});
    expect_usage({"-a", "/tmp/other.sock", "-g", "max"});
}

TEST_F(command_line, version_is_one_line_and_ends_with_0) {
    for (const char* option : {"-v", "--version"}) {
        process& program = launch({option});
        EXPECT_EQ(program.wait_exit(), 0);
        std::string out = program.out();
        EXPECT_EQ(out.rfind("Tessard 2.1.0 ", 0), 0u) << out;
        EXPECT_GT(out.size(), sizeof "Tessard 2.1.0 \n" - 1) << "the notice is missing";
        EXPECT_EQ(out.find('\n'), out.size() - 1) << out;
        EXPECT_EQ(program.err(), "");
        expect_no_traces();
    }
}

TEST_F(command_line, version_before_daemon_prints_in_the_foreground) {
    process& program = launch({"-vd"});
    EXPECT_EQ(program.wait_exit(), 0);
    EXPECT_EQ(program.out().rfind("Tessard 2.1.0 ", 0), 0u);
    expect_no_traces();
}

TEST_F(command_line, version_behind_daemon_is_printed_into_nothing) {
    process& program = launch({"-dv"});
    EXPECT_EQ(program.wait_exit(), 0);
    EXPECT_TRUE(all_children_end());
    EXPECT_EQ(program.out(), "");
    EXPECT_EQ(program.err(), "");
    expect_no_traces();
}

TEST_F(command_line, the_first_option_that_ends_the_program_decides) {
    process& version = launch({"-v", "-h"});
    EXPECT_EQ(version.wait_exit(), 0);
    EXPECT_EQ(version.out().rfind("Tessard 2.1.0 ", 0), 0u);
    process& help = launch({"-h", "-v"});
    EXPECT_EQ(help.wait_exit(), 255);
    EXPECT_EQ(help.out(), usage(sandbox::tessard_path()));
}

TEST_F(command_line, without_options_the_daemon_serves_its_default_socket) {
    expect_default_socket({});
}

TEST_F(command_line, words_that_are_no_options_are_ignored) {
    expect_default_socket({"hello", "world"});
}

TEST_F(command_line, a_port_alone_stays_on_the_unix_socket) {
    expect_default_socket({"-p", "7000"});
    expect_default_socket({"--port=7000"});
}

TEST_F(command_line, a_port_that_is_no_positive_number_is_ignored) {
    expect_default_socket({"-p", "0"});
    expect_default_socket({"-p", "abc"});
    expect_default_socket({"-p", "-5"});
    expect_default_socket({"-p", ""});
    start({"-p", "7000", "-p", "0", "-p", "abc", "-a", "127.0.0.1"}, "127.0.0.1", 7000);
}

TEST_F(command_line, an_ipv4_address_with_a_port_listens_on_tcp_and_on_nothing_else) {
    start({"-a", "127.0.0.1", "-p", "7001"}, "127.0.0.1", 7001);
    resp_client client("127.0.0.1", 7001);
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_FALSE(resp_client("127.0.0.2", 7001).connected());
    EXPECT_FALSE(file_exists("/tmp/tessard.sock"));
}

TEST_F(command_line, address_and_port_may_come_in_any_order_and_form) {
    start({"--port=7002", "--addr=127.0.0.1"}, "127.0.0.1", 7002);
    resp_client client("127.0.0.1", 7002);
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
}

TEST_F(command_line, the_address_of_all_interfaces_takes_clients_on_each) {
    start({"-a", "0.0.0.0", "-p", "7003"}, "127.0.0.1", 7003);
    resp_client client("127.0.0.2", 7003);
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
}

TEST_F(command_line, an_ipv6_address_listens_on_tcp) {
    if (!file_exists("/proc/self/net/if_inet6")) {
        GTEST_SKIP() << "no IPv6 in this kernel";
    }
    start({"-a", "::1", "-p", "7004"}, "::1", 7004);
    resp_client client("::1", 7004);
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_FALSE(resp_client("127.0.0.1", 7004).connected());
    EXPECT_FALSE(file_exists("/tmp/tessard.sock"));
}

TEST_F(command_line, a_path_is_served_in_place_of_the_default_socket) {
    for (const char* option : {"--addr=/tmp/a.sock", "-a/tmp/a.sock"}) {
        process& daemon = start({option}, "/tmp/a.sock");
        resp_client client("/tmp/a.sock");
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
        EXPECT_FALSE(file_exists("/tmp/tessard.sock"));
        daemon.stop();
    }
}

TEST_F(command_line, the_last_address_counts) {
    start({"-a", "/tmp/a.sock", "-a", "/tmp/b.sock"}, "/tmp/b.sock");
    EXPECT_FALSE(file_exists("/tmp/a.sock"));
}

TEST_F(command_line, a_port_beside_a_path_is_ignored) {
    start({"-a", "/tmp/a.sock", "-p", "7005"}, "/tmp/a.sock");
    EXPECT_EQ(tcp_listeners(), 0);
}

TEST_F(command_line, a_path_may_be_relative_when_it_holds_a_slash) {
    start({"-a", "./rel.sock"}, work("rel.sock"));
}

TEST_F(command_line, a_long_option_without_its_value_is_ignored) {
    expect_default_socket({"--addr"});
    expect_default_socket({"--port"});
    expect_default_socket({"--loglevel"});
    expect_default_socket({"--logfile"});
    expect_default_socket({"--addr", "--port", "--loglevel", "--logfile"});
}

TEST_F(command_line, a_long_option_does_not_take_its_value_from_the_next_word) {
    expect_default_socket({"--addr", "/tmp/a.sock"});
    EXPECT_FALSE(file_exists("/tmp/a.sock"));
    expect_default_socket({"--port", "7006"});
    process& daemon = start({"--loglevel", "error", "--logfile", "stdout"});
    EXPECT_EQ(daemon.out(), "");
    EXPECT_EQ(log_messages(read_file("/tmp/tessard.log"), {"application"}).size(), 1u);
}

TEST_F(command_line, a_long_path_is_bound_whole_up_to_107_bytes) {
    std::string folder = "/tmp/" + std::string(60, 'd');
    make_folders(folder);
    std::string path = folder + "/" + std::string(107 - folder.size() - 1, 's');
    ASSERT_EQ(path.size(), 107u);
    start({"-a", path}, path);
    resp_client client(path);
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
}

TEST_F(command_line, a_path_beyond_107_bytes_is_cut_there_before_it_is_unlinked_and_bound) {
    std::string folder = "/tmp/" + std::string(60, 'd');
    make_folders(folder);
    std::string cut = folder + "/" + std::string(107 - folder.size() - 1, 's');
    std::string longer = cut + std::string(60, 's');
    write_file(cut, "stale");
    write_file(longer, "another file");
    start({"-a", longer}, cut);
    EXPECT_EQ(read_file(longer), "another file");
}

TEST_F(command_line, an_enormous_address_harms_nothing) {
    for (const std::string& address : {std::string(5000, '1'), std::string(5000, ':'),
                                       "/tmp/none/" + std::string(100000, 'x')}) {
        process& daemon = launch({"-a", address, "-p", "7007"});
        EXPECT_EQ(daemon.wait_exit(), 0);
    }
}

TEST_F(start_up, the_first_log_line_bears_the_pid) {
    process& daemon = start();
    std::vector<log_record> records = parse_log(read_file("/tmp/tessard.log"));
    ASSERT_GE(records.size(), 1u);
    EXPECT_EQ(records[0].level, "info  *** ");
    EXPECT_EQ(records[0].text, started_line(daemon.pid()));
}

TEST_F(start_up, the_pid_file_holds_the_decimal_pid_and_nothing_else) {
    process& daemon = start();
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(daemon.pid()));
    EXPECT_EQ(mode_of("/tmp/tessard.pid"), static_cast<mode_t>(S_IFREG | 0644));
}

TEST_F(start_up, a_longer_pid_file_is_emptied_first) {
    write_file("/tmp/tessard.pid", std::string(5000, 'x'));
    process& daemon = start();
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(daemon.pid()));
}

TEST_F(start_up, a_pid_file_that_cannot_be_made_is_passed_over) {
    mkdir("/tmp/tessard.pid", 0755);
    start();
    resp_client client;
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(mode_of("/tmp/tessard.pid"), static_cast<mode_t>(S_IFDIR | 0755));
}

TEST_F(start_up, a_fifo_in_place_of_the_pid_file_holds_up_nobody) {
    ASSERT_EQ(mkfifo("/tmp/tessard.pid", 0666), 0);
    start();
    resp_client client;
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_TRUE(S_ISFIFO(mode_of("/tmp/tessard.pid")));
}

TEST_F(start_up, a_link_in_place_of_the_pid_file_is_not_followed) {
    write_file("/tmp/precious", "somebody's text");
    ASSERT_EQ(symlink("precious", "/tmp/tessard.pid"), 0);
    start();
    resp_client client;
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(read_file("/tmp/precious"), "somebody's text");
    EXPECT_TRUE(S_ISLNK(mode_of("/tmp/tessard.pid")));
    const std::vector<log_record> warning = warnings();
    ASSERT_EQ(warning.size(), 1u);
    EXPECT_NE(warning[0].text.find("/tmp/tessard.pid"), std::string::npos) << warning[0].text;
}

TEST_F(start_up, a_link_to_nothing_in_place_of_the_pid_file_makes_nothing) {
    ASSERT_EQ(symlink("/tmp/made", "/tmp/tessard.pid"), 0);
    start();
    EXPECT_FALSE(file_exists("/tmp/made"));
    EXPECT_EQ(warnings().size(), 1u);
}

TEST_F(start_up, a_pid_file_with_another_name_is_left_alone) {
    write_file("/tmp/precious", "somebody's text");
    ASSERT_EQ(link("/tmp/precious", "/tmp/tessard.pid"), 0);
    start();
    EXPECT_EQ(read_file("/tmp/precious"), "somebody's text");
    EXPECT_EQ(warnings().size(), 1u);
}

TEST_F(start_up, a_pid_file_of_its_own_is_no_reason_for_a_warning) {
    write_file("/tmp/tessard.pid", "1");
    start();
    EXPECT_EQ(warnings().size(), 0u);
}

TEST_F(start_up, pid_file_and_socket_stay_behind) {
    process& daemon = start();
    daemon.stop();
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(daemon.pid()));
    EXPECT_TRUE(S_ISSOCK(mode_of("/tmp/tessard.sock")));
}

TEST_F(start_up, a_stale_socket_is_replaced) {
    start().stop();
    ASSERT_TRUE(file_exists("/tmp/tessard.sock"));
    start();
    resp_client client;
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
}

TEST_F(start_up, a_plain_file_at_the_sockets_path_is_replaced) {
    write_file("/tmp/tessard.sock", "in the way");
    start();
    EXPECT_TRUE(S_ISSOCK(mode_of("/tmp/tessard.sock")));
}

TEST_F(start_up, with_a_port_a_stale_socket_is_replaced_too) {
    write_file("/tmp/tessard.sock", "in the way");
    start({"-p", "7010"});
    EXPECT_TRUE(S_ISSOCK(mode_of("/tmp/tessard.sock")));
}

TEST_F(start_up, an_address_that_cannot_be_served_ends_the_daemon_with_0) {
    mkdir("/tmp/folder.sock", 0755);
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"-a", "300.1.1.1"},
                                               {"-a", "300.1.1.1", "-p", "7011"},
                                               {"-a", "localhost", "-p", "7011"},
                                               {"-a", "", "-p", "7011"},
                                               {"-a", "192.0.2.1", "-p", "7011"},
                                               {"-a", "12345::1", "-p", "7011"},
                                               {"-a", "/tmp/no/such/folder.sock"},
                                               {"-a", "/tmp/folder.sock"}}) {
        SCOPED_TRACE(arguments[1]);
        process& daemon = launch(arguments);
        EXPECT_EQ(daemon.wait_exit(), 0);
        EXPECT_EQ(daemon.out(), "");
        EXPECT_EQ(daemon.err(), "");
    }
}

TEST_F(start_up, a_tcp_port_that_is_taken_ends_the_second_daemon_with_0) {
    /* Without its pid file the first one is not replaced. */
    start({"-a", "127.0.0.1", "-p", "7012"}, "127.0.0.1", 7012);
    unlink("/tmp/tessard.pid");
    EXPECT_EQ(launch({"-a", "127.0.0.1", "-p", "7012"}).wait_exit(), 0);
    resp_client client("127.0.0.1", 7012);
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
}

TEST_F(start_up, log_and_pid_file_are_written_before_the_server_is_opened) {
    process& daemon = launch({"-a", "300.1.1.1", "-p", "7013"});
    EXPECT_EQ(daemon.wait_exit(), 0);
    EXPECT_EQ(log_messages(read_file("/tmp/tessard.log")),
              std::vector<std::string>{started_line(daemon.pid())});
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(daemon.pid()));
}

TEST_F(start_up, without_a_port_the_address_is_unlinked_before_it_is_understood) {
    std::string file = work("300.1.1.1");
    write_file(file, "");
    EXPECT_EQ(launch({"-a", "300.1.1.1", "-p", "7014"}).wait_exit(), 0);
    EXPECT_TRUE(file_exists(file));
    EXPECT_EQ(launch({"-a", "300.1.1.1"}).wait_exit(), 0);
    EXPECT_FALSE(file_exists(file));
}

TEST_F(start_up, the_built_in_keys_can_be_read_at_once) {
    start();
    resp_client client;
    EXPECT_EQ(client.call({"get", "fhour.interval"}), "$2\r\n30\r\n");
    EXPECT_EQ(client.call({"type", "tessard.run"}), "$4\r\nhash\r\n");
    EXPECT_EQ(client.call({"hlen", "tessard.run"}), ":4\r\n");
    EXPECT_EQ(
        client.call({"hmget", "tessard.run", "logfile", "loglevel", "pid", "history-iface-algor"}),
        "*4\r\n$16\r\n/tmp/tessard.log\r\n$4\r\ninfo\r\n$4\r\nnone\r\n$3\r\nmax\r\n");
}

TEST_F(start_up, the_built_in_keys_do_not_follow_the_command_line) {
    start({"-l", "error", "-f", "syslog"});
    resp_client client;
    EXPECT_EQ(client.call({"hmget", "tessard.run", "logfile", "loglevel", "pid"}),
              "*3\r\n$16\r\n/tmp/tessard.log\r\n$4\r\ninfo\r\n$4\r\nnone\r\n");
}

TEST_F(start_up, the_built_in_keys_can_be_overwritten_but_not_deleted) {
    start();
    resp_client client;
    EXPECT_EQ(client.call({"del", "fhour.interval"}), ":0\r\n");
    EXPECT_EQ(client.call({"del", "tessard.run"}), ":0\r\n");
    EXPECT_EQ(client.call({"hdel", "tessard.run", "pid"}), ":0\r\n");
    EXPECT_EQ(client.call({"set", "fhour.interval", "60"}), "+OK\r\n");
    EXPECT_EQ(client.call({"get", "fhour.interval"}), "$2\r\n60\r\n");
    EXPECT_EQ(client.call({"hset", "tessard.run", "pid", "7"}), ":0\r\n");
    EXPECT_EQ(client.call({"hget", "tessard.run", "pid"}), "$1\r\n7\r\n");
}

TEST_F(start_up, the_first_sweep_of_expired_keys_comes_a_second_after_the_first_tick) {
    /* The first tick, 100 ms after the start, notes the time, and the one a second later sweeps.
     * What the machine does meanwhile makes it later, so the quickest of some tries counts. */
    const long latest = 1100 + 50;
    long quickest = LIMIT_MS;
    for (int tries = 0; tries < 8 && quickest > latest; tries++) {
        quickest = std::min(quickest, life_of_an_expired_key());
    }
    EXPECT_LE(quickest, latest);
}

TEST_F(predecessor, nobody_waits_for_its_end) {
    /* It stays as it is until the test takes note of its end, and the daemon starts all the same.
     * The quickest of some tries counts: a busy machine may hold up any of them. */
    const long longest = 30;
    long quickest = LIMIT_MS;
    for (int tries = 0; tries < 20 && quickest > longest; tries++) {
        named_process other("tessard");
        write_pid(std::to_string(other.pid()));
        process& daemon = launch({});
        const std::string pid = std::to_string(daemon.pid());
        ASSERT_TRUE(eventually([&] { return has_ended(other); }));
        long killed = now_ms();
        ASSERT_TRUE(eventually([&] { return read_file("/tmp/tessard.pid") == pid; }));
        quickest = std::min(quickest, now_ms() - killed);
        EXPECT_TRUE(wait_for_server());
        EXPECT_TRUE(has_ended(other));
        EXPECT_EQ(kill(other.pid(), 0), 0) << "the test reaped it too early";
        daemon.stop();
    }
    EXPECT_LE(quickest, longest);
}

TEST_F(predecessor, a_running_daemon_is_killed_and_replaced) {
    SKIP_UNDER_EMULATOR("the name of the running daemon");
    process& first = start();
    resp_client client;
    EXPECT_EQ(client.call({"set", "k", "v"}), "+OK\r\n");
    process& second = launch({});
    EXPECT_EQ(first.wait_exit(), KILLED_BY + SIGKILL);
    EXPECT_TRUE(wait_for_server());
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(second.pid()));
    EXPECT_EQ(client.until_closed(), "");
    resp_client next;
    EXPECT_EQ(next.call({"get", "k"}), "$-1\r\n");
}

TEST_F(predecessor, it_is_killed_although_the_new_one_cannot_serve) {
    named_process other("tessard");
    write_pid(std::to_string(other.pid()));
    EXPECT_EQ(launch({"-a", "300.1.1.1", "-p", "7020"}).wait_exit(), 0);
    EXPECT_EQ(other.wait_exit(), KILLED_BY + SIGKILL);
}

TEST_F(predecessor, any_program_whose_name_begins_like_the_daemons_is_killed) {
    named_process other("tessardX");
    write_pid(std::to_string(other.pid()));
    start();
    EXPECT_EQ(other.wait_exit(), KILLED_BY + SIGKILL);
}

TEST_F(predecessor, a_program_of_another_name_is_spared) {
    for (const char* name : {"sh", "tessar", "Tessard", "xtessard", "tessarx", "tess ard"}) {
        SCOPED_TRACE(name);
        named_process other(name);
        write_pid(std::to_string(other.pid()));
        process& daemon = start();
        EXPECT_EQ(other.wait_exit(0), STILL_RUNNING);
        daemon.stop();
    }
}

TEST_F(predecessor, a_number_is_read_up_to_the_first_other_byte) {
    for (const char* tail : {"\n", " tessard", "abc", "\n\n\n"}) {
        named_process other("tessard");
        write_pid("  " + std::to_string(other.pid()) + tail);
        process& daemon = start();
        EXPECT_EQ(other.wait_exit(), KILLED_BY + SIGKILL);
        daemon.stop();
    }
}

TEST_F(predecessor, the_pid_file_is_read_up_to_31_bytes) {
    named_process spared("tessard");
    write_pid(std::string(31, ' ') + std::to_string(spared.pid()));
    expect_spared(spared);

    named_process killed("tessard");
    std::string pid = std::to_string(killed.pid());
    write_pid(std::string(31 - pid.size(), '0') + pid + "999");
    start();
    EXPECT_EQ(killed.wait_exit(), KILLED_BY + SIGKILL);
}

TEST_F(predecessor, a_pid_file_without_a_positive_number_kills_nobody) {
    named_process other("tessard");
    std::string pid = std::to_string(other.pid());
    for (const std::string& text :
         {std::string(), std::string("garbage"), std::string("0"), std::string("-1"), "-" + pid,
          "x" + pid, std::string("\0", 1) + pid, std::string(100000, 'x'),
          std::string("99999999999999999999")}) {
        SCOPED_TRACE(text.substr(0, 40));
        write_pid(text);
        process& daemon = start();
        EXPECT_EQ(other.wait_exit(0), STILL_RUNNING);
        daemon.stop();
    }
}

TEST_F(predecessor, a_pid_file_that_is_a_link_kills_nobody) {
    named_process other("tessard");
    write_file("/tmp/elsewhere", std::to_string(other.pid()));
    ASSERT_EQ(symlink("elsewhere", "/tmp/tessard.pid"), 0);
    expect_spared(other);
    EXPECT_EQ(read_file("/tmp/elsewhere"), std::to_string(other.pid()));
}

TEST_F(predecessor, a_pid_that_is_no_longer_in_use_is_passed_over) {
    pid_t gone;
    {
        named_process other("tessard");
        gone = other.pid();
    }
    write_pid(std::to_string(gone));
    process& daemon = start();
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(daemon.pid()));
}

TEST_F(predecessor, a_daemon_whose_own_pid_is_in_the_file_does_not_kill_itself) {
    process_options options;
    options.before_exec = [] { write_file("/tmp/tessard.pid", std::to_string(getpid())); };
    process& daemon = start({}, "/tmp/tessard.sock", 0, options);
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(daemon.pid()));
}

TEST_F(predecessor, one_that_ends_before_it_is_killed_is_passed_over) {
    /* A name in a made-up /proc for a pid that no process can have. */
    sandbox::set_proc_file("2147483646/comm", "tessard\n");
    write_pid("2147483646");
    process& daemon = start();
    EXPECT_EQ(read_file("/tmp/tessard.pid"), std::to_string(daemon.pid()));
}

TEST_F(background, the_foreground_program_ends_with_0_and_the_daemon_serves) {
    for (const char* option : {"-d", "--daemon"}) {
        process& program = launch({option});
        EXPECT_EQ(program.wait_exit(), 0);
        ASSERT_TRUE(wait_for_server());
        resp_client client;
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
        EXPECT_EQ(program.out(), "");
        EXPECT_EQ(program.err(), "");
        client.close();
        end_all_children();
        unlink("/tmp/tessard.sock");
    }
}

TEST_F(background, pid_file_and_log_bear_the_daemons_own_pid) {
    process& program = launch({"-d"});
    EXPECT_EQ(program.wait_exit(), 0);
    ASSERT_TRUE(wait_for_server());
    pid_t pid = atoi(read_file("/tmp/tessard.pid").c_str());
    EXPECT_GT(pid, 0);
    EXPECT_NE(pid, program.pid());
    EXPECT_EQ(kill(pid, 0), 0);
    EXPECT_EQ(log_messages(read_file("/tmp/tessard.log"), {"application"}),
              std::vector<std::string>{"application started with pid " + std::to_string(pid)});
}

TEST_F(background, the_daemon_leads_its_own_session_in_the_root_folder_with_null_output) {
    launch({"-d"}).wait_exit();
    ASSERT_TRUE(wait_for_server());
    std::string pid = read_file("/tmp/tessard.pid");
    EXPECT_EQ(std::to_string(getsid(atoi(pid.c_str()))), pid);
    auto link_text = [&](const std::string& name) {
        char text[256] = "";
        ssize_t length = readlink(("/proc/" + pid + "/" + name).c_str(), text, sizeof text);
        return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
    };
    EXPECT_EQ(link_text("cwd"), "/");
    for (const char* name : {"fd/0", "fd/1", "fd/2"}) {
        EXPECT_EQ(link_text(name), "/dev/null");
    }
}

TEST_F(background, options_behind_it_are_read_by_the_daemon) {
    launch({"-d", "-a", "/tmp/late.sock", "-l", "error"}).wait_exit();
    ASSERT_TRUE(wait_for_server("/tmp/late.sock"));
    EXPECT_EQ(read_file("/tmp/tessard.log"), "");
}

TEST_F(descriptors, none_is_inherited_by_programs_that_the_daemon_starts) {
    SKIP_UNDER_EMULATOR("the daemon's own descriptors");
    process& daemon = start();
    resp_client client;
    resp_client second;
    EXPECT_EQ(client.call({"observe"}), "+OK\r\n");
    EXPECT_EQ(second.call({"ping"}), "+OK\r\n");
    /* Three standard ones, the log, the listening socket and two clients: the test looks at
     * something. */
    EXPECT_GE(count(daemon.pid()), 7u);
    EXPECT_EQ(inheritable(daemon.pid()), std::vector<std::string>{});
}

TEST_F(descriptors, none_is_inherited_when_listening_on_tcp_with_the_log_on_a_socket) {
    SKIP_UNDER_EMULATOR("the daemon's own descriptors");
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string("/tmp/tessard.log").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 5), 0);
    process& daemon = start({"-a", "127.0.0.1", "-p", "7030"}, "127.0.0.1", 7030);
    resp_client client("127.0.0.1", 7030);
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_GE(count(daemon.pid()), 6u);
    EXPECT_EQ(inheritable(daemon.pid()), std::vector<std::string>{});
    close(listener);
}

TEST_F(descriptors, none_is_an_epoll_descriptor) {
    process& daemon = start();
    resp_client client;
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    int looked_at = 0;
    for (int fd = 0; fd < 100; fd++) {
        const std::string leads_to = target(daemon.pid(), std::to_string(fd));
        looked_at += !leads_to.empty();
        EXPECT_NE(leads_to, "anon_inode:[eventpoll]") << fd;
    }
    EXPECT_GE(looked_at, 6);
}

TEST_F(descriptors, clients_that_left_give_theirs_back) {
    SKIP_UNDER_EMULATOR("the daemon's own descriptors");
    process& daemon = start();
    size_t before = 0;
    {
        resp_client client;
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    }
    ASSERT_TRUE(eventually([&] {
        before = count(daemon.pid());
        return before == 5;
    })) << before;
    for (int round = 0; round < 500; round++) {
        resp_client client;
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    }
    EXPECT_TRUE(eventually([&] { return count(daemon.pid()) == before; })) << count(daemon.pid());
}
