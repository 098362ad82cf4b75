#include "stats/lcd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "loop/loop.h"
#include "tests/unit/stats/late_clock.h"
#include "tests/unit/support/loop_by_tenths.h"
#include "tests/unit/support/own_world.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string CLEAR("\xCC\xB1\xAA\xD0", 4);

std::string padded(std::string line) {
    line.resize(20, ' ');
    return line;
}

/* A frame of these lines, each of 20 bytes. */
std::string frame_of(const std::vector<std::string>& lines) {
    std::string frame("\xCC\xB3\0\0\x01", 5);
    for (const std::string& line : lines) {
        EXPECT_EQ(line.size(), 20u) << line;
        frame += line;
    }
    frame += "\xAA\xD0";
    frame.resize(91, '\0');
    return frame;
}

/* The standard screen as frame and as the driver node gets it. */
std::string screen_frame(const std::string& loads, const std::string& up, const std::string& down,
                         const std::string& hosts) {
    return frame_of({padded(loads), padded(up), padded(down), padded(hosts)});
}

std::string screen_text(const std::string& loads, const std::string& up, const std::string& down,
                        const std::string& hosts) {
    std::string text = loads + "\n" + up + "\n" + down + "\n" + hosts + "\n";
    text.resize(128, '\0');
    return text;
}

/* What the unit does to its line. A pseudo-terminal knows neither parity nor sizes but eight bits,
 * nor a speed of its own for each direction, so while a test watches, the line seems to have them;
 * and it can refuse settings, which no terminal of ours does.
 */
struct line_watch {
    bool on = false;
    int failing = 0; /* the number of the setting that fails, from 1 on */
    std::vector<termios> set;
    bool input_speed = true; /* false: the line seems to know none */
    std::vector<std::string> calls = {};
    int flags = 0; /* of the descriptor, as the line's settings were last asked for */
    std::vector<std::string> port = {}; /* the port's openings and closings, and what was dropped */
};

line_watch watched;

bool is_terminal(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISCHR(status.st_mode) && isatty(fd) == 1;
}

/* What a text becomes on the wire. */
std::string written(std::string_view bytes, size_t length, int expected_result) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const std::string text(bytes);
    EXPECT_EQ(lcd_write_frame(ends[1], text.c_str(), length), expected_result);
    char wire[1000];
    const ssize_t size = read(ends[0], wire, sizeof wire);
    close(ends[0]);
    close(ends[1]);
    return std::string(wire, size > 0 ? static_cast<size_t>(size) : 0);
}

std::string framed(std::string_view text) {
    return written(text, 128, 128);
}

std::string read_all(int fd) {
    std::string all;
    char chunk[4096];
    for (ssize_t size; (size = read(fd, chunk, sizeof chunk)) > 0;) {
        all.append(chunk, static_cast<size_t>(size));
    }
    return all;
}

std::string content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/* A /dev of the test's own, in a process of its own, since the unit decides on its panel once. */
class panel_test : public store_test {
  protected:
    void in_own_devices(const std::function<void()>& body) {
        run_in_own_world(
            [this] {
                terminal = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
                char name[64] = "";
                if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0 ||
                    ptsname_r(terminal, name, sizeof name) != 0 || !unshare_mounts()) {
                    return false;
                }
                /* Opened after the mounts became our own, so that it can be shown elsewhere. */
                line = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
                return line >= 0 && cover_devices() && cover("/srv");
            },
            [&] {
                module_lcd_start();
                setenv("PATH", ("/srv:" + std::string(getenv("PATH"))).c_str(), 1);
                set_model("");
                log.start(LOG_DEBUG);
                body();
            });
    }

    /* What the tool "uci" tells of the model. */
    static void set_model(const std::string& answer) {
        std::ofstream("/srv/answer") << answer;
        std::ofstream("/srv/uci") << "#!/bin/sh\necho \"$*\" >>/srv/calls\ncat /srv/answer\n";
        chmod("/srv/uci", 0755);
    }

    /* Makes the terminal the device of this name. */
    void attach(const std::string& device) const {
        close(open(device.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const std::string source = "/proc/self/fd/" + std::to_string(line);
        ASSERT_EQ(mount(source.c_str(), device.c_str(), nullptr, MS_BIND, nullptr), 0)
            << strerror(errno);
    }

    termios settings() const {
        termios now = {};
        EXPECT_EQ(tcgetattr(line, &now), 0);
        return now;
    }

    void set_raw() const {
        termios now = settings();
        cfmakeraw(&now);
        ASSERT_EQ(tcsetattr(line, TCSANOW, &now), 0);
    }

    void set_speed(speed_t speed) const {
        termios now = settings();
        cfsetispeed(&now, speed);
        cfsetospeed(&now, speed);
        ASSERT_EQ(tcsetattr(line, TCSANOW, &now), 0);
    }

    static void set(const char* key, std::string_view value) {
        object_set_string(make(key, OBJ_TSTRING), text(value));
    }

    static void hset(const char* key, std::string_view field, std::string_view value) {
        object_hash_set(make(key, OBJ_THASH), text(field), text(value));
    }

    /* The node as a plain file, empty before each run: what one run writes. */
    static std::string node_after_run() {
        std::ofstream("/dev/st7565", std::ios::trunc).close();
        EXPECT_EQ(lcd_ontimer(nullptr), 0);
        return content("/dev/st7565");
    }

    /* What one run sends to the serial panel. */
    std::string sent_by_run() const {
        EXPECT_EQ(lcd_ontimer(nullptr), 0);
        return read_all(terminal);
    }

    /* What a run prints as complaints. */
    static std::string errors_of_run() {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const int before = dup(STDERR_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[1]);
        EXPECT_EQ(lcd_ontimer(nullptr), 0);
        dup2(before, STDERR_FILENO);
        close(before);
        return read_to_end(ends[0]);
    }

    /* A device that has a serial panel, its line raw. */
    void serial_device(const std::string& model = "KT7030-B",
                       const std::string& device = "/dev/ttyS0") {
        hset("sys", "pnp", "LCD");
        set_model(model);
        set_raw();
        attach(device);
    }

    int terminal = -1;
    int line = -1;
};

} // namespace

