#include "stats/tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/unit/stats/late_clock.h"
#include "tests/unit/support/log_capture.h"
#include "tests/unit/support/resources.h"

using namespace unit_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/* While this is set, nothing that the program kills dies. */
bool undying;

bool never(const char*) {
    return false;
}

bool has_a_whole_line(const char* output) {
    return strchr(output, '\n') != nullptr;
}

/* Tools are asked as by the daemon, which ignores two signals. */
class outside_tools_test : public ::testing::Test {
  protected:
    outside_tools_test() : folder(::testing::TempDir() + "tessard-tools-XXXXXX") {
        EXPECT_NE(mkdtemp(folder.data()), nullptr);
        for (const int number : {SIGPIPE, SIGXFSZ}) {
            (void)signal(number, SIG_IGN);
        }
    }

    ~outside_tools_test() override {
        for (const int number : {SIGPIPE, SIGXFSZ}) {
            (void)signal(number, SIG_DFL);
        }
        std::filesystem::remove_all(folder);
    }

    static std::string output_of(const std::string& command) {
        return output_of(command, never);
    }

    static std::string output_of(const std::string& command, bool (*is_complete)(const char*)) {
        char output[TOOL_OUTPUT_SIZE];
        tool t = {command.c_str(), is_complete, false, 0};
        EXPECT_TRUE(tool_ask(&t, output)) << command;
        return output;
    }

    /* What a tool does to be late. */
    std::string be_late() const {
        return ": >" + folder + "/late; ";
    }

    /* Asks a tool that is late, and does not end by itself. */
    bool ask_late(tool* t) const {
        const late_clock clock(folder + "/late");
        char output[TOOL_OUTPUT_SIZE];
        return tool_ask(t, output);
    }

    bool answers_late(const std::string& command) const {
        tool t = {command.c_str(), never, false, 0};
        return ask_late(&t);
    }

    /* Waits for a file, ten seconds at most. */
    bool appears(const std::string& name) const {
        for (int i = 0; i < 1000 && !std::filesystem::exists(folder + "/" + name); i++) {
            usleep(10000);
        }
        return std::filesystem::exists(folder + "/" + name);
    }

    /* The process that wrote its number into a file has ended, within ten seconds. */
    bool has_ended(const std::string& name) const {
        std::string pid;
        std::getline(std::ifstream(folder + "/" + name), pid);
        EXPECT_NE(pid, "") << name;
        for (int i = 0; i < 1000; i++) {
            std::string stat;
            std::getline(std::ifstream("/proc/" + pid + "/stat"), stat);
            /* Whose parent has ended too waits for the machine's first process to reap it. */
            if (stat.empty() || stat.substr(stat.rfind(')'), 3) == ") Z") {
                return true;
            }
            usleep(10000);
        }
        return false;
    }

    static void expect_no_child() {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    }

    std::string folder;
    log_capture log;
};

} // namespace

/* Defined in the program, this takes precedence over the C library's. */
extern "C" int kill(pid_t pid, int number) noexcept {
    return undying ? 0 : static_cast<int>(syscall(SYS_kill, pid, number));
}

/* --- Answers --- */

TEST_F(outside_tools_test, are_pipelines_as_well) {
    EXPECT_EQ(output_of("printf 'a 1\\nb 2\\n' | head -n 1 | awk '{print $2}'"), "1\n");
}

TEST_F(outside_tools_test, say_all_that_they_write_in_pieces_too) {
    EXPECT_EQ(output_of("echo Online; sleep 0.1; echo hosts:; sleep 0.1; echo 5"),
              "Online\nhosts:\n5\n");
    EXPECT_EQ(output_of("true"), "");
}

TEST_F(outside_tools_test, find_nothing_on_their_standard_input) {
    int silent[2];
    ASSERT_EQ(pipe(silent), 0);
    const int before = dup(STDIN_FILENO);
    dup2(silent[0], STDIN_FILENO);
    EXPECT_EQ(output_of("cat; echo end"), "end\n");
    dup2(before, STDIN_FILENO);
    for (const int fd : {silent[0], silent[1], before}) {
        close(fd);
    }
}

