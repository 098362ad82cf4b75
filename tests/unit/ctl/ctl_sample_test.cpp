#include "ctl/ctl_sample.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <string>

#include "tests/unit/ctl/ring_value.h"
#include "tests/unit/ctl/text_stream.h"

namespace {

/* 1700000000 is 2023-11-14 22:13:20 in UTC. */
class tessctl_sample : public ::testing::Test {
  protected:
    tessctl_sample() {
        setenv("TZ", "TEST-2", 1); /* two hours ahead */
        tzset();
    }
    ~tessctl_sample() override {
        unsetenv("TZ");
        tzset();
    }

    static std::string time_of(int64_t seconds, ctl_stamp wanted) {
        char text[CTL_SAMPLE_TEXT];
        ctl_sample_time(text, seconds, wanted);
        return text;
    }

    /* The name of a sample of the history, and whether it is said to be a time. */
    static void expect_name(const std::string& key, const std::string& value, uint32_t sample,
                            const std::string& name, bool is_time) {
        ctl_series series;
        ASSERT_EQ(ctl_series_decode(text_of(key), text_of(value), &series), nullptr);
        char text[CTL_SAMPLE_TEXT];
        EXPECT_EQ(ctl_sample_name(text, &series, sample, CTL_STAMP_LOCAL), is_time);
        EXPECT_EQ(text, name);
    }
};

TEST_F(tessctl_sample, has_a_time_in_four_forms) {
    EXPECT_EQ(time_of(1700000000, CTL_STAMP_LOCAL), "2023-11-15 00:13:20");
    EXPECT_EQ(time_of(1700000000, CTL_STAMP_LOCAL_MINUTE), "2023-11-15 00:13");
    EXPECT_EQ(time_of(1700000000, CTL_STAMP_LOCAL_CLOCK), "00:13:20");
    EXPECT_EQ(time_of(1700000000, CTL_STAMP_UTC), "2023-11-14T22:13:20Z");
}

TEST_F(tessctl_sample, has_its_seconds_where_no_calendar_reaches) {
    EXPECT_EQ(time_of(9223372036854775807, CTL_STAMP_UTC), "9223372036854775807");
    EXPECT_EQ(time_of(9223372036854775807, CTL_STAMP_LOCAL), "9223372036854775807");
}

TEST_F(tessctl_sample, is_called_by_its_time_where_that_is_known) {
    const std::string value = ring_of_bytes({1700000000, 12, 3, 2, 2}, {7, 100, 0});
    expect_name("cpu.2h", value, 0, "2023-11-15 00:13:08", true);
    expect_name("cpu.2h", value, 1, "2023-11-15 00:13:20", true);
}

TEST_F(tessctl_sample, is_numbered_from_1_where_its_time_is_not_known) {
    const std::string value = ring_of_bytes({0, 12, 3, 2, 2}, {7, 100, 0});
    expect_name("cpu.2h", value, 0, "1", false);
    expect_name("cpu.2h", value, 1, "2", false);
}

TEST_F(tessctl_sample, that_is_missing_is_said_to_be) {
    stream out;
    ctl_sample_none(out, text_of("\x1b[2J.10m"));
    EXPECT_EQ(out.text(), "$'\\033[2J.10m': no samples yet\n");
}

TEST_F(tessctl_sample, is_one_or_one_of_several) {
    EXPECT_STREQ(ctl_sample_plural(0), "s");
    EXPECT_STREQ(ctl_sample_plural(1), "");
    EXPECT_STREQ(ctl_sample_plural(2), "s");
}

} // namespace