/* Defined in the program, these take precedence over the C library's. */

extern "C" int tcgetattr(int fd, termios* settings) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(int, termios*)>(dlsym(RTLD_NEXT, "tcgetattr"));
    const int result = real(fd, settings);
    if (result == 0 && watched.on) {
        watched.calls.push_back("get");
        watched.flags = fcntl(fd, F_GETFL);
        settings->c_cflag &= ~static_cast<tcflag_t>(CSIZE);
        settings->c_cflag |= CS7 | PARENB | CSTOPB;
        if (!watched.input_speed) {
            cfsetispeed(settings, B0);
        }
    }
    return result;
}

extern "C" int tcsetattr(int fd, int when, const termios* settings) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(int, int, const termios*)>(dlsym(RTLD_NEXT, "tcsetattr"));
    if (watched.on) {
        EXPECT_EQ(when, TCSANOW);
        watched.calls.push_back("set");
        watched.set.push_back(*settings);
        if (static_cast<int>(watched.set.size()) == watched.failing) {
            errno = EIO;
            return -1;
        }
    }
    return real(fd, when, settings);
}

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const int fd = openat(AT_FDCWD, path, flags, mode);
    if (watched.on && is_terminal(fd)) {
        watched.port.push_back((flags & O_ACCMODE) == O_WRONLY ? "open to write" : "open");
    }
    return fd;
}

extern "C" int close(int fd) {
    if (watched.on && is_terminal(fd)) {
        watched.port.push_back("close");
    }
    return static_cast<int>(syscall(SYS_close, fd));
}

extern "C" int tcflush(int fd, int queue) noexcept {
    static const auto real = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "tcflush"));
    if (watched.on) {
        if (queue == TCOFLUSH) {
            watched.port.push_back("drop");
        }
        watched.calls.push_back(queue == TCIFLUSH    ? "drop input"
                                : queue == TCOFLUSH  ? "drop output"
                                : queue == TCIOFLUSH ? "drop both"
                                                     : "drop what?");
    }
    return real(fd, queue);
}

/* --- Rates --- */

TEST(panel_rates_test, change_their_unit_at_a_thousand_and_a_million) {
    EXPECT_STREQ(rate_format(0), "  0B/s");
    EXPECT_STREQ(rate_format(7), "  7B/s");
    EXPECT_STREQ(rate_format(42), " 42B/s");
    EXPECT_STREQ(rate_format(999), "999B/s");
    EXPECT_STREQ(rate_format(1000), "  1KB/s");
    EXPECT_STREQ(rate_format(1999), "  1KB/s");
    EXPECT_STREQ(rate_format(45678), " 45KB/s");
    EXPECT_STREQ(rate_format(999999), "999KB/s");
    EXPECT_STREQ(rate_format(1000000), "1.00MB/s");
    EXPECT_STREQ(rate_format(1500000), "1.50MB/s");
    EXPECT_STREQ(rate_format(12345678), "12.35MB/s");
    EXPECT_STREQ(rate_format(123456789), "123.46MB/s");
}

TEST(panel_rates_test, of_megabytes_are_rounded_from_single_precision) {
    /* The middles between two hundredths: the nearest numbers in single precision lie above them,
     * those in double precision below. */
    EXPECT_STREQ(rate_format(1065000), "1.07MB/s");
    EXPECT_STREQ(rate_format(1075000), "1.08MB/s");
    EXPECT_STREQ(rate_format(1105000), "1.11MB/s");
}

TEST(panel_rates_test, of_full_length_fit_the_buffer) {
    EXPECT_STREQ(rate_format(4294967295U), "4294.97MB/s");
    const char* text = rate_format(5);
    EXPECT_EQ(std::string(text, 12), std::string("  5B/s\0\0\0\0\0\0", 12));
}

TEST(panel_rates_test, stand_in_one_shared_buffer) {
    const char* first = rate_format(1);
    const char* second = rate_format(2000);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "  2KB/s");
}

/* --- Frames --- */

TEST(panel_frames_test, have_four_lines_padded_to_20_bytes) {
    EXPECT_EQ(framed("CPU : 40% MEM:  50%\nUP  :   1KB/s\nDOWN: 1.50MB/s\nHosts Online:   3\n"),
              std::string("\xCC\xB3\0\0\x01"
                          "CPU : 40% MEM:  50% "
                          "UP  :   1KB/s       "
                          "DOWN: 1.50MB/s      "
                          "Hosts Online:   3   "
                          "\xAA\xD0\0\0\0\0",
                          91));
}

TEST(panel_frames_test, cut_lines_at_20_bytes) {
    EXPECT_EQ(framed("12345678901234567890\n123456789012345678901\n1234567890123456789\n"
                     "1234567890123456789012345678901234567890\n"),
              frame_of({"12345678901234567890", "12345678901234567890", "1234567890123456789 ",
                        "12345678901234567890"}));
}

TEST(panel_frames_test, of_three_lines_have_their_end_mark_at_65) {
    const std::string frame = framed("a\nb\nc\n");
    EXPECT_EQ(frame, frame_of({padded("a"), padded("b"), padded("c")}));
    EXPECT_EQ(frame.size(), 91u);
    EXPECT_EQ(frame.substr(65, 2), "\xAA\xD0");
    EXPECT_EQ(frame.substr(67), std::string(24, '\0'));
}

TEST(panel_frames_test, end_their_last_line_with_the_text_also) {
    EXPECT_EQ(framed("a\nb\nc"), frame_of({padded("a"), padded("b"), padded("c")}));
    EXPECT_EQ(framed("a"), frame_of({padded("a")}));
    EXPECT_EQ(framed("a\n"), frame_of({padded("a")}));
    EXPECT_EQ(framed("a\n").substr(25, 2), "\xAA\xD0");
    EXPECT_EQ(framed("a\nb\nc\nd"), frame_of({padded("a"), padded("b"), padded("c"), padded("d")}));
}

TEST(panel_frames_test, take_four_lines_at_most) {
    EXPECT_EQ(framed("a\nb\nc\nd\ne\n"),
              frame_of({padded("a"), padded("b"), padded("c"), padded("d")}));
    EXPECT_EQ(framed("a\nb\nc\nd\ne\nf\ng\nh\n").substr(85), std::string("\xAA\xD0\0\0\0\0", 6));
}

