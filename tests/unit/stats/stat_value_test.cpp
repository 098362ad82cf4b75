#include "stats/stat_value.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;

namespace {

class stat_values_test : public store_test {
  protected:
    static std::string_view string_of(const char* key) {
        const object* obj = object_lookup_type(key, OBJ_TSTRING);
        return obj != nullptr ? bytes_of(obj->string) : "(no string)";
    }

    static std::string_view field_of(const object* hash, const char* field) {
        const hash_field* f = object_hash_field(hash, field);
        return f != nullptr ? bytes_of(f->value) : "(no field)";
    }
};

struct own_folder {
    own_folder() : path(::testing::TempDir() + "tessard-commands-XXXXXX") {
        EXPECT_NE(mkdtemp(path.data()), nullptr);
    }
    ~own_folder() {
        std::filesystem::remove_all(path);
    }
    own_folder(const own_folder&) = delete;
    own_folder& operator=(const own_folder&) = delete;

    std::string path;
};

/* Commands are started as in the daemon, which ignores SIGPIPE. */
class stat_commands_test : public ::testing::Test {
  protected:
    stat_commands_test() {
        (void)signal(SIGPIPE, SIG_IGN);
    }
    ~stat_commands_test() override {
        (void)signal(SIGPIPE, SIG_DFL);
    }

    static std::string output_of(const char* command) {
        char text[STAT_OUTPUT_SIZE];
        EXPECT_TRUE(stat_command_output(command, 1000, text));
        return text;
    }

    /* All bytes that were read for so many lines, NULs included. */
    static std::string first_lines(const char* command, unsigned lines) {
        char text[STAT_OUTPUT_SIZE];
        memset(text, '?', sizeof text);
        EXPECT_TRUE(stat_command_output(command, lines, text));
        const std::string_view all(text, sizeof text);
        const size_t end = all.find('?');
        EXPECT_TRUE(end != std::string_view::npos && end > 0 && all[end - 1] == '\0');
        return std::string(all.substr(0, end - 1));
    }

    static long open_descriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }

    static bool pipe_signal_is_ignored() {
        struct sigaction now = {};
        sigaction(SIGPIPE, nullptr, &now);
        return now.sa_handler == SIG_IGN;
    }
};

} // namespace

/* --- Numbers as strings --- */

TEST_F(stat_values_test, a_number_is_written_as_decimal_text_without_padding) {
    for (const auto& [value, digits] : {std::pair(0u, "0"),
                                        {7u, "7"},
                                        {100u, "100"},
                                        {2147483648u, "2147483648"},
                                        {4294967295u, "4294967295"}}) {
        stat_set_number("figure", value);
        EXPECT_EQ(string_of("figure"), digits);
    }
}

TEST_F(stat_values_test, a_shorter_number_leaves_nothing_of_a_longer_one) {
    stat_set_number("figure", 4294967295u);
    stat_set_number("figure", 3);
    EXPECT_EQ(string_of("figure"), "3");
}

TEST_F(stat_values_test, every_write_is_announced_also_of_the_same_number) {
    test_client observer;
    observer.call({"observe"});
    stat_set_number("figure", 42);
    EXPECT_EQ(observer.received(), event({"MSET", "figure", "42"}));
    stat_set_number("figure", 42);
    EXPECT_EQ(observer.received(), event({"MSET", "figure", "42"}));
}

TEST_F(stat_values_test, a_string_key_holding_a_hash_or_list_is_left_alone) {
    object_hash_set(make("h", OBJ_THASH), text("f"), text("v"));
    object_rpush(make("l", OBJ_TLIST), "item");
    test_client observer;
    observer.call({"observe"});
    stat_set_number("h", 1);
    stat_set_number("l", 1);
    EXPECT_EQ(field_of(object_lookup_type("h", OBJ_THASH), "f"), "v");
    EXPECT_EQ(object_lookup_type("l", OBJ_TLIST)->list->count, 1);
    EXPECT_EQ(observer.received(), "");
}

TEST_F(stat_values_test, a_deleted_key_comes_back) {
    stat_set_number("figure", 1);
    object_delete(object_lookup("figure"));
    ASSERT_EQ(object_lookup("figure"), nullptr);
    stat_set_number("figure", 2);
    EXPECT_EQ(string_of("figure"), "2");
}