TEST_F(outside_tools_test, complain_to_nobody) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(output_of("echo complaint >&2; echo figure"), "figure\n");
    EXPECT_EQ(output_of("tessard-no-such-tool --showg"), "");
    EXPECT_EQ(output_of("tessard-no-such-tool -S | head -n 1 | awk '{print $2}'"), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(outside_tools_test, are_waited_for_also_when_all_is_said) {
    EXPECT_EQ(output_of("echo 7; sleep 0.2; : >" + folder + "/mark", has_a_whole_line), "7\n");
    EXPECT_TRUE(std::filesystem::exists(folder + "/mark"));
    EXPECT_EQ(output_of("echo 7; exec >&-; sleep 0.2; : >" + folder + "/too"), "7\n");
    EXPECT_TRUE(std::filesystem::exists(folder + "/too")) << "the closed output is no end";
}

TEST_F(outside_tools_test, that_write_for_ever_end_with_their_reader) {
    const std::string output = output_of("exec yes 12345");
    EXPECT_EQ(output.substr(0, 6), "12345\n");
    EXPECT_EQ(output.size(), TOOL_OUTPUT_SIZE - 1);
    EXPECT_EQ(output_of("exec yes ''"), std::string(TOOL_OUTPUT_SIZE - 1, '\n'));
}

TEST_F(outside_tools_test, that_write_for_ever_but_slowly_end_when_all_is_said) {
    EXPECT_EQ(output_of("while :; do echo 5; sleep 0.1; done", has_a_whole_line), "5\n");
}

TEST_F(outside_tools_test, that_do_not_look_at_their_failures_end_with_their_reader_too) {
    /* Far more than a pipe holds. */
    EXPECT_EQ(output_of("i=0; while [ $i -lt 30000 ]; do echo 12345; i=$((i + 1)); done; : >" +
                        folder + "/all")
                  .size(),
              TOOL_OUTPUT_SIZE - 1);
    EXPECT_FALSE(std::filesystem::exists(folder + "/all"));
}

TEST_F(outside_tools_test, are_not_waited_for_longer_than_the_shell_that_started_them) {
    const std::string left_behind = "(n=0; while [ ! -e " + folder +
                                    "/go ] && [ $n -lt 300 ]; do sleep 0.1; n=$((n + 1)); done; "
                                    ": >" +
                                    folder + "/ended) &";
    EXPECT_EQ(output_of("echo 5; " + left_behind), "5\n") << "it has the output open";
    EXPECT_FALSE(std::filesystem::exists(folder + "/ended"));
    std::ofstream(folder + "/go").close();
    EXPECT_TRUE(appears("ended")) << "and is left alone";
}

TEST_F(outside_tools_test, end_their_text_with_a_nul) {
    EXPECT_EQ(output_of("printf '7\\0008\\n'"), "7");
    EXPECT_EQ(output_of("printf '\\000 7\\n'"), "");
}

TEST_F(outside_tools_test, that_cannot_be_started_are_told_from_those_that_say_nothing) {
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    char output[TOOL_OUTPUT_SIZE];
    tool t = {"echo 7", never, false, 0};
    const bool started = tool_ask(&t, output);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(started);
    EXPECT_TRUE(tool_ask(&t, output));
}

/* --- Tools that do not end --- */

TEST_F(outside_tools_test, that_hang_are_killed_after_five_seconds) {
    char output[TOOL_OUTPUT_SIZE];
    tool t = {"echo 7; exec sleep 60", has_a_whole_line, false, 0};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(tool_ask(&t, output)) << "what it said before does not count";
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::milliseconds(4990));
    EXPECT_LT(taken, std::chrono::seconds(15)) << "on a busy machine";
    expect_no_child();
}

TEST_F(outside_tools_test, that_hang_are_killed_with_their_children) {
    EXPECT_FALSE(answers_late("echo $$ >" + folder + "/shell; sh -c 'echo $$ >" + folder +
                              "/child; sleep 60 & echo $! >" + folder + "/grandchild; " +
                              be_late() + "wait' | cat"));
    EXPECT_TRUE(has_ended("shell"));
    EXPECT_TRUE(has_ended("child"));
    EXPECT_TRUE(has_ended("grandchild"));
    expect_no_child();
}

TEST_F(outside_tools_test, hang_whatever_they_do_with_their_output) {
    EXPECT_FALSE(answers_late("exec >&-; " + be_late() + "exec sleep 60"));
    EXPECT_FALSE(answers_late(be_late() + "while :; do printf .; sleep 0.01; done"));
    EXPECT_FALSE(
        answers_late("trap '' PIPE TERM HUP; " + be_late() + "while :; do sleep 60; done"));
    EXPECT_FALSE(answers_late(be_late() + "kill -STOP $$"));
    expect_no_child();
}

