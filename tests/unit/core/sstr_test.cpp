#include "core/sstr.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "core/pool.h"

namespace {

#define SKIP_WITHOUT_SLABS()                                                                       \
    if (POOL_OWN_BLOCKS)                                                                           \
    GTEST_SKIP()                                                                                   \
        << "in this build every block is an allocation of its own and is not reused at once"

class sstr_test : public testing::Test {
  protected:
    ~sstr_test() override {
        sstr_free(&s);
    }
    void set(const std::string& text) {
        sstr_free(&s);
        s = sstr_new(text.data(), static_cast<uint32_t>(text.size()));
    }
    /* The text with its NUL, as its length word says. */
    std::string whole() const {
        return std::string(s, sstr_length(s) + 1);
    }
    static std::string with_nul(const std::string& text) {
        return text + std::string(1, '\0');
    }
    void expect_sum(const std::string& text, int64_t add, int64_t sum, const char* result) {
        set(text);
        EXPECT_TRUE(sstr_incr(&s, &add)) << text;
        EXPECT_EQ(add, sum) << text;
        EXPECT_EQ(whole(), with_nul(result)) << text;
    }

    sstr s = nullptr;
};

} // namespace

TEST_F(sstr_test, a_new_string_holds_the_bytes_and_a_nul) {
    s = sstr_new("abcdef", 4);
    EXPECT_EQ(whole(), std::string("abcd\0", 5));
}

TEST_F(sstr_test, the_length_stands_in_the_word_before_the_text) {
    s = sstr_new("abc", 3);
    uint32_t length;
    memcpy(&length, s - 4, sizeof length);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(sstr_length(s), 3u);
}

TEST_F(sstr_test, all_bits_set_as_length_means_the_length_of_the_c_string) {
    EXPECT_EQ(SSTR_CSTRING, 0xFFFFFFFFu);
    s = sstr_new("five5", 0xFFFFFFFF);
    EXPECT_EQ(whole(), std::string("five5\0", 6));
}

TEST_F(sstr_test, an_empty_string_is_a_string) {
    s = sstr_new("", 0);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(sstr_length(s), 0u);
    EXPECT_EQ(s[0], '\0');
}

TEST_F(sstr_test, holds_nul_bytes) {
    s = sstr_new("a\0b", 3);
    EXPECT_EQ(sstr_length(s), 3u);
    EXPECT_EQ(whole(), std::string("a\0b\0", 4));
}

TEST_F(sstr_test, without_bytes_the_caller_writes_the_text) {
    s = sstr_new(nullptr, 3);
    EXPECT_EQ(sstr_length(s), 3u);
    memcpy(s, "xyz", 4);
    EXPECT_EQ(whole(), std::string("xyz\0", 4));
}

TEST(sstr_death_test, without_bytes_all_bits_set_is_a_length_that_no_string_can_have) {
    EXPECT_EXIT(sstr_new(nullptr, 0xFFFFFFFF), testing::KilledBySignal(SIGABRT),
                "^out of memory\n");
}

TEST_F(sstr_test, long_strings_are_whole_around_the_pooled_sizes) {
    for (size_t length = 190; length <= 210; length++) {
        const std::string text(length, 'z');
        set(text);
        EXPECT_EQ(whole(), with_nul(text));
    }
}

TEST_F(sstr_test, freeing_sets_the_variable_to_null) {
    s = sstr_new("abc", 3);
    sstr_free(&s);
    EXPECT_EQ(s, nullptr);
    sstr_free(&s);
    EXPECT_EQ(s, nullptr);
}

TEST_F(sstr_test, a_string_of_199_bytes_takes_204_from_the_pool) {
    SKIP_WITHOUT_SLABS();
    set(std::string(199, 'x'));
    char* block = s - 4;
    sstr_free(&s);
    void* reused = pool_alloc(204);
    EXPECT_EQ(reused, block);
    pool_free(reused, 204);
}

TEST_F(sstr_test, takes_its_length_and_5_bytes_from_the_pool) {
    SKIP_WITHOUT_SLABS();
    set("1234567");
    char* block = s - 4;
    sstr_free(&s);
    void* reused = pool_alloc(12);
    EXPECT_EQ(reused, block);
    pool_free(reused, 12);
}

TEST_F(sstr_test, a_string_of_200_bytes_comes_from_malloc) {
    if (POOL_OWN_BLOCKS) {
        GTEST_SKIP() << "in this build no block comes from malloc";
    }
    set(std::string(200, 'x'));
    free(s - 4);
    s = nullptr;
}

