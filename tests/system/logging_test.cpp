/* The log as it can be reached from the command line: levels, the form of a record, the file that
 * is a ring, standard output, and a socket that stands where the file would be. */

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

const char* const LOG_FILE = "/tmp/tessard.log";
const size_t RING = 31744;

class log_levels : public daemon_test {
  protected:
    /* What one client's doings leave in the log: debug (traces), info (the start) and warn (a
     * second "observe"). */
    std::vector<std::string> levels_logged(const std::vector<std::string>& options) {
        process& daemon = start(options);
        resp_client client;
        EXPECT_EQ(client.call({"observe"}), "+OK\r\n");
        EXPECT_EQ(client.call({"observe"}), "+OK\r\n");
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
        std::vector<std::string> levels;
        for (const log_record& record : parse_log(read_file(LOG_FILE))) {
            if (levels.empty() || levels.back() != record.level) {
                levels.push_back(record.level);
            }
        }
        std::sort(levels.begin(), levels.end());
        levels.erase(std::unique(levels.begin(), levels.end()), levels.end());
        daemon.stop();
        return levels;
    }
};

class log_targets : public daemon_test {
  protected:
    static mode_t mode_of(const std::string& path) {
        struct stat info = {};
        lstat(path.c_str(), &info);
        return info.st_mode;
    }

    static std::string started_line(const process& daemon) {
        return "application started with pid " + std::to_string(daemon.pid());
    }
};

class log_file : public log_targets {};

/* Another program's socket at the place of the log file. */
class log_socket : public log_targets {
  protected:
    void TearDown() override {
        for (int fd : {listener, stream}) {
            if (fd >= 0) {
                close(fd);
            }
        }
        daemon_test::TearDown();
    }

    void listen_at_log() {
        unlink(LOG_FILE);
        if (listener >= 0) {
            close(listener);
        }
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::string(LOG_FILE).copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(listen(listener, 5), 0);
    }

    /* Takes the daemon's next connection; false when none comes. */
    bool take_stream(int limit_ms = LIMIT_MS) {
        pollfd wait = {listener, POLLIN, 0};
        if (poll(&wait, 1, limit_ms) != 1) {
            return false;
        }
        if (stream >= 0) {
            close(stream);
        }
        stream = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        return stream >= 0;
    }

    /* Everything that has come over the stream so far. */
    const std::string& received() {
        char chunk[4096];
        ssize_t got;
        while ((got = recv(stream, chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
            text.append(chunk, static_cast<size_t>(got));
        }
        return text;
    }

    bool receives(const std::string& words) {
        return eventually([&] { return received().find(words) != std::string::npos; });
    }

    int listener = -1;
    int stream = -1;
    std::string text;
};

typedef std::vector<std::string> levels;

} // namespace

TEST_F(log_levels, each_level_shows_itself_and_what_is_graver) {
    EXPECT_EQ(levels_logged({}), (levels{"info  *** ", "warn  *** "}));
    EXPECT_EQ(levels_logged({"-l", "debug"}), (levels{"debug *** ", "info  *** ", "warn  *** "}));
    EXPECT_EQ(levels_logged({"-l", "info"}), (levels{"info  *** ", "warn  *** "}));
    EXPECT_EQ(levels_logged({"-l", "warn"}), (levels{"warn  *** "}));
    EXPECT_EQ(levels_logged({"-l", "error"}), (levels{}));
    EXPECT_EQ(levels_logged({"-l", "fatal"}), (levels{}));
}

TEST_F(log_levels, a_level_is_known_by_its_beginning_in_any_case) {
    EXPECT_EQ(levels_logged({"-l", "Warning"}), (levels{"warn  *** "}));
    EXPECT_EQ(levels_logged({"-l", "debugging"}),
              (levels{"debug *** ", "info  *** ", "warn  *** "}));
    EXPECT_EQ(levels_logged({"-lERRORS"}), (levels{}));
    EXPECT_EQ(levels_logged({"--loglevel=WaRn"}), (levels{"warn  *** "}));
}

TEST_F(log_levels, an_unknown_level_is_info) {
    for (const char* level : {"ERR", "err", "war", "debu", "", "4", "nothing", " warn"}) {
        EXPECT_EQ(levels_logged({"-l", level}), (levels{"info  *** ", "warn  *** "})) << level;
    }
}

TEST_F(log_levels, the_last_level_counts) {
    EXPECT_EQ(levels_logged({"-l", "debug", "-l", "error"}), (levels{}));
    EXPECT_EQ(levels_logged({"-l", "error", "-l", "nonsense"}),
              (levels{"info  *** ", "warn  *** "}));
}

TEST_F(log_targets, without_an_option_the_log_is_the_file) {
    process& daemon = start();
    std::vector<log_record> records = parse_log(read_file(LOG_FILE));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].colour, "");
    EXPECT_EQ(records[0].level, "info  *** ");
    EXPECT_EQ(records[0].text, started_line(daemon));
    EXPECT_EQ(records[0].reset, "");
    EXPECT_EQ(daemon.out(), "");
    EXPECT_EQ(daemon.err(), "");
}

