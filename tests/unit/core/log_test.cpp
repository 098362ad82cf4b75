#include "core/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "loop/endpoint.h"
#include "tests/unit/support/resources.h"
#include "tests/unit/support/test_clock.h"
#include "tests/unit/support/test_kernel.h"

namespace fs = std::filesystem;

namespace {

using testing::Eq;
using testing::ExitedWithCode;
using testing::Matcher;
using testing::MatchesRegex;

typedef Matcher<const std::string&> text;

constexpr uint32_t KEEP_LEVEL = 5;
constexpr int32_t KEEP = -1;

/* Before any case has opened the log. Whoever started the program may have had SIGPIPE ignored. */
const uint32_t level_at_start = log_configured_level();
[[maybe_unused]] const auto sigpipe_at_start = signal(SIGPIPE, SIG_DFL);

bool is_ignored(int number) {
    struct sigaction action;
    sigaction(number, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

/* Collects what is written to a standard descriptor. */
class captured {
  public:
    explicit captured(int fd) : fd_(fd) {
        fflush(stdout);
        saved_ = dup(fd);
        file_ = tmpfile();
        dup2(fileno(file_), fd);
    }
    ~captured() {
        restore();
        fclose(file_);
    }
    captured(const captured&) = delete;
    captured& operator=(const captured&) = delete;

    std::string text() {
        fflush(stdout);
        restore();
        std::string all;
        char part[4096];
        off_t at = 0;
        for (ssize_t n; (n = pread(fileno(file_), part, sizeof part, at)) > 0; at += n) {
            all.append(part, static_cast<size_t>(n));
        }
        return all;
    }

  private:
    void restore() {
        if (saved_ >= 0) {
            dup2(saved_, fd_);
            close(saved_);
            saved_ = -1;
        }
    }
    int fd_;
    int saved_;
    FILE* file_;
};

bool is_readable(int fd, int timeout_ms) {
    pollfd readable = {fd, POLLIN, 0};
    return poll(&readable, 1, timeout_ms) == 1;
}

/* What has arrived on a socket: waits for the first bytes of what is expected, never for more. */
std::string receive(int fd, size_t expected) {
    std::string all;
    std::vector<char> part(65536);
    while (fd >= 0 && all.size() < expected && is_readable(fd, 2000)) {
        const ssize_t n = recv(fd, part.data(), part.size(), MSG_DONTWAIT);
        if (n <= 0) {
            break;
        }
        all.append(part.data(), static_cast<size_t>(n));
    }
    const ssize_t more = recv(fd, part.data(), part.size(), MSG_DONTWAIT);
    if (more > 0) {
        all.append(part.data(), static_cast<size_t>(more));
    }
    return all;
}

sockaddr_un local_address(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

/* A server on loopback or on a Unix path. */
class server {
  public:
    explicit server(const std::string& path, int backlog = 8)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = local_address(path);
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
            << strerror(errno);
        EXPECT_EQ(listen(fd_, backlog), 0);
    }
    explicit server(int type, int port = 0) : fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
            << strerror(errno);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(listen(fd_, 8), 0);
        }
    }
    ~server() {
        close_all();
    }
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    int port() const {
        sockaddr_in address = {};
        socklen_t length = sizeof address;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }
    std::string colon_port() const {
        return ":" + std::to_string(port());
    }
    int fd() const {
        return fd_;
    }
    /* Takes the next connection; its descriptor stays the server's. */
    int accept_one() {
        if (!is_readable(fd_, 2000)) {
            ADD_FAILURE() << "nobody connected";
            return -1;
        }
        accepted_.push_back(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
        return accepted_.back();
    }
    bool has_waiting_connection() const {
        return is_readable(fd_, 20);
    }
    void hang_up() {
        for (int fd : accepted_) {
            close(fd);
        }
        accepted_.clear();
    }
    void close_all() {
        hang_up();
        if (fd_ >= 0) {
            close(fd_);
            fd_ = -1;
        }
    }

  private:
    int fd_;
    std::vector<int> accepted_;
};

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/* The descriptor that is open for a path, -1 when none is. */
int descriptor_of(const std::string& path) {
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (fs::read_symlink(entry.path(), error) == path) {
            return std::stoi(entry.path().filename());
        }
    }
    return -1;
}

const log_sockets sockets = {endpoint_connect_local, endpoint_connect_tcp, endpoint_connect_udp,
                             endpoint_is_local_host};

class log_test : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = fs::temp_directory_path() / "log_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = fs::canonical(pattern);
        start_folder_ = fs::current_path();
        fs::current_path(folder);
        log_use_sockets(&sockets);
    }
    void TearDown() override {
        test_clock::release();
        open("stdout", LOG_DEBUG, 1, 1);
        fs::current_path(start_folder_);
        fs::remove_all(folder);
    }

    static void open(const char* target, uint32_t level = LOG_DEBUG, int32_t colour = 1,
                     int32_t timestamps = 0) {
        const log_config config = {target, "ident", level, colour, timestamps};
        log_open(&config);
    }
    static void open(const std::string& target, uint32_t level = LOG_DEBUG, int32_t colour = 1,
                     int32_t timestamps = 0) {
        open(target.c_str(), level, colour, timestamps);
    }
    std::string path(const std::string& name) const {
        return folder + "/" + name;
    }
    /* What goes to standard output when one line is logged. */
    static std::string shown_on_stdout(const char* message) {
        captured out(STDOUT_FILENO);
        log_write(LOG_INFO, "%s", message);
        return out.text();
    }
    void stop_clock() {
        now_us_ = 1700000000500000;
        advance_us(0);
    }
    void advance_us(int64_t microseconds) {
        now_us_ += microseconds;
        test_clock::set(now_us_ / 1000000, now_us_ % 1000000);
    }
    void advance_ms(int64_t milliseconds) {
        advance_us(milliseconds * 1000);
    }
    /* Stops the clock and makes a connected Unix socket fail, so that the failure counts from now.
     */
    void lose_connection(server* s) {
        stop_clock();
        s->accept_one();
        s->hang_up();
        log_write(LOG_INFO, "lost with the connection");
    }

    std::string folder;

  private:
    fs::path start_folder_;
    int64_t now_us_ = 0;
};

typedef log_test log_death_test;

const char info_line[] = "\033[32minfo  *** hello\033[0m\n";

} // namespace

/* --- Levels --- */

TEST(log_level_test, is_debug_before_the_log_is_opened) {
    EXPECT_EQ(level_at_start, 0u);
}

TEST(log_level_test, every_name_is_parsed_in_any_case) {
    EXPECT_EQ(log_parse_level("debug"), 0u);
    EXPECT_EQ(log_parse_level("info"), 1u);
    EXPECT_EQ(log_parse_level("warn"), 2u);
    EXPECT_EQ(log_parse_level("error"), 3u);
    EXPECT_EQ(log_parse_level("fatal"), 4u);
    EXPECT_EQ(log_parse_level("DEBUG"), 0u);
    EXPECT_EQ(log_parse_level("InFo"), 1u);
    EXPECT_EQ(log_parse_level("WARN"), 2u);
    EXPECT_EQ(log_parse_level("Error"), 3u);
    EXPECT_EQ(log_parse_level("fATAL"), 4u);
}