TEST_F(sstr_test, a_copy_holds_the_given_number_of_bytes) {
    s = sstr_copy("ab\0cdef", 5);
    EXPECT_EQ(sstr_length(s), 5u);
    EXPECT_EQ(whole(), std::string("ab\0cd\0", 6));
    sstr_free(&s);
    s = sstr_copy("", 0);
    EXPECT_EQ(whole(), std::string(1, '\0'));
}

/* --- Assignment --- */

TEST_F(sstr_test, assignment_without_a_string_makes_one) {
    sstr_assign(&s, "new", 3);
    EXPECT_EQ(whole(), std::string("new\0", 4));
}

TEST_F(sstr_test, assignment_of_the_same_length_reuses_the_block) {
    set("abc");
    char* before = s;
    sstr_assign(&s, "xyz", SSTR_CSTRING);
    EXPECT_EQ(s, before);
    EXPECT_EQ(whole(), std::string("xyz\0", 4));
}

TEST_F(sstr_test, assignment_of_the_same_length_takes_no_block) {
    SKIP_WITHOUT_SLABS();
    set("abc");
    void* next = pool_alloc(8);
    pool_free(next, 8);
    sstr_assign(&s, "xyz", 3);
    void* still_next = pool_alloc(8);
    EXPECT_EQ(still_next, next);
    pool_free(still_next, 8);
}

TEST_F(sstr_test, assignment_of_another_length_replaces_the_string) {
    set("abc");
    sstr_assign(&s, "a longer text", 13);
    EXPECT_EQ(whole(), with_nul("a longer text"));
    sstr_assign(&s, "", 0);
    EXPECT_EQ(whole(), std::string(1, '\0'));
    sstr_assign(&s, "b\0c", 3);
    EXPECT_EQ(whole(), std::string("b\0c\0", 4));
}

TEST_F(sstr_test, assignment_of_another_length_frees_the_old_block) {
    SKIP_WITHOUT_SLABS();
    set(std::string(100, 'x'));
    char* old = s - 4;
    sstr_assign(&s, "short", 5);
    void* reused = pool_alloc(105);
    EXPECT_EQ(reused, old);
    pool_free(reused, 105);
}

TEST_F(sstr_test, assignment_within_one_class_still_updates_the_length) {
    /* 4 and 7 bytes both take a block of 12. */
    set("1234");
    sstr_assign(&s, "1234567", 7);
    EXPECT_EQ(whole(), with_nul("1234567"));
    sstr_assign(&s, "12345", 5);
    EXPECT_EQ(whole(), with_nul("12345"));
}

TEST_F(sstr_test, assignment_of_itself_keeps_the_text) {
    set("same");
    sstr_assign(&s, s, 4);
    EXPECT_EQ(whole(), with_nul("same"));
}

/* --- Appending --- */

TEST_F(sstr_test, appending_without_a_string_makes_one) {
    sstr_append(&s, "abc", SSTR_CSTRING);
    EXPECT_EQ(whole(), std::string("abc\0", 4));
}

TEST_F(sstr_test, appending_joins_old_and_new_bytes) {
    set("abc");
    sstr_append(&s, "de", SSTR_CSTRING);
    EXPECT_EQ(whole(), with_nul("abcde"));
    sstr_append(&s, "\0f", 2);
    EXPECT_EQ(whole(), std::string("abcde\0f\0", 8));
}

TEST_F(sstr_test, appending_nothing_keeps_the_text) {
    set("abc");
    sstr_append(&s, "", 0);
    EXPECT_EQ(whole(), with_nul("abc"));
}

TEST_F(sstr_test, appending_frees_the_old_block) {
    SKIP_WITHOUT_SLABS();
    set(std::string(120, 'x'));
    char* old = s - 4;
    sstr_append(&s, std::string(60, 'y').c_str(), 60);
    void* reused = pool_alloc(125);
    EXPECT_EQ(reused, old);
    pool_free(reused, 125);
    EXPECT_EQ(whole(), with_nul(std::string(120, 'x') + std::string(60, 'y')));
}

TEST_F(sstr_test, appending_crosses_from_the_pool_to_malloc) {
    set(std::string(199, 'x'));
    sstr_append(&s, "y", 1);
    EXPECT_EQ(whole(), with_nul(std::string(199, 'x') + "y"));
}

/* --- Increments --- */

TEST_F(sstr_test, increment_adds_to_the_number_and_tells_the_sum) {
    expect_sum("12", 5, 17, "17");
    expect_sum("12", -15, -3, "-3");
    expect_sum("0", 0, 0, "0");
    expect_sum("-7", 7, 0, "0");
    expect_sum("99", 1, 100, "100");
}

TEST_F(sstr_test, increment_without_a_string_writes_the_value) {
    int64_t value = -3;
    EXPECT_TRUE(sstr_incr(&s, &value));
    EXPECT_EQ(value, -3);
    EXPECT_EQ(whole(), std::string("-3\0", 3));
}