TEST_F(outside_tools_test, that_ended_have_answered_although_something_goes_on_writing) {
    EXPECT_TRUE(answers_late(
        "(trap '' PIPE\n"
        "while [ -e /proc/$$ ] && ! grep -q ') Z' /proc/$$/stat; do printf .; sleep 0.005; done\n" +
        be_late() + "\nwhile printf .; do sleep 0.01; done\n: >" + folder + "/gone) &"));
    EXPECT_TRUE(appears("gone"));
}

TEST_F(outside_tools_test, that_hang_are_spoken_of_once_each) {
    log.start(LOG_WARN);
    const std::string first = be_late() + "sleep 61";
    const std::string second = be_late() + "sleep 62";
    tool one = {first.c_str(), never, false, 0};
    tool other = {second.c_str(), never, false, 0};
    for (int i = 0; i < 2; i++) {
        EXPECT_FALSE(ask_late(&one));
        EXPECT_FALSE(ask_late(&other));
    }
    const std::string end = ") has not ended after 5 seconds and is killed";
    EXPECT_THAT(log.lines(), ElementsAre("warn  *** outside tool (" + first + end,
                                         "warn  *** outside tool (" + second + end));
}

TEST_F(outside_tools_test, that_hang_while_warnings_are_off_are_spoken_of_later) {
    const std::string command = be_late() + "sleep 60";
    tool t = {command.c_str(), never, false, 0};
    EXPECT_FALSE(ask_late(&t));
    EXPECT_THAT(log.lines(), IsEmpty());
    log.start(LOG_WARN);
    EXPECT_FALSE(ask_late(&t));
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(outside_tools_test, that_cannot_be_killed_are_not_asked_again_until_they_have_gone) {
    const std::string command = "echo x >>" + folder + "/calls; " + be_late() + "while [ ! -e " +
                                folder + "/go ]; do sleep 0.05; done; : >" + folder + "/gone";
    tool t = {command.c_str(), never, false, 0};
    undying = true;
    EXPECT_FALSE(ask_late(&t));
    EXPECT_FALSE(ask_late(&t));
    undying = false;
    EXPECT_EQ(std::filesystem::file_size(folder + "/calls"), 2u) << "one line";
    std::ofstream(folder + "/go").close();
    ASSERT_TRUE(appears("gone"));
    bool answered = false;
    char output[TOOL_OUTPUT_SIZE];
    for (int i = 0; i < 1000 && !answered; i++) {
        usleep(10000);
        answered = tool_ask(&t, output);
    }
    EXPECT_TRUE(answered);
    EXPECT_EQ(std::filesystem::file_size(folder + "/calls"), 4u);
    expect_no_child();
}

/* --- What they are started with --- */

TEST_F(outside_tools_test, have_the_default_actions_of_the_signals_that_the_daemon_ignores) {
    /* A shell whose signals are ignored cannot say otherwise: it dies of neither. */
    const std::string file = folder + "/large";
    const std::string writes_too_much = "(ulimit -f 1; exec dd if=/dev/zero of=" + file +
                                        " bs=4096 count=9); [ $? -gt 128 ] && echo ended";
    EXPECT_EQ(output_of(writes_too_much), "ended\n");
    EXPECT_EQ(output_of("kill -PIPE $$; echo lives"), "");
    tool_start(("kill -PIPE $$; : >" + folder + "/lives").c_str());
    EXPECT_FALSE(std::filesystem::exists(folder + "/lives"));
    tool_start(("exec 2>/dev/null; " + writes_too_much + " >" + folder + "/told").c_str());
    std::string told;
    std::getline(std::ifstream(folder + "/told"), told);
    EXPECT_EQ(told, "ended");
}

TEST_F(outside_tools_test, leave_the_daemon_ignoring_the_pipe_signal) {
    output_of("true");
    tool_start("true");
    struct sigaction now = {};
    sigaction(SIGPIPE, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN);
}

TEST_F(outside_tools_test, leave_no_descriptor_and_no_child) {
    output_of("true");
    const size_t before = open_descriptors();
    for (int i = 0; i < 20; i++) {
        output_of(i % 2 == 0 ? "echo 1" : "tessard-no-such-tool");
    }
    EXPECT_EQ(open_descriptors(), before);
    expect_no_child();
}

TEST_F(outside_tools_test, inherit_nothing_of_each_other) {
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

TEST_F(outside_tools_test, that_are_only_started_are_waited_for) {
    tool_start(("sleep 0.2; : >" + folder + "/mark").c_str());
    EXPECT_TRUE(std::filesystem::exists(folder + "/mark"));
    expect_no_child();
}
