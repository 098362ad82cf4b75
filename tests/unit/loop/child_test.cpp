#include "loop/child.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "loop/loop.h"
#include "loop/server.h"
#include "tests/unit/support/own_world.h"
#include "tests/unit/support/resources.h"
#include "tests/unit/support/test_kernel.h"

using namespace unit_test;

namespace {

constexpr int LIMIT_S = 20;
constexpr size_t ONE_MIB = 1048576;

/* Closes its output, which completes it, and lives on: its output is its pid. */
const char LIVES_ON[] = "echo $$; exec >&-; exec sleep 60";

/* What the completion callback was given. */
struct outcome {
    int calls = 0;
    std::string output;
    int reason = -1;
};

void take(buffer* output, void* argument, int reason) {
    outcome* o = static_cast<outcome*>(argument);
    o->calls++;
    o->output.assign(output->length > 0 ? output->data : "", output->length);
    o->reason = reason;
}

/* The state letter of a process as /proc shows it, 0 when there is none. */
char state_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const size_t name_end = text.rfind(')');
    return name_end == std::string::npos ? '\0' : text[name_end + 2];
}

bool is_zombie(pid_t pid) {
    return state_of(pid) == 'Z';
}

bool eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(LIMIT_S);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        usleep(5000);
    }
    return true;
}

/* A child that has ended and waits to be reaped. */
pid_t ended_child() {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    EXPECT_TRUE(eventually([pid] { return is_zombie(pid); }));
    return pid;
}

void kill_and_reap(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

struct children_test : testing::Test {
    void SetUp() override {
        ASSERT_TRUE(loop_init(1024, LOOP_SELECT));
    }

    void TearDown() override {
        /* What no later completion was there to reap. */
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }

    /* Runs the loop; a step is made every tenth of a second, until it says that it was the last.
     * Once a test.
     */
    static void run(std::function<bool()> step) {
        struct stepper {
            std::function<bool()> step;
            std::chrono::steady_clock::time_point end;
            bool late;
        } s = {std::move(step), std::chrono::steady_clock::now() + std::chrono::seconds(LIMIT_S),
               false};
        const auto on_timer = [](void* argument) {
            stepper* t = static_cast<stepper*>(argument);
            t->late = std::chrono::steady_clock::now() > t->end;
            if (t->late || t->step()) {
                loop_stop();
            }
            return 0;
        };
        loop_add_timer(100, on_timer, &s);
        loop_run();
        EXPECT_FALSE(s.late) << "the test ran into its time limit";
    }

    /* Runs the command to its completion, and three tenths of a second beyond. */
    static outcome run_command(const std::string& command) {
        outcome o;
        EXPECT_TRUE(child_spawn(command.c_str(), take, &o));
        int steps = 0;
        run([&] { return o.calls > 0 && ++steps > 3; });
        EXPECT_EQ(o.calls, 1);
        return o;
    }
};

std::string temporary_file() {
    std::string path = testing::TempDir() + "tessard-child-XXXXXX";
    close(mkstemp(path.data()));
    return path;
}

std::string content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

} // namespace

TEST_F(children_test, the_output_comes_whole_and_once_when_the_child_ends) {
    const outcome o = run_command("echo one; echo two; printf three");
    EXPECT_EQ(o.output, "one\ntwo\nthree");
    EXPECT_EQ(o.reason, CONNECTION_PEER_CLOSED);
    EXPECT_EQ(o.reason, 4);
}

TEST_F(children_test, a_command_that_prints_nothing_is_an_empty_output) {
    const outcome o = run_command(":");
    EXPECT_EQ(o.output, "");
    EXPECT_EQ(o.reason, 4);
}

TEST_F(children_test, output_that_comes_in_pieces_is_one_output) {
    const outcome o = run_command("printf a; sleep 0.2; printf b; sleep 0.2; printf c");
    EXPECT_EQ(o.output, "abc");
    EXPECT_EQ(o.reason, 4);
}

TEST_F(children_test, output_may_hold_any_byte) {
    const outcome o = run_command("printf 'a\\000b\\377\\r\\n'");
    EXPECT_EQ(o.output, std::string("a\0b\xff\r\n", 6));
}