/* --- Numbers as fields --- */

TEST_F(stat_values_test, a_field_takes_the_two_halves_of_a_64_bit_number) {
    object* hash = make("eth0", OBJ_THASH);
    stat_hset_u64(hash, "zero", 0, 0);
    stat_hset_u64(hash, "low", 4294967295u, 0);
    stat_hset_u64(hash, "high", 0, 1);
    stat_hset_u64(hash, "mixed", 705032704, 1);
    stat_hset_u64(hash, "all", 4294967295u, 4294967295u);
    EXPECT_EQ(field_of(hash, "zero"), "0");
    EXPECT_EQ(field_of(hash, "low"), "4294967295");
    EXPECT_EQ(field_of(hash, "high"), "4294967296");
    EXPECT_EQ(field_of(hash, "mixed"), "5000000000");
    EXPECT_EQ(field_of(hash, "all"), "18446744073709551615");
}

TEST_F(stat_values_test, a_field_takes_a_32_bit_number) {
    object* hash = make("eth0", OBJ_THASH);
    stat_hset_u32(hash, "f", 0);
    EXPECT_EQ(field_of(hash, "f"), "0");
    stat_hset_u32(hash, "f", 4294967295u);
    EXPECT_EQ(field_of(hash, "f"), "4294967295");
}

/* --- What scanf read --- */

TEST(stat_readings_test, saturate_at_32_bits_and_store_negative_ones_as_unsigned) {
    EXPECT_EQ(stat_signed_reading(0), 0u);
    EXPECT_EQ(stat_signed_reading(5), 5u);
    EXPECT_EQ(stat_signed_reading(2147483647), 2147483647u);
    EXPECT_EQ(stat_signed_reading(2147483648), 2147483647u);
    EXPECT_EQ(stat_signed_reading(INT64_MAX), 2147483647u);
    EXPECT_EQ(stat_signed_reading(-1), 4294967295u);
    EXPECT_EQ(stat_signed_reading(INT64_C(-2147483648)), 2147483648u);
    EXPECT_EQ(stat_signed_reading(INT64_C(-2147483649)), 2147483648u);
    EXPECT_EQ(stat_signed_reading(INT64_MIN), 2147483648u);
}

/* --- Outside commands --- */

TEST_F(stat_commands_test, the_output_of_a_pipeline_is_read) {
    EXPECT_EQ(output_of("printf 'a 1\\nb 2\\n' | head -n 1 | awk '{print $2}'"), "1\n");
}

