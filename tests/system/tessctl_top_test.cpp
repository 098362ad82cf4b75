/* The live screen of the command-line client, on a terminal that the test watches: what it shows,
 * how it follows the terminal's size, and that it gives the terminal back as it was, however it
 * ends. */

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "tests/system/support/daemon_test.h"
#include "tests/unit/ctl/ring_value.h"
#include "tests/unit/ctl/text_screen.h"

using namespace system_test;

namespace {

enum { DONE = 0, NO_REPLY = 3, USAGE = 64, OUTPUT = 74 };

class tessctl_top : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (!IsSkipped() && !HasFatalFailure()) {
            ASSERT_NO_FATAL_FAILURE(open_terminal());
        }
    }

    void TearDown() override {
        top.reset();
        close_terminal();
        daemon_test::TearDown();
    }

    /* Figures that stand still, so that the screen can be foretold. */
    void start_with_known_figures() {
        figures_known = true;
        sandbox::set_proc_file("stat", "cpu  100 0 0 900 0 0 0\n");
        sandbox::set_proc_file(
            "meminfo", "MemTotal: 1000 kB\nMemFree: 400 kB\nBuffers: 100 kB\nCached: 90 kB\n");
        sandbox::set_proc_file("net/dev", "");
        sandbox::add_tool("hostmon", "echo 'Online hosts: 5'\necho 'Max Online hosts: 9'\n");
        sandbox::add_tool("conntrack", "echo 'cpu=0 123 x'\n");
        start();
        resp_client client;
        EXPECT_TRUE(eventually([&] { return client.call({"get", "conn"}) == "$3\r\n123\r\n"; }));
    }

    void run_top(std::vector<std::string> options = {}, const std::string& locale = "C") {
        process_options how;
        how.environment = {"LC_ALL=" + locale};
        /* The search for leaks, which the other tests leave on, needs more of /proc than was made
         * up. */
        if (figures_known) {
            how.environment.push_back("ASAN_OPTIONS=detect_leaks=0");
        }
        how.before_exec = [this] {
            /* A group of its own, as a shell would make, so that it can be stopped. */
            setpgid(0, 0);
            const int fd = open(terminal_name, O_RDWR | O_NOCTTY | O_CLOEXEC);
            dup2(fd, 0);
            dup2(fd, 1);
        };
        options.push_back("top");
        top = std::make_unique<process>(tessctl_command(options), how);
    }

    void set_size(unsigned short columns, unsigned short rows) {
        winsize size = {};
        size.ws_col = columns;
        size.ws_row = rows;
        ASSERT_EQ(ioctl(terminal, TIOCSWINSZ, &size), 0);
        screen = text_screen(columns, rows);
    }

    /* Reads what has come, and shows it on the screen. */
    void watch() {
        char bytes[16384];
        ssize_t got;
        while (terminal >= 0 && (got = read(terminal, bytes, sizeof bytes)) > 0) {
            screen.write(std::string(bytes, static_cast<size_t>(got)));
        }
    }

    bool shows(const std::string& text) {
        return eventually([&] {
            watch();
            return screen.text().find(text) != std::string::npos;
        });
    }

    bool ready() {
        return shows("q quits");
    }

    void press(const std::string& keys) const {
        EXPECT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    termios settings() const {
        termios now;
        memset(&now, 0, sizeof now);
        EXPECT_EQ(tcgetattr(terminal, &now), 0);
        return now;
    }

    bool settings_as_before() const {
        const termios now = settings();
        return now.c_iflag == before.c_iflag && now.c_oflag == before.c_oflag &&
               now.c_cflag == before.c_cflag && now.c_lflag == before.c_lflag &&
               memcmp(now.c_cc, before.c_cc, sizeof now.c_cc) == 0;
    }

    void expect_taken() {
        EXPECT_EQ(settings().c_lflag & (ICANON | ECHO), 0U);
        EXPECT_FALSE(screen.cursor_shown);
        EXPECT_TRUE(screen.alternate);
    }

    void expect_given_back() {
        watch();
        EXPECT_TRUE(settings_as_before());
        EXPECT_TRUE(screen.cursor_shown);
        EXPECT_TRUE(screen.wraps);
        EXPECT_FALSE(screen.alternate);
        EXPECT_EQ(screen.faults(), "");
        EXPECT_TRUE(screen.whole());
    }

    void expect_ends(int status) {
        /* Whoever does not read cannot be written to. */
        EXPECT_TRUE(eventually([&] {
            watch();
            return !top->running();
        }));
        EXPECT_EQ(top->wait_exit(), status) << top->err();
        expect_given_back();
    }

    void open_terminal() {
        terminal = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(terminal, 0);
        ASSERT_EQ(grantpt(terminal), 0);
        ASSERT_EQ(unlockpt(terminal), 0);
        ASSERT_EQ(ptsname_r(terminal, terminal_name, sizeof terminal_name), 0);
        /* Held open, so that its settings outlive the program. */
        held = open(terminal_name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(held, 0);
        before = settings();
        ASSERT_NE(before.c_lflag & ICANON, 0U);
        ASSERT_NE(before.c_lflag & ECHO, 0U);
        set_size(80, 24);
    }

    void close_terminal() {
        for (int* fd : {&terminal, &held}) {
            if (*fd >= 0) {
                close(*fd);
            }
            *fd = -1;
        }
    }

    bool figures_known = false;
    std::unique_ptr<process> top;
    int terminal = -1;
    int held = -1;
    char terminal_name[64] = "";
    termios before = {};
    text_screen screen{80, 24};
};

TEST_F(tessctl_top, shows_the_figures_until_q_is_pressed) {
    start_with_known_figures();
    resp_client client;
    /* Two interfaces that the daemon itself knows nothing of, and two keys that are none. */
    client.call({"set", "eth7.10m",
                 ring_of_numbers({1, 1, 2, 2, 1}, {126400, 1, 999, 1, 0, 1, 1800000, 1})});
    client.call({"set", "br-lan.10m", ring_of_numbers({1, 1, 1, 0, 0}, {0, 0, 0, 0})});
    client.call({"set", "junk.10m", "junk"});
    client.call({"set", "ping3.10m", ring_of_numbers({1, 1, 1, 1, 0}, {1, 2, 3, 4, 5})});
    run_top();
    ASSERT_TRUE(shows("eth7 tx          999 B/s"));
    const std::vector<std::string> lines = screen.lines();
    ASSERT_EQ(lines.size(), 24U);
    EXPECT_EQ(lines[0].rfind("tessard at /tmp/tessard.sock                       ", 0), 0U)
        << lines[0];
    EXPECT_EQ(lines[0].size(), 80U);
    EXPECT_EQ(lines[1].rfind("CPU                  0 %", 0), 0U) << lines[1];
    EXPECT_EQ(lines[2].rfind("         peak        0 %", 0), 0U) << lines[2];
    EXPECT_EQ(lines[2].back(), '_') << lines[2];
    EXPECT_EQ(lines[3], "");
    EXPECT_EQ(lines[4].rfind("Memory              41 %", 0), 0U) << lines[4];
    EXPECT_EQ(lines[7].rfind("Hosts                  5", 0), 0U) << lines[7];
    EXPECT_EQ(lines[10].rfind("Connections          123", 0), 0U) << lines[10];
    EXPECT_EQ(lines[13], "br-lan rx              -");
    EXPECT_EQ(lines[16], "br-lan tx              -");
    /* The second slot is the older. 126400 fills two thirds of a third of 200000. */
    EXPECT_EQ(lines[19], "eth7 rx       126.4 kB/s" + std::string(55, ' ') + ".");
    EXPECT_EQ(lines[20], "         peak 126.4 kB/s" + std::string(54, ' ') + "_#");
    EXPECT_EQ(lines[22].rfind("eth7 tx          999 B/s", 0), 0U) << lines[22];
    EXPECT_EQ(screen.text().find("junk"), std::string::npos) << screen.text();
    EXPECT_EQ(screen.text().find("ping"), std::string::npos) << screen.text();
    EXPECT_EQ(screen.text().find("more"), std::string::npos) << screen.text();
    EXPECT_EQ(screen.faults(), "");
    expect_taken();

    press("q");
    expect_ends(DONE);
    EXPECT_EQ(top->err(), "");
}

TEST_F(tessctl_top, follows_the_figures) {
    start_with_known_figures();
    run_top();
    ASSERT_TRUE(shows("Hosts                  5"));
    sandbox::add_tool("hostmon", "echo 'Online hosts: 8'\n");
    EXPECT_TRUE(shows("Hosts                  8"));
    /* An interface that comes later is found. */
    resp_client client;
    client.call({"set", "eth7.10m", ring_of_numbers({1, 1, 1, 1, 0}, {70, 1, 30, 1})});
    EXPECT_TRUE(shows("eth7 rx           70 B/s"));
    /* Each second adds a sample to the memory's plot, though the daemon keeps none. */
    EXPECT_TRUE(shows("##\n")) << screen.text();
    EXPECT_EQ(screen.faults(), "");
}

TEST_F(tessctl_top, draws_with_blocks_where_the_environment_promises_utf8) {
    start_with_known_figures();
    run_top({}, "C.UTF-8");
    EXPECT_TRUE(shows("█"));
    EXPECT_EQ(screen.faults(), "");
}

TEST_F(tessctl_top, follows_the_size_of_the_window) {
    start_with_known_figures();
    run_top();
    ASSERT_TRUE(ready());
    const std::pair<unsigned short, unsigned short> sizes[] = {{120, 40}, {40, 10}, {30, 3},
                                                               {10, 4},   {1, 1},   {80, 24}};
    for (const auto& [columns, rows] : sizes) {
        SCOPED_TRACE(std::to_string(columns) + "x" + std::to_string(rows));
        watch();
        const text_screen old = screen;
        set_size(columns, rows);
        screen.cursor_shown = old.cursor_shown;
        screen.wraps = old.wraps;
        screen.alternate = old.alternate;
        /* What comes before the screen is cleared may still be for the old size. */
        std::string bytes;
        top->signal(SIGWINCH);
        ASSERT_TRUE(eventually([&] {
            char chunk[16384];
            const ssize_t got = read(terminal, chunk, sizeof chunk);
            bytes.append(chunk, got > 0 ? static_cast<size_t>(got) : 0);
            return bytes.find("\x1b[2J") != std::string::npos;
        }));
        screen.write(bytes.substr(bytes.rfind("\x1b[2J")));
        const std::string head = std::string("tessard at /tmp/tessard.sock").substr(0, columns);
        EXPECT_TRUE(eventually([&] {
            watch();
            return screen.lines()[0].rfind(head, 0) == 0;
        })) << screen.text();
        EXPECT_EQ(screen.faults(), "");
        if (rows >= 10) {
            EXPECT_TRUE(shows("Connections          123")) << screen.text();
        }
    }
    press("q");
    expect_ends(DONE);
}

TEST_F(tessctl_top, starts_on_a_small_terminal) {
    start_with_known_figures();
    set_size(20, 4);
    run_top();
    ASSERT_TRUE(shows("and 2 more"));
    EXPECT_EQ(screen.lines(),
              (std::vector<std::string>{"tessard at /tmp/tess", "CPU", "Memory", "and 2 more"}));
    press("Q");
    expect_ends(DONE);
}

TEST_F(tessctl_top, takes_a_terminal_without_a_size_for_80_by_24) {
    start_with_known_figures();
    winsize none = {};
    ASSERT_EQ(ioctl(terminal, TIOCSWINSZ, &none), 0);
    run_top();
    ASSERT_TRUE(ready());
    EXPECT_EQ(screen.lines()[0].size(), 80U);
    EXPECT_EQ(screen.faults(), "");
}

TEST_F(tessctl_top, gives_the_terminal_back_when_interrupted) {
    start();
    for (int number : {SIGINT, SIGTERM}) {
        run_top();
        ASSERT_TRUE(ready());
        expect_taken();
        top->signal(number);
        expect_ends(DONE);
        EXPECT_EQ(top->err(), "");
        set_size(80, 24);
    }
}

/* As from a shell: the terminal is that of the session, and its interrupt key sends the signal. */
TEST_F(tessctl_top, gives_the_terminal_back_when_its_interrupt_key_is_pressed) {
    start();
    process_options session;
    session.before_exec = [this] {
        setsid();
        const int fd = open(terminal_name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        ioctl(fd, TIOCSCTTY, 0);
        dup2(fd, 0);
    };
    /* The shell lives on, since with the first process of its session the terminal would be reset.
     */
    std::vector<std::string> words = {
        "sh", "-c", "trap : INT; \"$@\" >&0; echo ended with $?; exec sleep 1000", "sh"};
    for (const std::string& word : tessctl_command({"top"})) {
        words.push_back(word);
    }
    process shell(words, session);
    ASSERT_TRUE(ready());
    expect_taken();
    press("\x03");
    EXPECT_TRUE(eventually([&] {
        watch();
        return shell.out() == "ended with 0\n";
    })) << shell.out()
        << shell.err();
    expect_given_back();
}

TEST_F(tessctl_top, takes_the_interrupt_key_where_it_sends_no_signal) {
    start();
    before.c_lflag &= ~static_cast<tcflag_t>(ISIG);
    ASSERT_EQ(tcsetattr(terminal, TCSANOW, &before), 0);
    run_top();
    ASSERT_TRUE(ready());
    press("\x03");
    expect_ends(DONE);
}

TEST_F(tessctl_top, gives_the_terminal_back_when_the_session_ends) {
    start();
    for (int number : {SIGHUP, SIGQUIT}) {
        run_top();
        ASSERT_TRUE(ready());
        top->signal(number);
        expect_ends(KILLED_BY + number);
        set_size(80, 24);
    }
}

TEST_F(tessctl_top, gives_the_terminal_back_when_the_daemon_goes) {
    process& served = start();
    run_top();
    ASSERT_TRUE(ready());
    served.stop();
    expect_ends(NO_REPLY);
    EXPECT_NE(top->err().find("/tmp/tessard.sock"), std::string::npos) << top->err();
}

TEST_F(tessctl_top, complains_after_it_gave_the_terminal_back) {
    process& served = start();
    process_options how;
    how.before_exec = [this] {
        const int fd = open(terminal_name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        for (int descriptor : {0, 1, 2}) {
            dup2(fd, descriptor);
        }
    };
    top = std::make_unique<process>(tessctl_command({"top"}), how);
    ASSERT_TRUE(ready());
    served.stop();
    expect_ends(NO_REPLY);
    EXPECT_EQ(screen.lines()[0].rfind("tessctl: /tmp/tessard.sock: ", 0), 0U) << screen.text();
}

TEST_F(tessctl_top, gives_the_terminal_back_when_the_daemon_says_nothing) {
    process& served = start();
    run_top({"-t", "1"});
    ASSERT_TRUE(ready());
    ASSERT_TRUE(served.halt());
    expect_ends(NO_REPLY);
    EXPECT_NE(top->err().find("no reply within 1 s"), std::string::npos) << top->err();
    served.resume();
}

TEST_F(tessctl_top, is_interrupted_while_the_daemon_says_nothing) {
    process& served = start();
    run_top({"-t", "100"});
    ASSERT_TRUE(ready());
    ASSERT_TRUE(served.halt());
    /* It has asked when the socket's queue holds something that nobody reads; a second is long
     * enough. */
    EXPECT_EQ(top->wait_exit(1200), STILL_RUNNING);
    top->signal(SIGINT);
    expect_ends(DONE);
    served.resume();
}

TEST_F(tessctl_top, lends_the_terminal_while_it_is_stopped) {
    start_with_known_figures();
    run_top();
    ASSERT_TRUE(ready());
    top->signal(SIGTSTP);
    ASSERT_TRUE(eventually([&] {
        int state = 0;
        watch();
        return waitpid(top->pid(), &state, WUNTRACED | WNOHANG) == top->pid() && WIFSTOPPED(state);
    }));
    expect_given_back();

    /* What was written meanwhile is wiped away. */
    screen = text_screen(80, 24);
    screen.write("\x1b[4;1Hleft behind");
    top->signal(SIGCONT);
    ASSERT_TRUE(shows("Connections          123"));
    EXPECT_EQ(screen.text().find("left behind"), std::string::npos);
    expect_taken();
    press("q");
    expect_ends(DONE);
}

/* After a SIGSTOP, of which it hears nothing, a shell puts its own settings in force. */
TEST_F(tessctl_top, takes_the_terminal_again_after_a_halt) {
    start();
    run_top();
    ASSERT_TRUE(ready());
    ASSERT_TRUE(top->halt());
    ASSERT_EQ(tcsetattr(terminal, TCSANOW, &before), 0);
    top->resume();
    EXPECT_TRUE(eventually([&] {
        watch();
        return (settings().c_lflag & (ICANON | ECHO)) == 0;
    }));
    press("q");
    expect_ends(DONE);
}

TEST_F(tessctl_top, is_interrupted_while_nobody_reads_the_terminal) {
    start();
    set_size(300, 300);
    run_top();
    ASSERT_TRUE(eventually([&] { return (settings().c_lflag & ICANON) == 0; }));
    for (int i = 0; i < 200; i++) {
        top->signal(SIGWINCH);
        EXPECT_EQ(top->wait_exit(5), STILL_RUNNING);
    }
    top->signal(SIGTERM);
    EXPECT_EQ(top->wait_exit(), DONE);
    EXPECT_TRUE(settings_as_before());
    watch();
    EXPECT_TRUE(screen.alternate)
        << "the terminal took everything, which is not what was to be seen";
}

TEST_F(tessctl_top, ends_when_the_terminal_goes) {
    start();
    run_top();
    ASSERT_TRUE(ready());
    close_terminal();
    const int status = top->wait_exit();
    EXPECT_TRUE(status == DONE || status == OUTPUT) << status;
}

TEST_F(tessctl_top, needs_a_terminal) {
    start();
    process neither(tessctl_command({"top"}));
    EXPECT_EQ(neither.wait_exit(), USAGE);
    EXPECT_EQ(neither.out(), "");
    EXPECT_EQ(neither.err(), "tessctl: top needs a terminal as standard input and output\n");
    for (int side : {0, 1}) {
        process_options one;
        one.before_exec = [this, side] {
            dup2(open(terminal_name, O_RDWR | O_NOCTTY | O_CLOEXEC), side);
        };
        process half(tessctl_command({"top"}), one);
        EXPECT_EQ(half.wait_exit(), USAGE) << side;
        EXPECT_EQ(half.out(), "");
    }
    watch();
    EXPECT_EQ(screen.text(), std::string(24, '\n'));
    EXPECT_TRUE(settings_as_before());
}

TEST_F(tessctl_top, touches_no_terminal_when_it_has_nothing_to_show) {
    run_top();
    EXPECT_EQ(top->wait_exit(), NO_REPLY);
    EXPECT_NE(top->err().find("cannot reach the daemon"), std::string::npos) << top->err();
    run_top({"--raw"});
    EXPECT_EQ(top->wait_exit(), USAGE);
    watch();
    EXPECT_EQ(screen.text(), std::string(24, '\n'));
    expect_given_back();
}

} // namespace
