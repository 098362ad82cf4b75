#include "ctl/ctl_board.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/unit/ctl/ring_value.h"
#include "tests/unit/ctl/text_screen.h"
#include "tests/unit/ctl/text_stream.h"

namespace {

class tessctl_board : public ::testing::Test {
  protected:
    tessctl_board() : board(std::make_unique<ctl_board>()) {
        board->address = "/tmp/tessard.sock";
        board->clock = "14:07:31";
    }

    ctl_gauge* add(const std::string& name, const char* suffix, ctl_unit unit,
                   const std::vector<uint32_t>& samples) {
        ctl_gauge* gauge = &board->gauges[board->count++];
        ctl_gauge_init(gauge, text_of(name), suffix, unit);
        for (uint32_t sample : samples) {
            ctl_gauge_push(gauge, sample);
        }
        gauge->known = !samples.empty();
        gauge->value = samples.empty() ? 0 : samples.back();
        return gauge;
    }

    /* The screen's lines, blanks at their ends taken off. */
    std::vector<std::string> draw(unsigned width, unsigned height, bool utf8 = false) {
        stream out;
        ctl_board_draw(out, board.get(), width, height, utf8);
        text_screen screen(width, height);
        screen.write(out.text());
        EXPECT_EQ(screen.faults(), "");
        EXPECT_TRUE(screen.whole());
        return screen.lines();
    }