TEST_F(children_test, output_far_beyond_a_pipes_length_comes_whole) {
    const outcome o = run_command("i=0; while [ $i -lt 40000 ]; do echo $i; i=$((i+1)); done");
    std::string expected;
    for (int i = 0; i < 40000; i++) {
        expected += std::to_string(i) + "\n";
    }
    EXPECT_EQ(o.output.size(), expected.size());
    EXPECT_TRUE(o.output == expected);
    EXPECT_EQ(o.reason, 4);
}

TEST_F(children_test, one_byte_less_than_the_limit_comes_whole) {
    const outcome o = run_command("head -c 1048575 /dev/zero");
    EXPECT_EQ(o.output, std::string(ONE_MIB - 1, '\0'));
    EXPECT_EQ(o.reason, 4);
}

TEST_F(children_test, output_of_the_limit_is_cut_and_closes_with_reason_one) {
    const outcome o = run_command("head -c 1048576 /dev/zero");
    EXPECT_EQ(o.reason, CONNECTION_READ_FAILED);
    EXPECT_EQ(o.reason, 1);
    EXPECT_LT(o.output.size(), ONE_MIB);
    /* What is missing is at most the chunk that did not fit. */
    EXPECT_GE(o.output.size(), ONE_MIB - 512);
}

TEST_F(children_test, a_command_that_writes_for_ever_is_ended_by_its_closed_pipe) {
    /* The daemon ignores the signal, which its children must not inherit. */
    const auto before = signal(SIGPIPE, SIG_IGN);
    const std::string file = temporary_file();
    outcome o;
    ASSERT_TRUE(child_spawn(("yes 0123456; echo $? >" + file).c_str(), take, &o));
    run([&] { return o.calls > 0 && !content(file).empty(); });
    signal(SIGPIPE, before);
    EXPECT_EQ(o.calls, 1);
    EXPECT_EQ(o.reason, 1);
    EXPECT_EQ(o.output.substr(0, 16), "0123456\n0123456\n");
    EXPECT_GE(o.output.size(), ONE_MIB - 512);
    EXPECT_EQ(content(file), std::to_string(128 + SIGPIPE) + "\n");
    unlink(file.c_str());
}

TEST_F(children_test, a_command_that_is_not_there_has_no_output) {
    testing::internal::CaptureStderr();
    const outcome o = run_command("tessard-no-such-command --option");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(o.output, "");
    EXPECT_EQ(o.reason, 4);
}

TEST_F(children_test, a_syntax_error_has_no_output) {
    testing::internal::CaptureStderr();
    const outcome o = run_command("if then; (");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(o.output, "");
    EXPECT_EQ(o.reason, 4);
}

TEST_F(children_test, a_missing_shell_is_an_empty_output_and_status_127) {
    run_in_own_world(
        [] {
            return unshare_mounts() &&
                   mount("/dev/null", "/bin/sh", nullptr, MS_BIND, nullptr) == 0;
        },
        [] {
            outcome o;
            /* The completion reaps this one, so that the status of the other stays to be seen. */
            const pid_t older = ended_child();
            ASSERT_TRUE(child_spawn("echo never", take, &o));
            run([&] { return o.calls > 0; });
            EXPECT_EQ(o.output, "");
            EXPECT_EQ(o.reason, 4);
            int status = 0;
            pid_t left = waitpid(-1, &status, 0);
            if (left == older) {
                left = waitpid(-1, &status, 0);
            }
            ASSERT_GT(left, 0);
            EXPECT_TRUE(WIFEXITED(status));
            EXPECT_EQ(WEXITSTATUS(status), 127);
        });
}

TEST_F(children_test, errors_of_the_child_go_to_the_null_device) {
    testing::internal::CaptureStderr();
    const outcome o = run_command("echo complaint >&2; readlink /proc/$$/fd/2; echo output");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(o.output, "/dev/null\noutput\n");
}

TEST_F(children_test, the_null_device_is_open_for_writing_alone) {
    const outcome o = run_command("sed -n 's/^flags:[[:space:]]*//p' /proc/self/fdinfo/2");
    ASSERT_NE(o.output, "");
    EXPECT_EQ(strtol(o.output.c_str(), nullptr, 8) & O_ACCMODE, O_WRONLY);
}