TEST_F(log_targets, stdout_takes_coloured_records_and_leaves_no_file) {
    for (const char* option : {"-fstdout", "--logfile=stdout"}) {
        process& daemon = start({option});
        std::vector<log_record> records = parse_log(daemon.out());
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].colour, "\033[32m");
        EXPECT_EQ(records[0].level, "info  *** ");
        EXPECT_EQ(records[0].text, started_line(daemon));
        EXPECT_EQ(records[0].reset, "\033[0m");
        EXPECT_EQ(daemon.err(), "");
        EXPECT_FALSE(file_exists(LOG_FILE));
        daemon.stop();
    }
}

TEST_F(log_targets, a_warning_is_yellow) {
    process& daemon = start({"-f", "stdout", "-l", "warn"});
    resp_client client;
    EXPECT_EQ(client.call({"hello", "panel"}), "+OK\r\n");
    EXPECT_EQ(client.call({"observe"}), "+OK\r\n");
    EXPECT_EQ(client.call({"observe"}), "+OK\r\n");
    std::vector<log_record> records = parse_log(daemon.out());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].colour, "\033[33m");
    EXPECT_EQ(records[0].level, "warn  *** ");
    EXPECT_EQ(records[0].text, "client(\"panel\") redundantly watch");
    EXPECT_EQ(records[0].reset, "\033[0m");
}

TEST_F(log_targets, syslog_discards_everything) {
    process& daemon = start({"-f", "syslog", "-l", "debug"});
    resp_client client;
    EXPECT_EQ(client.call({"observe"}), "+OK\r\n");
    EXPECT_EQ(client.call({"observe"}), "+OK\r\n");
    EXPECT_EQ(daemon.out(), "");
    EXPECT_EQ(daemon.err(), "");
    EXPECT_FALSE(file_exists(LOG_FILE));
}

TEST_F(log_targets, any_other_target_leaves_the_log_on_its_file) {
    for (const char* target :
         {"/tmp/x.log", "STDOUT", "Syslog", "stderr", "stdout ", "localhost:7200",
          "unix:///tmp/x.sock", "tcp://127.0.0.1:7200", "udp://127.0.0.1:7200", ""}) {
        SCOPED_TRACE(target);
        process& daemon = start({"-f", target});
        EXPECT_EQ(log_messages(read_file(LOG_FILE)),
                  std::vector<std::string>{started_line(daemon)});
        EXPECT_EQ(daemon.out(), "");
        EXPECT_FALSE(file_exists("/tmp/x.log"));
        daemon.stop();
    }
}