TEST(panel_frames_test, keep_empty_lines_between_others) {
    EXPECT_EQ(framed("a\n\nc\n"), frame_of({padded("a"), padded(""), padded("c")}));
    EXPECT_EQ(framed("\n\nc\n"), frame_of({padded(""), padded(""), padded("c")}));
    EXPECT_EQ(framed("\n\n\n\nx"), frame_of({padded(""), padded(""), padded(""), padded("")}));
}

TEST(panel_frames_test, take_at_most_127_bytes_of_text) {
    const std::string text = std::string(120, 'a') + "\n" + std::string(40, 'b');
    EXPECT_EQ(written(text, 128, 128), frame_of({std::string(20, 'a'), padded("bbbbbb")}));
    EXPECT_EQ(written(text, 1000, 128), frame_of({std::string(20, 'a'), padded("bbbbbb")}));
}

TEST(panel_frames_test, take_one_byte_less_than_the_length) {
    EXPECT_EQ(written("abcdef", 6, 6), frame_of({padded("abcde")}));
    EXPECT_EQ(written("abcdef", 7, 7), frame_of({padded("abcdef")}));
    EXPECT_EQ(written("ab\ncdef", 5, 5), frame_of({padded("ab"), padded("c")}));
    EXPECT_EQ(written("abcdef", 127, 127), frame_of({padded("abcdef")}));
}

TEST(panel_frames_test, end_the_text_at_its_first_nul) {
    EXPECT_EQ(framed(std::string_view("ab\0cd\nef\n", 9)), frame_of({padded("ab")}));
}

TEST(panel_frames_test, are_written_whole_for_an_empty_text_too) {
    for (const size_t length : {0, 1, 128}) {
        const std::string frame = written("", length, static_cast<int>(length));
        ASSERT_EQ(frame.size(), 91u) << length;
        EXPECT_EQ(frame.substr(0, 5), std::string("\xCC\xB3\0\0\x01", 5));
    }
    EXPECT_EQ(written("abc", 0, 0).size(), 91u);
}

TEST(panel_frames_test, the_clear_text_is_a_command) {
    EXPECT_EQ(written("__clear", 8, 0), CLEAR);
    EXPECT_EQ(written("__clear", 128, 0), CLEAR);
    EXPECT_EQ(written("__clear\nmore\n", 128, 0), CLEAR);
    EXPECT_EQ(written("__clearly", 128, 0), CLEAR);
}

TEST(panel_frames_test, an_almost_clear_text_is_none) {
    EXPECT_EQ(framed("__Clear"), frame_of({padded("__Clear")}));
    EXPECT_EQ(framed(" __clear"), frame_of({padded(" __clear")}));
    /* The length counts the end of the text. */
    EXPECT_EQ(written("__clear", 7, 7), frame_of({padded("__clea")}));
}

TEST(panel_frames_test, that_cannot_be_written_are_a_failure) {
    EXPECT_EQ(lcd_write_frame(-1, "text\n", 128), -1);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const std::string much(1 << 20, 'x');
    ASSERT_GT(write(ends[1], much.data(), much.size()), 0);
    EXPECT_EQ(lcd_write_frame(ends[1], "text\n", 128), -1);
    /* The clear command's result is 0 in any case. */
    EXPECT_EQ(lcd_write_frame(ends[1], "__clear", 128), 0);
    close(ends[0]);
    close(ends[1]);
}

TEST(panel_frames_test, of_which_a_part_is_written_are_a_failure) {
    std::string path = testing::TempDir() + "tessard-lcd-XXXXXX";
    const int file = mkstemp(path.data());
    ASSERT_GE(file, 0);
    unlink(path.c_str());
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit part = {90, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &part), 0);
    const int result = lcd_write_frame(file, "text\n", 128);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(lseek(file, 0, SEEK_CUR), 90);
    close(file);
}

TEST(panel_frames_test, that_are_not_taken_whole_leave_no_part_behind) {
    const int panel = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(panel, 0);
    ASSERT_EQ(grantpt(panel), 0);
    ASSERT_EQ(unlockpt(panel), 0);
    char name[64];
    ASSERT_EQ(ptsname_r(panel, name, sizeof name), 0);
    const int port = open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    termios raw;
    ASSERT_EQ(tcgetattr(port, &raw), 0);
    cfmakeraw(&raw);
    ASSERT_EQ(tcsetattr(port, TCSANOW, &raw), 0);

    for (int round = 0; round < 10; round++) {
        std::string taken;
        int number = 0;
        while (lcd_write_frame(port, (std::to_string(number) + "\n").c_str(), 128) == 128) {
            taken += frame_of({padded(std::to_string(number))});
            ASSERT_LT(++number, 100000) << "the port takes everything";
        }
        /* Some had gone out before; the others went with the one that found room for a part of it.
         */
        const std::string arrived = read_all(panel);
        EXPECT_LT(arrived.size(), taken.size());
        EXPECT_EQ(arrived, taken.substr(0, arrived.size()));
        for (int i = 0; i < 3; i++) {
            EXPECT_EQ(lcd_write_frame(port, "a\n", 128), 128);
            EXPECT_EQ(read_all(panel), frame_of({padded("a")}));
        }
    }
    close(port);
    close(panel);
}

/* --- The driver node --- */

TEST_F(panel_test, a_node_gets_the_text_and_zeros_up_to_128_bytes) {
    in_own_devices([&] {
        EXPECT_EQ(node_after_run(), screen_text("CPU :  0% MEM:   0%", "UP  :   0B/s",
                                                "DOWN:   0B/s", "Hosts Online:   0"));
        set("cpu.load", "80");
        set("mem.load", "37");
        set("host.num", "12");
        EXPECT_EQ(node_after_run(), screen_text("CPU : 40% MEM:  37%", "UP  :   0B/s",
                                                "DOWN:   0B/s", "Hosts Online:  12"));
    });
}