TEST_F(children_test, without_a_null_device_errors_go_where_the_daemons_go) {
    run_in_own_world(
        [] {
            return own_devices() && umount2("/dev/null", MNT_DETACH) == 0 &&
                   unlink("/dev/null") == 0;
        },
        [] {
            int errors[2];
            ASSERT_EQ(pipe2(errors, O_CLOEXEC), 0);
            const int before = dup(STDERR_FILENO);
            dup2(errors[1], STDERR_FILENO);
            const outcome o = run_command("echo complaint >&2; echo output");
            dup2(before, STDERR_FILENO);
            close(before);
            close(errors[1]);
            EXPECT_EQ(read_to_end(errors[0]), "complaint\n");
            EXPECT_EQ(o.output, "output\n");
            EXPECT_EQ(o.reason, 4);
        });
}

/* The pipe then takes their numbers. */
TEST_F(children_test,
       the_output_comes_whole_also_where_the_daemon_has_no_standard_input_or_output) {
    const std::vector<int> cases[] = {
        {STDIN_FILENO}, {STDOUT_FILENO}, {STDIN_FILENO, STDOUT_FILENO}};
    for (const std::vector<int>& missing : cases) {
        run_in_own_world(nothing_special, [&] {
            const int before = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10);
            for (const int fd : missing) {
                close(fd);
            }
            const outcome o = run_command("echo output; readlink /proc/$$/fd/2");
            dup2(before, STDOUT_FILENO);
            EXPECT_EQ(o.output, "output\n/dev/null\n") << testing::PrintToString(missing);
            EXPECT_EQ(o.reason, 4);
        });
    }
}

TEST_F(children_test, the_command_is_one_shell_word) {
    setenv("TESSARD_CHILD_WORD", "from the environment", 1);
    const outcome o =
        run_command("x='a  b'; echo \"$x\" | tr a-z A-Z; echo $TESSARD_CHILD_WORD; echo $0 $#");
    unsetenv("TESSARD_CHILD_WORD");
    EXPECT_EQ(o.output, "A  B\nfrom the environment\nsh 0\n");
}

TEST_F(children_test, the_loop_goes_on_while_a_child_runs) {
    const std::string fifo = temporary_file();
    unlink(fifo.c_str());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int writer = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    outcome o;
    int steps_before = 0;
    ASSERT_TRUE(child_spawn(("read word <" + fifo + "; echo $word").c_str(), take, &o));
    run([&] {
        if (o.calls == 0 && ++steps_before == 3) {
            EXPECT_EQ(write(writer, "done\n", 5), 5);
        }
        return o.calls > 0;
    });
    EXPECT_GE(steps_before, 3);
    EXPECT_EQ(o.output, "done\n");
    close(writer);
    unlink(fifo.c_str());
}

TEST_F(children_test, each_completion_has_the_argument_of_its_own_child) {
    std::vector<outcome> all(20);
    for (size_t i = 0; i < all.size(); i++) {
        ASSERT_TRUE(child_spawn(("echo " + std::to_string(i)).c_str(), take, &all[i]));
    }
    run([&] {
        for (const outcome& o : all) {
            if (o.calls == 0) {
                return false;
            }
        }
        return true;
    });
    for (size_t i = 0; i < all.size(); i++) {
        EXPECT_EQ(all[i].calls, 1);
        EXPECT_EQ(all[i].output, std::to_string(i) + "\n");
        EXPECT_EQ(all[i].reason, 4);
    }
}

TEST_F(children_test, a_completion_may_start_the_next_child) {
    static outcome second;
    second = {};
    const auto start_second = [](buffer*, void*, int) {
        EXPECT_TRUE(child_spawn("echo second", take, &second));
    };
    ASSERT_TRUE(child_spawn("echo first", start_second, nullptr));
    run([] { return second.calls > 0; });
    EXPECT_EQ(second.output, "second\n");
}

TEST_F(children_test,
       one_that_closes_its_output_and_lives_on_is_complete_at_once_and_reaped_later) {
    outcome first;
    outcome second;
    pid_t living = 0;
    /* The descriptor with which a background process could hold the pipe is gone too. */
    ASSERT_TRUE(child_spawn(LIVES_ON, take, &first));
    run([&] {
        if (first.calls == 0) {
            return false;
        }
        if (living == 0) {
            living = atoi(first.output.c_str());
            EXPECT_EQ(first.reason, 4);
            EXPECT_NE(state_of(living), '\0') << "the child was to live on";
            kill(living, SIGKILL);
            EXPECT_TRUE(eventually([&] { return is_zombie(living); }));
            /* It is the only one that has ended when the second one completes. */
            EXPECT_TRUE(child_spawn(LIVES_ON, take, &second));
        }
        return second.calls > 0;
    });
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(state_of(living), '\0') << "the later completion reaps it";
    kill_and_reap(atoi(second.output.c_str()));
}