TEST(log_level_test, a_text_that_begins_with_a_name_is_that_level) {
    EXPECT_EQ(log_parse_level("debugging"), 0u);
    EXPECT_EQ(log_parse_level("Warning"), 2u);
    EXPECT_EQ(log_parse_level("errors only"), 3u);
    EXPECT_EQ(log_parse_level("FATALITY"), 4u);
    EXPECT_EQ(log_parse_level("fatal error"), 4u);
}

TEST(log_level_test, a_text_that_begins_with_no_name_is_info) {
    for (const char* word : {"", "ERR", "warm", "debu", " debug", "verbose", "0", "4", "xerror"}) {
        EXPECT_EQ(log_parse_level(word), 1u) << word;
    }
}

TEST_F(log_test, stores_levels_below_5_and_ignores_others) {
    for (uint32_t level = 0; level < 5; level++) {
        log_set_level(level);
        EXPECT_EQ(log_configured_level(), level);
    }
    log_set_level(5);
    EXPECT_EQ(log_configured_level(), 4u);
    log_set_level(UINT32_MAX);
    EXPECT_EQ(log_configured_level(), 4u);
}

TEST_F(log_test, a_message_is_wanted_when_the_configured_level_is_not_above_its) {
    for (uint32_t configured = 0; configured < 5; configured++) {
        log_set_level(configured);
        for (uint32_t level = 0; level < 5; level++) {
            EXPECT_EQ(log_wants(level), configured < level + 1) << configured << " and " << level;
        }
    }
}

TEST_F(log_test, a_message_that_is_not_wanted_asks_for_none_of_its_arguments) {
    open(path("a.log"), LOG_WARN);
    int asked = 0;
    LOG(LOG_INFO, "%d", ++asked);
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(read_file(path("a.log")), "");
    LOG(LOG_WARN, "%d", ++asked);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(read_file(path("a.log")), "warn  *** 1\n");
}

TEST_F(log_test, the_writer_itself_does_not_ask_for_the_level) {
    open(path("a.log"), LOG_FATAL);
    log_write(LOG_DEBUG, "written all the same");
    EXPECT_EQ(read_file(path("a.log")), "debug *** written all the same\n");
}

TEST_F(log_test, messages_of_level_5_and_above_write_nothing) {
    open(path("a.log"));
    log_write(5, "nothing");
    log_write(UINT32_MAX, "nothing");
    log_write(LOG_INFO, "something");
    EXPECT_EQ(read_file(path("a.log")), "info  *** something\n");
}

/* --- Configuration --- */

TEST_F(log_test, opening_takes_level_colour_and_timestamps_over) {
    open("stdout", LOG_ERROR, 0, 0);
    EXPECT_EQ(log_configured_level(), 3u);
    EXPECT_EQ(shown_on_stdout("hello"), "info  *** hello\n");
    open("stdout", LOG_WARN, 7, 0);
    EXPECT_EQ(log_configured_level(), 2u);
    EXPECT_EQ(shown_on_stdout("hello"), info_line);
}

TEST_F(log_test, a_level_of_5_and_negative_flags_keep_what_is_set) {
    open("stdout", LOG_ERROR, 0, 0);
    open("stdout", KEEP_LEVEL, KEEP, KEEP);
    EXPECT_EQ(log_configured_level(), 3u);
    EXPECT_EQ(shown_on_stdout("hello"), "info  *** hello\n");
    open("stdout", UINT32_MAX, 1, INT32_MIN);
    EXPECT_EQ(log_configured_level(), 3u);
    EXPECT_EQ(shown_on_stdout("hello"), info_line);
}

TEST_F(log_test, no_configuration_only_reopens) {
    open(path("a.log"), LOG_WARN);
    log_write(LOG_INFO, "before");
    log_open(nullptr);
    EXPECT_EQ(read_file(path("a.log")), "") << "the file was not opened again";
    log_write(LOG_INFO, "after");
    EXPECT_EQ(read_file(path("a.log")), "info  *** after\n");
    EXPECT_EQ(log_configured_level(), 2u);
}

TEST_F(log_test, a_configuration_without_target_keeps_the_target) {
    open(path("a.log"));
    open(static_cast<const char*>(nullptr), LOG_ERROR);
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(read_file(path("a.log")), "info  *** hello\n");
    EXPECT_EQ(log_configured_level(), 3u);
}

TEST_F(log_test, keeps_a_copy_of_the_target) {
    std::string target = path("a.log");
    open(target);
    target.back() = 'X';
    log_open(nullptr);
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(read_file(path("a.log")), "info  *** hello\n");
    EXPECT_FALSE(fs::exists(target));
}

TEST_F(log_test, setting_a_target_replaces_it_and_opens_it) {
    open(path("a.log"));
    log_write(LOG_INFO, "one");
    log_set_target(path("b.log").c_str());
    log_write(LOG_INFO, "two");
    EXPECT_EQ(read_file(path("a.log")), "info  *** one\n");
    EXPECT_EQ(read_file(path("b.log")), "info  *** two\n");
}

TEST_F(log_test, setting_no_target_does_nothing) {
    open(path("a.log"));
    log_write(LOG_INFO, "one");
    log_set_target(nullptr);
    log_write(LOG_INFO, "two");
    EXPECT_EQ(read_file(path("a.log")), "info  *** one\ninfo  *** two\n")
        << "the file was opened again";
}

TEST_F(log_test, closes_what_was_open_before_it_opens_the_next) {
    open("stdout");
    const size_t before = unit_test::open_descriptors();
    server s(path("log.sock"));
    for (int i = 0; i < 5; i++) {
        open(path("a.log"));
        open(path("log.sock"));
    }
    open("syslog");
    s.close_all();
    EXPECT_EQ(unit_test::open_descriptors(), before);
}

