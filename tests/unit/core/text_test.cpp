#include "core/text.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cwchar>
#include <string>
#include <vector>

namespace {

/* A modifiable C string. */
class line {
  public:
    explicit line(const std::string& text) : bytes_(text.begin(), text.end()) {
        bytes_.push_back('\0');
    }
    operator char*() {
        return bytes_.data();
    }
    std::string bytes() const {
        return std::string(bytes_.begin(), bytes_.end() - 1);
    }

  private:
    std::vector<char> bytes_;
};

std::vector<std::string> split(const std::string& text, const char* delimiters) {
    line modified(text);
    char* argv[32] = {};
    str_split(modified, argv, delimiters);
    const uintptr_t count = reinterpret_cast<uintptr_t>(argv[0]);
    std::vector<std::string> tokens;
    for (uintptr_t i = 1; i <= count && i < 32; i++) {
        tokens.push_back(argv[i]);
    }
    return tokens;
}

std::string trimmed(const std::string& text) {
    line modified(text);
    return str_trim(modified);
}

std::string unquoted(const std::string& text) {
    line modified(text);
    return str_unquote(modified);
}

typedef std::vector<std::string> words;

/* What the shared buffer's block holds, at first and once a text of 300 characters has been in it.
 */
struct growth {
    size_t first;
    size_t second;
};

size_t room_for(const char* text) {
    return malloc_usable_size(const_cast<char*>(str_format("%s", text)));
}

/* The buffer never shrinks and the cases of one process share it, so the question is put before any
 * of them, to a process that formats nothing else. */
growth growth_from_the_start() {
    growth seen = {};
    int ends[2];
    if (pipe(ends) != 0) {
        return seen;
    }
    const pid_t child = fork();
    if (child == 0) {
        seen.first = room_for("small");
        seen.second = room_for(std::string(300, 'a').c_str());
        _exit(write(ends[1], &seen, sizeof seen) == ssize_t{sizeof seen} ? 0 : 1);
    }
    close(ends[1]);
    if (read(ends[0], &seen, sizeof seen) != ssize_t{sizeof seen}) {
        seen = {};
    }
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return seen;
}

const growth at_start = growth_from_the_start();

/* What malloc may add to the size that it was asked for. */
constexpr size_t ROUNDING = 32;

} // namespace

/* --- str_format --- */

TEST(text_format_test, formats_into_a_shared_buffer_that_the_next_call_overwrites) {
    const char* first = str_format("%d apples", 12);
    EXPECT_STREQ(first, "12 apples");
    const char* second = str_format("%s", "pears");
    EXPECT_STREQ(second, "pears");
    EXPECT_EQ(second, first);
}

TEST(text_format_test, an_empty_result_is_null) {
    EXPECT_EQ(str_format("%s", ""), nullptr);
    EXPECT_STREQ(str_format("%s", "x"), "x");
}

TEST(text_format_test, a_format_that_cannot_be_printed_gives_null) {
    EXPECT_EQ(str_format("%lc", static_cast<wint_t>(0x4e00)), nullptr)
        << "not a character of the C locale";
}

TEST(text_format_test, texts_around_the_first_capacity_come_out_whole) {
    for (size_t length = 250; length <= 260; length++) {
        const std::string text(length, 'y');
        EXPECT_EQ(str_format("%s", text.c_str()), text);
    }
}

TEST(text_format_test, the_buffer_has_256_bytes_at_first) {
    EXPECT_GE(at_start.first, 256u);
    EXPECT_LT(at_start.first, 256u + ROUNDING);
}

TEST(text_format_test, a_text_of_300_characters_grows_the_buffer_to_512_bytes) {
    EXPECT_GE(at_start.second, 512u);
    EXPECT_LT(at_start.second, 512u + ROUNDING);
}