TEST_F(children_test, each_completion_reaps_one_child_at_most) {
    const pid_t one = ended_child();
    const pid_t two = ended_child();
    outcome o[2];
    bool second_started = false;
    /* These live on, so that the two that have ended are all there is to reap. */
    ASSERT_TRUE(child_spawn(LIVES_ON, take, &o[0]));
    run([&] {
        if (o[0].calls > 0 && !second_started) {
            second_started = true;
            EXPECT_NE(is_zombie(one), is_zombie(two)) << "one of two is reaped";
            EXPECT_TRUE(child_spawn(LIVES_ON, take, &o[1]));
        }
        return o[1].calls > 0;
    });
    EXPECT_EQ(state_of(one), '\0');
    EXPECT_EQ(state_of(two), '\0');
    for (const outcome& each : o) {
        kill_and_reap(atoi(each.output.c_str()));
    }
}

TEST_F(children_test, the_completion_is_called_before_a_child_is_reaped) {
    struct look {
        pid_t ended;
        pid_t living = 0;
        bool waits_to_be_reaped = false;
    } seen = {ended_child()};
    const auto look_at_ended = [](buffer* output, void* argument, int) {
        look* l = static_cast<look*>(argument);
        l->living = atoi(std::string(output->data, output->length).c_str());
        l->waits_to_be_reaped = is_zombie(l->ended);
    };
    ASSERT_TRUE(child_spawn(LIVES_ON, look_at_ended, &seen));
    run([&] { return seen.living != 0; });
    EXPECT_TRUE(seen.waits_to_be_reaped);
    EXPECT_EQ(state_of(seen.ended), '\0');
    kill_and_reap(seen.living);
}

TEST_F(children_test, two_that_end_together_are_reaped_by_two_further_completions) {
    outcome pair[2];
    outcome later[2];
    bool ended = false;
    ASSERT_TRUE(child_spawn(LIVES_ON, take, &pair[0]));
    ASSERT_TRUE(child_spawn(LIVES_ON, take, &pair[1]));
    run([&] {
        if (pair[0].calls + pair[1].calls == 2 && !ended) {
            ended = true;
            for (const outcome& o : pair) {
                const pid_t pid = atoi(o.output.c_str());
                kill(pid, SIGKILL);
                EXPECT_TRUE(eventually([pid] { return is_zombie(pid); }));
            }
            for (outcome& o : later) {
                EXPECT_TRUE(child_spawn(LIVES_ON, take, &o));
            }
        }
        return later[0].calls + later[1].calls == 2;
    });
    for (const outcome& o : pair) {
        EXPECT_EQ(state_of(atoi(o.output.c_str())), '\0');
        EXPECT_EQ(o.calls, 1);
    }
    for (const outcome& o : later) {
        kill_and_reap(atoi(o.output.c_str()));
    }
}

TEST_F(children_test, no_ended_children_pile_up) {
    constexpr size_t ROUNDS = 200;
    static size_t completed;
    completed = 0;
    static child_completed next;
    next = [](buffer*, void*, int) {
        if (++completed < ROUNDS) {
            EXPECT_TRUE(child_spawn(":", next, nullptr));
        }
    };
    ASSERT_TRUE(child_spawn(":", next, nullptr));
    const size_t before = open_descriptors();
    run([] { return completed == ROUNDS; });
    /* Those whose pipe closed just before they ended wait for later completions: a few, more on a
     * busy machine. */
    size_t left = 0;
    while (waitpid(-1, nullptr, 0) > 0) {
        left++;
    }
    EXPECT_LT(left, ROUNDS / 2);
    EXPECT_EQ(open_descriptors(), before - 1);
}