TEST_F(log_test, its_descriptors_are_close_on_exec) {
    open(path("a.log"));
    const int fd = descriptor_of(path("a.log"));
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

    server tcp(SOCK_STREAM);
    server udp(SOCK_DGRAM);
    server local(path("log.sock"));
    for (const std::string& target : {"tcp://127.0.0.1" + tcp.colon_port(),
                                      "udp://127.0.0.1" + udp.colon_port(), path("log.sock")}) {
        open("stdout");
        const int next = dup(STDOUT_FILENO);
        close(next);
        open(target);
        ASSERT_GE(fcntl(next, F_GETFD), 0)
            << "the lowest free descriptor was not taken for " << target;
        EXPECT_EQ(fcntl(next, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << target;
    }
}

TEST_F(log_test, the_first_message_opens_a_log_that_nobody_has_opened) {
    if (is_ignored(SIGPIPE)) {
        GTEST_SKIP() << "another case of this process has opened the log already";
    }
    const std::string shown = shown_on_stdout("hello");
    EXPECT_THAT(shown,
                MatchesRegex("\033\\[32m....-..-.. ..:..:.. info  \\*\\*\\* hello\033\\[0m\n"))
        << "colours and time stamps are on at first";
    EXPECT_TRUE(is_ignored(SIGPIPE));
}

TEST_F(log_test, only_the_first_opening_ignores_the_signals_of_failed_writes) {
    open("stdout");
    for (const int number : {SIGPIPE, SIGXFSZ}) {
        ASSERT_TRUE(is_ignored(number)) << number;
        signal(number, SIG_DFL);
        open("stdout");
        EXPECT_FALSE(is_ignored(number)) << number;
        signal(number, SIG_IGN);
    }
}

/* --- Lines --- */

TEST_F(log_test, each_level_has_its_prefix) {
    open(path("a.log"));
    log_write(LOG_DEBUG, "%d", 0);
    log_write(LOG_INFO, "%d", 1);
    log_write(LOG_WARN, "%d", 2);
    log_write(LOG_ERROR, "%d", 3);
    EXPECT_EQ(read_file(path("a.log")), "debug *** 0\ninfo  *** 1\nwarn  *** 2\nerror *** 3\n");
}

TEST_F(log_test, each_level_has_its_colour_on_standard_output) {
    open("stdout");
    captured out(STDOUT_FILENO);
    log_write(LOG_DEBUG, "%d", 0);
    log_write(LOG_INFO, "%d", 1);
    log_write(LOG_WARN, "%d", 2);
    log_write(LOG_ERROR, "%d", 3);
    EXPECT_EQ(out.text(), "\033[38mdebug *** 0\033[0m\n"
                          "\033[32minfo  *** 1\033[0m\n"
                          "\033[33mwarn  *** 2\033[0m\n"
                          "\033[31merror *** 3\033[0m\n");
}

TEST_F(log_test, files_never_get_colour) {
    open(path("a.log"), LOG_DEBUG, 1);
    log_write(LOG_ERROR, "plain");
    EXPECT_EQ(read_file(path("a.log")), "error *** plain\n");
}

TEST_F(log_test, sockets_get_colour_when_it_is_on) {
    server s(path("log.sock"));
    open(path("log.sock"), LOG_DEBUG, 1);
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line);
    open(path("log.sock"), LOG_DEBUG, 0);
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(s.accept_one(), 16), "info  *** hello\n");
}

TEST_F(log_test, an_empty_message_is_a_line_all_the_same) {
    open(path("a.log"));
    log_write(LOG_INFO, "%s", "");
    EXPECT_EQ(read_file(path("a.log")), "info  *** \n");
}

TEST_F(log_test, arguments_are_never_taken_for_the_format) {
    open(path("a.log"));
    log_write(LOG_INFO, "%s", "100%s%n");
    EXPECT_EQ(read_file(path("a.log")), "info  *** 100%s%n\n");
}

TEST_F(log_test, a_message_of_511_bytes_has_no_nul) {
    open(path("a.log"));
    log_write(LOG_INFO, "%0511d", 1);
    EXPECT_EQ(read_file(path("a.log")), "info  *** " + std::string(510, '0') + "1\n");
}

TEST_F(log_test, a_message_of_512_bytes_ends_in_a_nul_before_the_line_feed) {
    open(path("a.log"));
    log_write(LOG_INFO, "%0512d", 1);
    log_write(LOG_INFO, "next");
    EXPECT_EQ(read_file(path("a.log")), "info  *** " + std::string(511, '0') + "1" +
                                            std::string(1, '\0') + "\ninfo  *** next\n");
}

TEST_F(log_test, the_nul_of_a_long_message_stands_before_the_end_of_the_colour) {
    open("stdout");
    captured out(STDOUT_FILENO);
    log_write(LOG_INFO, "%0600d", 1);
    EXPECT_EQ(out.text(), "\033[32minfo  *** " + std::string(599, '0') + "1" +
                              std::string(1, '\0') + "\033[0m\n");
}

TEST_F(log_test, a_message_beyond_the_line_buffer_leaves_an_empty_line_and_the_next_is_whole) {
    const std::string huge(4194304, 'x');
    open(path("a.log"));
    log_write(LOG_INFO, "%s", huge.c_str());
    EXPECT_EQ(read_file(path("a.log")), "info  *** \n");
    open(path("a.log"));
    log_write(LOG_INFO, "next");
    EXPECT_EQ(read_file(path("a.log")), "info  *** next\n");
}

TEST_F(log_test, the_timestamp_is_local_time_between_colour_and_prefix) {
    setenv("TZ", "XYZ-05:30", 1);
    tzset();
    test_clock::set(1700000000); /* 2023-11-14 22:13:20 UTC */
    open("stdout", LOG_DEBUG, 1, 1);
    EXPECT_EQ(shown_on_stdout("hello"), "\033[32m2023-11-15 03:43:20 info  *** hello\033[0m\n");
    unsetenv("TZ");
    tzset();
}

TEST_F(log_test, files_get_timestamps_too) {
    setenv("TZ", "UTC", 1);
    tzset();
    test_clock::set(951782400); /* a leap day */
    open(path("a.log"), LOG_DEBUG, 1, 1);
    log_write(LOG_WARN, "hello");
    EXPECT_EQ(read_file(path("a.log")), "2000-02-29 00:00:00 warn  *** hello\n");
    unsetenv("TZ");
    tzset();
}

TEST_F(log_test, timestamps_go_beyond_2038) {
    setenv("TZ", "UTC", 1);
    tzset();
    test_clock::set(4102444799);
    open(path("a.log"), LOG_DEBUG, 1, 1);
    log_write(LOG_WARN, "hello");
    EXPECT_EQ(read_file(path("a.log")), "2099-12-31 23:59:59 warn  *** hello\n");
    unsetenv("TZ");
    tzset();
}

/* --- Targets that are no files --- */

TEST_F(log_test, stdout_and_stderr_in_any_case_write_to_standard_output) {
    for (const char* target : {"stdout", "STDOUT", "stderr", "StdErr"}) {
        captured error(STDERR_FILENO);
        open(target);
        EXPECT_EQ(shown_on_stdout("hello"), info_line) << target;
        EXPECT_EQ(error.text(), "") << target;
        EXPECT_FALSE(fs::exists(path(target)));
    }
}

TEST_F(log_test, syslog_in_any_case_discards) {
    for (const char* target : {"syslog", "SYSLOG", "SysLog"}) {
        captured error(STDERR_FILENO);
        open(target);
        EXPECT_EQ(shown_on_stdout("hello"), "") << target;
        EXPECT_EQ(error.text(), "") << target;
        EXPECT_FALSE(fs::exists(path(target)));
    }
}

TEST_F(log_test, a_listening_socket_at_a_path_is_connected) {
    server s(path("log.sock"));
    open(path("log.sock"));
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line);
    EXPECT_TRUE(fs::is_socket(path("log.sock")));
}

TEST_F(log_test, a_path_may_lead_to_a_socket_through_a_link) {
    server s(path("log.sock"));
    fs::create_symlink("log.sock", path("link"));
    open(path("link"));
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line);
    EXPECT_TRUE(fs::is_symlink(path("link")));
    EXPECT_TRUE(fs::is_socket(path("log.sock")));
}

