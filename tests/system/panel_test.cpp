/* The front panel as the device shows it: a driver node or a serial port of the test's own, looked
 * after by the real daemon every three seconds.
 *
 * The made-up /proc has no figures of the processor and the memory, so those keys are the client's
 * to set. */

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "tests/system/support/daemon_test.h"
#include "tests/system/support/log_text.h"

using namespace system_test;

namespace {

const std::string OK = "+OK\r\n";
const std::string CLEAR("\xCC\xB1\xAA\xD0", 4);

/* What the tool that knows the model is asked. */
const std::string QUESTION = "get product_params.vendor.standardtype\n";

std::string padded(std::string line) {
    line.resize(20, ' ');
    return line;
}

std::string frame_of(const std::string& one, const std::string& two, const std::string& three,
                     const std::string& four) {
    return std::string("\xCC\xB3\0\0\x01", 5) + padded(one) + padded(two) + padded(three) +
           padded(four) + std::string("\xAA\xD0\0\0\0\0", 6);
}

std::string text_of(const std::string& one, const std::string& two, const std::string& three,
                    const std::string& four) {
    std::string text = one + "\n" + two + "\n" + three + "\n" + four + "\n";
    text.resize(128, '\0');
    return text;
}

/* The screen for the figures of the serial panels. */
const std::string FIGURES =
    frame_of("CPU : 40% MEM: 100%", "UP  : 123.46MB/s", "DOWN: 999KB/s", "Hosts Online:  12");

/* What can be read without waiting. */
std::string read_all(int fd) {
    std::string all;
    char chunk[4096];
    for (ssize_t size; (size = read(fd, chunk, sizeof chunk)) > 0;) {
        all.append(chunk, static_cast<size_t>(size));
    }
    return all;
}

/* What comes until there are so many bytes. */
std::string read_bytes(int fd, size_t size) {
    std::string all;
    EXPECT_TRUE(eventually([&] {
        all += read_all(fd);
        return all.size() >= size;
    }));
    return all;
}

class panel : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        sandbox::set_proc_file("net/dev", "Inter-|\n face |\n");
        sandbox::add_tool("hostmon", "echo x >>" + work("ticks") + "\necho 'Online hosts: 12'\n");
        sandbox::add_tool("conntrack", "echo 1 1\n");
        set_model("");
    }

    static void set_model(const std::string& model) {
        sandbox::add_tool("uci", "echo \"$*\" >>" + work("asked") + "\necho '" + model + "'\n");
    }

    void start_with_client() {
        daemon = &start();
        client = resp_client();
    }

    void expect_ok(const std::vector<std::string>& command) {
        std::string reply = client.call(command);
        EXPECT_TRUE(reply == OK || reply == ":1\r\n" || reply == ":0\r\n") << reply;
    }

    /* Seconds that the daemon has lived. */
    static size_t ticks() {
        return read_file(work("ticks")).size() / 2;
    }

    static bool wait_for_tick(size_t tick) {
        return eventually([tick] { return ticks() >= tick; });
    }

    static std::vector<std::string> failures() {
        return log_messages(read_file("/tmp/tessard.log"), {"open ("});
    }

    process* daemon = nullptr;
    resp_client client{"/nonexistent"};
};

/* A panel on the first serial port, and a daemon with figures for it. */
class serial_panel : public panel {
  protected:
    void plug_in() {
        set_model("KT7030-B");
        side = sandbox::add_terminal("/dev/ttyS0");
        ASSERT_GE(side, 0);
    }

    void start_with_figures() {
        start_with_client();
        expect_ok({"set", "cpu.load", "80"});
        expect_ok({"set", "mem.load", "100"});
        expect_ok({"hset", "lan", "rxbrate", "123456789"});
        expect_ok({"hset", "lan", "txbrate", "999999"});
        expect_ok({"set", "sys.lan", "lan"});
        expect_ok({"hset", "sys", "pnp", "LCD"});
    }

    /* As when the panel stops reading. */
    static void fill_the_line() {
        const int port = open("/dev/ttyS0", O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        /* The kernel goes on moving what it took, which makes room again for a while. */
        for (int refused = 0; refused < 10;) {
            if (write(port, "x", 1) < 0) {
                refused++;
                usleep(10000);
            }
        }
        ::close(port);
    }

    int side = -1; /* the panel's end of the line */
};

} // namespace

