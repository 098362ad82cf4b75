#include "ctl/ctl_text.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/ctl/ring_value.h"

namespace {

constexpr int64_t LEFT_ALONE = 77;

/* The number, or LEFT_ALONE when the text is none of that range. */
int64_t number_from(const std::string& text, int64_t least, int64_t most) {
    int64_t number = LEFT_ALONE;
    const bool good = ctl_text_number(text_of(text), least, most, &number);
    EXPECT_EQ(good, number != LEFT_ALONE) << text;
    return number;
}

TEST(tessctl_texts, a_string_is_borrowed_without_its_end) {
    const char* string = "cpu.10m";
    const ctl_text text = ctl_text_of(string);
    EXPECT_EQ(text.bytes, string);
    EXPECT_EQ(text.length, 7U);
    EXPECT_EQ(ctl_text_of("").length, 0U);
}

TEST(tessctl_numbers, are_read_up_to_both_ends_of_their_range) {
    EXPECT_EQ(number_from("1", 1, 65535), 1);
    EXPECT_EQ(number_from("65535", 1, 65535), 65535);
    EXPECT_EQ(number_from("0", 0, 4294967295), 0);
    EXPECT_EQ(number_from("4294967295", 0, 4294967295), 4294967295);
    EXPECT_EQ(number_from("-9223372036854775808", INT64_MIN, INT64_MAX), INT64_MIN);
    EXPECT_EQ(number_from("9223372036854775807", INT64_MIN, INT64_MAX), INT64_MAX);
    EXPECT_EQ(number_from("-0", INT64_MIN, INT64_MAX), 0);
    EXPECT_EQ(number_from("007", 1, 20), 7);
}

TEST(tessctl_numbers, outside_their_range_are_none) {
    for (const char* text : {"0", "21", "30", "99", "100", "18446744073709551617"}) {
        EXPECT_EQ(number_from(text, 1, 20), LEFT_ALONE) << text;
    }
    EXPECT_EQ(number_from("9", 0, 5), LEFT_ALONE);
    EXPECT_EQ(number_from("-4", -3, 5), LEFT_ALONE);
    EXPECT_EQ(number_from("9223372036854775808", INT64_MIN, INT64_MAX), LEFT_ALONE);
    EXPECT_EQ(number_from("-9223372036854775809", INT64_MIN, INT64_MAX), LEFT_ALONE);
    EXPECT_EQ(number_from("18446744073709551616", INT64_MIN, INT64_MAX), LEFT_ALONE);
}

TEST(tessctl_numbers, are_all_of_the_text_in_decimal_digits) {
    for (const char* text : {"", "-", "--1", "+1", " 1", "1 ", "1x", "0x10", "1.5", "1e3", "1\n"}) {
        EXPECT_EQ(number_from(text, INT64_MIN, INT64_MAX), LEFT_ALONE) << text;
    }
    EXPECT_EQ(number_from(std::string("1\0", 2), 0, 20), LEFT_ALONE);
    EXPECT_EQ(number_from("12", 0, 20), 12);
}

TEST(tessctl_numbers, have_no_sign_where_none_is_negative) {
    EXPECT_EQ(number_from("-0", 0, 20), LEFT_ALONE);
    EXPECT_EQ(number_from("-1", 0, 20), LEFT_ALONE);
}

TEST(tessctl_numbers, are_none_in_a_nil) {
    int64_t number = LEFT_ALONE;
    EXPECT_FALSE(ctl_text_number({nullptr, 0}, 0, 20, &number));
    EXPECT_EQ(number, LEFT_ALONE);
}

} // namespace
