#include "ctl/ctl_chart.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/unit/ctl/history_test.h"
#include "tests/unit/ctl/text_stream.h"

namespace {

class tessctl_chart : public history_test {
  protected:
    std::vector<std::string> plot(unsigned width, bool utf8 = false) {
        stream out;
        ctl_chart_draw(out, text_of(key), &s, width, utf8);
        std::vector<std::string> lines;
        std::istringstream text(out.text());
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        return lines;
    }
};

TEST_F(tessctl_chart, says_when_there_are_no_samples_yet) {
    empty();
    EXPECT_EQ(plot(80), std::vector<std::string>{"conn.10m: no samples yet"});
}

TEST_F(tessctl_chart, is_plotted_in_percent_up_to_a_hundred) {
    cpu();
    const std::vector<std::string> lines = plot(20);
    ASSERT_EQ(lines.size(), 19U);
    EXPECT_EQ(lines[0], "cpu.2h: percent, 3 samples");
    EXPECT_EQ(lines[1], "   100 +####");
    EXPECT_EQ(lines[2], "       |####");
    EXPECT_EQ(lines[5], "    75 +####");
    EXPECT_EQ(lines[9], "    50 +####");
    EXPECT_EQ(lines[13], "    25 +####");
    /* 7 of 100 is 3.36 of the 48 thirds of the bar's height. */
    EXPECT_EQ(lines[15], "       |####    ....");
    EXPECT_EQ(lines[16], "       |####    ####");
    EXPECT_EQ(lines[17], "     0 +------+----+");
    EXPECT_EQ(lines[18], "        00:12:56");
}

TEST_F(tessctl_chart, is_plotted_once_for_received_and_once_for_transmitted_bytes) {
    interface();
    const std::vector<std::string> lines = plot(80);
    ASSERT_EQ(lines.size(), 22U);
    EXPECT_EQ(lines[0], "eth0.10m: rxb, bytes per second, 2 samples");
    EXPECT_EQ(lines[1], "    8G +");
    EXPECT_EQ(lines[3], "    6G +");
    /* 4294967295 of 8 G is 12.9 of the 24 thirds of the bar's height. */
    EXPECT_EQ(lines[4], "       |" + std::string(36, '.'));
    EXPECT_EQ(lines[5], "    4G +" + std::string(36, '#'));
    /* A rate of 50 on a scale of billions still shows. */
    EXPECT_EQ(lines[8], "       |" + std::string(36, '#') + std::string(36, '.'));
    EXPECT_EQ(lines[9], "     0 +" + std::string(36, '-') + "+" + std::string(34, '-') + "+");
    EXPECT_EQ(lines[10], "        00:13:19" + std::string(24, ' ') + "00:13:20" +
                             std::string(24, ' ') + "00:13:20");
    EXPECT_EQ(lines[11], "eth0.10m: txb, bytes per second, 2 samples");
    EXPECT_EQ(lines[12], "    80 +");
    EXPECT_EQ(lines[13], "       |" + std::string(36, ' ') + std::string(36, '#'));
}

TEST_F(tessctl_chart, condenses_600_samples_to_the_width) {
    std::string samples(600, '\0');
    samples[0] = 100;
    samples[300] = 50;
    samples[599] = 75;
    decode("cpu.10m", ring_of_bytes({1700000000, 1, 600, 600, 0}, samples));
    std::vector<std::string> lines = plot(80);
    ASSERT_EQ(lines.size(), 19U);
    EXPECT_EQ(lines[0], "cpu.10m: percent, 600 samples, maximum of up to 9 in each column");
    EXPECT_EQ(lines[1], "   100 +#");
    EXPECT_EQ(lines[8], "       |#" + std::string(70, ' ') + "#");
    EXPECT_EQ(lines[9], "    50 +#" + std::string(35, ' ') + "#" + std::string(34, ' ') + "#");
    EXPECT_EQ(lines[17], "     0 +" + std::string(36, '-') + "+" + std::string(34, '-') + "+");
    EXPECT_EQ(lines[18], "        00:03:21" + std::string(24, ' ') + "00:08:21" +
                             std::string(24, ' ') + "00:13:20");
    for (const std::string& line : lines) {
        EXPECT_LE(line.size(), 80U);
    }
    EXPECT_EQ(plot(83)[0], "cpu.10m: percent, 600 samples, maximum of 8 in each column");
}

TEST_F(tessctl_chart, has_days_below_a_plot_of_more_than_one) {
    decode("cpu.day", ring_of_bytes({1700000000, 360, 240, 240, 0}, std::string(240, '\1')));
    EXPECT_EQ(plot(80)[18], "        00:19:20" + std::string(24, ' ') + "12:19:20" +
                                std::string(24, ' ') + "00:13:20");
    decode("cpu.mon", ring_of_bytes({1700000000, 2880, 900, 900, 0}, std::string(900, '\1')));
    EXPECT_EQ(plot(80)[18], "        2023-10-16 01:01" + std::string(12, ' ') + "2023-10-31 01:01" +
                                std::string(12, ' ') + "2023-11-15 00:13");
}

TEST_F(tessctl_chart, plots_reports_by_their_numbers) {
    ping();
    const std::vector<std::string> lines = plot(30);
    ASSERT_EQ(lines.size(), 22U);
    EXPECT_EQ(lines[0], "ping3.day: avg, 2 samples of 3 reports");
    EXPECT_EQ(lines[1], "    40 +");
    EXPECT_EQ(lines[10], "        1          2         2");
    EXPECT_EQ(lines[11], "ping3.day: loss, 2 samples of 3 reports");
    EXPECT_EQ(lines[12], "     4 +");
}

TEST_F(tessctl_chart, is_plotted_at_any_width) {
    decode("cpu.10m", ring_of_bytes({1700000000, 1, 600, 600, 0}, std::string(600, '\1')));
    for (unsigned width : {0U, 1U, 8U, 9U, 18U, 500U, 508U, 509U, 65535U, 0xffffffffU}) {
        EXPECT_EQ(plot(width).size(), 19U) << width;
    }
}

} // namespace
