#include "core/buffer.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdint.h>
#include <string.h>

#include <cwchar>
#include <string>

namespace {

class buffer_test : public testing::Test {
  protected:
    ~buffer_test() override {
        buffer_free(&b);
    }

    void init(uint32_t initial, uint32_t limit) {
        buffer_init(&b, initial, limit);
    }
    uint32_t append(const std::string& text) {
        return buffer_append(&b, text.data(), static_cast<uint32_t>(text.size()));
    }
    /* `length` bytes in a pattern that tells every place from its neighbours. */
    static std::string pattern(size_t length) {
        std::string text(length, '\0');
        for (size_t i = 0; i < length; i++) {
            text[i] = static_cast<char>(i % 251);
        }
        return text;
    }
    std::string content() const {
        return std::string(b.data, b.length);
    }
    /* Consumed and compacted, so that `free_before` bytes lie before the mark and `length` behind
     * it. */
    void with_space_before_mark(uint32_t free_before, uint32_t length) {
        ASSERT_GE(length, free_before) << "the rest would move to the front";
        append(pattern(free_before + length));
        buffer_consume(&b, free_before);
        ASSERT_EQ(buffer_compact(&b), free_before);
        ASSERT_EQ(b.mark, b.base + free_before);
    }
    void expect_same(const buffer& before) const {
        EXPECT_EQ(b.base, before.base);
        EXPECT_EQ(b.mark, before.mark);
        EXPECT_EQ(b.capacity, before.capacity);
        EXPECT_EQ(b.data, before.data);
        EXPECT_EQ(b.length, before.length);
        EXPECT_EQ(b.initial, before.initial);
        EXPECT_EQ(b.limit, before.limit);
    }
    void expect_invariants() const {
        EXPECT_LE(b.base, b.mark);
        EXPECT_LE(b.mark, b.data);
        EXPECT_LE(b.data + b.length, b.base + b.capacity);
    }

    buffer b = {};
};

typedef buffer_test buffer_death_test;

} // namespace