TEST_F(log_targets, a_target_that_is_not_taken_does_not_undo_an_earlier_one) {
    process& daemon = start({"-f", "stdout", "-f", "/tmp/x.log"});
    EXPECT_EQ(log_messages(daemon.out()), std::vector<std::string>{started_line(daemon)});
    daemon.stop();
    process& silent = start({"-f", "stdout", "-f", "syslog"});
    EXPECT_EQ(silent.out(), "");
    EXPECT_FALSE(file_exists(LOG_FILE));
}

TEST_F(log_targets, a_file_that_cannot_be_made_leaves_standard_output) {
    mkdir(LOG_FILE, 0755);
    process& daemon = start();
    std::vector<log_record> records = parse_log(daemon.out());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].colour, "\033[32m");
    EXPECT_EQ(records[0].text, started_line(daemon));
}

TEST_F(log_targets, a_fifo_at_the_files_place_leaves_standard_output) {
    ASSERT_EQ(mkfifo(LOG_FILE, 0666), 0);
    process& daemon = start();
    std::vector<log_record> records = parse_log(daemon.out());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].colour, "\033[32m");
    EXPECT_EQ(records[0].text, started_line(daemon));
    EXPECT_TRUE(S_ISFIFO(mode_of(LOG_FILE)));
}

TEST_F(log_targets, a_link_at_the_files_place_is_not_followed_and_leaves_standard_output) {
    write_file("/tmp/precious", "somebody's text");
    ASSERT_EQ(symlink("precious", LOG_FILE), 0);
    process& daemon = start();
    EXPECT_EQ(log_messages(daemon.out()), std::vector<std::string>{started_line(daemon)});
    EXPECT_EQ(read_file("/tmp/precious"), "somebody's text");
    EXPECT_TRUE(S_ISLNK(mode_of(LOG_FILE)));
}

TEST_F(log_targets, a_link_to_nothing_at_the_files_place_makes_nothing) {
    ASSERT_EQ(symlink("/tmp/made", LOG_FILE), 0);
    process& daemon = start();
    EXPECT_EQ(log_messages(daemon.out()), std::vector<std::string>{started_line(daemon)});
    EXPECT_FALSE(file_exists("/tmp/made"));
}

TEST_F(log_targets, a_file_with_another_name_is_not_emptied_and_leaves_standard_output) {
    write_file("/tmp/precious", "somebody's text");
    ASSERT_EQ(link("/tmp/precious", LOG_FILE), 0);
    process& daemon = start();
    EXPECT_EQ(log_messages(daemon.out()), std::vector<std::string>{started_line(daemon)});
    EXPECT_EQ(read_file("/tmp/precious"), "somebody's text");
}

TEST_F(log_targets, a_pipe_that_nobody_reads_holds_up_nobody_and_is_told_of_what_it_lost) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    process_options options;
    const std::string pipe_path =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(ends[1]);
    options.before_exec = [&] { dup2(open(pipe_path.c_str(), O_WRONLY | O_CLOEXEC), 1); };
    start({"-f", "stdout", "-l", "debug"}, "/tmp/tessard.sock", 0, options);
    resp_client client;
    /* Each leaves more than a kilobyte in the log, and a pipe holds 64. */
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(client.call({"strlen", std::string(1000, 'x')}), ":0\r\n");
    }

    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    std::string text;
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
        char chunk[65536];
        for (ssize_t got; (got = read(ends[0], chunk, sizeof chunk)) > 0;) {
            text.append(chunk, static_cast<size_t>(got));
        }
        return text.find("PING()", text.find("took no more")) != std::string::npos;
    }));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(log_targets, a_closed_standard_output_harms_nothing) {
    process_options options;
    options.before_exec = [] { close(1); };
    start({"-f", "stdout", "-l", "debug"}, "/tmp/tessard.sock", 0, options);
    resp_client client;
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    }
}

