#include "core/clock.h"

#include <gtest/gtest.h>

#include "tests/unit/support/test_clock.h"

namespace {

TEST(clock_test, now_is_the_wall_clock_in_seconds_and_microseconds) {
    const test_clock::frozen clock(1700000000, 999999);
    EXPECT_EQ(clock_now().sec, 1700000000u);
    EXPECT_EQ(clock_now().usec, 999999u);
}

TEST(clock_test, seconds_are_unsigned_and_go_beyond_2038) {
    const test_clock::frozen clock(4102444799);
    EXPECT_EQ(clock_now().sec, 4102444799u);
}

TEST(clock_elapsed_test, the_share_of_the_microseconds_is_truncated_toward_zero) {
    clock_time since = {10, 900};
    const clock_time now = {11, 0};
    EXPECT_EQ(clock_elapsed_ms(&since, &now), 1000);
    since.usec = 1000;
    EXPECT_EQ(clock_elapsed_ms(&since, &now), 999);
    const clock_time later = {11, 1999};
    EXPECT_EQ(clock_elapsed_ms(&since, &later), 1000);
}

TEST(clock_elapsed_test, a_less_than_a_millisecond_step_back_is_no_step_back) {
    clock_time since = {10, 500999};
    const clock_time now = {10, 500000};
    EXPECT_EQ(clock_elapsed_ms(&since, &now), 0);
    EXPECT_EQ(since.usec, 500999u);
}

TEST(clock_elapsed_test, a_negative_result_resets_the_stored_time_and_is_returned) {
    clock_time since = {10, 0};
    const clock_time now = {9, 999999};
    EXPECT_EQ(clock_elapsed_ms(&since, &now), -1);
    EXPECT_EQ(since.sec, 9u);
    EXPECT_EQ(since.usec, 999999u);
    EXPECT_EQ(clock_elapsed_ms(&since, &now), 0);
}

TEST(clock_elapsed_test, a_positive_result_leaves_the_stored_time) {
    clock_time since = {10, 5};
    const clock_time now = {20, 5};
    EXPECT_EQ(clock_elapsed_ms(&since, &now), 10000);
    EXPECT_EQ(since.sec, 10u);
    EXPECT_EQ(since.usec, 5u);
}

TEST(clock_elapsed_test, is_wide_enough_for_the_time_since_1970) {
    clock_time since = {0, 0};
    const clock_time now = {2000000000, 0};
    EXPECT_EQ(clock_elapsed_ms(&since, &now), 2000000000000);
}

} // namespace