TEST_F(buffer_test, init_allocates_nothing) {
    memset(&b, 0x5a, sizeof b);
    init(100, 1000);
    EXPECT_EQ(b.base, nullptr);
    EXPECT_EQ(b.mark, nullptr);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(b.capacity, 0u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(b.initial, 100u);
    EXPECT_EQ(b.limit, 1000u);
}

TEST_F(buffer_test, zero_picks_the_default_sizes) {
    init(0, 0);
    EXPECT_EQ(b.initial, 1024u);
    EXPECT_EQ(b.limit, 4194304u);
}

/* --- Growth --- */

TEST_F(buffer_test, the_first_append_allocates_the_initial_capacity) {
    init(0, 0);
    EXPECT_EQ(append("hello"), 5u);
    EXPECT_EQ(b.capacity, 1024u);
    EXPECT_EQ(content(), "hello");
    EXPECT_EQ(b.base, b.data);
    EXPECT_EQ(b.base, b.mark);
}

TEST_F(buffer_test, appends_follow_each_other) {
    init(16, 1024);
    EXPECT_EQ(append("abc"), 3u);
    EXPECT_EQ(append(std::string("\0d", 2)), 2u);
    EXPECT_EQ(content(), std::string("abc\0d", 5));
}

TEST_F(buffer_test, reserve_counts_the_bytes_at_once_and_leaves_them_to_the_caller) {
    init(16, 64);
    append("ab");
    char* added = buffer_reserve(&b, 3);
    EXPECT_EQ(added, b.base + 2);
    EXPECT_EQ(b.length, 5u);
    memcpy(added, "cde", 3);
    EXPECT_EQ(content(), "abcde");
}

TEST_F(buffer_test, is_never_filled_to_its_last_byte) {
    init(16, 64);
    append(pattern(15));
    EXPECT_EQ(b.capacity, 16u);
    append("x");
    EXPECT_EQ(b.capacity, 32u);
    EXPECT_EQ(content(), pattern(15) + "x");
}

TEST_F(buffer_test, an_append_of_the_whole_initial_capacity_doubles_it) {
    init(16, 64);
    EXPECT_EQ(append(pattern(16)), 16u);
    EXPECT_EQ(b.capacity, 32u);
}

TEST_F(buffer_test, growth_doubles_until_there_is_strict_room) {
    init(16, 65536);
    append(pattern(127));
    EXPECT_EQ(b.capacity, 128u);
    append(pattern(128));
    EXPECT_EQ(b.capacity, 256u);
    append("x");
    EXPECT_EQ(b.capacity, 512u) << "256 bytes do not strictly fit into 256";
}

TEST_F(buffer_test, one_append_up_to_the_limit_fails_and_one_byte_less_succeeds) {
    init(4096, 65536);
    EXPECT_EQ(append(std::string(65536, 'x')), 0u);
    EXPECT_EQ(b.capacity, 0u);
    EXPECT_EQ(b.base, nullptr);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(append(std::string(65535, 'x')), 65535u);
    EXPECT_EQ(b.capacity, 65536u);
}

TEST_F(buffer_test, the_default_limit_is_four_mebibytes) {
    init(0, 0);
    EXPECT_EQ(append(std::string(4194304, 'x')), 0u);
    EXPECT_EQ(append(std::string(4194303, 'x')), 4194303u);
    EXPECT_EQ(append("x"), 0u);
    EXPECT_EQ(b.length, 4194303u);
}

TEST_F(buffer_test, the_capacity_is_a_power_of_two_times_the_initial_also_below_an_odd_limit) {
    init(16, 100);
    EXPECT_EQ(append(pattern(64)), 0u) << "128 would exceed the limit";
    EXPECT_EQ(append(pattern(63)), 63u);
    EXPECT_EQ(b.capacity, 64u);
}

TEST_F(buffer_test, a_limit_below_the_initial_capacity_forbids_everything) {
    init(1024, 1023);
    EXPECT_EQ(append("x"), 0u);
    EXPECT_EQ(b.base, nullptr);
}

TEST_F(buffer_test, a_failed_append_changes_nothing) {
    init(16, 64);
    append(pattern(40));
    buffer_consume(&b, 5);
    const buffer before = b;

    EXPECT_EQ(buffer_reserve(&b, 24), nullptr);
    EXPECT_EQ(append(pattern(24)), 0u);

    expect_same(before);
    EXPECT_EQ(content(), pattern(40).substr(5));
    EXPECT_EQ(append(pattern(23)), 23u) << "there is room for one byte less";
}

TEST_F(buffer_test, consumed_bytes_that_are_not_compacted_count_as_used) {
    init(16, 64);
    append(pattern(40));
    buffer_consume(&b, 40);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(append(pattern(24)), 0u);
    EXPECT_EQ(append(pattern(23)), 23u);
}

TEST_F(buffer_test, huge_requests_fail_without_wrapping) {
    for (const uint32_t limit : {uint32_t{65536}, BUFFER_UNBOUNDED}) {
        init(16, limit);
        append(pattern(100));
        const buffer before = b;
        EXPECT_EQ(buffer_reserve(&b, UINT32_MAX), nullptr);
        EXPECT_EQ(buffer_reserve(&b, UINT32_MAX - 99), nullptr) << "wraps to 0 with what is there";
        EXPECT_EQ(buffer_reserve(&b, UINT32_MAX - 50), nullptr);
        expect_same(before);
        buffer_free(&b);
    }
}

TEST_F(buffer_test, an_append_of_nothing_returns_0_and_adds_nothing) {
    init(16, 64);
    append("ab");
    EXPECT_EQ(buffer_append(&b, nullptr, 0), 0u);
    EXPECT_EQ(content(), "ab");
    EXPECT_NE(buffer_reserve(&b, 0), nullptr);
    EXPECT_EQ(b.length, 2u);
}

TEST_F(buffer_test, growth_keeps_what_is_consumed_since_the_mark) {
    init(16, 1024);
    append(pattern(15));
    buffer_consume(&b, 4);
    EXPECT_EQ(append(pattern(10)), 10u);
    EXPECT_EQ(b.capacity, 32u);
    EXPECT_EQ(b.mark, b.base);
    EXPECT_EQ(b.data, b.base + 4);
    EXPECT_EQ(std::string(b.base, 15), pattern(15));
    EXPECT_EQ(content(), pattern(15).substr(4) + pattern(10));
    EXPECT_EQ(buffer_compact(&b), 4u);
}

TEST_F(buffer_test, growth_drops_the_space_before_the_mark) {
    init(64, 1024);
    with_space_before_mark(20, 30);
    buffer_consume(&b, 7);

    EXPECT_EQ(append(pattern(100)), 100u);

    EXPECT_EQ(b.capacity, 256u) << "twice the capacity first, and 30 + 100 do not fit into 128";
    EXPECT_EQ(b.mark, b.base);
    EXPECT_EQ(b.data, b.base + 7);
    EXPECT_EQ(std::string(b.mark, 30), pattern(50).substr(20));
    EXPECT_EQ(content(), pattern(50).substr(27) + pattern(100));
    EXPECT_EQ(buffer_compact(&b), 7u);
}

TEST_F(buffer_test, growth_doubles_even_when_the_used_bytes_would_fit_into_the_present_capacity) {
    init(64, 1024);
    with_space_before_mark(20, 30);
    /* 14 bytes are free at the end and 20 before the mark: 20 fit nowhere in one piece. */
    EXPECT_EQ(append(pattern(20)), 20u);
    EXPECT_EQ(b.capacity, 128u);
    EXPECT_EQ(content(), pattern(50).substr(20) + pattern(20));
}

/* --- Reclaiming the space before the mark --- */

TEST_F(buffer_test, a_request_smaller_than_the_space_before_the_mark_moves_the_content_there) {
    init(1024, 4096);
    with_space_before_mark(40, 60);

    char* added = buffer_reserve(&b, 39);

    EXPECT_EQ(b.mark, b.base);
    EXPECT_EQ(b.data, b.base);
    EXPECT_EQ(added, b.base + 60);
    EXPECT_EQ(b.length, 99u);
    EXPECT_EQ(content().substr(0, 60), pattern(100).substr(40));
    EXPECT_EQ(b.capacity, 1024u);
}

TEST_F(buffer_test, a_request_as_large_as_the_space_before_the_mark_goes_to_the_end) {
    init(1024, 4096);
    with_space_before_mark(40, 60);
    EXPECT_EQ(buffer_reserve(&b, 40), b.base + 100);
    EXPECT_EQ(b.mark, b.base + 40);
    EXPECT_EQ(b.data, b.base + 40);
}

TEST_F(buffer_test, moving_keeps_what_is_consumed_since_the_mark) {
    init(1024, 4096);
    with_space_before_mark(40, 60);
    buffer_consume(&b, 10);

    append("xyz");

    EXPECT_EQ(b.mark, b.base);
    EXPECT_EQ(b.data, b.base + 10);
    EXPECT_EQ(std::string(b.base, 60), pattern(100).substr(40));
    EXPECT_EQ(content(), pattern(100).substr(50) + "xyz");
    EXPECT_EQ(buffer_compact(&b), 10u);
}

TEST_F(buffer_test, the_free_space_at_the_end_does_not_count_the_space_before_the_mark) {
    init(128, 128);
    with_space_before_mark(30, 60);
    EXPECT_EQ(append(pattern(38)), 0u)
        << "38 bytes are free at the end, which is not strictly enough";
    EXPECT_EQ(append(pattern(37)), 37u);
}

/* --- Formatting --- */

TEST_F(buffer_test, formatted_text_below_512_bytes_is_appended_without_a_nul) {
    init(0, 0);
    EXPECT_EQ(buffer_printf(&b, "%s-%d", "a", -5), 4u);
    EXPECT_EQ(content(), "a--5");
    const std::string text(500, 'x');
    EXPECT_EQ(buffer_printf(&b, "%s", text.c_str()), 500u);
    EXPECT_EQ(b.length, 504u);
    EXPECT_EQ(content(), "a--5" + text);
}

TEST_F(buffer_test, formatted_text_of_511_bytes_has_no_counted_nul) {
    init(0, 0);
    EXPECT_EQ(buffer_printf(&b, "%0511d", 7), 511u);
    EXPECT_EQ(b.length, 511u);
    EXPECT_EQ(content(), std::string(510, '0') + "7");
}

TEST_F(buffer_test, formatted_text_of_512_bytes_keeps_its_counted_nul) {
    init(0, 0);
    EXPECT_EQ(buffer_printf(&b, "%0512d", 7), 512u);
    EXPECT_EQ(b.length, 513u);
    EXPECT_EQ(content(), std::string(511, '0') + "7" + std::string(1, '\0'));
}

TEST_F(buffer_test, formatted_text_of_600_bytes_adds_601) {
    init(0, 0);
    const std::string text(600, 'y');
    append("before");
    EXPECT_EQ(buffer_printf(&b, "%s", text.c_str()), 600u);
    EXPECT_EQ(b.length, 607u);
    buffer_printf(&b, "%c", '!');
    EXPECT_EQ(content(), "before" + text + std::string("\0!", 2));
}

TEST_F(buffer_test, an_empty_formatted_text_adds_nothing) {
    init(0, 0);
    append("ab");
    EXPECT_EQ(buffer_printf(&b, "%s", ""), 0u);
    EXPECT_EQ(content(), "ab");
}

TEST_F(buffer_test, formatted_text_that_does_not_fit_returns_0_and_adds_nothing) {
    init(16, 64);
    append("ab");
    EXPECT_EQ(buffer_printf(&b, "%062d", 1), 0u);
    EXPECT_EQ(content(), "ab");
    EXPECT_EQ(buffer_printf(&b, "%061d", 1), 61u);
}

TEST_F(buffer_test, long_formatted_text_needs_room_for_its_nul_too) {
    init(16, 1024);
    EXPECT_EQ(buffer_printf(&b, "%01023d", 1), 0u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(b.base, nullptr);
    EXPECT_EQ(buffer_printf(&b, "%01022d", 1), 1022u);
    EXPECT_EQ(b.length, 1023u);
}

TEST_F(buffer_death_test, a_format_that_cannot_be_printed_breaks_an_assertion) {
    init(0, 0);
    EXPECT_EXIT(buffer_printf(&b, "%lc", static_cast<wint_t>(0x4e00)),
                testing::KilledBySignal(SIGABRT),
                "buffer:70: buffer_vprintf: Assertion `siz >= 0' failed");
}

/* --- Taking away --- */

TEST_F(buffer_test, consume_drops_from_the_front_and_returns_where_the_data_began) {
    init(16, 64);
    append("abcdef");
    char* start = b.data;
    EXPECT_EQ(buffer_consume(&b, 2), start);
    EXPECT_EQ(content(), "cdef");
    EXPECT_EQ(std::string(start, 2), "ab") << "what was consumed can still be read";
    EXPECT_EQ(b.mark, b.base);
    expect_invariants();
}

TEST_F(buffer_test, consuming_more_than_the_length_empties_the_buffer) {
    init(16, 64);
    append("abcdef");
    char* start = b.data;
    EXPECT_EQ(buffer_consume(&b, 7), start);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(b.data, start + 6);
    EXPECT_EQ(buffer_consume(&b, UINT32_MAX), start + 6);
    EXPECT_EQ(b.data, start + 6);
    expect_invariants();
}

TEST_F(buffer_test, a_fresh_buffer_can_be_consumed_truncated_and_compacted) {
    init(16, 64);
    EXPECT_EQ(buffer_consume(&b, 5), nullptr);
    EXPECT_EQ(buffer_truncate(&b, 5), 0u);
    EXPECT_EQ(buffer_compact(&b), 0u);
    buffer_reset(&b);
    buffer_shrink_reset(&b);
    EXPECT_EQ(b.base, nullptr);
    EXPECT_EQ(b.length, 0u);
}

TEST_F(buffer_test, truncate_drops_from_the_end_and_returns_the_new_length) {
    init(16, 64);
    append("abcdef");
    EXPECT_EQ(buffer_truncate(&b, 2), 4u);
    EXPECT_EQ(content(), "abcd");
    EXPECT_EQ(buffer_truncate(&b, 0), 4u);
    append("X");
    EXPECT_EQ(content(), "abcdX");
    EXPECT_EQ(buffer_truncate(&b, 6), 0u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(b.data, b.base);
}

TEST_F(buffer_test, compact_returns_what_was_consumed_since_the_last_mark) {
    init(64, 64);
    append(pattern(50));
    EXPECT_EQ(buffer_compact(&b), 0u);
    buffer_consume(&b, 3);
    buffer_consume(&b, 4);
    EXPECT_EQ(buffer_compact(&b), 7u);
    EXPECT_EQ(buffer_compact(&b), 0u);
    buffer_consume(&b, 2);
    EXPECT_EQ(buffer_compact(&b), 2u);
    EXPECT_EQ(content(), pattern(50).substr(9));
}

TEST_F(buffer_test, compact_moves_the_rest_only_when_it_is_shorter_than_the_space_before_it) {
    init(64, 64);
    append(pattern(40));
    buffer_consume(&b, 20);
    buffer_compact(&b);
    EXPECT_EQ(b.data, b.base + 20) << "20 bytes are not shorter than 20";
    EXPECT_EQ(b.mark, b.data);
    buffer_consume(&b, 1);
    EXPECT_EQ(buffer_compact(&b), 1u);
    EXPECT_EQ(b.data, b.base) << "19 bytes are shorter than 21";
    EXPECT_EQ(b.mark, b.base);
    EXPECT_EQ(content(), pattern(40).substr(21));
}

TEST_F(buffer_test, compact_moves_to_the_front_when_everything_is_consumed) {
    init(64, 64);
    append(pattern(40));
    buffer_consume(&b, 40);
    EXPECT_EQ(buffer_compact(&b), 40u);
    EXPECT_EQ(b.data, b.base);
    EXPECT_EQ(b.mark, b.base);
    EXPECT_EQ(b.length, 0u);
}

/* --- Emptying --- */

TEST_F(buffer_test, reset_empties_and_keeps_the_allocation) {
    init(16, 64);
    append(pattern(40));
    buffer_consume(&b, 5);
    char* base = b.base;
    buffer_reset(&b);
    EXPECT_EQ(b.base, base);
    EXPECT_EQ(b.mark, base);
    EXPECT_EQ(b.data, base);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(b.capacity, 64u);
    EXPECT_EQ(buffer_compact(&b), 0u) << "what was consumed before the reset is forgotten";
}

TEST_F(buffer_test, reset_forgets_the_space_that_compacting_has_left_behind) {
    init(64, 64);
    with_space_before_mark(5, 35);
    buffer_reset(&b);
    EXPECT_EQ(b.mark, b.base);
    EXPECT_EQ(b.data, b.base);
    EXPECT_EQ(append(pattern(63)), 63u);
    EXPECT_EQ(content(), pattern(63));
    EXPECT_EQ(b.data, b.base);
}

TEST_F(buffer_test, shrink_reset_gives_back_what_grew_beyond_the_initial_capacity) {
    init(16, 1024);
    append(pattern(600));
    buffer_consume(&b, 100);
    buffer_shrink_reset(&b);
    EXPECT_EQ(b.capacity, 16u);
    EXPECT_EQ(b.mark, b.base);
    EXPECT_EQ(b.data, b.base);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(append(pattern(15)), 15u);
    EXPECT_EQ(b.capacity, 16u);
    EXPECT_EQ(content(), pattern(15));
}

TEST_F(buffer_test, shrink_reset_forgets_the_space_that_compacting_has_left_behind) {
    for (const uint32_t length : {7u, 597u}) {
        init(16, 1024);
        with_space_before_mark(3, length);
        buffer_shrink_reset(&b);
        EXPECT_EQ(b.mark, b.base) << length;
        EXPECT_EQ(b.data, b.base) << length;
        EXPECT_EQ(append(pattern(15)), 15u) << length;
        EXPECT_EQ(b.data, b.base) << length;
        EXPECT_EQ(b.capacity, 16u) << length;
        buffer_free(&b);
    }
}

TEST_F(buffer_test, shrink_reset_keeps_an_allocation_of_the_initial_capacity) {
    init(16, 1024);
    append(pattern(10));
    char* base = b.base;
    buffer_shrink_reset(&b);
    EXPECT_EQ(b.base, base);
    EXPECT_EQ(b.capacity, 16u);
    EXPECT_EQ(b.length, 0u);
}

TEST_F(buffer_test, a_freed_buffer_can_be_used_again_with_the_same_sizes) {
    init(16, 64);
    append(pattern(40));
    buffer_free(&b);
    EXPECT_EQ(b.base, nullptr);
    EXPECT_EQ(b.mark, nullptr);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(b.capacity, 0u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(b.initial, 16u);
    EXPECT_EQ(b.limit, 64u);
    EXPECT_EQ(append("again"), 5u);
    EXPECT_EQ(b.capacity, 16u);
    EXPECT_EQ(content(), "again");
}

TEST_F(buffer_test, a_queue_of_many_appends_and_consumes_keeps_its_order) {
    init(16, 4096);
    std::string expected;
    unsigned random = 12345;
    for (int i = 0; i < 5000; i++) {
        random = random * 1103515245 + 12345;
        const uint32_t n = random >> 16 & 63;
        if ((random >> 8 & 3) != 0) {
            const std::string text = pattern(n + i % 100).substr(i % 100);
            if (append(text) != 0) {
                expected += text;
            }
        } else {
            buffer_consume(&b, n * 4);
            expected.erase(0, n * 4);
        }
        if ((random >> 10 & 7) == 0) {
            buffer_compact(&b);
        }
        ASSERT_EQ(content(), expected) << "after step " << i;
        expect_invariants();
        ASSERT_LE(b.capacity, 4096u);
    }
}