TEST_F(log_test, unix_targets_in_any_case_connect_to_the_path_behind_the_prefix) {
    server s(path("log.sock"));
    for (const char* prefix : {"unix://", "UNIX://", "Unix://"}) {
        open(prefix + path("log.sock"));
        log_write(LOG_INFO, "hello");
        EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line) << prefix;
    }
}

TEST_F(log_test, a_unix_target_may_be_a_relative_path) {
    server s(path("log.sock"));
    open("unix://log.sock");
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line);
}

TEST_F(log_test, a_unix_target_without_listener_stays_a_socket_and_loses_its_lines) {
    open("unix://" + path("nobody.sock"));
    EXPECT_EQ(shown_on_stdout("lost"), "");
    EXPECT_FALSE(fs::exists(path("nobody.sock")));
}

TEST_F(log_test, a_unix_target_that_is_a_regular_file_is_not_touched) {
    std::ofstream(path("plain")) << "content";
    open("unix://" + path("plain"));
    EXPECT_EQ(shown_on_stdout("lost"), "");
    EXPECT_EQ(read_file(path("plain")), "content");
}

TEST_F(log_test, tcp_targets_in_any_case_connect) {
    server s(SOCK_STREAM);
    for (const char* host :
         {"tcp://127.0.0.1", "TCP://127.0.0.1", "tcp://localhost", "Tcp://LocalHost"}) {
        open(host + s.colon_port());
        log_write(LOG_INFO, "hello");
        EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line) << host;
    }
}

TEST_F(log_test, udp_targets_send_a_datagram_for_each_line) {
    server s(SOCK_DGRAM);
    for (const char* host : {"udp://127.0.0.1", "UDP://localhost"}) {
        open(host + s.colon_port());
        log_write(LOG_INFO, "hello");
        log_write(LOG_WARN, "again");
        char datagram[256];
        ASSERT_TRUE(is_readable(s.fd(), 2000)) << host;
        ssize_t n = recv(s.fd(), datagram, sizeof datagram, 0);
        EXPECT_EQ(std::string(datagram, static_cast<size_t>(n)), info_line);
        ASSERT_TRUE(is_readable(s.fd(), 2000)) << host;
        n = recv(s.fd(), datagram, sizeof datagram, 0);
        EXPECT_EQ(std::string(datagram, static_cast<size_t>(n)),
                  "\033[33mwarn  *** again\033[0m\n");
    }
}

TEST_F(log_test, a_network_targets_host_is_not_resolved_and_the_lines_are_lost) {
    server s(SOCK_STREAM);
    open("tcp://myhost" + s.colon_port());
    EXPECT_EQ(shown_on_stdout("lost"), "");
    EXPECT_FALSE(s.has_waiting_connection());
}

TEST_F(log_test, host_and_port_connect_to_this_machine_whatever_the_host) {
    server s(SOCK_STREAM);
    for (const char* host : {"myhost", "localhost", "192.0.2.7", ""}) {
        open(host + s.colon_port());
        log_write(LOG_INFO, "hello");
        EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line) << host;
        EXPECT_FALSE(fs::exists(path(host + s.colon_port())));
    }
}

TEST_F(log_test, a_port_ends_at_the_first_byte_that_is_no_digit) {
    server s(SOCK_STREAM);
    for (const char* tail : {"x", " ", ":1", "/log", ".5"}) {
        for (const char* host : {"myhost", "tcp://127.0.0.1"}) {
            open(host + s.colon_port() + tail);
            log_write(LOG_INFO, "hello");
            EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line) << host << tail;
        }
    }
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(log_test, a_port_that_refuses_stays_a_socket_and_makes_no_file) {
    /* Bound, so that nobody else listens there, but not listening. */
    server holder(SOCK_DGRAM);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string port = ":" + std::to_string(ntohs(address.sin_port));

    fs::create_directory("tcp:");
    for (const std::string& target : {"tcp://127.0.0.1" + port, "myhost" + port}) {
        open(target);
        EXPECT_EQ(shown_on_stdout("lost"), "") << target;
        EXPECT_FALSE(fs::exists(target));
    }
    close(fd);
}

TEST_F(log_test, a_log_that_can_reach_no_sockets_loses_the_lines_for_them) {
    log_use_sockets(nullptr);
    server s(path("log.sock"));
    server tcp(SOCK_STREAM);
    for (const std::string& target :
         {path("log.sock"), "unix://" + path("log.sock"), "tcp://127.0.0.1" + tcp.colon_port(),
          "udp://127.0.0.1" + tcp.colon_port(), "myhost" + tcp.colon_port()}) {
        open(target);
        EXPECT_EQ(shown_on_stdout("lost"), "") << target;
    }
    EXPECT_FALSE(s.has_waiting_connection());
    EXPECT_FALSE(tcp.has_waiting_connection());
}

TEST_F(log_test, ports_from_1_to_65535_are_sockets) {
    fs::create_directory("udp:");
    for (const char* target : {"udp://127.0.0.1:1", "udp://127.0.0.1:65535"}) {
        open(target);
        EXPECT_EQ(shown_on_stdout("lost"), "") << target;
        EXPECT_FALSE(fs::exists(target));
    }
}

/* --- The file rule --- */

TEST_F(log_test, a_regular_file_is_emptied_and_written_in_plain_text) {
    std::ofstream(path("a.log")) << std::string(1000, 'x');
    open(path("a.log"));
    EXPECT_EQ(read_file(path("a.log")), "");
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(read_file(path("a.log")), "info  *** hello\n");
}