TEST_F(panel, a_driver_node_gets_the_screen_as_text_and_is_waited_for_by_nobody) {
    ASSERT_EQ(mkfifo("/dev/st7565", 0600), 0);
    start_with_client();
    expect_ok({"set", "cpu.load", "80"});
    expect_ok({"set", "mem.load", "37"});
    ASSERT_TRUE(eventually([] { return !failures().empty(); }))
        << "a pipe that nobody reads cannot be opened";
    EXPECT_EQ(failures(), std::vector<std::string>{"open (/dev/st7565) failed."});

    int reader = open("/dev/st7565", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    const std::string idle =
        text_of("CPU : 40% MEM:  37%", "UP  :   0B/s", "DOWN:   0B/s", "Hosts Online:  12");
    std::string seen = read_bytes(reader, idle.size());
    EXPECT_EQ(seen, idle);

    expect_ok({"hset", "lan0", "rxbrate", "1000"});
    expect_ok({"hset", "lan0", "txbrate", "1500000"});
    expect_ok({"hset", "lan1", "rxbrate", "999"});
    expect_ok({"set", "sys.lan", "lan0:lan1"});
    const std::string both =
        text_of("CPU : 40% MEM:  37%", "UP  : 999B/s", "DOWN: 1.50MB/s", "Hosts Online:  12");
    const std::string first =
        text_of("CPU : 40% MEM:  37%", "UP  :   1KB/s", "DOWN: 1.50MB/s", "Hosts Online:  12");
    ASSERT_TRUE(eventually([&] {
        seen += read_all(reader);
        return seen.ends_with(both);
    }));
    EXPECT_EQ(client.call({"get", "sys.lan"}), std::string("$9\r\nlan0\0lan1\r\n", 15))
        << "the stored list is split where it stands";
    ASSERT_TRUE(eventually([&] {
        seen += read_all(reader);
        return seen.size() % 128 == 0 && !seen.ends_with(both);
    }));
    EXPECT_TRUE(seen.ends_with(both + first)) << "only the first name is left";
    EXPECT_FALSE(file_exists(work("asked"))) << "a node needs no model";
    ::close(reader);
}

TEST_F(serial_panel, is_set_up_and_cleared_before_its_first_frame) {
    ASSERT_NO_FATAL_FAILURE(plug_in());
    termios line = {};
    ASSERT_EQ(tcgetattr(side, &line), 0);
    line.c_cflag |= CS7 | CSTOPB | PARENB;
    line.c_cflag &= ~static_cast<tcflag_t>(CS8 & ~CS7);
    cfsetispeed(&line, B115200);
    cfsetospeed(&line, B115200);
    ASSERT_EQ(tcsetattr(side, TCSANOW, &line), 0);
    start_with_figures();
    EXPECT_EQ(read_bytes(side, 95), CLEAR + FIGURES);

    ASSERT_EQ(tcgetattr(side, &line), 0);
    EXPECT_EQ(line.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(line.c_cflag & (CSTOPB | PARENB), 0u);
    EXPECT_EQ(line.c_iflag & INPCK, static_cast<tcflag_t>(INPCK));
    EXPECT_EQ(line.c_cc[VMIN], 0);
    EXPECT_EQ(line.c_cc[VTIME], 150);
    EXPECT_EQ(cfgetispeed(&line), static_cast<speed_t>(B9600));
    EXPECT_EQ(cfgetospeed(&line), static_cast<speed_t>(B9600));
    EXPECT_EQ(read_file(work("asked")), QUESTION);
}

TEST_F(serial_panel, that_stops_reading_loses_screens_and_holds_nobody_up) {
    ASSERT_NO_FATAL_FAILURE(plug_in());
    start_with_figures();
    EXPECT_EQ(read_bytes(side, 95), CLEAR + FIGURES);
    fill_the_line();
    const size_t full_at = ticks();
    ASSERT_TRUE(eventually([&] {
        EXPECT_EQ(client.call({"ping"}), OK) << "the loop goes on";
        return ticks() >= full_at + 7;
    }));
    EXPECT_TRUE(daemon->running());

    /* It reads again: of the two screens that it was too slow for the first is lost, dropped with
     * what stood before it, and what comes then is whole. */
    const std::string waiting = read_all(side);
    EXPECT_EQ(waiting.find(FIGURES), waiting.rfind(FIGURES));
    std::string afterwards;
    EXPECT_TRUE(eventually([&] {
        afterwards += read_all(side);
        return afterwards.ends_with(FIGURES);
    }));
    EXPECT_EQ(failures(), std::vector<std::string>{});
    EXPECT_EQ(read_file(work("asked")), QUESTION) << "decided once";
}

TEST_F(panel, the_question_stays_open_until_the_system_is_described_and_the_port_can_be_opened) {
    start_with_client();
    /* One look at least without "sys". */
    ASSERT_TRUE(wait_for_tick(4));
    EXPECT_FALSE(file_exists(work("asked")));
    expect_ok({"hset", "sys", "pnp", "LCD"});
    const std::string message = "Can't Open x86_LCD Port.: No such file or directory\n";
    ASSERT_TRUE(eventually([&] { return !daemon->err().empty(); }));
    EXPECT_EQ(daemon->err(), message);
    EXPECT_EQ(failures(), std::vector<std::string>{});

    set_model("KT7");
    int side = sandbox::add_terminal("/dev/ttyS1");
    ASSERT_GE(side, 0);
    const std::string frame =
        frame_of("CPU :  0% MEM:   0%", "UP  :   0B/s", "DOWN:   0B/s", "Hosts Online:  12");
    EXPECT_EQ(read_bytes(side, 95), CLEAR + frame);
    EXPECT_EQ(daemon->err(), message);
    EXPECT_EQ(read_file(work("asked")), QUESTION + QUESTION);
}

TEST_F(panel, a_system_without_pnp_has_no_panel_for_the_rest_of_the_process) {
    set_model("KT7010");
    start_with_client();
    expect_ok({"hset", "sys", "model", "LCD"});
    ASSERT_TRUE(wait_for_tick(4));
    int side = sandbox::add_terminal("/dev/ttyS0");
    ASSERT_GE(side, 0);
    expect_ok({"hset", "sys", "pnp", "LCD"});
    write_file("/dev/st7565", "");
    /* One look at least would have found a panel. */
    ASSERT_TRUE(wait_for_tick(8));
    EXPECT_EQ(read_file("/dev/st7565"), "");
    EXPECT_EQ(read_all(side), "");
    EXPECT_FALSE(file_exists(work("asked")));
    EXPECT_EQ(daemon->err(), "");
    EXPECT_EQ(failures(), std::vector<std::string>{});
}
