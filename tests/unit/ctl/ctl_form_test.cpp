#include "ctl/ctl_form.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/unit/ctl/history_test.h"
#include "tests/unit/ctl/text_stream.h"

namespace {

class tessctl_form : public history_test {
  protected:
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
};

TEST_F(tessctl_form, is_a_table_in_local_time) {
    cpu();
    EXPECT_EQ(table(), "time                    percent\n"
                       "2023-11-15 00:12:56         100\n"
                       "2023-11-15 00:13:08           0\n"
                       "2023-11-15 00:13:20           7\n");
}

TEST_F(tessctl_form, has_a_column_for_each_figure) {
    interface();
    EXPECT_EQ(table(), "time                        rxb         rxp         txb         txp\n"
                       "2023-11-15 00:13:19  4294967295           2           3           4\n"
                       "2023-11-15 00:13:20          50           6          70           8\n");
}

TEST_F(tessctl_form, numbers_ping_samples_and_says_why) {
    ping();
    EXPECT_EQ(table(),
              "ping3.day: a sample is 3 reports, at times not known; numbered from the oldest,\n"
              "the last at 2023-11-15 00:13:20\n"
              "sample         max         min         avg       total        loss\n"
              "     1          40          10          20          10           0\n"
              "     2          30           5          30          10           2\n");
}

TEST_F(tessctl_form, numbers_samples_when_the_last_time_is_not_known) {
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

TEST_F(tessctl_form, is_csv_in_universal_time) {
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

TEST_F(tessctl_form, is_json_in_universal_time) {
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

TEST_F(tessctl_form, says_when_there_are_no_samples_yet) {
    empty();
    EXPECT_EQ(table(), "conn.10m: no samples yet\n");
    EXPECT_EQ(csv(), "sample,connections\n");
    EXPECT_EQ(
        json(),
        "{\"key\":\"conn.10m\",\"last\":null,\"period_seconds\":1,\"slots\":2,\"samples\":[\n]}\n");
}

TEST_F(tessctl_form, shows_times_that_no_device_has_seen) {
    decode("cpu.mon", ring_of_bytes({10, 0xffffffff, 3, 3, 0}, "abc"));
    const std::string text = csv();
    EXPECT_NE(text.find("1970-01-01T00:00:10Z,99\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
}

TEST_F(tessctl_form, quotes_a_key_that_would_touch_the_terminal) {
    decode("\x1b[2J.10m", ring_of_numbers({0, 1, 1, 0, 0}, {0, 0, 0, 0}));
    EXPECT_EQ(table(), "$'\\033[2J.10m': no samples yet\n");
}

} // namespace