TEST_F(log_test, a_file_is_made_with_mode_664) {
    const mode_t mask = umask(0);
    open(path("a.log"));
    umask(mask);
    struct stat status;
    ASSERT_EQ(stat(path("a.log").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0664u);
}

TEST_F(log_test, a_path_with_a_port_is_a_file) {
    server s(SOCK_STREAM);
    const std::string target = path("a" + s.colon_port());
    open(target);
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(read_file(target), "info  *** hello\n");
    EXPECT_FALSE(s.has_waiting_connection());
}

TEST_F(log_test, a_target_without_usable_port_is_the_name_of_a_file) {
    for (const char* target :
         {"name.log", "myhost:", "myhost:0", "myhost:65536", "myhost:-1", "myhost:abc",
          "myhost:4294967297", "stdout2", "syslog ", "unix:/x"}) {
        if (strcmp(target, "unix:/x") == 0) {
            fs::create_directory("unix:");
        }
        open(target);
        log_write(LOG_INFO, "hello");
        EXPECT_EQ(read_file(path(target)), "info  *** hello\n") << target;
    }
}

TEST_F(log_test, a_network_target_without_usable_port_is_the_name_of_a_file) {
    fs::create_directory("tcp:");
    fs::create_directory("udp:");
    for (const char* target :
         {"tcp://127.0.0.1", "tcp://127.0.0.1:", "tcp://127.0.0.1:0", "tcp://127.0.0.1:65536",
          "tcp://127.0.0.1:x", "udp://127.0.0.1", "udp://127.0.0.1:0", "udp://127.0.0.1:70000"}) {
        open(target);
        log_write(LOG_INFO, "hello");
        EXPECT_EQ(read_file(target), "info  *** hello\n") << target;
    }
}

TEST_F(log_test, a_file_that_cannot_be_made_falls_back_to_standard_output) {
    for (const std::string& target :
         {std::string("tcp://127.0.0.1"), path("missing/a.log"), folder, std::string("")}) {
        open(target);
        EXPECT_EQ(shown_on_stdout("hello"), info_line) << target;
    }
}

/* --- The file as a ring --- */

namespace {

class log_ring_test : public log_test {
  protected:
    void SetUp() override {
        log_test::SetUp();
        open(path("ring.log"));
    }
    /* Writes lines that are `length` bytes long in the file, prefix and line feed included. */
    static void write_lines(int count, int length, char filling) {
        for (int i = 0; i < count; i++) {
            log_write(LOG_INFO, "%s",
                      std::string(static_cast<size_t>(length) - 11, filling).c_str());
        }
    }
    static std::string lines(int count, int length, char filling) {
        std::string all;
        for (int i = 0; i < count; i++) {
            all += "info  *** " + std::string(static_cast<size_t>(length) - 11, filling) + "\n";
        }
        return all;
    }
    std::string file() const {
        return read_file(path("ring.log"));
    }
};

} // namespace

TEST_F(log_ring_test, the_line_after_31744_bytes_goes_to_the_start) {
    write_lines(317, 100, 'a');
    write_lines(1, 44, 'b');
    EXPECT_EQ(file().size(), 31744u);

    write_lines(1, 50, 'c');

    const std::string old = lines(317, 100, 'a') + lines(1, 44, 'b');
    EXPECT_EQ(file(), lines(1, 50, 'c') + old.substr(50))
        << "the old text stays until it is overwritten";
}

TEST_F(log_ring_test, the_line_after_31743_bytes_is_still_appended) {
    write_lines(317, 100, 'a');
    write_lines(1, 43, 'b');
    write_lines(1, 50, 'c');
    EXPECT_EQ(file(), lines(317, 100, 'a') + lines(1, 43, 'b') + lines(1, 50, 'c'));
    write_lines(1, 60, 'd');
    EXPECT_EQ(file().substr(0, 60), lines(1, 60, 'd')) << "the count has passed 31744";
    EXPECT_EQ(file().size(), 31743u + 50);
}

TEST_F(log_ring_test, a_line_that_crosses_the_end_is_written_whole) {
    write_lines(1, 40000, 'a');
    EXPECT_EQ(file().size(), 40001u) << "with the NUL of a long message";
    write_lines(1, 50, 'b');
    EXPECT_EQ(file().substr(0, 50), lines(1, 50, 'b'));
    EXPECT_EQ(file().size(), 40001u);
}

TEST_F(log_ring_test, the_count_starts_again_when_the_file_has_wrapped) {
    write_lines(256, 124, 'a');
    write_lines(255, 124, 'b');
    EXPECT_EQ(file(), lines(255, 124, 'b') + lines(1, 124, 'a'));
    write_lines(1, 124, 'c');
    write_lines(1, 124, 'd');
    EXPECT_EQ(file(), lines(1, 124, 'd') + lines(254, 124, 'b') + lines(1, 124, 'c'));
}

TEST_F(log_ring_test, reopening_empties_the_file_and_starts_the_count) {
    write_lines(255, 124, 'a');
    log_open(nullptr);
    write_lines(255, 124, 'b');
    write_lines(1, 124, 'c');
    EXPECT_EQ(file(), lines(255, 124, 'b') + lines(1, 124, 'c'));
}

TEST_F(log_ring_test, the_counted_nul_of_long_messages_counts) {
    /* 10 + 789 + NUL + line feed = 801 bytes each, 39 of them are 31239; then 505 to the byte. */
    for (int i = 0; i < 39; i++) {
        log_write(LOG_INFO, "%0789d", i);
    }
    write_lines(1, 505, 'b');
    EXPECT_EQ(file().size(), 31744u);
    write_lines(1, 50, 'c');
    EXPECT_EQ(file().substr(0, 50), lines(1, 50, 'c'));
    EXPECT_EQ(file().size(), 31744u);
}

/* --- Sockets that fail --- */

TEST_F(log_test, a_lost_connection_is_tried_again_after_more_than_a_second) {
    server s(path("log.sock"));
    open(path("log.sock"));
    lose_connection(&s);

    log_write(LOG_INFO, "lost at once");
    advance_us(1000999);
    log_write(LOG_INFO, "lost after 1000 ms");
    EXPECT_FALSE(s.has_waiting_connection());
    advance_us(1);
    log_write(LOG_INFO, "hello");

    EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line) << "1001 ms";
}

TEST_F(log_test, the_line_that_fails_is_lost_and_those_within_the_second_too) {
    server s(path("log.sock"));
    open(path("log.sock"));
    lose_connection(&s);
    EXPECT_EQ(shown_on_stdout("lost"), "");
    advance_ms(1001);
    log_write(LOG_INFO, "hello");
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(s.accept_one(), 2 * (sizeof info_line - 1)),
              std::string(info_line) + info_line);
}

TEST_F(log_test, an_attempt_that_fails_counts_as_the_last_one) {
    open("unix://" + path("log.sock"));
    stop_clock();
    /* Whatever was attempted before, two attempts more than a second apart make one of them count.
     */
    log_write(LOG_INFO, "lost");
    advance_ms(1001);
    log_write(LOG_INFO, "lost with a failing attempt");

    server s(path("log.sock"));
    advance_ms(1000);
    log_write(LOG_INFO, "lost within the second");
    EXPECT_FALSE(s.has_waiting_connection());
    advance_ms(1);
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line);
}

TEST_F(log_test, opening_itself_is_no_attempt_that_counts) {
    server first(path("first.sock"));
    open(path("first.sock"));
    lose_connection(&first);
    advance_ms(1001);
    open("unix://" + path("second.sock"));
    server second(path("second.sock"));

    log_write(LOG_INFO, "hello");

    EXPECT_EQ(receive(second.accept_one(), sizeof info_line - 1), info_line);
}

TEST_F(log_test, a_clock_that_is_set_back_resets_the_time_of_the_last_attempt) {
    server s(path("log.sock"));
    open(path("log.sock"));
    lose_connection(&s);

    advance_ms(-3600000);
    log_write(LOG_INFO, "lost, and an hour ago is the last attempt now");
    advance_ms(1000);
    log_write(LOG_INFO, "lost within the second");
    EXPECT_FALSE(s.has_waiting_connection());
    advance_ms(1);
    log_write(LOG_INFO, "hello");

    EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line);
}