TEST_F(panel_test, half_of_the_stored_processor_load_is_shown) {
    in_own_devices([&] {
        const std::pair<const char*, const char*> loads[] = {
            {"0", " 0"},  {"1", " 0"},   {"2", " 1"},    {"19", " 9"},  {"20", "10"},
            {"81", "40"}, {"100", "50"}, {"255", "127"}, {"300", "150"}};
        for (const auto& [stored, shown] : loads) {
            set("cpu.load", stored);
            EXPECT_EQ(node_after_run(),
                      screen_text("CPU : " + std::string(shown) + "% MEM:   0%", "UP  :   0B/s",
                                  "DOWN:   0B/s", "Hosts Online:   0"))
                << stored;
        }
    });
}

TEST_F(panel_test, figures_are_read_as_numbers_up_to_the_first_other_byte) {
    in_own_devices([&] {
        set("cpu.load", "60 percent");
        set("mem.load", " 0045");
        set("host.num", "many");
        EXPECT_EQ(node_after_run(), screen_text("CPU : 30% MEM:  45%", "UP  :   0B/s",
                                                "DOWN:   0B/s", "Hosts Online:   0"));
        set("cpu.load", "99999999999");
        set("mem.load", "-7");
        set("host.num", "99999999999");
        EXPECT_EQ(node_after_run(), screen_text("CPU : 1073741823% MEM:  -7%", "UP  :   0B/s",
                                                "DOWN:   0B/s", "Hosts Online: 2147483647"));
        /* Half of 4294967289, which is what the 32 bits of -7 are without a sign. */
        set("cpu.load", "-7");
        set("mem.load", "1");
        set("host.num", "2");
        EXPECT_EQ(node_after_run(), screen_text("CPU : 2147483644% MEM:   1%", "UP  :   0B/s",
                                                "DOWN:   0B/s", "Hosts Online:   2"));
    });
}

TEST_F(panel_test, a_key_that_is_gone_or_no_string_keeps_its_last_value) {
    in_own_devices([&] {
        set("cpu.load", "80");
        set("mem.load", "37");
        set("host.num", "12");
        const std::string screen = node_after_run();
        object_delete(object_lookup("cpu.load"));
        object_delete(object_lookup("mem.load"));
        object_reset();
        make("mem.load", OBJ_THASH);
        make("host.num", OBJ_TLIST);
        EXPECT_EQ(node_after_run(), screen);
        EXPECT_EQ(screen, screen_text("CPU : 40% MEM:  37%", "UP  :   0B/s", "DOWN:   0B/s",
                                      "Hosts Online:  12"));
    });
}

TEST_F(panel_test, a_string_without_value_is_zero) {
    in_own_devices([&] {
        for (const char* key : {"cpu.load", "mem.load", "host.num"}) {
            set(key, "80");
        }
        EXPECT_EQ(node_after_run(), screen_text("CPU : 40% MEM:  80%", "UP  :   0B/s",
                                                "DOWN:   0B/s", "Hosts Online:  80"));
        object_reset();
        for (const char* key : {"cpu.load", "mem.load", "host.num"}) {
            make(key, OBJ_TSTRING);
        }
        EXPECT_EQ(node_after_run(), screen_text("CPU :  0% MEM:   0%", "UP  :   0B/s",
                                                "DOWN:   0B/s", "Hosts Online:   0"));
    });
}

TEST_F(panel_test, the_lan_interfaces_rates_are_shown) {
    in_own_devices([&] {
        set("sys.lan", "br-lan");
        hset("br-lan", "rxbrate", "1000");
        hset("br-lan", "txbrate", "1500000");
        EXPECT_EQ(node_after_run(), screen_text("CPU :  0% MEM:   0%", "UP  :   1KB/s",
                                                "DOWN: 1.50MB/s", "Hosts Online:   0"));
        hset("br-lan", "rxbrate", "999");
        hset("br-lan", "txbrate", "999999");
        EXPECT_EQ(node_after_run(), screen_text("CPU :  0% MEM:   0%", "UP  : 999B/s",
                                                "DOWN: 999KB/s", "Hosts Online:   0"));
    });
}

TEST_F(panel_test, a_later_interface_overrides_an_earlier_one_field_by_field) {
    in_own_devices([&] {
        hset("eth0", "rxbrate", "1");
        hset("eth0", "txbrate", "2");
        hset("eth1", "rxbrate", "3");
        hset("eth2", "other", "4");
        make("eth3", OBJ_TLIST);
        set("sys.lan", "eth0:eth1:eth2:eth3:eth4");
        EXPECT_EQ(node_after_run(), screen_text("CPU :  0% MEM:   0%", "UP  :   3B/s",
                                                "DOWN:   2B/s", "Hosts Online:   0"));
    });
}

TEST_F(panel_test, the_list_of_interfaces_is_cut_in_the_store_by_its_first_use) {
    in_own_devices([&] {
        hset("eth0", "rxbrate", "1");
        hset("eth1", "rxbrate", "3");
        set("sys.lan", "eth0:eth1:eth2");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   3B/s\n"));
        const object* lan = object_lookup("sys.lan");
        EXPECT_STREQ(lan->string, "eth0");
        EXPECT_EQ(bytes_of(lan->string), std::string_view("eth0\0eth1\0eth2", 14));
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   1B/s\n"))
            << "only the first is left";
        set("sys.lan", "eth0:eth1:eth2");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   3B/s\n"));
    });
}

TEST_F(panel_test, empty_names_in_the_list_are_no_interfaces) {
    in_own_devices([&] {
        hset("", "rxbrate", "9");
        hset("eth1", "rxbrate", "3");
        set("sys.lan", "::eth1::");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   3B/s\n"));
    });
}

TEST_F(panel_test, rates_are_zero_when_no_listed_interface_is_there) {
    in_own_devices([&] {
        hset("eth0", "rxbrate", "5");
        hset("eth0", "txbrate", "6");
        set("sys.lan", "eth0");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   5B/s\nDOWN:   6B/s\n"));
        set("sys.lan", "gone");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   0B/s\nDOWN:   0B/s\n"));
        set("sys.lan", "eth0");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   5B/s\nDOWN:   6B/s\n"));
        set("sys.lan", "");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   0B/s\nDOWN:   0B/s\n"));
    });
}