TEST_F(log_targets, closed_standard_descriptors_are_given_to_no_client) {
    process_options options;
    options.before_exec = [] {
        for (int fd : {0, 1, 2}) {
            close(fd);
        }
    };
    start({"-f", "stdout", "-l", "debug"}, "/tmp/tessard.sock", 0, options);
    /* Whoever of them had the number 1 would read the log of all. */
    std::vector<resp_client> clients(4);
    for (resp_client& client : clients) {
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    }
    for (resp_client& client : clients) {
        EXPECT_EQ(client.during(20), "");
    }
}

TEST_F(log_file, the_time_stamp_is_local_time) {
    time_t before = time(nullptr);
    process_options options;
    options.environment = {"TZ=XYZ-5:30"};
    process& daemon = start({}, "/tmp/tessard.sock", 0, options);
    std::vector<log_record> records = parse_log(read_file(LOG_FILE));
    ASSERT_EQ(records.size(), 1u);
    tm parts = {};
    ASSERT_NE(strptime(records[0].stamp.c_str(), "%Y-%m-%d %H:%M:%S ", &parts), nullptr)
        << records[0].stamp;
    time_t stamped = timegm(&parts) - (5 * 3600 + 30 * 60);
    EXPECT_GE(stamped, before);
    EXPECT_LE(stamped, time(nullptr));
    daemon.stop();
}

TEST_F(log_file, it_is_made_for_owner_and_group) {
    start();
    EXPECT_EQ(mode_of(LOG_FILE), static_cast<mode_t>(S_IFREG | 0664));
}

TEST_F(log_file, an_older_one_is_emptied) {
    write_file(LOG_FILE, std::string(100000, 'x'));
    process& daemon = start();
    EXPECT_EQ(log_messages(read_file(LOG_FILE)), std::vector<std::string>{started_line(daemon)});
}

TEST_F(log_file, it_is_a_ring_that_overwrites_its_oldest_lines_in_place) {
    start({"-l", "debug"});
    resp_client client;
    EXPECT_EQ(client.call({"hello", "round1"}), "+OK\r\n");
    auto text = [] { return read_file(LOG_FILE); };
    auto starts_over = [&](const std::string& name) {
        std::string first_line = text();
        return first_line.substr(0, first_line.find("\n ")).find("client(\"" + name + "\")") !=
               std::string::npos;
    };
    /* A ping leaves some 130 bytes, one record of 82 and one of 67 at most. */
    int pings = 0;
    while (pings < 1000 && !starts_over("round1")) {
        ASSERT_EQ(client.call({"ping"}), "+OK\r\n");
        pings++;
    }
    ASSERT_LT(pings, 1000);
    /* The line that met the mark was the last one before the start. */
    EXPECT_GE(text().size(), RING);
    EXPECT_LT(text().size(), RING + 200);

    /* What lies behind the writing position stays until it is overwritten. */
    EXPECT_EQ(client.call({"hello", "round2"}), "+OK\r\n");
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    std::string mixed = text();
    EXPECT_GE(mixed.size(), RING);
    EXPECT_GT(mixed.rfind("client(\"round1\")"), mixed.rfind("client(\"round2\")"));
    EXPECT_GT(mixed.rfind("client(\"round1\")"), RING - 4000);

    /* Round after round the file keeps its size. */
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(client.call({"ping"}), "+OK\r\n");
    }
    EXPECT_GE(text().size(), RING);
    EXPECT_LT(text().size(), RING + 200);
    EXPECT_EQ(text().substr(0, RING).find("round1"), std::string::npos);
}

TEST_F(log_file, a_record_that_is_larger_than_the_ring_is_written_whole) {
    process& daemon = start({"-l", "debug"});
    resp_client client;
    std::string value(50000, 'v');
    EXPECT_TRUE(deliver(daemon, client, request_frame({"set", "k", value})));
    EXPECT_EQ(client.frame(), "+OK\r\n");
    /* Two records ran past the mark, the request's and the change's; each time the next one began
     * the file anew. The end of the first of them, which reached farthest, is still there. */
    const std::string last = "debug *** Replied to client(\"anynomous0\"): \n+OK\r\n\n";
    std::string text = read_file(LOG_FILE);
    EXPECT_EQ(text.substr(20, last.size()), last);
    EXPECT_EQ(text.substr(text.size() - 7), std::string("vvvv)\0\n", 7));
}

