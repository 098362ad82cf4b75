#include "core/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/usage.h"
#include "tests/unit/support/test_kernel.h"

namespace {

using testing::EndsWith;
using testing::Eq;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::Matcher;
using testing::MatchesRegex;

typedef Matcher<const std::string&> text;

class options_test : public testing::Test {
  protected:
    void SetUp() override {
        options_init(&o);
    }
    void TearDown() override {
        sstr_free(&o.address);
    }

    void parse(std::initializer_list<const char*> arguments, const char* program = "tessard") {
        std::vector<char*> argv;
        words_.push_back(program);
        argv.push_back(words_.back().data());
        for (const char* argument : arguments) {
            words_.push_back(argument);
            argv.push_back(words_.back().data());
        }
        argv.push_back(nullptr);
        optind = 0; /* makes getopt begin anew */
        options_parse(&o, static_cast<int>(argv.size()) - 1, argv.data());
    }

    /* For parses that end the process: what they print on standard output goes where a death test
     * looks. */
    void parse_and_show_output(std::initializer_list<const char*> arguments,
                               const char* program = "tessard") {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        parse(arguments, program);
    }

    /* The same with standard output thrown away. */
    void parse_and_hide_output(std::initializer_list<const char*> arguments) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        parse(arguments);
    }

    options o = {};

  private:
    std::deque<std::string> words_; /* the options point into them */
};

typedef options_test options_death_test;

} // namespace

/* --- Defaults --- */

TEST_F(options_test, defaults_log_to_the_file_in_tmp_and_listen_on_the_socket_in_tmp) {
    parse({});
    EXPECT_STREQ(o.log.target, "/tmp/tessard.log");
    EXPECT_STREQ(o.log.ident, "Tessard");
    EXPECT_EQ(o.log.level, 1u);
    EXPECT_EQ(o.log.colour, 1);
    EXPECT_EQ(o.log.timestamps, 1);
    EXPECT_STREQ(o.address, "/tmp/tessard.sock");
    EXPECT_EQ(sstr_length(o.address), 17u);
    EXPECT_EQ(o.port, 0);
}

TEST_F(options_test, words_that_are_no_options_are_ignored) {
    parse({"start", "-p", "7000", "now"});
    EXPECT_EQ(o.port, 7000);
    EXPECT_STREQ(o.address, "/tmp/tessard.sock");
}

/* --- Port --- */

TEST_F(options_test, the_port_is_taken) {
    parse({"-p", "7000"});
    EXPECT_EQ(o.port, 7000);
    parse({"-p7001"});
    EXPECT_EQ(o.port, 7001);
    parse({"--port=7002"});
    EXPECT_EQ(o.port, 7002);
    parse({"-p", "1"});
    EXPECT_EQ(o.port, 1);
}

TEST_F(options_test, the_port_is_read_up_to_the_first_other_character) {
    parse({"-p", " 80http"});
    EXPECT_EQ(o.port, 80);
}

TEST_F(options_test, a_port_below_1_or_no_number_is_ignored) {
    for (const char* port : {"0", "-1", "abc", "", "-7000"}) {
        parse({"-p", port});
        EXPECT_EQ(o.port, 0) << port;
    }
    parse({"-p", "7000", "-p", "0", "-p", "abc"});
    EXPECT_EQ(o.port, 7000);
}

TEST_F(options_test, the_port_has_32_bits) {
    parse({"-p", "70000"});
    EXPECT_EQ(o.port, 70000);
    parse({"-p", "2147483647"});
    EXPECT_EQ(o.port, 2147483647);
}

TEST_F(options_test, a_port_alone_leaves_the_unix_socket) {
    parse({"-p", "7000"});
    EXPECT_STREQ(o.address, "/tmp/tessard.sock");
}

/* --- Address --- */

TEST_F(options_test, the_address_is_copied) {
    parse({"-a", "/tmp/other.sock"});
    EXPECT_STREQ(o.address, "/tmp/other.sock");
    EXPECT_EQ(sstr_length(o.address), 15u);
}

TEST_F(options_test, the_address_can_follow_its_letter_or_an_equals_sign) {
    parse({"-a0.0.0.0"});
    EXPECT_STREQ(o.address, "0.0.0.0");
    parse({"--addr=::1"});
    EXPECT_STREQ(o.address, "::1");
}

TEST_F(options_test, the_last_address_counts) {
    parse({"-a", "/tmp/first.sock", "-a", "127.0.0.1"});
    EXPECT_STREQ(o.address, "127.0.0.1");
    EXPECT_EQ(sstr_length(o.address), 9u);
}

TEST_F(options_test, an_empty_address_is_taken) {
    parse({"-a", ""});
    EXPECT_STREQ(o.address, "");
    EXPECT_EQ(sstr_length(o.address), 0u);
}

/* --- Log level --- */