TEST_F(panel_test, without_a_usable_list_the_shown_rates_stay) {
    in_own_devices([&] {
        hset("eth0", "rxbrate", "5");
        hset("eth0", "txbrate", "6");
        set("sys.lan", "eth0");
        node_after_run();
        object_reset();
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   5B/s\nDOWN:   6B/s\n"));
        make("sys.lan", OBJ_TSTRING);
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   5B/s\nDOWN:   6B/s\n"))
            << "no value";
        object_reset();
        make("sys.lan", OBJ_THASH);
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   5B/s\nDOWN:   6B/s\n"))
            << "no string";
    });
}

TEST_F(panel_test, keys_of_the_rates_names_are_not_shown_by_themselves) {
    in_own_devices([&] {
        set("rxbrate", "77");
        set("txbrate", "78");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   0B/s\nDOWN:   0B/s\n"));
        set("sys.lan", "eth0");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  :   0B/s\nDOWN:   0B/s\n"));
    });
}

TEST_F(panel_test, a_rate_beyond_32_bits_saturates) {
    in_own_devices([&] {
        hset("eth0", "rxbrate", "4294967295");
        hset("eth0", "txbrate", "99999999999999999999");
        set("sys.lan", "eth0");
        EXPECT_THAT(node_after_run(), testing::HasSubstr("UP  : 2147.48MB/s\nDOWN: 2147.48MB/s\n"));
    });
}

TEST_F(panel_test, a_node_comes_before_a_serial_panel) {
    in_own_devices([&] {
        serial_device();
        EXPECT_NE(node_after_run(), "");
        EXPECT_EQ(read_all(terminal), "");
        EXPECT_EQ(content("/srv/calls"), "");
        /* And stays chosen. */
        unlink("/dev/st7565");
        log.start(LOG_DEBUG);
        EXPECT_EQ(sent_by_run(), "");
        EXPECT_THAT(log.lines(), ElementsAre("error *** open (/dev/st7565) failed."));
    });
}

TEST_F(panel_test, an_unavailable_node_is_logged_on_each_run_and_used_when_it_comes_back) {
    in_own_devices([&] {
        EXPECT_NE(node_after_run(), "");
        unlink("/dev/st7565");
        log.start(LOG_DEBUG);
        lcd_ontimer(nullptr);
        lcd_ontimer(nullptr);
        EXPECT_THAT(log.lines(), ElementsAre("error *** open (/dev/st7565) failed.",
                                             "error *** open (/dev/st7565) failed."));
        EXPECT_NE(node_after_run(), "");
        log.start(LOG_FATAL);
        unlink("/dev/st7565");
        lcd_ontimer(nullptr);
        EXPECT_THAT(log.lines(), IsEmpty());
    });
}