    std::unique_ptr<ctl_board> board;
};

typedef std::vector<std::string> lines;

TEST_F(tessctl_board, says_where_the_daemon_is_and_how_to_quit) {
    EXPECT_EQ(draw(50, 1), lines{"tessard at /tmp/tessard.sock    14:07:31   q quits"});
    EXPECT_EQ(draw(47, 1), lines{"tessard at /tmp/tessard.sock 14:07:31   q quits"});
    EXPECT_EQ(draw(46, 1), lines{"tessard at /tmp/tessard.sock"});
    EXPECT_EQ(draw(10, 1), lines{"tessard at"});
    board->address = "::1";
    board->port = 7000;
    EXPECT_EQ(draw(40, 1), lines{"tessard at ::1 port 7000"});
}

TEST_F(tessctl_board, gives_each_figure_four_lines_where_there_is_room) {
    add("CPU", "", CTL_UNIT_PERCENT, {0, 25, 50, 100, 73});
    EXPECT_EQ(draw(33, 5),
              (lines{"tessard at /tmp/tessard.sock", "CPU                 73 %       #",
                     "         peak      100 %       ##", "                              ###",
                     "                            _####"}));
}

TEST_F(tessctl_board, gives_each_figure_fewer_lines_where_there_is_less_room) {
    add("CPU", "", CTL_UNIT_PERCENT, {50, 100});
    add("Memory", "", CTL_UNIT_PERCENT, {10, 41});
    const std::string head = "tessard at /tmp/tessard.sock";
    const std::string cpu = "CPU                100 %        #";
    const std::string cpu_below = "         peak      100 %       ##";
    const std::string mem = "Memory              41 %";
    const std::string mem_below = "         peak       41 %       .#";
    EXPECT_EQ(draw(33, 6), (lines{head, cpu, cpu_below, "", mem, mem_below}));
    EXPECT_EQ(draw(33, 5), (lines{head, cpu, cpu_below, mem, mem_below}));
    EXPECT_EQ(draw(33, 4), (lines{head, "CPU                100 %       :#",
                                  "Memory              41 %       .:", ""}));
    EXPECT_EQ(draw(33, 3), (lines{head, "CPU                100 %       :#",
                                  "Memory              41 %       .:"}));
    EXPECT_EQ(draw(33, 2), (lines{head, "and 2 more"}));
    EXPECT_EQ(draw(33, 1), lines{head});
}

TEST_F(tessctl_board, counts_what_it_leaves_out) {
    for (const char* name : {"a", "b", "c", "d"}) {
        add(name, "", CTL_UNIT_COUNT, {});
    }
    EXPECT_EQ(draw(20, 4), (lines{"tessard at /tmp/tess", "a", "b", "and 2 more"}));
    board->left_out = 6;
    EXPECT_EQ(draw(20, 6), (lines{"tessard at /tmp/tess", "a", "b", "c", "d", "and 6 more"}));
    EXPECT_EQ(draw(20, 4), (lines{"tessard at /tmp/tess", "a", "b", "and 8 more"}));
}

TEST_F(tessctl_board, shows_values_in_their_units) {
    add("CPU", "", CTL_UNIT_PERCENT, {100});
    add("Connections", "", CTL_UNIT_COUNT, {4294967295});
    add("Hosts", "", CTL_UNIT_COUNT, {});
    add("eth0", " rx", CTL_UNIT_RATE, {999});
    add("eth0", " tx", CTL_UNIT_RATE, {1000});
    add("br-lan", " rx", CTL_UNIT_RATE, {999999});
    add("br-lan", " tx", CTL_UNIT_RATE, {4294967295});
    EXPECT_EQ(draw(32, 8), (lines{"tessard at /tmp/tessard.sock", "CPU                100 %",
                                  "Connections   4294967295", "Hosts                  -",
                                  "eth0 rx          999 B/s", "eth0 tx         1.0 kB/s",
                                  "br-lan rx     999.9 kB/s", "br-lan tx       4.2 GB/s"}));
}

TEST_F(tessctl_board, cuts_long_names_but_not_what_tells_them_apart) {
    add("pppoe-wan1", " rx", CTL_UNIT_RATE, {1});
    add("pppoe-wan12", " tx", CTL_UNIT_RATE, {1});
    add(std::string(200, 'x'), "", CTL_UNIT_COUNT, {1});
    EXPECT_EQ(draw(32, 4), (lines{"tessard at /tmp/tessard.sock", "pppoe-wan1 rx      1 B/s",
                                  "pppoe-wan~ tx      1 B/s", "xxxxxxxxxxxx~          1"}));
}

TEST_F(tessctl_board, lets_no_name_touch_the_terminal) {
    add("\x1b[2J\n\xff", " rx", CTL_UNIT_RATE, {});
    board->address = "/tmp/\x1b[1mx";
    EXPECT_EQ(draw(32, 2), (lines{"tessard at /tmp/?[1mx", "?[2J?? rx              -"}));
}

TEST_F(tessctl_board, shows_the_last_samples_at_the_right) {
    std::vector<uint32_t> samples;
    for (uint32_t i = 0; i < 300; i++) {
        samples.push_back(i < 292 ? 1000000 : i == 299 ? 0 : 2);
    }
    ctl_gauge* gauge = add("Hosts", "", CTL_UNIT_COUNT, samples);
    EXPECT_EQ(gauge->count, 256U);
    /* The peak is that of the samples which are seen, and the scale ends at 4. */
    EXPECT_EQ(draw(33, 3), (lines{"tessard at /tmp/tessard.sock", "Hosts                  0",
                                  "         peak          2 #######_"}));
    EXPECT_EQ(draw(33, 3, true)[2], "         peak          2 ███████_");
}

TEST_F(tessctl_board, has_no_plot_where_it_would_say_nothing) {
    add("Hosts", "", CTL_UNIT_COUNT, {4, 4, 4});
    EXPECT_EQ(draw(33, 2)[1], "Hosts                  4      ###");
    EXPECT_EQ(draw(32, 2)[1], "Hosts                  4");
    EXPECT_EQ(draw(24, 2)[1], "Hosts                  4");
    EXPECT_EQ(draw(23, 2)[1], "Hosts");
    EXPECT_EQ(draw(3, 2)[1], "Hos");
}

TEST_F(tessctl_board, leaves_out_a_figure_that_does_not_fit_whole) {
    add("Hosts", "", CTL_UNIT_COUNT, {281});
    EXPECT_EQ(draw(24, 2)[1], "Hosts                281");
    EXPECT_EQ(draw(23, 2)[1], "Hosts");
    EXPECT_EQ(draw(22, 2)[1], "Hosts");
}

TEST_F(tessctl_board, never_breaks_a_line) {
    for (const char* name : {"CPU", "Memory", "a-very-long-name-of-something", ""}) {
        add(name, " rx", CTL_UNIT_RATE, std::vector<uint32_t>(256, 4000000000));
        add(name, " tx", CTL_UNIT_PERCENT, std::vector<uint32_t>(1, 255));
    }
    board->left_out = 3;
    for (unsigned width = 1; width < 300; width += width < 90 ? 1 : 37) {
        for (unsigned height : {1U, 2U, 3U, 9U, 18U, 24U, 59U}) {
            for (bool utf8 : {false, true}) {
                ASSERT_EQ(draw(width, height, utf8).size(), height) << width << " columns";
            }
        }
    }
}

TEST_F(tessctl_board, takes_the_last_samples_of_a_series) {
    ctl_gauge* gauge = add("eth0", " tx", CTL_UNIT_RATE, {1, 2, 3});
    const std::string value =
        ring_of_numbers({1, 1, 3, 3, 1}, {9, 9, 30, 9, 9, 9, 10, 9, 9, 9, 20, 9});
    const std::string key = "eth0.10m";
    ctl_series series;
    ASSERT_EQ(ctl_series_decode(text_of(key), text_of(value), &series), nullptr);
    ctl_gauge_take(gauge, &series, 2);
    EXPECT_EQ(std::vector<uint32_t>(gauge->samples, gauge->samples + gauge->count),
              (std::vector<uint32_t>{10, 20, 30}));

    std::string long_ring;
    for (int i = 0; i < 600; i++) {
        long_ring += static_cast<char>(i % 101);
    }
    const std::string cpu = ring_of_bytes({1, 1, 600, 600, 0}, long_ring);
    const std::string cpu_key = "cpu.10m";
    ASSERT_EQ(ctl_series_decode(text_of(cpu_key), text_of(cpu), &series), nullptr);
    ctl_gauge_take(gauge, &series, 0);
    ASSERT_EQ(gauge->count, 256U);
    EXPECT_EQ(gauge->samples[255], 599U % 101);
    EXPECT_EQ(gauge->samples[0], 344U % 101);
}

} // namespace
