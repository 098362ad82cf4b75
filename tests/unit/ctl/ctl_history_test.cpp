#include "ctl/ctl_history.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "ctl/ctl_form.h"
#include "tests/unit/ctl/ring_value.h"
#include "tests/unit/ctl/text_stream.h"

namespace {

/* 1700000000 is 2023-11-14 22:13:20 in UTC. */
class tessctl_history : public ::testing::Test {
  protected:
    tessctl_history() {
        setenv("TZ", "TEST-2", 1); /* two hours ahead */
        tzset();
    }
    ~tessctl_history() override {
        unsetenv("TZ");
        tzset();
    }

    const ctl_series* decode(const std::string& name, const std::string& bytes) {
        key = name;
        value = bytes;
        EXPECT_EQ(ctl_series_decode(text_of(key), text_of(value), &s), nullptr);
        return &s;
    }

    std::string table() {
        stream out;
        ctl_form_table(out, text_of(key), &s);
        return out.text();
    }
    std::string csv() {
        stream out;
        ctl_form_csv(out, &s);
        return out.text();
    }
    std::string json() {
        stream out;
        ctl_form_json(out, text_of(key), &s);
        return out.text();
    }
    std::vector<std::string> plot(unsigned width, bool utf8 = false) {
        stream out;
        ctl_history_plot(out, text_of(key), &s, width, utf8);
        std::vector<std::string> lines;
        std::istringstream text(out.text());
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    void cpu() {
        decode("cpu.2h", ring_of_bytes({1700000000, 12, 3, 3, 1}, {7, 100, 0}));
    }
    void interface() {
        decode("eth0.10m", ring_of_numbers({1700000000, 1, 3, 2, 2},
                                           {4294967295, 2, 3, 4, 50, 6, 70, 8, 0, 0, 0, 0}));
    }
    void ping() {
        decode("ping3.day",
               ring_of_numbers({1700000000, 3, 2, 2, 0}, {40, 10, 20, 10, 0, 30, 5, 30, 10, 2}));
    }
    void empty() {
        decode("conn.10m", ring_of_numbers({0, 1, 2, 0, 0}, {0, 0}));
    }

    std::string key;
    std::string value;
    ctl_series s;
};

TEST_F(tessctl_history, is_a_table_in_local_time) {
    cpu();
    EXPECT_EQ(table(), "time                    percent\n"
                       "2023-11-15 00:12:56         100\n"
                       "2023-11-15 00:13:08           0\n"
                       "2023-11-15 00:13:20           7\n");
}

TEST_F(tessctl_history, has_a_column_for_each_figure) {
    interface();
    EXPECT_EQ(table(), "time                        rxb         rxp         txb         txp\n"
                       "2023-11-15 00:13:19  4294967295           2           3           4\n"
                       "2023-11-15 00:13:20          50           6          70           8\n");
}

TEST_F(tessctl_history, numbers_ping_samples_and_says_why) {
    ping();
    EXPECT_EQ(table(),
              "ping3.day: a sample is 3 reports, at times not known; numbered from the oldest,\n"
              "the last at 2023-11-15 00:13:20\n"
              "sample         max         min         avg       total        loss\n"
              "     1          40          10          20          10           0\n"
              "     2          30           5          30          10           2\n");
}

TEST_F(tessctl_history, numbers_samples_when_the_last_time_is_not_known) {
    decode("host.10m", ring_of_numbers({0, 1, 2, 1, 1}, {5, 0}));
    EXPECT_EQ(table(), "host.10m: the time of the last sample is not known, so samples are "
                       "numbered from the oldest\n"
                       "sample       hosts\n"
                       "     1           5\n");
    EXPECT_EQ(csv(), "sample,hosts\n1,5\n");
    EXPECT_EQ(json(),
              "{\"key\":\"host.10m\",\"last\":null,\"period_seconds\":1,\"slots\":2,\"samples\":[\n"
              "{\"sample\":1,\"hosts\":5}\n"
              "]}\n");
}

TEST_F(tessctl_history, is_csv_in_universal_time) {
    cpu();
    EXPECT_EQ(csv(), "time,percent\n"
                     "2023-11-14T22:12:56Z,100\n"
                     "2023-11-14T22:13:08Z,0\n"
                     "2023-11-14T22:13:20Z,7\n");
    ping();
    EXPECT_EQ(csv(), "sample,max,min,avg,total,loss\n"
                     "1,40,10,20,10,0\n"
                     "2,30,5,30,10,2\n");
}

TEST_F(tessctl_history, is_json_in_universal_time) {
    interface();
    EXPECT_EQ(
        json(),
        "{\"key\":\"eth0.10m\",\"last\":\"2023-11-14T22:13:20Z\",\"period_seconds\":1,\"slots\":3,"
        "\"samples\":[\n"
        "{\"time\":\"2023-11-14T22:13:19Z\",\"rxb\":4294967295,\"rxp\":2,\"txb\":3,\"txp\":4},\n"
        "{\"time\":\"2023-11-14T22:13:20Z\",\"rxb\":50,\"rxp\":6,\"txb\":70,\"txp\":8}\n"
        "]}\n");
    ping();
    EXPECT_EQ(
        json(),
        "{\"key\":\"ping3.day\",\"last\":\"2023-11-14T22:13:20Z\",\"period_reports\":3,\"slots\":2,"
        "\"samples\":[\n"
        "{\"sample\":1,\"max\":40,\"min\":10,\"avg\":20,\"total\":10,\"loss\":0},\n"
        "{\"sample\":2,\"max\":30,\"min\":5,\"avg\":30,\"total\":10,\"loss\":2}\n"
        "]}\n");
}

TEST_F(tessctl_history, says_when_there_are_no_samples_yet) {
    empty();
    EXPECT_EQ(table(), "conn.10m: no samples yet\n");
    EXPECT_EQ(csv(), "sample,connections\n");
    EXPECT_EQ(
        json(),
        "{\"key\":\"conn.10m\",\"last\":null,\"period_seconds\":1,\"slots\":2,\"samples\":[\n]}\n");
    EXPECT_EQ(plot(80), std::vector<std::string>{"conn.10m: no samples yet"});
}

TEST_F(tessctl_history, shows_times_that_no_device_has_seen) {
    decode("cpu.mon", ring_of_bytes({10, 0xffffffff, 3, 3, 0}, "abc"));
    const std::string text = csv();
    EXPECT_NE(text.find("1970-01-01T00:00:10Z,99\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
}

TEST_F(tessctl_history, quotes_a_key_that_would_touch_the_terminal) {
    decode("\x1b[2J.10m", ring_of_numbers({0, 1, 1, 0, 0}, {0, 0, 0, 0}));
    EXPECT_EQ(table(), "$'\\033[2J.10m': no samples yet\n");
}

TEST_F(tessctl_history, is_plotted_in_percent_up_to_a_hundred) {
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

TEST_F(tessctl_history, is_plotted_once_for_received_and_once_for_transmitted_bytes) {
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

TEST_F(tessctl_history, condenses_600_samples_to_the_width) {
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

TEST_F(tessctl_history, has_days_below_a_plot_of_more_than_one) {
    decode("cpu.day", ring_of_bytes({1700000000, 360, 240, 240, 0}, std::string(240, '\1')));
    EXPECT_EQ(plot(80)[18], "        00:19:20" + std::string(24, ' ') + "12:19:20" +
                                std::string(24, ' ') + "00:13:20");
    decode("cpu.mon", ring_of_bytes({1700000000, 2880, 900, 900, 0}, std::string(900, '\1')));
    EXPECT_EQ(plot(80)[18], "        2023-10-16 01:01" + std::string(12, ' ') + "2023-10-31 01:01" +
                                std::string(12, ' ') + "2023-11-15 00:13");
}

TEST_F(tessctl_history, plots_reports_by_their_numbers) {
    ping();
    const std::vector<std::string> lines = plot(30);
    ASSERT_EQ(lines.size(), 22U);
    EXPECT_EQ(lines[0], "ping3.day: avg, 2 samples of 3 reports");
    EXPECT_EQ(lines[1], "    40 +");
    EXPECT_EQ(lines[10], "        1          2         2");
    EXPECT_EQ(lines[11], "ping3.day: loss, 2 samples of 3 reports");
    EXPECT_EQ(lines[12], "     4 +");
}

TEST_F(tessctl_history, is_plotted_at_any_width) {
    decode("cpu.10m", ring_of_bytes({1700000000, 1, 600, 600, 0}, std::string(600, '\1')));
    for (unsigned width : {0U, 1U, 8U, 9U, 18U, 500U, 508U, 509U, 65535U, 0xffffffffU}) {
        EXPECT_EQ(plot(width).size(), 19U) << width;
    }
}

} // namespace