TEST_F(children_test, no_descriptor_of_the_daemon_is_inherited) {
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
    connection* client = loop_add_connection(sockets[0], nullptr);
    outcome running;
    outcome o;
    const std::string file = temporary_file();
    ASSERT_TRUE(child_spawn(("echo $$ >" + file + "; exec sleep 60").c_str(), take, &running));
    /* Links such as "socket:[4711]" and "pipe:[4712]". */
    std::vector<std::string> links;
    for (int fd = 3; fd < 1024; fd++) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) != 0) {
            links.push_back(
                std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string());
        }
    }
    ASSERT_GE(links.size(), 3u);
    ASSERT_TRUE(child_spawn("exec ls -l /proc/self/fd", take, &o));
    bool closed = false;
    run([&] {
        if (!closed && o.calls > 0 && !content(file).empty()) {
            closed = true;
            EXPECT_EQ(running.calls, 0);
            /* The one that runs does not hold the client's connection open. */
            connection_close(client);
            char byte;
            EXPECT_EQ(recv(sockets[1], &byte, 1, MSG_DONTWAIT), 0);
            kill(atoi(content(file).c_str()), SIGKILL);
        }
        return running.calls > 0;
    });
    for (const std::string& link : links) {
        EXPECT_THAT(o.output, testing::Not(testing::HasSubstr(link)));
    }
    close(sockets[1]);
    waitpid(atoi(content(file).c_str()), nullptr, 0);
    unlink(file.c_str());
}

TEST_F(children_test, the_pipe_is_read_without_blocking_and_not_inherited) {
    const size_t before = open_descriptors();
    outcome o;
    ASSERT_TRUE(child_spawn("sleep 0.3; echo x", take, &o));
    EXPECT_EQ(open_descriptors(), before + 1) << "the write end belongs to the child alone";
    bool found = false;
    for (int fd = 0; fd < loop_maxfd(); fd++) {
        if (loop_has_handler(fd)) {
            found = true;
            EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
            EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        }
    }
    EXPECT_TRUE(found);
    run([&] { return o.calls > 0; });
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(children_test, signals_that_the_daemon_ignores_have_their_effect_on_a_command) {
    const auto pipe_before = signal(SIGPIPE, SIG_IGN);
    const auto size_before = signal(SIGXFSZ, SIG_IGN);
    const outcome o = run_command("exec grep SigIgn: /proc/self/status");
    signal(SIGPIPE, pipe_before);
    signal(SIGXFSZ, size_before);
    /* The lowest bit of the mask is signal 1. */
    const unsigned long long ignored = strtoull(o.output.c_str() + strlen("SigIgn:"), nullptr, 16);
    EXPECT_EQ(ignored & 1ULL << (SIGPIPE - 1), 0u) << o.output;
    EXPECT_EQ(ignored & 1ULL << (SIGXFSZ - 1), 0u) << o.output;
}

TEST_F(children_test, a_pipe_that_would_block_starts_none) {
    const size_t before = open_descriptors();
    outcome o;
    test_kernel::fcntl_failures = {EIO, EIO, EIO, EIO};
    EXPECT_FALSE(child_spawn("echo x", take, &o));
    test_kernel::fcntl_failures.clear();
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "nothing was forked";
    int steps = 0;
    run([&] { return ++steps == 2; });
    EXPECT_EQ(o.calls, 0);
}

TEST_F(children_test, without_a_pipe_none_is_started) {
    run_in_own_world(nothing_special, [] {
        const size_t before = open_descriptors();
        rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlim_t old = limit.rlim_cur;
        limit.rlim_cur = 3;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        outcome o;
        EXPECT_FALSE(child_spawn("echo x", take, &o));
        limit.rlim_cur = old;
        setrlimit(RLIMIT_NOFILE, &limit);
        int steps = 0;
        run([&] { return ++steps == 2; });
        EXPECT_EQ(o.calls, 0);
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "nothing was forked";
    });
}

TEST_F(children_test, when_the_fork_fails_both_ends_of_the_pipe_are_closed) {
    run_in_own_world(nothing_special, [] {
        const size_t before = open_descriptors();
        const rlimit none = {0, 0};
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || (getuid() == 0 && setuid(65534) != 0)) {
            _exit(NO_WORLD);
        }
        outcome o;
        EXPECT_FALSE(child_spawn("echo x", take, &o));
        int steps = 0;
        run([&] { return ++steps == 2; });
        EXPECT_EQ(o.calls, 0);
        EXPECT_EQ(open_descriptors(), before);
    });
}

TEST_F(children_test, a_descriptor_that_the_loop_cannot_watch_starts_none) {
    run_in_own_world(nothing_special, [] {
        ASSERT_TRUE(loop_init(3, LOOP_SELECT));
        const size_t before = open_descriptors();
        outcome o;
        EXPECT_FALSE(child_spawn("echo x", take, &o));
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "nothing was forked";
        int steps = 0;
        run([&] { return ++steps == 2; });
        EXPECT_EQ(o.calls, 0);
    });
}
