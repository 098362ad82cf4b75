#include "stats/tool.h"

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

namespace {

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
class outside_tools_test : public ::testing::Test {
  protected:
    outside_tools_test() {
        (void)signal(SIGPIPE, SIG_IGN);
    }
    ~outside_tools_test() override {
        (void)signal(SIGPIPE, SIG_DFL);
    }

    static std::string output_of(const char* command) {
        char text[TOOL_OUTPUT_SIZE];
        EXPECT_TRUE(tool_output(command, 1000, text));
        return text;
    }

    /* All bytes that were read for so many lines, NULs included. */
    static std::string first_lines(const char* command, unsigned lines) {
        char text[TOOL_OUTPUT_SIZE];
        memset(text, '?', sizeof text);
        EXPECT_TRUE(tool_output(command, lines, text));
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

TEST_F(outside_tools_test, the_output_of_a_pipeline_is_read) {
    EXPECT_EQ(output_of("printf 'a 1\\nb 2\\n' | head -n 1 | awk '{print $2}'"), "1\n");
}

TEST_F(outside_tools_test, complaints_go_nowhere) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(output_of("echo complaint >&2; echo figure"), "figure\n");
    EXPECT_EQ(output_of("tessard-no-such-tool --showg"), "");
    EXPECT_EQ(output_of("tessard-no-such-tool -S | head -n 1 | awk '{print $2}'"), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(outside_tools_test, a_command_that_writes_for_ever_ends_with_its_reader) {
    const std::string output = output_of("exec yes 12345");
    EXPECT_EQ(output.substr(0, 6), "12345\n");
    EXPECT_EQ(output.size(), TOOL_OUTPUT_SIZE - 1);
}

TEST_F(outside_tools_test, a_command_that_does_not_look_at_its_failures_ends_with_its_reader_too) {
    const own_folder folder;
    /* Far more than a pipe holds. */
    const std::string command =
        "i=0; while [ $i -lt 30000 ]; do echo 12345; i=$((i + 1)); done; : >" + folder.path +
        "/all";
    EXPECT_EQ(output_of(command.c_str()).size(), TOOL_OUTPUT_SIZE - 1);
    EXPECT_FALSE(std::filesystem::exists(folder.path + "/all"));
}

TEST_F(outside_tools_test, a_process_that_is_left_behind_with_the_output_open_is_not_waited_for) {
    const own_folder folder;
    const std::string left_behind =
        "(n=0; while [ ! -e " + folder.path +
        "/go ] && [ $n -lt 300 ]; do sleep 0.1; n=$((n + 1)); done; : >" + folder.path +
        "/ended) &";
    char text[TOOL_OUTPUT_SIZE];
    ASSERT_TRUE(tool_output(
        ("echo Online hosts: 5; echo Max Online hosts: 9; " + left_behind).c_str(), 2, text));
    EXPECT_STREQ(text, "Online hosts: 5\nMax Online hosts: 9\n");
    EXPECT_FALSE(std::filesystem::exists(folder.path + "/ended"));
    std::ofstream(folder.path + "/go").close();
    for (int i = 0; i < 1000 && !std::filesystem::exists(folder.path + "/ended"); i++) {
        usleep(10000);
    }
}

TEST_F(outside_tools_test, blank_lines_are_read_but_not_counted) {
    EXPECT_EQ(first_lines("echo; echo ' '; echo 7; echo 8", 1), "\n \n7\n");
    EXPECT_EQ(first_lines("printf '\\t\\n\\r\\n\\v\\n\\f\\n \\t\\r\\v\\f\\n7\\n8\\n'", 1),
              "\t\n\r\n\v\n\f\n \t\r\v\f\n7\n");
}

TEST_F(outside_tools_test, blanks_beside_a_figure_make_no_blank_line) {
    EXPECT_EQ(first_lines("printf ' \\t\\r\\v\\f7\\n8\\n'", 1), " \t\r\v\f7\n");
    EXPECT_EQ(first_lines("printf '7 \\t\\r\\v\\f\\n8\\n'", 1), "7 \t\r\v\f\n");
    EXPECT_EQ(first_lines("printf '7\\n\\n8 \\n9\\n'", 2), "7\n\n8 \n");
}

TEST_F(outside_tools_test, a_nul_is_no_blank_and_ends_the_text_where_it_stands) {
    EXPECT_EQ(first_lines("printf '\\0\\n7\\n'", 1), std::string("\0\n", 2));
    EXPECT_EQ(first_lines("printf '\\0 7\\n8\\n'", 1), std::string("\0 7\n", 4));
    EXPECT_EQ(first_lines("printf ' \\0\\n7\\n'", 1), std::string(" \0\n", 3));
    EXPECT_EQ(output_of("printf '7\\0008\\n'"), "7");
}

TEST_F(outside_tools_test, one_that_cannot_be_started_is_told_from_one_that_says_nothing) {
    char text[TOOL_OUTPUT_SIZE];
    EXPECT_TRUE(tool_output("true", 1, text));
    EXPECT_STREQ(text, "");
    strcpy(text, "left from before");
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool started = tool_output("echo 7", 1, text);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(started);
    EXPECT_STREQ(text, "");
    EXPECT_TRUE(pipe_signal_is_ignored());
}

TEST_F(outside_tools_test, the_daemon_goes_on_ignoring_the_pipe_signal) {
    output_of("true");
    EXPECT_TRUE(pipe_signal_is_ignored());
    tool_run("true");
    EXPECT_TRUE(pipe_signal_is_ignored());
}

TEST_F(outside_tools_test, no_descriptor_is_left_open) {
    output_of("true");
    const long before = open_descriptors();
    for (int i = 0; i < 20; i++) {
        output_of(i % 2 == 0 ? "echo 1" : "tessard-no-such-tool");
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(outside_tools_test, no_other_program_inherits_the_output) {
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

TEST_F(outside_tools_test, a_command_that_is_only_run_is_waited_for) {
    const own_folder folder;
    tool_run(("sleep 0.2; : >" + folder.path + "/mark").c_str());
    EXPECT_TRUE(std::filesystem::exists(folder.path + "/mark"));
}