TEST_F(stat_commands_test, complaints_go_nowhere) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(output_of("echo complaint >&2; echo figure"), "figure\n");
    EXPECT_EQ(output_of("tessard-no-such-tool --showg"), "");
    EXPECT_EQ(output_of("tessard-no-such-tool -S | head -n 1 | awk '{print $2}'"), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(stat_commands_test, a_command_that_writes_for_ever_ends_with_its_reader) {
    const std::string output = output_of("exec yes 12345");
    EXPECT_EQ(output.substr(0, 6), "12345\n");
    EXPECT_EQ(output.size(), STAT_OUTPUT_SIZE - 1);
}

TEST_F(stat_commands_test, a_command_that_does_not_look_at_its_failures_ends_with_its_reader_too) {
    const own_folder folder;
    /* Far more than a pipe holds. */
    const std::string command =
        "i=0; while [ $i -lt 30000 ]; do echo 12345; i=$((i + 1)); done; : >" + folder.path +
        "/all";
    EXPECT_EQ(output_of(command.c_str()).size(), STAT_OUTPUT_SIZE - 1);
    EXPECT_FALSE(std::filesystem::exists(folder.path + "/all"));
}

TEST_F(stat_commands_test, a_process_that_is_left_behind_with_the_output_open_is_not_waited_for) {
    const own_folder folder;
    const std::string left_behind =
        "(n=0; while [ ! -e " + folder.path +
        "/go ] && [ $n -lt 300 ]; do sleep 0.1; n=$((n + 1)); done; : >" + folder.path +
        "/ended) &";
    char text[STAT_OUTPUT_SIZE];
    ASSERT_TRUE(stat_command_output(
        ("echo Online hosts: 5; echo Max Online hosts: 9; " + left_behind).c_str(), 2, text));
    EXPECT_STREQ(text, "Online hosts: 5\nMax Online hosts: 9\n");
    EXPECT_FALSE(std::filesystem::exists(folder.path + "/ended"));
    std::ofstream(folder.path + "/go").close();
    for (int i = 0; i < 1000 && !std::filesystem::exists(folder.path + "/ended"); i++) {
        usleep(10000);
    }
}

TEST_F(stat_commands_test, blank_lines_are_read_but_not_counted) {
    EXPECT_EQ(first_lines("echo; echo ' '; echo 7; echo 8", 1), "\n \n7\n");
    EXPECT_EQ(first_lines("printf '\\t\\n\\r\\n\\v\\n\\f\\n \\t\\r\\v\\f\\n7\\n8\\n'", 1),
              "\t\n\r\n\v\n\f\n \t\r\v\f\n7\n");
}

TEST_F(stat_commands_test, blanks_beside_a_figure_make_no_blank_line) {
    EXPECT_EQ(first_lines("printf ' \\t\\r\\v\\f7\\n8\\n'", 1), " \t\r\v\f7\n");
    EXPECT_EQ(first_lines("printf '7 \\t\\r\\v\\f\\n8\\n'", 1), "7 \t\r\v\f\n");
    EXPECT_EQ(first_lines("printf '7\\n\\n8 \\n9\\n'", 2), "7\n\n8 \n");
}

TEST_F(stat_commands_test, a_nul_is_no_blank_and_ends_the_text_where_it_stands) {
    EXPECT_EQ(first_lines("printf '\\0\\n7\\n'", 1), std::string("\0\n", 2));
    EXPECT_EQ(first_lines("printf '\\0 7\\n8\\n'", 1), std::string("\0 7\n", 4));
    EXPECT_EQ(first_lines("printf ' \\0\\n7\\n'", 1), std::string(" \0\n", 3));
    EXPECT_EQ(output_of("printf '7\\0008\\n'"), "7");
}

TEST_F(stat_commands_test, one_that_cannot_be_started_is_told_from_one_that_says_nothing) {
    char text[STAT_OUTPUT_SIZE];
    EXPECT_TRUE(stat_command_output("true", 1, text));
    EXPECT_STREQ(text, "");
    strcpy(text, "left from before");
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool started = stat_command_output("echo 7", 1, text);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(started);
    EXPECT_STREQ(text, "");
    EXPECT_TRUE(pipe_signal_is_ignored());
}

TEST_F(stat_commands_test, the_daemon_goes_on_ignoring_the_pipe_signal) {
    output_of("true");
    EXPECT_TRUE(pipe_signal_is_ignored());
    stat_command_run("true");
    EXPECT_TRUE(pipe_signal_is_ignored());
}

TEST_F(stat_commands_test, no_descriptor_is_left_open) {
    output_of("true");
    const long before = open_descriptors();
    for (int i = 0; i < 20; i++) {
        output_of(i % 2 == 0 ? "echo 1" : "tessard-no-such-tool");
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(stat_commands_test, no_other_program_inherits_the_output) {
    /* The command looks up at what descriptor its reader has its output, and how that was opened.
     */
    const std::string flags =
        output_of("out=$(readlink /proc/$$/fd/1)\n"
                  "for fd in /proc/$PPID/fd/*; do\n"
                  "    [ \"$(readlink $fd)\" != \"$out\" ] ||\n"
                  "        sed -n 's/^flags:[^0-9]*//p' /proc/$PPID/fdinfo/${fd##*/}\n"
                  "done");
    ASSERT_NE(flags, "");
    EXPECT_NE(strtoul(flags.c_str(), nullptr, 8) & O_CLOEXEC, 0u) << flags;
}

TEST_F(stat_commands_test, a_command_that_is_only_run_is_waited_for) {
    const own_folder folder;
    stat_command_run(("sleep 0.2; : >" + folder.path + "/mark").c_str());
    EXPECT_TRUE(std::filesystem::exists(folder.path + "/mark"));
}