TEST_F(log_test, a_reader_that_does_not_read_loses_lines_and_keeps_its_connection) {
    server s(path("log.sock"));
    open(path("log.sock"));
    const int reader = s.accept_one();
    const std::string message(10000, 'x');
    for (int i = 0; i < 300; i++) {
        log_write(LOG_INFO, "%s", message.c_str());
    }

    std::string all;
    std::vector<char> part(65536);
    for (ssize_t n; (n = recv(reader, part.data(), part.size(), MSG_DONTWAIT)) > 0;) {
        all.append(part.data(), static_cast<size_t>(n));
    }
    EXPECT_GT(all.size(), 10000u);
    EXPECT_LT(all.size(), 300u * 10000) << "nothing was lost, so the socket was never full";

    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(reader, sizeof info_line - 1), info_line);
    EXPECT_FALSE(s.has_waiting_connection());
}

TEST_F(log_test, an_interrupted_write_is_tried_again) {
    server s(path("log.sock"));
    open(path("log.sock"));
    const int reader = s.accept_one();
    test_kernel::send_answers = {EINTR, EINTR, EINTR};
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(test_kernel::send_answers.size(), 0u);
    EXPECT_EQ(receive(reader, sizeof info_line - 1), info_line);
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(reader, sizeof info_line - 1), info_line) << "the socket was not kept";
}

TEST_F(log_test, any_other_failure_of_a_write_closes_the_socket_until_the_next_attempt) {
    server s(path("log.sock"));
    stop_clock();
    for (const int error : {EMSGSIZE, ENOBUFS, EPIPE, ECONNRESET, ENOMEM, EIO}) {
        open(path("log.sock"));
        const int reader = s.accept_one();
        test_kernel::send_answers = {error};
        log_write(LOG_INFO, "lost");
        EXPECT_EQ(test_kernel::send_answers.size(), 0u);
        EXPECT_TRUE(is_readable(reader, 2000))
            << "the connection was kept after " << strerror(error);
        EXPECT_EQ(receive(reader, 1), "") << strerror(error);

        advance_ms(1000);
        log_write(LOG_INFO, "lost within the second");
        EXPECT_FALSE(s.has_waiting_connection()) << strerror(error);
        advance_ms(1);
        log_write(LOG_INFO, "hello");
        EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line) << strerror(error);
    }
}

TEST_F(log_test, a_short_write_is_not_completed) {
    server s(SOCK_STREAM);
    open("tcp://127.0.0.1" + s.colon_port());
    const int reader = s.accept_one();
    /* More than the kernel's buffers take, but the line buffer does. */
    const size_t size = 4000000;
    const std::string message(size, 'x');
    for (int i = 0; i < 4; i++) {
        log_write(LOG_INFO, "%s", message.c_str());
    }
    size_t received = 0;
    std::vector<char> part(262144);
    while (is_readable(reader, 200)) {
        const ssize_t n = recv(reader, part.data(), part.size(), MSG_DONTWAIT);
        if (n <= 0) {
            break;
        }
        received += static_cast<size_t>(n);
    }
    EXPECT_GT(received, 0u);
    EXPECT_LT(received, 4 * size) << "nothing was lost, so the socket was never full";

    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(reader, sizeof info_line - 1), info_line)
        << "the rest of an earlier line came late";
}

TEST_F(log_test, a_refused_datagram_closes_the_socket_until_the_next_attempt) {
    server first(SOCK_DGRAM);
    const int port = first.port();
    stop_clock();
    open("udp://127.0.0.1:" + std::to_string(port));
    first.close_all();
    log_write(LOG_INFO, "sent, and refused");
    log_write(LOG_INFO, "told of the refusal");

    server second(SOCK_DGRAM, port);
    advance_ms(1000);
    log_write(LOG_INFO, "lost within the second");
    EXPECT_FALSE(is_readable(second.fd(), 20));
    advance_ms(1);
    log_write(LOG_INFO, "hello");

    EXPECT_EQ(receive(second.fd(), sizeof info_line - 1), info_line);
}

TEST_F(log_test, a_lost_tcp_connection_is_made_again) {
    server s(SOCK_STREAM);
    open("myhost" + s.colon_port());
    stop_clock();
    s.accept_one();
    s.hang_up();
    /* The first line after the end goes into the void, and its answer tells of it. */
    log_write(LOG_INFO, "lost");
    for (int i = 0; i < 100; i++) {
        usleep(1000);
        log_write(LOG_INFO, "lost");
    }
    EXPECT_FALSE(s.has_waiting_connection());
    advance_ms(1001);
    log_write(LOG_INFO, "hello");
    EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line);
}

TEST_F(log_test, a_socket_path_that_has_become_free_turns_into_a_file_in_plain_text) {
    server s(path("log.sock"));
    open(path("log.sock"));
    lose_connection(&s);
    s.close_all();
    fs::remove(path("log.sock"));

    advance_ms(1001);
    log_write(LOG_INFO, "one");
    log_write(LOG_INFO, "two");

    EXPECT_EQ(read_file(path("log.sock")), "info  *** one\ninfo  *** two\n")
        << "files never get colour";
}

TEST_F(log_test,
       a_socket_path_that_is_gone_altogether_loses_the_line_and_falls_back_to_standard_output) {
    fs::create_directory("deep");
    server s(path("deep/log.sock"));
    open(path("deep/log.sock"));
    lose_connection(&s);
    s.close_all();
    fs::remove_all("deep");

    advance_ms(1001);
    EXPECT_EQ(shown_on_stdout("no descriptor"), "");
    EXPECT_EQ(shown_on_stdout("hello"), info_line);
}

TEST_F(log_test, writing_to_a_socket_that_has_ended_raises_no_signal) {
    server s(path("log.sock"));
    open(path("log.sock"));
    signal(SIGPIPE, SIG_DFL);
    s.accept_one();
    s.hang_up();
    log_write(LOG_INFO, "the process is still there");
    signal(SIGPIPE, SIG_IGN);
}

/* --- A Unix socket that nobody accepts at --- */