TEST(text_format_test, the_buffer_grows_to_the_need_rounded_up_to_256) {
    const std::string text(70299, 'a');
    const char* scratch = str_format("%s%d", text.c_str(), 7);
    ASSERT_NE(scratch, nullptr);
    EXPECT_EQ(scratch, text + "7");
    EXPECT_GE(malloc_usable_size(const_cast<char*>(scratch)), 70400u);
    EXPECT_LT(malloc_usable_size(const_cast<char*>(scratch)), 70400u + ROUNDING);
}

TEST(text_format_test, the_buffer_only_grows) {
    const std::string text(3000, 'a');
    const char* large = str_format("%s", text.c_str());
    const size_t capacity = malloc_usable_size(const_cast<char*>(large));
    const char* small = str_format("%s", "b");
    EXPECT_EQ(small, large);
    EXPECT_EQ(malloc_usable_size(const_cast<char*>(small)), capacity);
}

/* --- Numbers to text --- */

TEST(text_number_test, writes_zero_and_small_numbers) {
    EXPECT_STREQ(text_number(0), "0");
    EXPECT_STREQ(text_number(7), "7");
    EXPECT_STREQ(text_number(10), "10");
    EXPECT_STREQ(text_number(-1), "-1");
    EXPECT_STREQ(text_number(-42), "-42");
}

TEST(text_number_test, writes_numbers_around_the_32_bit_limits) {
    EXPECT_STREQ(text_number(2147483647), "2147483647");
    EXPECT_STREQ(text_number(2147483648), "2147483648");
    EXPECT_STREQ(text_number(-2147483648), "-2147483648");
    EXPECT_STREQ(text_number(4294967295), "4294967295");
    EXPECT_STREQ(text_number(4294967296), "4294967296");
    EXPECT_STREQ(text_number(-4294967296), "-4294967296");
    EXPECT_STREQ(text_number(42949672950), "42949672950");
    EXPECT_STREQ(text_number(42949672960), "42949672960");
    EXPECT_STREQ(text_number(10000000000), "10000000000");
}

TEST(text_number_test, writes_the_64_bit_limits_in_full) {
    EXPECT_STREQ(text_number(INT64_MAX), "9223372036854775807");
    EXPECT_STREQ(text_number(-INT64_MAX), "-9223372036854775807");
    EXPECT_STREQ(text_number(INT64_MIN), "-9223372036854775808");
}

TEST(text_number_test, tells_the_length_without_the_nul) {
    uint32_t length = 0;
    text_number(0, &length);
    EXPECT_EQ(length, 1u);
    text_number(-42, &length);
    EXPECT_EQ(length, 3u);
    text_number(INT64_MIN, &length);
    EXPECT_EQ(length, 20u);
}

TEST(text_number_test, ends_always_at_the_same_nul) {
    uint32_t length = 0;
    const char* first = text_number(123456, &length);
    const char* end = first + length;
    const char* second = text_number(-9, &length);
    EXPECT_EQ(second + length, end);
    EXPECT_EQ(*end, '\0');
}

TEST(text_number_test, is_the_same_as_printf_for_numbers_of_every_length) {
    int64_t value = 1;
    for (int digits = 1; digits <= 18; digits++, value = value * 10 + digits % 10) {
        EXPECT_EQ(text_number(value), std::to_string(value));
        EXPECT_EQ(text_number(-value), std::to_string(-value));
    }
}

TEST(text_unsigned_test, writes_the_whole_unsigned_range) {
    uint32_t length = 0;
    EXPECT_STREQ(text_unsigned(0, &length), "0");
    EXPECT_EQ(length, 1u);
    EXPECT_STREQ(text_unsigned(4294967295), "4294967295");
    EXPECT_STREQ(text_unsigned(9223372036854775808u), "9223372036854775808");
    EXPECT_STREQ(text_unsigned(UINT64_MAX, &length), "18446744073709551615");
    EXPECT_EQ(length, 20u);
}