TEST_F(options_test, the_log_level_is_taken_by_the_beginning_of_its_name) {
    parse({"-l", "debug"});
    EXPECT_EQ(o.log.level, 0u);
    parse({"-l", "Warning"});
    EXPECT_EQ(o.log.level, 2u);
    parse({"-lERROR"});
    EXPECT_EQ(o.log.level, 3u);
    parse({"--loglevel=fatal"});
    EXPECT_EQ(o.log.level, 4u);
}

TEST_F(options_test, an_unknown_log_level_is_info) {
    parse({"-l", "error", "-l", "ERR"});
    EXPECT_EQ(o.log.level, 1u);
}

/* --- Log file --- */

TEST_F(options_test, only_stdout_and_syslog_choose_where_the_log_goes) {
    parse({"-f", "stdout"});
    EXPECT_STREQ(o.log.target, "stdout");
    EXPECT_STREQ(o.log.ident, "Tessard");
    parse({"--logfile=syslog"});
    EXPECT_STREQ(o.log.target, "syslog");
    EXPECT_STREQ(o.log.ident, "Tessard");
}

TEST_F(options_test, any_other_log_file_leaves_the_log_on_its_default_and_is_kept_as_ident) {
    for (const char* target : {"/var/log/x.log", "STDOUT", "Syslog", "stderr", "stdout ", "stdou",
                               "localhost:9000", "tcp://127.0.0.1:9000", ""}) {
        parse({"-f", target});
        EXPECT_STREQ(o.log.target, "/tmp/tessard.log") << target;
        EXPECT_STREQ(o.log.ident, target);
    }
}

TEST_F(options_test, a_file_behind_stdout_does_not_take_stdout_back) {
    parse({"-f", "stdout", "-f", "/var/log/x.log"});
    EXPECT_STREQ(o.log.target, "stdout");
    EXPECT_STREQ(o.log.ident, "/var/log/x.log");
}

/* --- Long forms --- */

TEST_F(options_test, a_long_form_with_its_value_in_a_word_of_its_own_is_ignored) {
    parse({"--addr", "/tmp/other.sock"});
    EXPECT_STREQ(o.address, "/tmp/tessard.sock");
    parse({"--port", "7000", "--loglevel", "debug", "--logfile", "stdout"});
    EXPECT_EQ(o.port, 0);
    EXPECT_EQ(o.log.level, 1u);
    EXPECT_STREQ(o.log.target, "/tmp/tessard.log");
    EXPECT_STREQ(o.log.ident, "Tessard");
}

TEST_F(options_test, many_options_are_taken_together) {
    parse({"-p", "7000", "-a", "127.0.0.1", "--loglevel=error", "-f", "syslog"});
    EXPECT_EQ(o.port, 7000);
    EXPECT_STREQ(o.address, "127.0.0.1");
    EXPECT_EQ(o.log.level, 3u);
    EXPECT_STREQ(o.log.target, "syslog");
}

/* --- Version --- */

TEST_F(options_death_test, version_is_one_line_on_standard_output_and_status_0) {
    EXPECT_EXIT(parse_and_show_output({"-v"}), ExitedWithCode(0),
                text(MatchesRegex("Tessard 2\\.1\\.0 .+\n")));
    EXPECT_EXIT(parse_and_show_output({"--version"}), ExitedWithCode(0),
                "^Tessard 2\\.1\\.0 .+\n$");
    EXPECT_EXIT(parse_and_hide_output({"-v"}), ExitedWithCode(0), text(Eq("")));
}

TEST_F(options_death_test, version_comes_before_what_follows_it) {
    EXPECT_EXIT(parse_and_show_output({"-v", "-h"}), ExitedWithCode(0), "^Tessard 2\\.1\\.0 .+\n$");
    EXPECT_EXIT(parse_and_show_output({"-vd"}), ExitedWithCode(0), "^Tessard 2\\.1\\.0 .+\n$");
}

/* --- Usage --- */

TEST_F(options_death_test, help_prints_the_usage_byte_for_byte_and_ends_with_255) {
    EXPECT_EXIT(parse_and_show_output({"-h"}), ExitedWithCode(255), text(Eq(usage("tessard"))));
    EXPECT_EXIT(parse_and_show_output({"--help"}), ExitedWithCode(255), text(Eq(usage("tessard"))));
}

TEST_F(options_death_test, the_usage_names_the_program_as_it_was_called) {
    EXPECT_EXIT(parse_and_show_output({"-h"}, "/usr/sbin/cache %s"), ExitedWithCode(255),
                text(Eq(usage("/usr/sbin/cache %s"))));
}

TEST_F(options_death_test, the_usage_goes_to_standard_output) {
    EXPECT_EXIT(parse_and_hide_output({"-h"}), ExitedWithCode(255), text(Eq("")));
}