namespace {

/* A death test looks at standard error. */
void show_stdout() {
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

/* Listens without ever accepting, and the one connection that waits for that is not the log's. */
class full_server : public server {
  public:
    explicit full_server(const std::string& path)
        : server(path, 0), client_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = local_address(path);
        EXPECT_EQ(connect(client_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
            << strerror(errno);
    }
    ~full_server() {
        close(client_);
    }

  private:
    int client_;
};

} // namespace

TEST_F(log_death_test, a_socket_whose_queue_is_full_is_not_waited_for) {
    full_server s(path("log.sock"));
    for (const std::string& target : {path("log.sock"), "unix://" + path("log.sock")}) {
        EXPECT_EXIT(
            {
                show_stdout();
                alarm(10);
                const size_t before = unit_test::open_descriptors();
                open(target);
                const bool gave_up = unit_test::open_descriptors() == before;
                log_write(LOG_INFO, "lost");
                _exit(gave_up ? 3 : 4);
            },
            ExitedWithCode(3), text(Eq("")))
            << target;
    }
    s.accept_one();
    EXPECT_FALSE(s.has_waiting_connection());
}

TEST_F(log_death_test, a_socket_whose_queue_was_full_is_tried_again_after_more_than_a_second) {
    full_server s(path("log.sock"));
    EXPECT_EXIT(
        {
            alarm(10);
            stop_clock();
            open(path("log.sock"));
            /* Whatever was attempted before, two attempts more than a second apart make one of them
             * count. */
            log_write(LOG_INFO, "lost");
            advance_ms(1001);
            log_write(LOG_INFO, "lost with a failing attempt");
            s.accept_one();
            advance_ms(1000);
            log_write(LOG_INFO, "lost within the second");
            EXPECT_FALSE(s.has_waiting_connection());
            advance_ms(1);
            log_write(LOG_INFO, "hello");
            EXPECT_EQ(receive(s.accept_one(), sizeof info_line - 1), info_line);
            _exit(HasFailure() ? 1 : 0);
        },
        ExitedWithCode(0), "");
}

TEST_F(log_test, a_connected_unix_socket_blocks_as_usual) {
    server s(path("log.sock"));
    open("stdout");
    const int next = dup(STDOUT_FILENO);
    close(next);
    open(path("log.sock"));
    const int flags = fcntl(next, F_GETFL);
    ASSERT_GE(flags, 0) << "the lowest free descriptor was not taken";
    EXPECT_EQ(flags & O_NONBLOCK, 0);
}

/* --- Standard output that takes no more --- */

namespace {

/* Stands in the place of standard output, and is read when the test says so. What the test finds
 * wrong is printed there too, so nothing is compared before the place is given back. */
class unread_output {
  public:
    static constexpr bool PIPE = true;
    static constexpr bool SOCKET = false;

    explicit unread_output(bool is_pipe, int pipe_size = 4096) {
        fflush(stdout);
        int ends[2];
        if (is_pipe) {
            EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
            EXPECT_EQ(fcntl(ends[1], F_SETPIPE_SZ, pipe_size), pipe_size);
        } else {
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        }
        dup2(ends[1], STDOUT_FILENO);
        close(ends[1]);
        reader_ = ends[0];
        /* A daemon that is held up ends the test. */
        alarm(20);
    }
    ~unread_output() {
        give_back();
        close_reader();
    }
    unread_output(const unread_output&) = delete;
    unread_output& operator=(const unread_output&) = delete;

    bool has_room() const {
        pollfd writable = {STDOUT_FILENO, POLLOUT, 0};
        return poll(&writable, 1, 0) == 1;
    }
    /* What has come since it was read last. */
    std::string read_all() const {
        std::string all;
        char part[65536];
        while (is_readable(reader_, 0)) {
            const ssize_t n = read(reader_, part, sizeof part);
            if (n <= 0) {
                break;
            }
            all.append(part, static_cast<size_t>(n));
        }
        return all;
    }
    void close_reader() {
        if (reader_ >= 0) {
            close(reader_);
            reader_ = -1;
        }
    }
    void give_back() {
        alarm(0);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
            saved_ = -1;
        }
    }

  private:
    int saved_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    int reader_ = -1;
};

class log_reader_test : public log_test {
  protected:
    void SetUp() override {
        log_test::SetUp();
        open("stdout", LOG_INFO, 0, 0);
    }
};

const char losses[] = "warn  *** standard output took no more, lines lost: ";

} // namespace

TEST_F(log_reader_test, a_full_pipe_loses_lines_and_says_afterwards_how_many) {
    unread_output out(unread_output::PIPE);
    log_write(LOG_INFO, "first");
    const bool room = out.has_room();
    for (int i = 0; i < 300; i++) {
        log_write(LOG_INFO, "lost, and 300 of these are more than a pipe of one page holds");
    }
    const std::string before = out.read_all();
    log_write(LOG_INFO, "one");
    const std::string first = out.read_all();
    log_write(LOG_INFO, "two");
    const std::string second = out.read_all();
    out.give_back();
    EXPECT_FALSE(room) << "a pipe of one page is full from its first byte on";
    EXPECT_EQ(before, "info  *** first\n");
    EXPECT_EQ(first, std::string(losses) + "300\ninfo  *** one\n");
    EXPECT_EQ(second, "info  *** two\n");
}

TEST_F(log_reader_test, a_full_socket_loses_lines_and_says_afterwards_how_many) {
    unread_output out(unread_output::SOCKET);
    for (int i = 0; i < 1000; i++) {
        log_write(LOG_INFO, "%s", std::string(1000, 'x').c_str());
    }
    const std::string before = out.read_all();
    log_write(LOG_INFO, "next");
    const std::string after = out.read_all();
    out.give_back();
    const long taken = std::count(before.begin(), before.end(), '\n');
    EXPECT_GT(taken, 0);
    EXPECT_LT(taken, 1000) << "nothing was lost, so the socket was never full";
    EXPECT_EQ(after, (before.back() == '\n' ? "" : "\n") + std::string(losses) +
                         std::to_string(1000 - taken) + "\ninfo  *** next\n");
}

TEST_F(log_reader_test, a_line_that_a_pipe_takes_in_part_ends_before_the_next_begins) {
    unread_output out(unread_output::PIPE);
    log_write(LOG_INFO, "%s", std::string(10000, 'x').c_str());
    const std::string before = out.read_all();
    log_write(LOG_INFO, "one");
    const std::string first = out.read_all();
    log_write(LOG_INFO, "two");
    const std::string second = out.read_all();
    out.give_back();
    EXPECT_EQ(before, "info  *** " + std::string(4086, 'x'));
    EXPECT_EQ(first, "\n" + std::string(losses) + "1\ninfo  *** one\n");
    EXPECT_EQ(second, "info  *** two\n");
}

TEST_F(log_reader_test, losses_are_counted_from_the_last_time_that_they_were_said) {
    unread_output out(unread_output::PIPE);
    log_write(LOG_INFO, "first");
    log_write(LOG_INFO, "lost");
    (void)out.read_all();
    log_write(LOG_INFO, "%s", std::string(10000, 'x').c_str());
    (void)out.read_all();
    log_write(LOG_INFO, "next");
    const std::string text = out.read_all();
    out.give_back();
    EXPECT_EQ(text, "\n" + std::string(losses) + "1\ninfo  *** next\n");
}

TEST_F(log_reader_test, a_line_longer_than_a_pipes_page_comes_whole_where_there_is_room) {
    unread_output out(unread_output::PIPE, 65536);
    log_write(LOG_INFO, "%s", std::string(10000, 'x').c_str());
    const std::string text = out.read_all();
    out.give_back();
    EXPECT_EQ(text, "info  *** " + std::string(10000, 'x') + std::string(1, '\0') + "\n");
}

TEST_F(log_reader_test, losses_are_not_said_to_those_who_want_no_warnings) {
    log_set_level(LOG_ERROR);
    unread_output out(unread_output::PIPE);
    log_write(LOG_ERROR, "first");
    log_write(LOG_ERROR, "lost");
    (void)out.read_all();
    log_write(LOG_ERROR, "next");
    const std::string quiet = out.read_all();
    log_set_level(LOG_INFO);
    log_write(LOG_INFO, "next");
    const std::string later = out.read_all();
    out.give_back();
    EXPECT_EQ(quiet, "error *** next\n");
    EXPECT_EQ(later, "info  *** next\n");
}

TEST_F(log_reader_test, a_pipe_goes_on_blocking_those_who_share_it) {
    unread_output out(unread_output::PIPE);
    log_write(LOG_INFO, "hello");
    const int flags = fcntl(STDOUT_FILENO, F_GETFL);
    out.give_back();
    EXPECT_EQ(flags & O_NONBLOCK, 0);
}

TEST_F(log_reader_test, losses_are_forgotten_when_the_log_is_opened_anew) {
    unread_output out(unread_output::PIPE);
    log_write(LOG_INFO, "%s", std::string(10000, 'x').c_str());
    (void)out.read_all();
    log_open(nullptr);
    log_write(LOG_INFO, "next");
    const std::string text = out.read_all();
    out.give_back();
    EXPECT_EQ(text, "info  *** next\n");
}

TEST_F(log_reader_test, a_pipe_without_reader_loses_its_lines) {
    unread_output out(unread_output::PIPE);
    out.close_reader();
    log_write(LOG_INFO, "lost");
    log_write(LOG_INFO, "the process is still there");
}

/* --- Messages that stand in a buffer --- */

namespace {

class log_buffer_test : public log_test {
  protected:
    void SetUp() override {
        log_test::SetUp();
        open(path("a.log"));
    }
    void TearDown() override {
        buffer_free(&message);
        log_test::TearDown();
    }
    void compose(const std::string& bytes, uint32_t initial = 16, uint32_t limit = 64) {
        buffer_init(&message, initial, limit);
        ASSERT_EQ(buffer_append(&message, bytes.data(), static_cast<uint32_t>(bytes.size())),
                  bytes.size());
    }
    std::string content() const {
        return std::string(message.data, message.length);
    }
    std::string file() const {
        return read_file(path("a.log"));
    }