TEST(text_digits_test, are_counted_up_to_the_largest_number) {
    EXPECT_EQ(text_digit_count(0), 1u);
    EXPECT_EQ(text_digit_count(UINT64_MAX), 20u);
    uint64_t power = 10;
    for (uint32_t digits = 2; digits <= 20; digits++, power *= 10) {
        EXPECT_EQ(text_digit_count(power - 1), digits - 1);
        EXPECT_EQ(text_digit_count(power), digits);
    }
}

TEST(text_digits_test, are_written_just_before_the_end_and_nothing_else_is) {
    char bytes[24];
    memset(bytes, '#', sizeof bytes);
    text_put_digits(bytes + 10, 4294967296);
    EXPECT_EQ(std::string(bytes, sizeof bytes), "4294967296##############");
    memset(bytes, '#', sizeof bytes);
    text_put_digits(bytes + 22, UINT64_MAX);
    EXPECT_EQ(std::string(bytes, sizeof bytes), "##18446744073709551615##");
    memset(bytes, '#', sizeof bytes);
    text_put_digits(bytes + 2, 0);
    EXPECT_EQ(std::string(bytes, 4), "#0##");
}

TEST(text_digits_test, leave_the_number_of_an_earlier_call_alone) {
    const char* number = text_number(-77);
    char bytes[4];
    text_put_digits(bytes + 4, 1234);
    EXPECT_STREQ(number, "-77");
}

/* --- Numbers from text --- */

TEST(text_parse_int32_test, reads_signs_blanks_and_stops_behind_the_digits) {
    char* end;
    const char* text = " \t-17x";
    EXPECT_EQ(text_parse_int32(text, &end, 10), -17);
    EXPECT_EQ(end, text + 5);
    EXPECT_EQ(text_parse_int32("+5", nullptr, 10), 5);
}

TEST(text_parse_int32_test, leaves_the_end_at_the_text_when_there_are_no_digits) {
    char* end;
    const char* text = "  abc";
    EXPECT_EQ(text_parse_int32(text, &end, 10), 0);
    EXPECT_EQ(end, text);
    text = "";
    EXPECT_EQ(text_parse_int32(text, &end, 10), 0);
    EXPECT_EQ(end, text);
}

TEST(text_parse_int32_test, saturates_at_32_bits_on_every_target) {
    EXPECT_EQ(text_parse_int32("2147483647", nullptr, 10), 2147483647);
    EXPECT_EQ(text_parse_int32("2147483648", nullptr, 10), 2147483647);
    EXPECT_EQ(text_parse_int32("4294967297", nullptr, 10), 2147483647);
    EXPECT_EQ(text_parse_int32("-2147483648", nullptr, 10), INT32_MIN);
    EXPECT_EQ(text_parse_int32("-2147483649", nullptr, 10), INT32_MIN);
    EXPECT_EQ(text_parse_int32("99999999999999999999", nullptr, 10), 2147483647);
    EXPECT_EQ(text_parse_int32("-99999999999999999999", nullptr, 10), INT32_MIN);
}

TEST(text_parse_int32_test, base_zero_takes_hexadecimal_and_octal) {
    EXPECT_EQ(text_parse_int32("0x1f", nullptr, 0), 31);
    EXPECT_EQ(text_parse_int32("-0X10", nullptr, 0), -16);
    EXPECT_EQ(text_parse_int32("017", nullptr, 0), 15);
    EXPECT_EQ(text_parse_int32("17", nullptr, 0), 17);
}

TEST(text_parse_int32_test, base_zero_knows_no_binary_prefix) {
    char* end;
    const char* text = "0b11";
    EXPECT_EQ(text_parse_int32(text, &end, 0), 0);
    EXPECT_EQ(end, text + 1);
}

TEST(text_parse_int32_test, base_ten_takes_a_leading_zero_as_a_digit) {
    char* end;
    const char* text = "0x1f";
    EXPECT_EQ(text_parse_int32("017", nullptr, 10), 17);
    EXPECT_EQ(text_parse_int32(text, &end, 10), 0);
    EXPECT_EQ(end, text + 1);
}