TEST_F(panel_test, a_node_that_nobody_reads_holds_nobody_up) {
    in_own_devices([&] {
        ASSERT_EQ(mkfifo("/dev/st7565", 0600), 0);
        const auto start = std::chrono::steady_clock::now();
        lcd_ontimer(nullptr);
        EXPECT_THAT(log.lines(), ElementsAre("error *** open (/dev/st7565) failed."));
        const int reader = open("/dev/st7565", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        for (int i = 0; i < 1000; i++) {
            lcd_ontimer(nullptr);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        const std::string all = read_all(reader);
        EXPECT_EQ(all.size() % 128, 0u);
        EXPECT_EQ(all.substr(0, 128), screen_text("CPU :  0% MEM:   0%", "UP  :   0B/s",
                                                  "DOWN:   0B/s", "Hosts Online:   0"));
    });
}

TEST_F(panel_test, a_node_that_may_not_be_written_is_none) {
    in_own_devices([&] {
        /* Even an administrator cannot write where nothing can be written. */
        ASSERT_EQ(mkdir("/srv/ro", 0755), 0);
        ASSERT_TRUE(cover("/srv/ro"));
        std::ofstream("/srv/ro/node").close();
        ASSERT_EQ(symlink("/srv/ro/node", "/dev/st7565"), 0);
        ASSERT_EQ(mount(nullptr, "/srv/ro", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        lcd_ontimer(nullptr);
        EXPECT_THAT(log.lines(), IsEmpty());
        serial_device();
        EXPECT_EQ(sent_by_run().substr(0, 4), CLEAR);
    });
}

/* --- Whether there is a serial panel --- */

TEST_F(panel_test, without_the_systems_hash_the_question_stays_open) {
    in_own_devices([&] {
        set_raw();
        attach("/dev/ttyS0");
        set_model("KT7010");
        for (int i = 0; i < 5; i++) {
            EXPECT_EQ(sent_by_run(), "");
        }
        make("sys.lan", OBJ_TSTRING);
        EXPECT_EQ(sent_by_run(), "");
        EXPECT_EQ(content("/srv/calls"), "");
        hset("sys", "pnp", "LCD");
        EXPECT_EQ(sent_by_run().size(), 4u + 91u);
    });
}

TEST_F(panel_test, a_key_of_the_systems_name_that_is_no_hash_leaves_the_question_open) {
    in_own_devices([&] {
        set("sys", "LCD");
        EXPECT_EQ(sent_by_run(), "");
        object_reset();
        make("sys", OBJ_TLIST);
        EXPECT_EQ(sent_by_run(), "");
        object_reset();
        serial_device();
        EXPECT_EQ(sent_by_run().size(), 4u + 91u);
    });
}

TEST_F(panel_test, a_node_may_appear_while_the_question_is_open) {
    in_own_devices([&] {
        lcd_ontimer(nullptr);
        lcd_ontimer(nullptr);
        EXPECT_NE(node_after_run(), "");
    });
}

TEST_F(panel_test, a_system_without_pnp_has_no_panel_for_good) {
    in_own_devices([&] {
        hset("sys", "other", "LCD");
        EXPECT_EQ(sent_by_run(), "");
        serial_device();
        EXPECT_EQ(sent_by_run(), "");
        EXPECT_EQ(content("/srv/calls"), "");
        EXPECT_EQ(node_after_run(), "") << "not even a node is used any more";
        EXPECT_THAT(log.lines(), testing::Not(testing::Contains(testing::HasSubstr("open ("))));
    });
}

TEST_F(panel_test, anything_but_lcd_is_no_panel) {
    using namespace std::string_view_literals;
    for (const std::string_view pnp :
         {""sv, "lcd"sv, "LCD "sv, "LCD2"sv, "LC"sv, " LCD"sv, "LCD\0"sv, "LCD\0 panel"sv}) {
        SCOPED_TRACE(pnp);
        in_own_devices([&] {
            hset("sys", "pnp", pnp);
            EXPECT_EQ(sent_by_run(), "");
            serial_device();
            EXPECT_EQ(sent_by_run(), "");
        });
    }
}

TEST_F(panel_test, the_models_port_is_asked_of_the_configuration_tool) {
    in_own_devices([&] {
        serial_device();
        sent_by_run();
        sent_by_run();
        EXPECT_EQ(content("/srv/calls"), "get product_params.vendor.standardtype\n") << "once";
    });
}

TEST_F(panel_test, the_model_tells_the_port) {
    const std::pair<const char*, const char*> models[] = {
        {"KT7010", "/dev/ttyS0"},
        {"KT7020", "/dev/ttyS0"},
        {"KT7030-B\n", "/dev/ttyS0"},
        {"\n  KT7040 KT7", "/dev/ttyS0"},
        {"KQM810x", "/dev/ttyS0"},
        {"KQM820", "/dev/ttyS0"},
        {"KT7", "/dev/ttyS1"},
        {"KT701", "/dev/ttyS1"},
        {"KT7050", "/dev/ttyS1"},
        {"KQM830", "/dev/ttyS1"},
        {"kt7010", "/dev/ttyS1"},
        {"XKT7010", "/dev/ttyS1"},
        {"", "/dev/ttyS1"},
        {"a-name-that-is-far-longer-than-any-KT7010-would-be", "/dev/ttyS1"},
        {"KT7010-and-a-name-that-is-far-longer-than-fifteen", "/dev/ttyS0"},
    };
    for (const auto& [model, port] : models) {
        SCOPED_TRACE(model);
        in_own_devices([&, model = model, port = port] {
            serial_device(model, port);
            EXPECT_EQ(sent_by_run().size(), 4u + 91u);
        });
    }
}

TEST_F(panel_test, without_an_answer_the_panel_is_on_the_second_port) {
    in_own_devices([&] {
        serial_device("", "/dev/ttyS1");
        unlink("/srv/uci");
        EXPECT_EQ(errors_of_run(), "") << "the tool's complaints go nowhere";
        EXPECT_EQ(read_all(terminal).size(), 4u + 91u);
    });
}

TEST_F(panel_test, a_tool_that_does_not_end_gives_no_answer) {
    in_own_devices([&] {
        serial_device("", "/dev/ttyS1");
        std::ofstream("/srv/uci") << "#!/bin/sh\necho KT7010\n: >/srv/late\nexec sleep 7\n";
        log.start(LOG_WARN);
        {
            const late_clock clock("/srv/late");
            EXPECT_EQ(sent_by_run().size(), 4u + 91u);
        }
        EXPECT_THAT(log.lines(),
                    ElementsAre("warn  *** outside tool (uci get "
                                "product_params.vendor.standardtype) has not ended after 5 "
                                "seconds and is killed"));
    });
}

TEST_F(panel_test, a_tool_that_writes_for_ever_holds_nobody_up) {
    for (const char* output :
         {"yes KT7010", "yes ''", "yes | tr -d '\\n'", "yes | tr 'y\\n' '\\000\\000'"}) {
        SCOPED_TRACE(output);
        in_own_devices([&] {
            serial_device();
            std::ofstream("/srv/uci") << "#!/bin/sh\n" << output << "\n";
            /* Ends the test when the run never does. */
            alarm(15);
            errors_of_run();
            alarm(0);
        });
    }
}

/* --- The serial panel --- */

TEST_F(panel_test, a_serial_panel_is_cleared_once_and_gets_a_frame_with_each_run) {
    in_own_devices([&] {
        serial_device();
        set("cpu.load", "80");
        set("mem.load", "37");
        set("host.num", "12");
        const std::string frame = screen_frame("CPU : 40% MEM:  37%", "UP  :   0B/s",
                                               "DOWN:   0B/s", "Hosts Online:  12");
        EXPECT_EQ(sent_by_run(), CLEAR + frame);
        EXPECT_EQ(sent_by_run(), frame);
        EXPECT_EQ(frame.substr(85, 2), "\xAA\xD0");
        hset("lan", "rxbrate", "4000000000");
        hset("lan", "txbrate", "20000");
        set("sys.lan", "lan");
        set("cpu.load", "99999999999");
        EXPECT_EQ(sent_by_run(), screen_frame("CPU : 1073741823% ME", "UP  : 2147.48MB/s",
                                              "DOWN:  20KB/s", "Hosts Online:  12"));
    });
}

TEST_F(panel_test, the_line_is_set_to_9600_baud_eight_bits_no_parity_one_stop_bit) {
    in_own_devices([&] {
        hset("sys", "pnp", "LCD");
        set_model("KT7030-B");
        termios other = settings();
        cfmakeraw(&other);
        other.c_cflag |= CS7 | CSTOPB | PARENB;
        other.c_cflag &= ~static_cast<tcflag_t>(CS8 & ~CS7);
        other.c_iflag &= ~static_cast<tcflag_t>(INPCK);
        other.c_iflag |= IXON;
        other.c_cflag |= CRTSCTS | CLOCAL;
        other.c_lflag |= ECHO | ICANON;
        other.c_oflag |= OPOST;
        other.c_cc[VMIN] = 1;
        other.c_cc[VTIME] = 0;
        cfsetispeed(&other, B115200);
        cfsetospeed(&other, B115200);
        ASSERT_EQ(tcsetattr(line, TCSANOW, &other), 0);
        attach("/dev/ttyS0");
        const termios before = settings();
        EXPECT_EQ(before.c_cflag & (CRTSCTS | CLOCAL), CRTSCTS | CLOCAL);
        EXPECT_EQ(errors_of_run(), "");
        const termios now = settings();
        EXPECT_EQ(now.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
        EXPECT_EQ(now.c_cflag & CSTOPB, 0u);
        EXPECT_EQ(now.c_cflag & PARENB, 0u);
        EXPECT_EQ(now.c_cc[VMIN], 0);
        EXPECT_EQ(now.c_cc[VTIME], 150);
        EXPECT_EQ(cfgetispeed(&now), static_cast<speed_t>(B9600));
        EXPECT_EQ(cfgetospeed(&now), static_cast<speed_t>(B9600));

        /* What is not named is left alone. */
        const auto others = ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB | CBAUD);
        EXPECT_EQ(now.c_cflag & others, before.c_cflag & others);
        EXPECT_EQ(now.c_iflag, before.c_iflag | INPCK);
        EXPECT_EQ(now.c_oflag, before.c_oflag);
        EXPECT_EQ(now.c_lflag, before.c_lflag);
        for (int i = 0; i < NCCS; i++) {
            if (i != VMIN && i != VTIME) {
                EXPECT_EQ(now.c_cc[i], before.c_cc[i]) << i;
            }
        }
    });
}

TEST_F(panel_test, size_parity_and_stop_bits_are_set_before_the_speed) {
    in_own_devices([&] {
        serial_device();
        watched.on = true;
        EXPECT_EQ(sent_by_run().size(), 4u + 91u);
        watched.on = false;
        ASSERT_EQ(watched.set.size(), 2u);
        EXPECT_EQ(watched.set[0].c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
        EXPECT_EQ(watched.set[0].c_cflag & (CSTOPB | PARENB), 0u);
        EXPECT_EQ(watched.set[0].c_iflag & INPCK, static_cast<tcflag_t>(INPCK));
        EXPECT_EQ(watched.set[0].c_cc[VMIN], 0);
        EXPECT_EQ(watched.set[0].c_cc[VTIME], 150);
        EXPECT_NE(cfgetospeed(&watched.set[0]), static_cast<speed_t>(B9600));
        EXPECT_EQ(cfgetispeed(&watched.set[1]), static_cast<speed_t>(B9600));
        EXPECT_EQ(cfgetospeed(&watched.set[1]), static_cast<speed_t>(B9600));
        EXPECT_THAT(watched.calls,
                    ElementsAre("get", "drop input", "set", "get", "drop both", "set"));
    });
}

TEST_F(panel_test, the_port_is_opened_to_read_and_write_and_not_waited_for) {
    in_own_devices([&] {
        serial_device();
        watched.on = true;
        sent_by_run();
        watched.on = false;
        EXPECT_EQ(watched.flags & O_ACCMODE, O_RDWR);
        EXPECT_NE(watched.flags & O_NONBLOCK, 0);
    });
}

TEST_F(panel_test, a_line_that_runs_at_9600_baud_is_set_once) {
    for (const bool input_speed : {true, false}) {
        in_own_devices([&] {
            serial_device();
            set_speed(B9600);
            watched.on = true;
            watched.input_speed = input_speed;
            const termios seen = settings();
            EXPECT_EQ(cfgetispeed(&seen) == cfgetospeed(&seen), input_speed);
            watched.calls.clear();
            EXPECT_EQ(sent_by_run().size(), 4u + 91u);
            watched.on = false;
            EXPECT_THAT(watched.calls, ElementsAre("get", "drop input", "set", "get"))
                << "what counts is the speed of what is sent";
        });
    }
}

TEST_F(panel_test, what_came_in_before_the_line_was_set_is_gone) {
    in_own_devices([&] {
        serial_device();
        set_speed(B9600);
        ASSERT_EQ(write(terminal, "typed", 5), 5);
        pollfd waiting = {line, POLLIN, 0};
        ASSERT_EQ(poll(&waiting, 1, 10000), 1);
        EXPECT_EQ(sent_by_run().size(), 4u + 91u);
        EXPECT_EQ(poll(&waiting, 1, 0), 0);
    });
}

TEST_F(panel_test, settings_that_are_refused_get_their_message_and_the_port_is_used) {
    const std::pair<int, const char*> failures[] = {{1, "SetupSerial 3: Input/output error\n"},
                                                    {2, "tcsetattr fd: Input/output error\n"}};
    for (const auto& [number, message] : failures) {
        in_own_devices([&, number = number, message = message] {
            serial_device();
            watched = {true, number, {}};
            EXPECT_EQ(errors_of_run(), message);
            EXPECT_EQ(watched.set.size(), 2u) << "the speed is set in any case";
            watched.on = false;
            EXPECT_EQ(read_all(terminal).size(), 4u + 91u);
        });
    }
}

TEST_F(panel_test, a_port_that_is_no_terminal_gets_its_message_and_is_used) {
    in_own_devices([&] {
        hset("sys", "pnp", "LCD");
        set_model("KT7030-B");
        std::ofstream("/dev/ttyS0").close();
        EXPECT_EQ(errors_of_run(), "SetupSerial 1: Inappropriate ioctl for device\n");
        /* The frame is written over the clear command: each opening of a file begins at its start.
         */
        const std::string frame = screen_frame("CPU :  0% MEM:   0%", "UP  :   0B/s",
                                               "DOWN:   0B/s", "Hosts Online:   0");
        EXPECT_EQ(content("/dev/ttyS0"), frame);
        EXPECT_EQ(errors_of_run(), "");
    });
}

TEST_F(panel_test, a_port_that_cannot_be_opened_is_tried_again_from_the_start) {
    in_own_devices([&] {
        hset("sys", "pnp", "LCD");
        set_model("KT7030-B");
        EXPECT_EQ(errors_of_run(), "Can't Open x86_LCD Port.: No such file or directory\n");
        EXPECT_EQ(errors_of_run(), "Can't Open x86_LCD Port.: No such file or directory\n");
        EXPECT_THAT(log.lines(), testing::Not(testing::Contains(testing::HasSubstr("open ("))));
        EXPECT_EQ(content("/srv/calls"), "get product_params.vendor.standardtype\n"
                                         "get product_params.vendor.standardtype\n");
        /* The model may be known better by then. */
        set_model("KT7");
        set_raw();
        attach("/dev/ttyS1");
        EXPECT_EQ(sent_by_run().size(), 4u + 91u);
    });
}

TEST_F(panel_test, while_a_port_cannot_be_opened_a_node_may_appear) {
    in_own_devices([&] {
        hset("sys", "pnp", "LCD");
        EXPECT_EQ(errors_of_run(), "Can't Open x86_LCD Port.: No such file or directory\n");
        EXPECT_NE(node_after_run(), "");
    });
}

TEST_F(panel_test, while_a_port_cannot_be_opened_the_panel_may_be_denied_for_good) {
    in_own_devices([&] {
        hset("sys", "pnp", "LCD");
        EXPECT_EQ(errors_of_run(), "Can't Open x86_LCD Port.: No such file or directory\n");
        hset("sys", "pnp", "none");
        EXPECT_EQ(errors_of_run(), "");
        hset("sys", "pnp", "LCD");
        EXPECT_EQ(errors_of_run(), "");
    });
}

TEST_F(panel_test, a_chosen_port_that_goes_away_is_logged_and_used_when_it_comes_back) {
    in_own_devices([&] {
        serial_device();
        sent_by_run();
        ASSERT_EQ(umount2("/dev/ttyS0", MNT_DETACH), 0);
        unlink("/dev/ttyS0");
        log.start(LOG_DEBUG);
        EXPECT_EQ(errors_of_run(), "");
        EXPECT_THAT(log.lines(), ElementsAre("error *** open (/dev/ttyS0) failed."));
        attach("/dev/ttyS0");
        EXPECT_EQ(sent_by_run().size(), 91u) << "not cleared again";
    });
}

TEST_F(panel_test, a_panel_that_stops_reading_holds_nobody_up) {
    in_own_devices([&] {
        log.start(LOG_INFO);
        serial_device();
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 3000; i++) {
            ASSERT_EQ(lcd_ontimer(nullptr), 0);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        const std::string first = read_all(terminal);
        EXPECT_LT(first.size(), 4u + 3000u * 91u) << "screens that were not taken are lost";
        EXPECT_THAT(log.lines(), IsEmpty());
        /* Once it reads again, whole frames come. */
        sent_by_run();
        EXPECT_EQ(sent_by_run(), screen_frame("CPU :  0% MEM:   0%", "UP  :   0B/s", "DOWN:   0B/s",
                                              "Hosts Online:   0"));
    });
}

TEST_F(panel_test, the_port_stays_open_until_the_next_run_for_the_screen_to_go_out) {
    in_own_devices([&] {
        serial_device();
        watched.on = true;
        lcd_ontimer(nullptr);
        EXPECT_THAT(watched.port, ElementsAre("open", "open to write", "close"))
            << "the clear command goes out too: the port is open all the time";
        watched.port.clear();
        lcd_ontimer(nullptr);
        EXPECT_THAT(watched.port, ElementsAre("drop", "open to write", "close"))
            << "what is there three seconds later does not go out any more";
        watched.port.clear();
        lcd_ontimer(nullptr);
        EXPECT_THAT(watched.port, ElementsAre("drop", "open to write", "close"));
        watched.on = false;
    });
}

TEST_F(panel_test, a_port_that_cannot_be_opened_again_is_closed_and_nothing_dropped_later) {
    in_own_devices([&] {
        serial_device();
        sent_by_run();
        ASSERT_EQ(umount2("/dev/ttyS0", MNT_DETACH), 0);
        unlink("/dev/ttyS0");
        watched.on = true;
        lcd_ontimer(nullptr);
        const std::vector<std::string> first = watched.port;
        lcd_ontimer(nullptr);
        watched.on = false;
        EXPECT_THAT(first, testing::Contains("drop"));
        EXPECT_EQ(first.back(), "close");
        EXPECT_EQ(std::count(first.begin(), first.end(), "close"), 1);
        EXPECT_EQ(watched.port, first) << "nothing is left for the second run";
    });
}

TEST_F(panel_test, a_start_closes_the_port_of_an_earlier_one) {
    in_own_devices([&] {
        serial_device();
        sent_by_run();
        watched.on = true;
        module_lcd_start();
        watched.on = false;
        EXPECT_THAT(watched.port, ElementsAre("drop", "close"));
    });
}

TEST_F(panel_test, the_port_does_not_become_the_controlling_terminal) {
    in_own_devices([&] {
        serial_device();
        setsid();
        sent_by_run();
        const std::string stat = content("/proc/self/stat");
        int group = -1;
        int session = -1;
        int controlling = -1;
        ASSERT_EQ(sscanf(stat.c_str() + stat.rfind(')') + 1, " %*c %*d %d %d %d", &group, &session,
                         &controlling),
                  3);
        EXPECT_EQ(controlling, 0);
    });
}

TEST_F(panel_test, no_descriptor_but_the_ports_is_left_open) {
    in_own_devices([&] {
        const auto count = [] {
            int open_now = 0;
            for (int fd = 0; fd < 1024; fd++) {
                open_now += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
            }
            return open_now;
        };
        const int before = count();
        hset("sys", "pnp", "LCD");
        for (int i = 0; i < 10; i++) {
            errors_of_run();
        }
        EXPECT_EQ(count(), before + 10) << "the test's own ten pipes";
        serial_device();
        for (int i = 0; i < 10; i++) {
            sent_by_run();
        }
        EXPECT_EQ(count(), before + 10 + 1);
    });
}

TEST_F(panel_test, is_looked_after_every_three_seconds) {
    in_own_devices([&] {
        ASSERT_EQ(mkfifo("/dev/st7565", 0600), 0);
        ASSERT_NE(loop_init(1024, LOOP_SELECT), 0);
        module_lcd_start();
        std::vector<int> looked;
        run_loop_by_tenths(95, [&](int tenth) {
            if (!log.lines().empty()) {
                EXPECT_THAT(log.lines(), ElementsAre("error *** open (/dev/st7565) failed."));
                looked.push_back(tenth);
                log.start(LOG_DEBUG);
            }
        });
        EXPECT_THAT(looked, ElementsAre(30, 60, 90));
    });
}