TEST_F(log_socket, a_listening_socket_at_the_files_place_gets_coloured_records) {
    listen_at_log();
    process& daemon = start();
    ASSERT_TRUE(take_stream());
    ASSERT_TRUE(receives("\n"));
    std::vector<log_record> records = parse_log(text);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].colour, "\033[32m");
    EXPECT_EQ(records[0].level, "info  *** ");
    EXPECT_EQ(records[0].text, started_line(daemon));
    EXPECT_EQ(records[0].reset, "\033[0m");
    EXPECT_EQ(daemon.out(), "");
    EXPECT_TRUE(S_ISSOCK(mode_of(LOG_FILE)));
}

TEST_F(log_socket, a_link_to_a_listening_socket_leads_there) {
    listen_at_log();
    ASSERT_EQ(rename(LOG_FILE, "/tmp/reader.sock"), 0);
    ASSERT_EQ(symlink("reader.sock", LOG_FILE), 0);
    process& daemon = start();
    ASSERT_TRUE(take_stream());
    EXPECT_TRUE(receives(started_line(daemon)));
    EXPECT_EQ(daemon.out(), "");
}

TEST_F(log_socket, records_follow_as_they_are_written) {
    listen_at_log();
    start({"-l", "debug"});
    ASSERT_TRUE(take_stream());
    resp_client client;
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(client.call({"hello", "name" + std::to_string(i)}), "+OK\r\n");
        EXPECT_TRUE(
            receives("Replied to client(\"name" + std::to_string(i) + "\"): \n+OK\r\n\033[0m\n"));
    }
}

TEST_F(log_socket, a_lost_reader_is_replaced_after_a_second) {
    listen_at_log();
    start({"-l", "debug"});
    ASSERT_TRUE(take_stream());
    resp_client client;
    EXPECT_EQ(client.call({"hello", "before"}), "+OK\r\n");
    ASSERT_TRUE(receives("client(\"before\")"));
    close(stream);
    stream = -1;
    text.clear();

    /* The next record finds the loss; from then on a second passes before another attempt. */
    long lost = now_ms();
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    bool replaced = eventually([&] {
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
        return take_stream(0);
    });
    ASSERT_TRUE(replaced);
    EXPECT_GT(now_ms() - lost, 900);
    EXPECT_EQ(client.call({"hello", "after"}), "+OK\r\n");
    EXPECT_TRUE(receives("client(\"after\")"));
}

TEST_F(log_socket, a_socket_without_a_listener_drops_records_until_one_listens) {
    listen_at_log();
    close(listener);
    listener = -1;
    process& daemon = start({"-l", "debug"});
    resp_client client;
    EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
    EXPECT_EQ(daemon.out(), "");

    listen_at_log();
    bool connected = eventually([&] {
        EXPECT_EQ(client.call({"ping"}), "+OK\r\n");
        return take_stream(0);
    });
    ASSERT_TRUE(connected);
    EXPECT_EQ(client.call({"hello", "after"}), "+OK\r\n");
    EXPECT_TRUE(receives("client(\"after\")"));
    EXPECT_EQ(text.find("application started"), std::string::npos);
}

TEST_F(log_socket, a_reader_that_does_not_read_holds_up_nobody) {
    listen_at_log();
    start({"-l", "debug"});
    ASSERT_TRUE(take_stream());
    resp_client client;
    EXPECT_EQ(client.call({"set", "k", std::string(1000, 'v')}), "+OK\r\n");
    /* Each round writes more than a kilobyte into the log, far beyond what the kernel holds for the
     * reader.
     */
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(client.call({"strlen", std::string(1000, 'x')}), ":0\r\n");
    }
    EXPECT_TRUE(receives("application started"));
}