TEST(text_parse_uint32_test, reads_the_unsigned_range) {
    char* end;
    const char* text = "4294967295\r";
    EXPECT_EQ(text_parse_uint32(text, &end, 10), 4294967295u);
    EXPECT_EQ(end, text + 10);
    EXPECT_EQ(text_parse_uint32("0", nullptr, 10), 0u);
    EXPECT_EQ(text_parse_uint32(" +7", nullptr, 10), 7u);
}

TEST(text_parse_uint32_test, saturates_above_the_range) {
    EXPECT_EQ(text_parse_uint32("4294967296", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32("18446744073709551617", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32("99999999999999999999999", nullptr, 10), 4294967295u);
}

TEST(text_parse_uint32_test, a_negative_number_wraps_until_its_magnitude_leaves_the_range) {
    EXPECT_EQ(text_parse_uint32("-1", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32(" \v\f\r\n\t-4294967295", nullptr, 10), 1u);
    EXPECT_EQ(text_parse_uint32("-4294967296", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32("-18446744073709551615", nullptr, 10), 4294967295u);
    EXPECT_EQ(text_parse_uint32("-99999999999999999999999", nullptr, 10), 4294967295u);
}

TEST(text_parse_uint32_test, leaves_the_end_at_the_text_when_there_are_no_digits) {
    char* end;
    const char* text = "-x";
    EXPECT_EQ(text_parse_uint32(text, &end, 10), 0u);
    EXPECT_EQ(end, text);
}

TEST(text_parse_uint32_test, base_zero_takes_hexadecimal_and_octal_and_knows_no_binary_prefix) {
    EXPECT_EQ(text_parse_uint32("0xffffffff", nullptr, 0), 4294967295u);
    EXPECT_EQ(text_parse_uint32("017", nullptr, 0), 15u);
    for (const char* text : {"0b11", "0B11", "+0b1", " -0b1"}) {
        char* end;
        EXPECT_EQ(text_parse_uint32(text, &end, 0), 0u) << text;
        EXPECT_EQ(end, strchr(text, '0') + 1) << text;
    }
}

TEST(text_parse_int64_test, base_zero_takes_hexadecimal_and_octal_and_knows_no_binary_prefix) {
    EXPECT_EQ(text_parse_int64("0x7fffffffffffffff", nullptr, 0), INT64_MAX);
    EXPECT_EQ(text_parse_int64("-017", nullptr, 0), -15);
    for (const char* text : {"0b11", "0B11", "+0b1", " -0b1"}) {
        char* end;
        EXPECT_EQ(text_parse_int64(text, &end, 0), 0) << text;
        EXPECT_EQ(end, strchr(text, '0') + 1) << text;
    }
}

/* --- str_split --- */

TEST(text_split_test, splits_at_blanks_tabs_and_line_ends_by_default) {
    EXPECT_EQ(split("one two\tthree\r\nfour", nullptr), (words{"one", "two", "three", "four"}));
}

TEST(text_split_test, runs_of_delimiters_are_one) {
    EXPECT_EQ(split("  a   b\t\t c \r\n", nullptr), (words{"a", "b", "c"}));
}

TEST(text_split_test, takes_the_given_delimiters_and_no_others) {
    EXPECT_EQ(split("a b,c:d", ",:"), (words{"a b", "c", "d"}));
}

TEST(text_split_test, a_text_without_tokens_has_a_count_of_zero) {
    EXPECT_EQ(split("", nullptr), words{});
    EXPECT_EQ(split(" \t\r\n", nullptr), words{});
}

TEST(text_split_test, the_tokens_stand_in_the_line_itself) {
    line text("ab cd");
    char* argv[3];
    str_split(text, argv, nullptr);
    EXPECT_EQ(argv[1], static_cast<char*>(text));
    EXPECT_EQ(argv[2], static_cast<char*>(text) + 3);
    EXPECT_EQ(text.bytes(), std::string("ab\0cd", 5));
}

/* --- Trimming --- */

TEST(text_trim_test, blanks_are_space_tab_line_feed_and_carriage_return) {
    EXPECT_EQ(trimmed(" \t\r\n a b \n\r\t "), "a b");
    EXPECT_EQ(trimmed("\v a \f"), "\v a \f");
}

TEST(text_trim_test, ltrim_skips_leading_blanks_only) {
    line text(" \tab ");
    char* result = str_ltrim(text);
    EXPECT_EQ(result, static_cast<char*>(text) + 2);
    EXPECT_STREQ(result, "ab ");
}

TEST(text_trim_test, rtrim_cuts_trailing_blanks_in_place_and_returns_the_text) {
    line text(" ab\r\n ");
    EXPECT_EQ(str_rtrim(text), static_cast<char*>(text));
    EXPECT_STREQ(text, " ab");
}

TEST(text_trim_test, nothing_is_left_of_blanks) {
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed(" \n "), "");
    line blanks(" \t");
    EXPECT_STREQ(str_rtrim(blanks), "");
}

/* --- str_unquote --- */

TEST(text_unquote_test, cuts_the_quotes_off_a_quoted_text) {
    EXPECT_EQ(unquoted("\"a\""), "a");
    EXPECT_EQ(unquoted("\"two words\""), "two words");
}

TEST(text_unquote_test, a_lone_quote_stays_as_it_is) {
    EXPECT_EQ(unquoted("\""), "\"");
    EXPECT_EQ(unquoted(" \" "), "\"");
}

TEST(text_unquote_test, two_quotes_give_an_empty_text) {
    EXPECT_EQ(unquoted("\"\""), "");
}

TEST(text_unquote_test, trims_before_it_looks_for_quotes_and_not_behind) {
    EXPECT_EQ(unquoted(" \" a \"\r\n"), " a ");
    EXPECT_EQ(unquoted("  plain\t"), "plain");
}

TEST(text_unquote_test, a_quote_at_one_end_only_stays) {
    EXPECT_EQ(unquoted("\"a"), "\"a");
    EXPECT_EQ(unquoted("a\""), "a\"");
    EXPECT_EQ(unquoted(""), "");
}

TEST(text_unquote_test, only_the_outer_pair_is_cut) {
    EXPECT_EQ(unquoted("\"\"a\"\""), "\"a\"");
    EXPECT_EQ(unquoted("'a'"), "'a'");
}

/* --- Copies and case --- */

TEST(text_dup_test, returns_a_copy_that_free_takes) {
    line text("copy me");
    char* copy = str_dup(text);
    EXPECT_NE(copy, static_cast<char*>(text));
    EXPECT_STREQ(copy, "copy me");
    free(copy);
    copy = str_dup("");
    EXPECT_STREQ(copy, "");
    free(copy);
}

TEST(text_case_test, changes_ascii_letters_in_place_and_nothing_else) {
    line text("aZ@[`{09 \xc3\xa4\xc3\x84");
    str_toupper(text);
    EXPECT_EQ(text.bytes(), "AZ@[`{09 \xc3\xa4\xc3\x84");
    str_tolower(text);
    EXPECT_EQ(text.bytes(), "az@[`{09 \xc3\xa4\xc3\x84");
}

TEST(text_case_test, changes_every_letter) {
    line text("abcdefghijklmnopqrstuvwxyz");
    str_toupper(text);
    EXPECT_EQ(text.bytes(), "ABCDEFGHIJKLMNOPQRSTUVWXYZ");
    str_tolower(text);
    EXPECT_EQ(text.bytes(), "abcdefghijklmnopqrstuvwxyz");
}

/* --- buf_getline --- */

namespace {

class text_getline_test : public testing::Test {
  protected:
    void look_at(const std::string& bytes) {
        bytes_.assign(bytes.begin(), bytes.end());
        view_ = {bytes_.data(), static_cast<uint32_t>(bytes_.size())};
    }
    char* next(bool need_newline) {
        length_ = 0xdead;
        return buf_getline(&view_, &length_, need_newline);
    }

    std::vector<char> bytes_;
    buf_view view_ = {};
    uint32_t length_ = 0;
};

} // namespace

TEST_F(text_getline_test, takes_one_line_after_the_other) {
    look_at("ab\ncde\nf");
    EXPECT_STREQ(next(true), "ab");
    EXPECT_EQ(length_, 2u);
    EXPECT_EQ(view_.start, bytes_.data() + 3);
    EXPECT_EQ(view_.length, 5u);
    EXPECT_STREQ(next(true), "cde");
    EXPECT_EQ(length_, 3u);
    EXPECT_EQ(view_.length, 1u);
}

TEST_F(text_getline_test, cuts_a_carriage_return_that_stands_just_before) {
    look_at("*1\r\n$4\r\n");
    EXPECT_STREQ(next(true), "*1");
    EXPECT_EQ(length_, 2u);
    EXPECT_STREQ(next(true), "$4");
    EXPECT_EQ(length_, 2u);
    EXPECT_EQ(view_.length, 0u);
    EXPECT_EQ(std::string(bytes_.begin(), bytes_.end()), std::string("*1\0\0$4\0\0", 8));
}

TEST_F(text_getline_test, keeps_a_carriage_return_elsewhere) {
    look_at("a\rb\r\r\n");
    EXPECT_STREQ(next(true), "a\rb\r");
    EXPECT_EQ(length_, 4u);
}

TEST_F(text_getline_test, empty_lines_have_no_length) {
    look_at("\n\r\n\r");
    EXPECT_STREQ(next(true), "");
    EXPECT_EQ(length_, 0u);
    EXPECT_STREQ(next(true), "");
    EXPECT_EQ(length_, 0u);
    EXPECT_EQ(next(true), nullptr);
}

TEST_F(text_getline_test, an_incomplete_line_is_null_and_stays_when_a_line_feed_is_needed) {
    look_at("abc\r");
    EXPECT_EQ(next(true), nullptr);
    EXPECT_EQ(view_.start, bytes_.data());
    EXPECT_EQ(view_.length, 4u);
    EXPECT_EQ(std::string(bytes_.begin(), bytes_.end()), "abc\r");
}

TEST_F(text_getline_test, the_rest_is_the_line_when_no_line_feed_is_needed) {
    look_at("ab\ncd");
    EXPECT_STREQ(next(false), "ab");
    EXPECT_EQ(next(false), bytes_.data() + 3);
    EXPECT_EQ(length_, 2u);
    EXPECT_EQ(view_.start, bytes_.data() + 5);
    EXPECT_EQ(view_.length, 0u);
}

TEST_F(text_getline_test, an_empty_view_is_null) {
    look_at("");
    EXPECT_EQ(next(true), nullptr);
    EXPECT_EQ(next(false), nullptr);
}

TEST_F(text_getline_test, a_view_that_begins_with_a_nul_is_null) {
    look_at(std::string("\0abc\n", 5));
    EXPECT_EQ(next(true), nullptr);
    EXPECT_EQ(next(false), nullptr);
    EXPECT_EQ(view_.length, 5u);
}

TEST_F(text_getline_test, does_not_look_beyond_the_view) {
    look_at("abc\n");
    view_.length = 3;
    EXPECT_EQ(next(true), nullptr);
    EXPECT_EQ(bytes_[3], '\n');
}

/* --- Byte order --- */

TEST(text_be32_test, writes_and_reads_network_order_at_any_alignment) {
    unsigned char bytes[6] = {};
    text_put_be32(bytes + 1, 0x81020304);
    const unsigned char expected[6] = {0, 0x81, 0x02, 0x03, 0x04, 0};
    EXPECT_EQ(memcmp(bytes, expected, 6), 0);
    EXPECT_EQ(text_get_be32(bytes + 1), 0x81020304u);
    EXPECT_EQ(text_get_be32("\xff\xff\xff\xff"), 0xffffffffu);
}
