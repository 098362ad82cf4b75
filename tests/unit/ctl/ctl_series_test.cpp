#include "ctl/ctl_series.h"

#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/unit/ctl/ring_value.h"

namespace {

class tessctl_series : public ::testing::Test {
  protected:
    /* Decodes a copy that ends exactly where the value does, so that the sanitizers see every step
     * beyond. */
    const char* decode(const std::string& key, const std::string& value) {
        copy = std::make_unique<char[]>(value.size());
        memcpy(copy.get(), value.data(), value.size());
        return ctl_series_decode(text_of(key), {copy.get(), value.size()}, &s);
    }

    std::vector<uint32_t> figures(unsigned figure) const {
        std::vector<uint32_t> all;
        for (uint32_t i = 0; i < s.filled; i++) {
            all.push_back(ctl_series_value(&s, i, figure));
        }
        return all;
    }

    int64_t time_of(uint32_t sample) const {
        int64_t seconds = -1;
        EXPECT_TRUE(ctl_series_time(&s, sample, &seconds));
        return seconds;
    }

    std::vector<uint32_t> spread(unsigned width) const {
        std::vector<uint32_t> columns(width);
        columns.resize(ctl_series_spread(&s, 0, columns.data(), width));
        return columns;
    }

    std::unique_ptr<char[]> copy;
    ctl_series s;
};

typedef std::vector<uint32_t> numbers;

TEST_F(tessctl_series, begins_with_slot_0_while_slots_are_free) {
    ASSERT_EQ(decode("cpu.10m", ring_of_bytes({1700000000, 1, 5, 3, 3}, {7, 9, 100, 0, 0})),
              nullptr);
    EXPECT_EQ(figures(0), (numbers{7, 9, 100}));
    EXPECT_STREQ(s.kind->figures[0].name, "percent");
    EXPECT_EQ(s.period, 1U);
    EXPECT_EQ(s.slots, 5U);
}

TEST_F(tessctl_series, begins_with_the_head_once_all_slots_are_filled) {
    ASSERT_EQ(decode("cpu.10m", ring_of_bytes({1700000000, 1, 5, 5, 2}, {40, 50, 10, 20, 30})),
              nullptr);
    EXPECT_EQ(figures(0), (numbers{10, 20, 30, 40, 50}));
    ASSERT_EQ(decode("cpu.10m", ring_of_bytes({1700000000, 1, 5, 5, 0}, {1, 2, 3, 4, 5})), nullptr);
    EXPECT_EQ(figures(0), (numbers{1, 2, 3, 4, 5}));
    ASSERT_EQ(decode("cpu.10m", ring_of_bytes({1700000000, 1, 5, 5, 4}, {2, 3, 4, 5, 1})), nullptr);
    EXPECT_EQ(figures(0), (numbers{1, 2, 3, 4, 5}));
}

/* A ten-minute ring that was loaded into a full one keeps its small count for good, while the
 * daemon's own head goes round. */
TEST_F(tessctl_series, does_not_look_at_the_head_while_slots_are_free) {
    ASSERT_EQ(decode("cpu.10m", ring_of_bytes({1700000000, 1, 5, 2, 4}, {7, 9, 100, 0, 0})),
              nullptr);
    EXPECT_EQ(figures(0), (numbers{7, 9}));
}

TEST_F(tessctl_series, may_be_empty) {
    ASSERT_EQ(decode("conn.2h", ring_of_numbers({0, 12, 2, 0, 0}, {0, 0})), nullptr);
    EXPECT_EQ(s.filled, 0U);
    EXPECT_TRUE(spread(10).empty());
}

TEST_F(tessctl_series, reads_numbers_with_the_high_byte_first) {
    ASSERT_EQ(decode("conn.2h", ring_of_numbers({1, 12, 2, 2, 0}, {0x01020304, 0xfffffffe})),
              nullptr);
    EXPECT_EQ(figures(0), (numbers{0x01020304, 0xfffffffe}));
    EXPECT_STREQ(s.kind->figures[0].name, "connections");
    ASSERT_EQ(decode("host.2h", ring_of_numbers({1, 12, 1, 1, 0}, {5})), nullptr);
    EXPECT_STREQ(s.kind->figures[0].name, "hosts");
}

TEST_F(tessctl_series, reads_bytes_as_unsigned) {
    ASSERT_EQ(decode("cpu.day", ring_of_bytes({1, 360, 1, 1, 0}, "\xff")), nullptr);
    EXPECT_EQ(figures(0), (numbers{255}));
}

TEST_F(tessctl_series, has_four_figures_for_an_interface) {
    ASSERT_EQ(decode("pppoe-wan.day", ring_of_numbers({1, 360, 2, 2, 1}, {5, 6, 7, 8, 1, 2, 3, 4})),
              nullptr);
    const char* names[] = {"rxb", "rxp", "txb", "txp"};
    ASSERT_EQ(s.kind->count, 4U);
    for (unsigned i = 0; i < 4; i++) {
        EXPECT_STREQ(s.kind->figures[i].name, names[i]);
        EXPECT_EQ(figures(i), (numbers{1 + i, 5 + i}));
    }
    EXPECT_FALSE(s.kind->reports);
    EXPECT_TRUE(ctl_series_is_interface(&s));
    EXPECT_EQ(figures(CTL_INTERFACE_RXB), (numbers{1, 5}));
    EXPECT_EQ(figures(CTL_INTERFACE_TXB), (numbers{3, 7}));
}

TEST_F(tessctl_series, is_no_interfaces_when_its_name_is_another) {
    ASSERT_EQ(decode("cpu.2h", ring_of_bytes({1, 12, 1, 1, 0}, "a")), nullptr);
    EXPECT_FALSE(ctl_series_is_interface(&s));
    ASSERT_EQ(decode("ping3.day", ring_of_numbers({1, 3, 1, 1, 0}, {1, 2, 3, 4, 5})), nullptr);
    EXPECT_FALSE(ctl_series_is_interface(&s));
}

TEST_F(tessctl_series, has_five_figures_for_a_ping_target) {
    for (const char* key : {"ping1.day", "ping9.week", "ping10.mon", "ping20.day"}) {
        ASSERT_EQ(decode(key, ring_of_numbers({1, 3, 1, 1, 0}, {50, 10, 20, 30, 2})), nullptr)
            << key;
        const char* names[] = {"max", "min", "avg", "total", "loss"};
        ASSERT_EQ(s.kind->count, 5U);
        for (unsigned i = 0; i < 5; i++) {
            EXPECT_STREQ(s.kind->figures[i].name, names[i]);
        }
        EXPECT_EQ(figures(0), (numbers{50}));
        EXPECT_EQ(figures(4), (numbers{2}));
        EXPECT_TRUE(s.kind->reports);
    }
}

TEST_F(tessctl_series, takes_an_interfaces_name_up_to_the_last_dot) {
    const std::string value = ring_of_numbers({1, 1, 1, 1, 0}, {1, 2, 3, 4});
    for (const char* key : {"eth0.10m", "eth0.100.10m", "ping.10m", "ping0.10m", "ping21.10m",
                            "ping01.10m", "ping1x.10m", "ping100.10m", "cpu0.10m", "p-.x", "a."}) {
        EXPECT_EQ(decode(key, value), nullptr) << key;
    }
}

TEST_F(tessctl_series, refuses_a_name_that_tells_nothing) {
    const std::string value = ring_of_numbers({1, 1, 1, 1, 0}, {1, 2, 3, 4});
    for (const char* key : {"", "eth0", ".", ".10m"}) {
        EXPECT_NE(decode(key, value), nullptr) << key;
    }
}

TEST_F(tessctl_series, refuses_samples_that_the_name_does_not_promise) {
    const std::string by_size[] = {ring_of_bytes({1, 1, 1, 1, 0}, std::string(1, 'x')),
                                   ring_of_bytes({1, 1, 1, 1, 0}, std::string(4, 'x')),
                                   ring_of_bytes({1, 1, 1, 1, 0}, std::string(16, 'x')),
                                   ring_of_bytes({1, 1, 1, 1, 0}, std::string(20, 'x'))};
    const std::vector<std::vector<std::string>> keys = {
        {"cpu.10m"}, {"host.10m", "conn.10m"}, {"eth0.10m"}, {"ping3.day"}};
    for (size_t size = 0; size < 4; size++) {
        for (size_t kind = 0; kind < 4; kind++) {
            for (const std::string& key : keys[kind]) {
                EXPECT_EQ(decode(key, by_size[size]) == nullptr, size == kind)
                    << key << " size " << size;
            }
        }
    }
    EXPECT_NE(decode("cpu.10m", ring_of_bytes({1, 1, 1, 1, 0}, "xx")), nullptr);
    EXPECT_NE(decode("eth0.10m", ring_of_bytes({1, 1, 1, 1, 0}, std::string(200, 'x'))), nullptr);
}

TEST_F(tessctl_series, refuses_headers_that_do_not_fit) {
    const std::string four(4, 'x');
    EXPECT_EQ(decode("cpu.10m", ring_of_bytes({1, 1, 4, 4, 3}, four)), nullptr);
    EXPECT_STREQ(decode("cpu.10m", ring_of_bytes({1, 1, 0, 0, 0}, four)),
                 "its header says that it has no slots");
    EXPECT_STREQ(decode("cpu.10m", ring_of_bytes({1, 1, 0, 0, 0}, "")),
                 "its header says that it has no slots");
    EXPECT_STREQ(decode("cpu.10m", ring_of_bytes({1, 1, 4, 5, 0}, four)),
                 "its header says that more slots are filled than there are");
    EXPECT_STREQ(decode("cpu.10m", ring_of_bytes({1, 1, 4, 0xffffffff, 0}, four)),
                 "its header says that more slots are filled than there are");
    EXPECT_STREQ(decode("cpu.10m", ring_of_bytes({1, 1, 4, 4, 4}, four)),
                 "its header says that the next slot is none of its own");
    EXPECT_STREQ(decode("cpu.10m", ring_of_bytes({1, 1, 4, 0, 0xffffffff}, four)),
                 "its header says that the next slot is none of its own");
    for (uint32_t slots : {3U, 5U, 0x7fffffffU, 0x80000000U, 0x80000004U, 0xffffffffU}) {
        EXPECT_STREQ(decode("cpu.10m", ring_of_bytes({1, 1, slots, 0, 0}, four)),
                     "its length does not fit the number of its slots")
            << slots;
    }
    EXPECT_STREQ(decode("cpu.10m", ring_of_bytes({1, 1, 4, 0, 0}, "")),
                 "its length does not fit the number of its slots");
}

TEST_F(tessctl_series, refuses_a_value_without_a_whole_header) {
    const std::string header = header_bytes({1, 1, 1, 1, 0});
    for (size_t length = 0; length < header.size(); length++) {
        EXPECT_STREQ(decode("cpu.10m", header.substr(0, length)),
                     "it is too short for the header of a history");
    }
}

/* Every byte of the header replaced by every mark: what is accepted must be readable from end to
 * end. */
TEST_F(tessctl_series, never_reads_outside_the_value_whatever_the_header_says) {
    const std::string good = ring_of_numbers({1700000000, 1, 3, 3, 1}, numbers(12, 7));
    const std::string marks("\0\1\2\3\4\x7f\x80\xff", 8);
    for (size_t a = 0; a < 20; a++) {
        for (size_t b = 0; b < 20; b++) {
            for (char mark : marks) {
                std::string value = good;
                value[a] = value[b] = mark;
                if (decode("eth0.10m", value) == nullptr) {
                    EXPECT_EQ(figures(3), numbers(s.filled, 7));
                    for (unsigned width : {1U, 2U, 3U, 4U, 80U}) {
                        EXPECT_LE(spread(width).size(), width);
                    }
                }
            }
        }
    }
}

TEST_F(tessctl_series, counts_its_times_back_from_the_last) {
    ASSERT_EQ(decode("cpu.2h", ring_of_bytes({1700000000, 12, 5, 5, 2}, "abcde")), nullptr);
    EXPECT_EQ(time_of(4), 1700000000);
    EXPECT_EQ(time_of(3), 1699999988);
    EXPECT_EQ(time_of(0), 1699999952);
}

TEST_F(tessctl_series, counts_its_times_without_wrapping) {
    ASSERT_EQ(decode("cpu.2h", ring_of_bytes({0xffffffff, 12, 2, 2, 0}, "ab")), nullptr);
    EXPECT_EQ(time_of(1), 4294967295);
    EXPECT_EQ(time_of(0), 4294967283);
    ASSERT_EQ(decode("cpu.2h", ring_of_bytes({10, 0xffffffff, 3, 3, 0}, "abc")), nullptr);
    EXPECT_EQ(time_of(2), 10);
    EXPECT_EQ(time_of(0), 10 - 2 * 4294967295);
}

TEST_F(tessctl_series, has_no_times_when_periods_are_reports_or_the_last_is_not_known) {
    int64_t seconds;
    ASSERT_EQ(decode("ping3.day", ring_of_numbers({1700000000, 3, 1, 1, 0}, {1, 2, 3, 4, 5})),
              nullptr);
    EXPECT_FALSE(ctl_series_time(&s, 0, &seconds));
    EXPECT_FALSE(ctl_series_is_timed(&s));
    ASSERT_EQ(decode("cpu.2h", ring_of_bytes({0, 12, 1, 1, 0}, "a")), nullptr);
    EXPECT_FALSE(ctl_series_time(&s, 0, &seconds));
    EXPECT_FALSE(ctl_series_is_timed(&s));
    ASSERT_EQ(decode("cpu.2h", ring_of_bytes({1, 12, 1, 1, 0}, "a")), nullptr);
    EXPECT_TRUE(ctl_series_is_timed(&s));
}

TEST_F(tessctl_series, puts_the_largest_of_several_samples_into_a_column) {
    ASSERT_EQ(decode("cpu.10m", ring_of_bytes({1, 1, 7, 7, 0}, {1, 9, 3, 4, 5, 8, 7})), nullptr);
    /* The columns begin with samples 0, 2 and 4. */
    EXPECT_EQ(spread(3), (numbers{9, 4, 8}));
    EXPECT_EQ(spread(1), (numbers{9}));
    EXPECT_EQ(spread(7), (numbers{1, 9, 3, 4, 5, 8, 7}));
}

TEST_F(tessctl_series, gives_each_of_few_samples_the_same_number_of_columns) {
    ASSERT_EQ(decode("cpu.10m", ring_of_bytes({1, 1, 3, 3, 0}, {1, 9, 3})), nullptr);
    EXPECT_EQ(spread(8), (numbers{1, 1, 9, 9, 3, 3}));
    EXPECT_EQ(spread(5), (numbers{1, 9, 3}));
    EXPECT_EQ(ctl_series_at(&s, 0, 6), 0U);
    EXPECT_EQ(ctl_series_at(&s, 3, 6), 1U);
    EXPECT_EQ(ctl_series_at(&s, 5, 6), 2U);
}

/* One peak, moved over every sample of a whole ring, must show in exactly one column of any width.
 */
TEST_F(tessctl_series, loses_no_peak_and_shows_none_twice) {
    for (unsigned width : {1U, 7U, 72U, 77U, 599U, 600U}) {
        for (size_t peak = 0; peak < 600; peak++) {
            std::string samples(600, '\1');
            samples[peak] = 99;
            ASSERT_EQ(decode("cpu.10m", ring_of_bytes({1, 1, 600, 600, 0}, samples)), nullptr);
            const numbers columns = spread(width);
            ASSERT_EQ(columns.size(), width);
            ASSERT_EQ(std::count(columns.begin(), columns.end(), 99U), 1)
                << width << " peak at " << peak;
        }
    }
}

} // namespace