    buffer message = {};
};

} // namespace

TEST_F(log_buffer_test, is_written_as_a_line) {
    compose("hello");
    log_write_buffer(LOG_WARN, &message);
    EXPECT_EQ(file(), "warn  *** hello\n");
}

TEST_F(log_buffer_test, gets_a_nul_that_stays) {
    compose("hello");
    log_write_buffer(LOG_INFO, &message);
    EXPECT_EQ(content(), std::string("hello\0", 6));
}

TEST_F(log_buffer_test, is_written_up_to_its_first_nul) {
    compose(std::string("hello\0behind", 12));
    log_write_buffer(LOG_INFO, &message);
    EXPECT_EQ(file(), "info  *** hello\n");
    EXPECT_EQ(content(), std::string("hello\0behind\0", 13));
}

TEST_F(log_buffer_test, is_written_from_its_first_unconsumed_byte) {
    compose("gone hello");
    buffer_consume(&message, 5);
    log_write_buffer(LOG_INFO, &message);
    EXPECT_EQ(file(), "info  *** hello\n");
}

TEST_F(log_buffer_test, is_never_taken_for_a_format) {
    compose("100%s%n");
    log_write_buffer(LOG_INFO, &message);
    EXPECT_EQ(file(), "info  *** 100%s%n\n");
}

TEST_F(log_buffer_test, may_be_empty) {
    compose("");
    log_write_buffer(LOG_INFO, &message);
    EXPECT_EQ(file(), "info  *** \n");
}

TEST_F(log_buffer_test, grows_for_its_nul) {
    compose("123456789012345");
    ASSERT_EQ(message.capacity, 16u);
    log_write_buffer(LOG_INFO, &message);
    EXPECT_EQ(file(), "info  *** 123456789012345\n");
    EXPECT_EQ(message.capacity, 32u);
}

TEST_F(log_buffer_test, without_room_for_its_nul_is_not_written_and_stays_as_it_was) {
    compose("123456789012345", 16, 16);
    log_write_buffer(LOG_INFO, &message);
    EXPECT_EQ(file(), "");
    EXPECT_EQ(content(), "123456789012345");
}

TEST_F(log_buffer_test, is_written_when_its_nul_is_the_last_that_fits) {
    compose("12345678901234", 16, 16);
    log_write_buffer(LOG_INFO, &message);
    EXPECT_EQ(file(), "info  *** 12345678901234\n");
}

/* --- Fatal messages --- */

TEST_F(log_death_test, a_fatal_message_is_written_and_ends_the_process_with_255) {
    open("stdout");
    EXPECT_EXIT(
        {
            show_stdout();
            log_write(LOG_FATAL, "the %s", "end");
        },
        ExitedWithCode(255), text(Eq("\033[41;37;1mfatal *** the end\033[0m\n")));
}

TEST_F(log_death_test, a_fatal_message_is_in_the_file_when_the_process_has_ended) {
    open(path("a.log"));
    EXPECT_EXIT(log_write(LOG_FATAL, "the end"), ExitedWithCode(255), text(Eq("")));
    EXPECT_EQ(read_file(path("a.log")), "fatal *** the end\n");
}

TEST_F(log_death_test, a_fatal_message_is_sent_when_the_process_has_ended) {
    server s(path("log.sock"));
    open(path("log.sock"));
    EXPECT_EXIT(log_write(LOG_FATAL, "the end"), ExitedWithCode(255), text(Eq("")));
    const std::string expected = "\033[41;37;1mfatal *** the end\033[0m\n";
    EXPECT_EQ(receive(s.accept_one(), expected.size()), expected);
}

TEST_F(log_death_test, a_discarded_fatal_message_ends_the_process_too) {
    open("syslog");
    EXPECT_EXIT(
        {
            show_stdout();
            log_write(LOG_FATAL, "the end");
        },
        ExitedWithCode(255), text(Eq("")));
}

TEST_F(log_death_test, a_fatal_message_that_finds_no_socket_ends_the_process_too) {
    server s(path("log.sock"));
    open(path("log.sock"));
    lose_connection(&s);
    EXPECT_EXIT(log_write(LOG_FATAL, "lost within the second"), ExitedWithCode(255), text(Eq("")));
    s.close_all();
    advance_ms(1001);
    EXPECT_EXIT(log_write(LOG_FATAL, "lost with a failing attempt"), ExitedWithCode(255),
                text(Eq("")));
}

TEST_F(log_death_test, a_fatal_message_that_cannot_be_sent_ends_the_process_too) {
    server s(path("log.sock"));
    open(path("log.sock"));
    for (const int error : {EAGAIN, EMSGSIZE}) {
        EXPECT_EXIT(
            {
                test_kernel::send_answers = {error};
                log_write(LOG_FATAL, "lost");
            },
            ExitedWithCode(255), text(Eq("")));
    }
}

TEST_F(log_death_test, a_broken_invariant_is_a_fatal_line_with_expression_unit_and_line) {
    open("stdout");
    EXPECT_EXIT(
        {
            show_stdout();
            log_assert_failed("a == \"b\"", "object", 123);
        },
        ExitedWithCode(255),
        text(Eq("\033[41;37;1mfatal *** assertion \"a == \"b\"\" failed at object:123\033[0m\n")));
}