TEST_F(sstr_test, the_first_number_keeps_its_64_bits) {
    int64_t value = 9223372036854775807;
    EXPECT_TRUE(sstr_incr(&s, &value));
    EXPECT_EQ(value, 9223372036854775807);
    EXPECT_EQ(whole(), with_nul("9223372036854775807"));

    sstr_free(&s);
    value = INT64_MIN;
    EXPECT_TRUE(sstr_incr(&s, &value));
    EXPECT_EQ(value, INT64_MIN);
    EXPECT_EQ(whole(), with_nul("-9223372036854775808"));
}

TEST_F(sstr_test, increment_wraps_at_32_bits_and_extends_the_sign) {
    expect_sum("2147483647", 1, -2147483648, "-2147483648");
    expect_sum("-2147483648", -1, 2147483647, "2147483647");
    expect_sum("4294967295", 1, 0, "0");
    expect_sum("2147483648", 0, -2147483648, "-2147483648");
}

TEST_F(sstr_test, increment_takes_the_low_32_bits_of_both) {
    expect_sum("4294967296", 1, 1, "1");
    expect_sum("1", 4294967297, 2, "2");
    expect_sum("0", 6442450944, -2147483648, "-2147483648");
    expect_sum("-4294967297", 0, -1, "-1");
    expect_sum("0", INT64_MIN, 0, "0");
}

TEST_F(sstr_test, a_number_beyond_64_bits_is_read_as_the_nearest_one) {
    expect_sum("9223372036854775807", 0, -1, "-1");
    expect_sum("99999999999999999999", 1, 0, "0");
    expect_sum("-99999999999999999999", 1, 1, "1");
}

TEST_F(sstr_test, a_number_of_19_digits_beyond_64_bits_is_read_as_the_nearest_one_too) {
    expect_sum("9223372036854775808", 0, -1, "-1");
    expect_sum("9223372036854775808", 1, 0, "0");
    expect_sum("9999999999999999999", 1, 0, "0");
    expect_sum("-9223372036854775809", 0, 0, "0");
    expect_sum("-9223372036854775809", 1, 1, "1");
    expect_sum("-9999999999999999999", 1, 1, "1");
    expect_sum("-9223372036854775808", 1, 1, "1");
    expect_sum("-9223372036854775807", 0, 1, "1");
}

TEST_F(sstr_test, numbers_of_many_digits_are_read_to_the_last_one) {
    expect_sum("12345678901234567", 0, 1567312775, "1567312775");
    expect_sum("-12345678901234567", 0, -1567312775, "-1567312775");
    expect_sum("123456789012345678", 0, -1506741426, "-1506741426");
    expect_sum("-123456789012345678", 0, 1506741426, "1506741426");
    expect_sum("1234567890123456789", 0, 2112454933, "2112454933");
    expect_sum("-1234567890123456789x", 0, -2112454933, "-2112454933");
}

TEST_F(sstr_test, increment_reads_hexadecimal_and_octal) {
    expect_sum("0x1f", 1, 32, "32");
    expect_sum("0XfF", 0, 255, "255");
    expect_sum("-0x10", 0, -16, "-16");
    expect_sum("017", 1, 16, "16");
    expect_sum("08", 1, 1, "1");
    expect_sum("0x", 3, 3, "3");
}

TEST_F(sstr_test, increment_knows_no_binary_prefix) {
    expect_sum("0b11", 1, 1, "1");
}

TEST_F(sstr_test, increment_ignores_blanks_before_and_text_behind) {
    expect_sum(" \t\n12", 1, 13, "13");
    expect_sum("+5", 1, 6, "6");
    expect_sum("12abc", 5, 17, "17");
    expect_sum("3.9", 1, 4, "4");
    expect_sum(std::string("1\0"
                           "9",
                           3),
               1, 2, "2");
}

TEST_F(sstr_test, increment_of_what_is_no_number_changes_nothing) {
    for (const char* text : {"abc", "", " ", "-", "+", "x1", "--1"}) {
        set(text);
        char* before = s;
        int64_t value = 5;
        EXPECT_FALSE(sstr_incr(&s, &value)) << text;
        EXPECT_EQ(value, 5) << text;
        EXPECT_EQ(s, before) << text;
        EXPECT_EQ(whole(), with_nul(text));
    }
}

TEST_F(sstr_test, a_sum_of_the_same_length_is_written_in_place) {
    set("12");
    char* before = s;
    int64_t value = 5;
    sstr_incr(&s, &value);
    EXPECT_EQ(s, before);
    EXPECT_EQ(whole(), std::string("17\0", 3));
}