TEST_F(options_death_test, the_continuation_of_the_log_files_line_is_indented_by_45_blanks) {
    const std::string indent(45, ' ');
    EXPECT_EXIT(parse_and_show_output({"-h"}), ExitedWithCode(255),
                text(HasSubstr("stdout, syslog,\n" + indent +
                               "/tmp/xxx.sock, /path/to/regular/file\n" + indent + "以及")));
}

TEST_F(options_death_test, unknown_options_print_the_usage_and_end_with_255) {
    for (const char* option : {"-x", "-?", "--verbose", "-1", "--version=2", "--algor=max"}) {
        EXPECT_EXIT(parse_and_show_output({option}), ExitedWithCode(255),
                    text(EndsWith(usage("tessard"))))
            << option;
    }
}

TEST_F(options_death_test, a_short_option_without_its_value_prints_the_usage_and_ends_with_255) {
    for (const char* option : {"-p", "-a", "-l", "-f", "-g"}) {
        EXPECT_EXIT(parse_and_show_output({option}), ExitedWithCode(255),
                    text(EndsWith(usage("tessard"))))
            << option;
    }
}

namespace {

void tell_algor(const char* word) {
    fprintf(stderr, "algor \"%s\"\n", word);
}

} // namespace

TEST_F(options_death_test, the_history_algorithm_is_told_and_the_usage_printed_all_the_same) {
    o.on_history_algor = tell_algor;
    for (const char* word : {"avg", "max", "AVG", "average", ""}) {
        EXPECT_EXIT(parse_and_hide_output({"-g", word}), ExitedWithCode(255),
                    text(Eq("algor \"" + std::string(word) + "\"\n")));
    }
    EXPECT_EXIT(parse_and_show_output({"-g", "avg", "-p", "7000"}), ExitedWithCode(255),
                text(Eq("algor \"avg\"\n" + usage("tessard"))));
}

TEST_F(options_death_test, a_history_algorithm_that_nobody_asks_for_prints_the_usage) {
    EXPECT_EXIT(parse_and_show_output({"-g", "avg"}), ExitedWithCode(255),
                text(Eq(usage("tessard"))));
}

/* --- Daemon --- */

namespace {

/* Everything that the processes holding the write end say until the last of them is gone. */
std::string read_to_end(int fd) {
    std::string all;
    char part[256];
    pollfd readable = {fd, POLLIN, 0};
    while (poll(&readable, 1, 10000) == 1) {
        const ssize_t n = read(fd, part, sizeof part);
        if (n <= 0) {
            return all;
        }
        all.append(part, static_cast<size_t>(n));
    }
    ADD_FAILURE() << "the daemonised process did not end";
    return all;
}

class options_daemon_death_test : public options_test {
  protected:
    void SetUp() override {
        options_test::SetUp();
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    }
    void TearDown() override {
        close(ends[0]);
        options_test::TearDown();
    }
    void say(const std::string& what) const {
        (void)!write(ends[1], what.data(), what.size());
    }
    std::string heard() {
        close(ends[1]);
        return read_to_end(ends[0]);
    }

    int ends[2] = {-1, -1};
};

} // namespace

TEST_F(options_daemon_death_test, the_caller_ends_and_the_daemon_goes_on_with_the_options_behind) {
    const std::string caller_session = std::to_string(getsid(0));
    for (const char* option : {"-d", "--daemon"}) {
        ASSERT_EXIT(
            {
                parse({"-p", "7000", option, "-l", "error"});
                char folder[64] = "";
                say("port " + std::to_string(o.port) + ", level " + std::to_string(o.log.level) +
                    ", in " + getcwd(folder, sizeof folder) +
                    (std::to_string(getsid(0)) == caller_session ? ", old session"
                                                                 : ", new session") +
                    (isatty(STDOUT_FILENO) != 0 ? ", terminal\n" : ", no terminal\n"));
                _exit(3);
            },
            ExitedWithCode(0), "^$");
    }
    const std::string daemon_said = "port 7000, level 3, in /, new session, no terminal\n";
    EXPECT_EQ(heard(), daemon_said + daemon_said);
}

TEST_F(options_daemon_death_test, what_follows_is_parsed_in_the_daemon_whose_output_goes_nowhere) {
    EXPECT_EXIT(parse_and_show_output({"-dv"}), ExitedWithCode(0), text(Eq("")));
    EXPECT_EXIT(parse_and_show_output({"-dh"}), ExitedWithCode(0), text(Eq("")));
    EXPECT_EQ(heard(), "");
}

TEST_F(options_death_test, a_daemon_that_cannot_be_made_ends_with_status_0) {
    EXPECT_EXIT(
        {
            test_kernel::daemon_failures = {EAGAIN};
            parse({"-d"});
            _exit(3);
        },
        ExitedWithCode(0), "^$");
}
