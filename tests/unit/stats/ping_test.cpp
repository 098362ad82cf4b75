#include "stats/ping.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "stats/history.h"
#include "store/dump.h"
#include "store/object.h"
#include "tests/support/big_endian.h"
#include "tests/unit/support/store_test.h"
#include "tests/unit/support/test_client.h"
#include "tests/unit/support/test_clock.h"
#include "tests/unit/support/text_string.h"

using namespace unit_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int64_t NOW = 1700000000;

/* Max, min, avg, total and loss as they stand in "ping.snap" and in a sample. */
std::string figures(uint32_t max, uint32_t min, uint32_t avg, uint32_t total, uint32_t loss) {
    return be32(max) + be32(min) + be32(avg) + be32(total) + be32(loss);
}

const std::string NOTHING = figures(0, 0, 0, 0, 0);

class ping_test : public store_test {
  protected:
    ping_test() : clock(NOW) {
        history_start();
        module_ping_start();
    }

    ~ping_test() override {
        history_start();
    }

    static void set(const char* key, std::string_view value) {
        object_set_string(make(key, OBJ_TSTRING), text(value));
    }

    static void report(std::string_view value) {
        set("ping.data", value);
    }

    static void report(int id, long long max, long long min, long long avg, long long total,
                       long long loss) {
        report("id=" + std::to_string(id) + ",max=" + std::to_string(max) +
               ",min=" + std::to_string(min) + ",avg=" + std::to_string(avg) +
               ",total=" + std::to_string(total) + ",loss=" + std::to_string(loss));
    }

    static void clear(std::string_view id) {
        set("ping.del", id);
    }

    static std::string snap() {
        const object* obj = object_lookup_type("ping.snap", OBJ_TSTRING);
        return obj != nullptr ? std::string(bytes_of(obj->string)) : "no ping.snap";
    }

    static std::string entry(int id) {
        return snap().substr(static_cast<size_t>(id - 1) * 20, 20);
    }

    static bool has_reported(int id) {
        return object_lookup(("ping" + std::to_string(id) + ".day").c_str()) != nullptr;
    }

    static std::string ring(const char* key) {
        const object* obj = object_lookup_type(key, OBJ_TSTRING);
        return obj != nullptr ? std::string(bytes_of(obj->string)) : "no ring";
    }

    /* Time, filled and head of a ring. */
    static std::string counts(const char* key) {
        const std::string all = ring(key);
        return all.substr(0, 4) + all.substr(12, 8);
    }

    static std::string sample(const char* key, size_t slot) {
        return ring(key).substr(20 + slot * 20, 20);
    }

    test_clock::frozen clock;
};

std::string counts_of(int64_t time, uint32_t filled, uint32_t head) {
    return be32(static_cast<uint32_t>(time)) + be32(filled) + be32(head);
}

} // namespace

/* --- The start --- */

TEST_F(ping_test, the_table_is_a_string_of_400_zero_bytes_that_cannot_be_deleted) {
    EXPECT_EQ(snap(), std::string(400, '\0'));
    object* obj = object_lookup("ping.snap");
    EXPECT_EQ(obj->flags, flags_of(OBJ_TSTRING, 0x200));
    EXPECT_EQ(obj->aux, nullptr);
    EXPECT_EQ(object_delete(obj), 0);
}

TEST_F(ping_test, a_start_clears_a_table_of_400_bytes) {
    set("ping.snap", std::string(400, 'x'));
    module_ping_start();
    EXPECT_EQ(snap(), std::string(400, '\0'));
}

TEST_F(ping_test, a_start_replaces_a_table_of_another_length) {
    for (const size_t length : {0u, 1u, 399u, 401u, 4000u}) {
        object_reset();
        history_start();
        set("ping.snap", std::string(length, 'x'));
        module_ping_start();
        EXPECT_EQ(snap(), std::string(400, '\0')) << length;
    }
}

TEST_F(ping_test, a_start_leaves_a_key_of_another_type_alone) {
    object_reset();
    make("ping.snap", OBJ_THASH);
    history_start();
    module_ping_start();
    EXPECT_EQ(object_type(object_lookup("ping.snap")), OBJ_THASH);
    report(1, 4, 1, 2, 10, 0);
    EXPECT_TRUE(has_reported(1));
    clear("1");
    EXPECT_EQ(object_type(object_lookup("ping.snap")), OBJ_THASH);
}

TEST_F(ping_test, a_start_makes_no_targets) {
    for (int id = 1; id <= 20; id++) {
        EXPECT_FALSE(has_reported(id)) << id;
    }
}

TEST_F(ping_test, a_start_forgets_the_targets_of_the_run_before) {
    report(7, 40, 10, 20, 10, 5);
    object_reset();
    history_start();
    module_ping_start();
    report(7, 1, 1, 1, 1, 0);
    EXPECT_TRUE(has_reported(7));
    EXPECT_EQ(entry(7), figures(1, 1, 1, 1, 0));
}

/* --- Reports --- */

TEST_F(ping_test, two_reports_are_folded_into_one_summary) {
    report("id=3,max=40,min=10,avg=20,total=10,loss=0");
    EXPECT_EQ(entry(3), figures(40, 10, 20, 10, 0));
    report("id=3,max=30,min=5,avg=30,total=10,loss=2");
    EXPECT_EQ(entry(3), figures(40, 5, 25, 20, 2));
    EXPECT_EQ(snap(), std::string(40, '\0') + figures(40, 5, 25, 20, 2) + std::string(340, '\0'));
}

TEST_F(ping_test, numbers_are_big_endian_on_every_target) {
    report("id=1,max=16909060,min=67305985,avg=2,total=256,loss=65536");
    EXPECT_EQ(snap().substr(0, 20),
              std::string("\x01\x02\x03\x04\x04\x03\x02\x01\0\0\0\x02\0\0\x01\0\0\x01\0\0", 20));
}

TEST_F(ping_test, the_first_and_the_last_target_stand_at_the_ends_of_the_table) {
    report(1, 1, 2, 3, 4, 5);
    report(20, 6, 7, 8, 9, 10);
    EXPECT_EQ(snap(), figures(1, 2, 3, 4, 5) + std::string(360, '\0') + figures(6, 7, 8, 9, 10));
}

TEST_F(ping_test, identifiers_outside_one_to_twenty_are_ignored) {
    for (const char* id : {"0", "21", "-1", "22", "100", "2147483647", "-2147483648", "4294967297",
                           "18446744073709551617", "-4294967295", "99999999999999999999999"}) {
        report("id=" + std::string(id) + ",max=4,min=1,avg=2,total=10,loss=1");
        EXPECT_EQ(snap(), std::string(400, '\0')) << id;
    }
    for (int id = -1; id <= 22; id++) {
        EXPECT_FALSE(has_reported(id)) << id;
    }
}

TEST_F(ping_test, reports_without_all_six_numbers_are_ignored) {
    for (const char* value :
         {"", "id=3", "id=3,max=4,min=1,avg=2,total=10", "id=3,max=4,min=1,avg=2,total=10,",
          "id=3,max=4,min=1,avg=2,total=10,loss=", "id=3,max=4,min=1,avg=2,total=10,loss=x",
          "id=3,max=4,min=1,avg=2,total=,loss=1", "id=3,max=,min=1,avg=2,total=10,loss=1",
          "id=3,min=1,max=4,avg=2,total=10,loss=1", "id=3;max=4;min=1;avg=2;total=10;loss=1",
          "id=3, max=4,min=1,avg=2,total=10,loss=1", " id=3,max=4,min=1,avg=2,total=10,loss=1",
          "ID=3,max=4,min=1,avg=2,total=10,loss=1", "3,4,1,2,10,1",
          "id=3,max=4,min=1,avg=2,total=10loss=1", "id=3,max=4.5,min=1,avg=2,total=10,loss=1",
          "id=x,max=4,min=1,avg=2,total=10,loss=1"}) {
        report(value);
        EXPECT_EQ(snap(), std::string(400, '\0')) << value;
        EXPECT_FALSE(has_reported(3)) << value;
    }
}

TEST_F(ping_test, a_report_ends_at_its_first_nul) {
    report(std::string_view("id=3,max=4,min=1,avg=2,total=10,\0loss=1", 39));
    EXPECT_FALSE(has_reported(3));
    report(std::string_view("id=3,max=4,min=1,avg=2,total=10,loss=1\0000", 40));
    EXPECT_EQ(entry(3), figures(4, 1, 2, 10, 1));
}

TEST_F(ping_test, reports_are_read_as_scanf_reads_them) {
    report("id= 3,max=+4,min=\t1,avg=002,total=\n10,loss=1 and more");
    EXPECT_EQ(entry(3), figures(4, 1, 2, 10, 1));
}

TEST_F(ping_test, a_very_long_report_is_read_too) {
    report("id=3,max=" + std::string(100000, '0') + "4,min=1,avg=2,total=10,loss=1" +
           std::string(100000, 'x'));
    EXPECT_EQ(entry(3), figures(4, 1, 2, 10, 1));
}

TEST_F(ping_test, figures_beyond_32_bits_saturate) {
    report("id=3,max=2147483648,min=2147483647,avg=4294967296,total=99999999999999999999999,loss="
           "9223372036854775808");
    EXPECT_EQ(entry(3), figures(2147483647, 2147483647, 2147483647, 2147483647, 2147483647));
}

TEST_F(ping_test, negative_figures_are_stored_as_unsigned) {
    report("id=3,max=-1,min=-2,avg=-3,total=-4,loss=-2147483649");
    EXPECT_EQ(entry(3), figures(4294967295, 4294967294, 4294967293, 4294967292, 2147483648));
}

TEST_F(ping_test, totals_wrap_at_32_bits) {
    for (int i = 0; i < 3; i++) {
        report(3, 1, 1, 1, 2147483647, 2000000000);
    }
    /* 3 * 2147483647 - 4294967296 and 3 * 2000000000 - 4294967296 */
    EXPECT_EQ(entry(3), figures(1, 1, 1, 2147483645, 1705032704));
}

TEST_F(ping_test, maxima_are_compared_as_unsigned) {
    report(3, -1, 1, 1, 1, 0);
    report(3, 5, 1, 1, 1, 0);
    EXPECT_EQ(entry(3).substr(0, 4), be32(4294967295));
}

TEST_F(ping_test, every_key_of_the_family_but_the_two_is_ignored) {
    const std::string value = "id=3,max=4,min=1,avg=2,total=10,loss=1";
    for (const char* key :
         {"ping.dat", "ping.data2", "ping", "Ping.data", "ping.data ", "_ping.data", "data"}) {
        set(key, value);
        EXPECT_FALSE(has_reported(3)) << key;
    }
    report(value);
    EXPECT_TRUE(has_reported(3));
    set("ping.dele", "3");
    set("ping.de", "3");
    EXPECT_EQ(entry(3), figures(4, 1, 2, 10, 1));
}

TEST_F(ping_test, a_string_without_value_is_no_report) {
    object* obj = make("ping.data", OBJ_TSTRING);
    EXPECT_EQ(ping_data_hook(obj), 0);
    EXPECT_EQ(ping_data_hook(make("ping.del", OBJ_TSTRING)), 0);
    EXPECT_EQ(snap(), std::string(400, '\0'));
}

TEST_F(ping_test, a_client_reports_with_any_command_that_writes_the_key) {
    test_client client;
    client.call({"set", "ping.data", "id=3,max=4,min=1,avg=2,total=10,loss=1"});
    EXPECT_EQ(entry(3), figures(4, 1, 2, 10, 1));
    client.call({"mset", "ping.data", "id=4,max=4,min=1,avg=2,total=10,loss=1", "other", "x"});
    EXPECT_EQ(entry(4), figures(4, 1, 2, 10, 1));
    client.call({"set", "ping.data", "id=5,max=4,min=1,avg=2,total=10,"});
    client.call({"append", "ping.data", "loss=7"});
    EXPECT_EQ(entry(5), figures(4, 1, 2, 10, 7));
    client.call({"setex", "ping.data", "100", "id=6,max=4,min=1,avg=2,total=10,loss=1"});
    EXPECT_EQ(entry(6), figures(4, 1, 2, 10, 1));
    /* Writing the same once more is one more report. */
    client.call({"set", "ping.data", "id=3,max=4,min=1,avg=2,total=10,loss=1"});
    EXPECT_EQ(entry(3), figures(4, 1, 2, 20, 2));
    client.call({"set", "ping.del", "3"});
    EXPECT_EQ(entry(3), NOTHING);
}

TEST_F(ping_test, a_report_is_announced_but_the_table_is_not) {
    test_client observer;
    observer.call({"observe"});
    report("id=3,max=4,min=1,avg=2,total=10,loss=1");
    EXPECT_EQ(observer.received(),
              event({"MSET", "ping.data", "id=3,max=4,min=1,avg=2,total=10,loss=1"}));
}

/* --- The summary --- */

TEST_F(ping_test, the_summary_keeps_the_smallest_minimum_that_is_not_zero) {
    const struct {
        uint32_t reported;
        uint32_t kept;
    } steps[] = {{30, 30}, {40, 30}, {20, 20}, {0, 20}, {20, 20}, {21, 20}, {1, 1}, {0, 1}, {7, 1}};
    for (const auto& step : steps) {
        report(3, 50, step.reported, 1, 1, 0);
        EXPECT_EQ(entry(3).substr(4, 4), be32(step.kept)) << step.reported;
    }
}

TEST_F(ping_test, a_minimum_of_zero_is_replaced_by_any_that_follows) {
    report(3, 50, 0, 1, 1, 0);
    EXPECT_EQ(entry(3).substr(4, 4), be32(0));
    report(3, 50, 0, 1, 1, 0);
    EXPECT_EQ(entry(3).substr(4, 4), be32(0));
    report(3, 50, 60, 1, 1, 0);
    EXPECT_EQ(entry(3).substr(4, 4), be32(60));
}

TEST_F(ping_test, averages_are_averaged_and_truncated) {
    const struct {
        uint32_t reported;
        uint32_t kept;
    } steps[] = {
        {10, 10},           /* the first is taken as it is */
        {11, 10},           /* (10 + 11) / 2 = 10.5 */
        {30, 16},           /* 10 * 2 / 3 + 30 / 3 = 16.67 */
        {0, 16},            /* leaves average and count alone */
        {0, 16},  {24, 18}, /* 16 * 3 / 4 + 24 / 4 */
        {3, 15},            /* 18 * 4 / 5 + 3 / 5 = 15 */
    };
    for (const auto& step : steps) {
        report(3, 50, 1, step.reported, 1, 0);
        EXPECT_EQ(entry(3).substr(8, 4), be32(step.kept)) << step.reported;
    }
}

TEST_F(ping_test, an_average_loses_what_its_two_quotients_lose) {
    /* 1 / 6 * 5 + 1 / 6 comes out one rounding step below 1, and 8 / 6 * 5 + 2 / 6 one below 7.
     * With a single division, or a product that is not rounded before the sum, both would be whole.
     */
    const std::pair<uint32_t, uint32_t> steps[] = {{1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 1}, {1, 0}};
    for (const auto& [reported, kept] : steps) {
        report(3, 50, 1, reported, 1, 0);
        EXPECT_EQ(entry(3).substr(8, 4), be32(kept));
    }
    const std::pair<uint32_t, uint32_t> larger[] = {{8, 8}, {8, 8}, {8, 8}, {8, 8}, {8, 8}, {2, 6}};
    for (const auto& [reported, kept] : larger) {
        report(4, 50, 1, reported, 1, 0);
        EXPECT_EQ(entry(4).substr(8, 4), be32(kept));
    }
}

TEST_F(ping_test, an_average_of_only_zeroes_is_zero_until_the_first_other) {
    report(3, 0, 0, 0, 10, 10);
    report(3, 0, 0, 0, 10, 10);
    EXPECT_EQ(entry(3), figures(0, 0, 0, 20, 20));
    report(3, 9, 3, 7, 10, 0);
    EXPECT_EQ(entry(3), figures(9, 3, 7, 30, 20));
}

TEST_F(ping_test, the_highest_average_does_not_overflow) {
    for (int i = 0; i < 50; i++) {
        report(3, -1, 1, -1, 0, 0);
    }
    const std::string avg = entry(3).substr(8, 4);
    /* Truncation may lose one with each report. */
    EXPECT_EQ(avg.substr(0, 3), "\xff\xff\xff");
}

TEST_F(ping_test, targets_do_not_share_their_figures) {
    for (int id = 1; id <= 20; id++) {
        report(id, 100 + id, id, 50 + id, 10, id % 3);
        report(id, 10, 200, 50 + id, 10, 0);
    }
    for (int id = 1; id <= 20; id++) {
        const uint32_t n = static_cast<uint32_t>(id);
        EXPECT_EQ(entry(id), figures(100 + n, n, 50 + n, 20, n % 3)) << id;
    }
}

/* --- A table that a client has overwritten --- */

TEST_F(ping_test, a_short_table_is_left_alone) {
    for (const size_t length : {0u, 19u, 20u, 399u}) {
        set("ping.snap", std::string(length, 'x'));
        report(1, 4, 1, 2, 10, 1);
        EXPECT_EQ(snap(), std::string(length, 'x'));
        clear("1");
        EXPECT_EQ(snap(), std::string(length, 'x'));
    }
}

TEST_F(ping_test, a_longer_table_is_written_in_its_first_400_bytes) {
    set("ping.snap", std::string(500, 'x'));
    report(20, 4, 1, 2, 10, 1);
    EXPECT_EQ(snap(), std::string(380, 'x') + figures(4, 1, 2, 10, 1) + std::string(100, 'x'));
    clear("20");
    EXPECT_EQ(snap(), std::string(380, 'x') + NOTHING + std::string(100, 'x'));
}

TEST_F(ping_test, a_table_that_comes_back_shows_the_whole_summary_with_the_next_report) {
    set("ping.snap", "gone");
    report(2, 4, 1, 2, 10, 1);
    set("ping.snap", std::string(400, '\0'));
    report(2, 3, 1, 2, 10, 1);
    EXPECT_EQ(entry(2), figures(4, 1, 2, 20, 2));
}

TEST_F(ping_test, a_table_without_value_is_left_alone) {
    object_free_value(object_lookup("ping.snap"), false);
    object_lookup("ping.snap")->string = nullptr;
    report(2, 4, 1, 2, 10, 1);
    clear("2");
    EXPECT_EQ(object_lookup("ping.snap")->string, nullptr);
}

/* --- The histories --- */

TEST_F(ping_test, the_first_report_makes_three_rings) {
    report(12, 4, 1, 2, 10, 1);
    EXPECT_EQ(ring("ping12.day"),
              be32(0) + be32(3) + be32(288) + be32(0) + be32(0) + std::string(288 * 20, '\0'));
    EXPECT_EQ(ring("ping12.week"),
              be32(0) + be32(21) + be32(288) + be32(0) + be32(0) + std::string(288 * 20, '\0'));
    EXPECT_EQ(ring("ping12.mon"),
              be32(0) + be32(90) + be32(288) + be32(0) + be32(0) + std::string(288 * 20, '\0'));
    for (const char* key : {"ping12.day", "ping12.week", "ping12.mon"}) {
        EXPECT_EQ(object_delete(object_lookup(key)), 0) << key;
    }
    EXPECT_EQ(object_lookup("ping12.10m"), nullptr);
    EXPECT_EQ(object_lookup("ping12.2h"), nullptr);
}

TEST_F(ping_test, a_sample_holds_the_largest_maximum_minimum_and_average_and_the_sums) {
    report(3, 40, 10, 20, 10, 0);
    report(3, 30, 5, 30, 10, 2);
    EXPECT_EQ(counts("ping3.day"), counts_of(0, 0, 0));
    test_clock::set(NOW + 200);
    report(3, 35, 8, 25, 10, 1);
    EXPECT_EQ(counts("ping3.day"), counts_of(NOW + 200, 1, 1));
    EXPECT_EQ(sample("ping3.day", 0), figures(40, 10, 30, 30, 3));
}

TEST_F(ping_test, the_next_sample_begins_from_nothing) {
    for (int i = 0; i < 3; i++) {
        report(3, 900, 800, 850, 10, 5);
    }
    report(3, 4, 1, 2, 10, 0);
    report(3, 5, 3, 4, 10, 0);
    report(3, 3, 2, 2, 10, 1);
    EXPECT_EQ(sample("ping3.day", 0), figures(900, 800, 850, 30, 15));
    EXPECT_EQ(sample("ping3.day", 1), figures(5, 3, 4, 30, 1));
    EXPECT_EQ(counts("ping3.day"), counts_of(NOW, 2, 2));
}

TEST_F(ping_test, each_span_has_an_accumulator_of_its_own) {
    for (int i = 1; i <= 90; i++) {
        report(3, i, i, i, 1, i == 90 ? 1 : 0);
    }
    EXPECT_EQ(counts("ping3.day"), counts_of(NOW, 30, 30));
    EXPECT_EQ(sample("ping3.day", 0), figures(3, 3, 3, 3, 0));
    EXPECT_EQ(sample("ping3.day", 29), figures(90, 90, 90, 3, 1));
    EXPECT_EQ(counts("ping3.week"), counts_of(NOW, 4, 4));
    EXPECT_EQ(sample("ping3.week", 0), figures(21, 21, 21, 21, 0));
    EXPECT_EQ(sample("ping3.week", 3), figures(84, 84, 84, 21, 0));
    EXPECT_EQ(counts("ping3.mon"), counts_of(NOW, 1, 1));
    EXPECT_EQ(sample("ping3.mon", 0), figures(90, 90, 90, 90, 1));
}

TEST_F(ping_test, a_ring_turns_after_288_samples) {
    for (int i = 1; i <= 289 * 3; i++) {
        report(3, i, 1, 1, 1, 0);
    }
    EXPECT_EQ(counts("ping3.day"), counts_of(NOW, 288, 1));
    EXPECT_EQ(sample("ping3.day", 0), figures(867, 1, 1, 3, 0));
    EXPECT_EQ(sample("ping3.day", 1), figures(6, 1, 1, 3, 0));
    EXPECT_EQ(sample("ping3.day", 287), figures(864, 1, 1, 3, 0));
}

TEST_F(ping_test, an_overwritten_ring_is_left_alone_while_reports_are_counted) {
    report(3, 4, 1, 2, 10, 1);
    set("ping3.day", "mine");
    report(3, 4, 1, 2, 10, 1);
    report(3, 4, 1, 2, 10, 1);
    EXPECT_EQ(ring("ping3.day"), "mine");
    EXPECT_EQ(entry(3), figures(4, 1, 2, 30, 3));
}

/* --- Clearing a target --- */

TEST_F(ping_test, a_cleared_target_starts_its_summary_afresh) {
    report(3, 40, 10, 20, 10, 2);
    report(4, 41, 11, 21, 11, 3);
    clear("3");
    EXPECT_EQ(entry(3), NOTHING);
    EXPECT_EQ(entry(4), figures(41, 11, 21, 11, 3));
    report(3, 9, 0, 6, 10, 1);
    EXPECT_EQ(entry(3), figures(9, 0, 6, 10, 1));
    report(3, 9, 5, 8, 10, 1);
    EXPECT_EQ(entry(3), figures(9, 5, 7, 20, 2));
}

TEST_F(ping_test, a_cleared_target_keeps_samples_and_times_but_counts_from_nothing) {
    for (int i = 0; i < 4; i++) {
        report(3, 40, 10, 20, 10, 2);
    }
    ASSERT_EQ(counts("ping3.day"), counts_of(NOW, 1, 1));
    clear("3");
    EXPECT_EQ(counts("ping3.day"), counts_of(NOW, 0, 0));
    EXPECT_EQ(sample("ping3.day", 0), figures(40, 10, 20, 30, 6));
    test_clock::set(NOW + 1000);
    /* The accumulators and the ticks begin again too. */
    report(3, 1, 1, 1, 1, 0);
    report(3, 2, 2, 2, 1, 0);
    EXPECT_EQ(counts("ping3.day"), counts_of(NOW, 0, 0));
    report(3, 3, 3, 3, 1, 0);
    EXPECT_EQ(counts("ping3.day"), counts_of(NOW + 1000, 1, 1));
    EXPECT_EQ(sample("ping3.day", 0), figures(3, 3, 3, 3, 0));
}

TEST_F(ping_test, a_cleared_target_begins_every_span_afresh) {
    for (int i = 0; i < 89; i++) {
        report(3, 900, 800, 850, 10, 5);
    }
    ASSERT_EQ(counts("ping3.week"), counts_of(NOW, 4, 4));
    clear("3");
    EXPECT_EQ(counts("ping3.week"), counts_of(NOW, 0, 0));
    for (int i = 1; i <= 21; i++) {
        EXPECT_EQ(counts("ping3.week"), counts_of(NOW, 0, 0)) << i;
        report(3, i, 1, 2, 10, 1);
    }
    EXPECT_EQ(counts("ping3.week"), counts_of(NOW, 1, 1));
    EXPECT_EQ(sample("ping3.week", 0), figures(21, 1, 2, 210, 21));
    for (int i = 22; i <= 90; i++) {
        EXPECT_EQ(counts("ping3.mon"), counts_of(0, 0, 0)) << i;
        report(3, i, 1, 2, 10, 1);
    }
    EXPECT_EQ(counts("ping3.mon"), counts_of(NOW, 1, 1));
    EXPECT_EQ(sample("ping3.mon", 0), figures(90, 1, 2, 900, 90));
}

TEST_F(ping_test, a_cleared_target_stays_a_target) {
    report(4, 40, 10, 20, 10, 2);
    clear("4");
    EXPECT_TRUE(has_reported(4));
    EXPECT_EQ(ping_dump_hook(make("ping3.day", OBJ_TSTRING), nullptr, -1), HISTORY_SKIP);
}

TEST_F(ping_test, clearing_is_traced_line_by_line) {
    report(3, 40, 10, 20, 10, 2);
    log.start(LOG_INFO);
    clear("3");
    EXPECT_THAT(log.lines(),
                ElementsAre("info  *** pingxx-before-release:id=3",
                            "info  *** pingxx-inside-release:id=3",
                            "info  *** pingxx-inside-release:state is not NULL",
                            "info  *** pingxx-inside-release:obj ping.snap is not NULL"));
}

TEST_F(ping_test, clearing_a_target_that_never_reported_is_traced_and_no_more) {
    set("ping.snap", std::string(400, 'x'));
    log.start(LOG_INFO);
    clear("20");
    EXPECT_THAT(log.lines(), ElementsAre("info  *** pingxx-before-release:id=20",
                                         "info  *** pingxx-inside-release:id=20"));
    EXPECT_EQ(snap(), std::string(400, 'x'));
    EXPECT_FALSE(has_reported(20));
}

TEST_F(ping_test, clearing_without_a_table_is_traced_up_to_the_target) {
    object_reset();
    make("ping.snap", OBJ_THASH);
    history_start();
    module_ping_start();
    report(5, 40, 10, 20, 10, 2);
    log.start(LOG_INFO);
    clear("5");
    EXPECT_THAT(log.lines(), ElementsAre("info  *** pingxx-before-release:id=5",
                                         "info  *** pingxx-inside-release:id=5",
                                         "info  *** pingxx-inside-release:state is not NULL"));
}

TEST_F(ping_test, clearing_a_short_table_is_traced_to_the_end) {
    report(5, 40, 10, 20, 10, 2);
    set("ping.snap", "short");
    log.start(LOG_INFO);
    clear("5");
    EXPECT_EQ(log.lines().size(), 4u);
    EXPECT_EQ(snap(), "short");
}

TEST_F(ping_test, clearing_is_not_traced_above_the_info_level) {
    report(3, 40, 10, 20, 10, 2);
    log.start(LOG_WARN);
    clear("3");
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(entry(3), NOTHING);
}

TEST_F(ping_test, reports_are_not_spoken_of) {
    log.start(LOG_INFO);
    report(3, 40, 10, 20, 10, 2);
    report("nonsense");
    report("id=21,max=4,min=1,avg=2,total=10,loss=1");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ping_test, only_numbers_from_one_to_twenty_clear) {
    report(1, 40, 10, 20, 10, 2);
    report(20, 40, 10, 20, 10, 2);
    log.start(LOG_INFO);
    for (const char* id : {"0", "21", "-1", "", "x1", "4294967297", "9999999999999999999999"}) {
        clear(id);
        EXPECT_THAT(log.lines(), IsEmpty()) << id;
    }
    EXPECT_EQ(entry(1), figures(40, 10, 20, 10, 2));
    clear(" +1x");
    EXPECT_EQ(entry(1), NOTHING);
    clear("020");
    EXPECT_EQ(entry(20), NOTHING);
}

/* --- Dump and load --- */

TEST_F(ping_test, a_series_stays_out_of_a_dump_when_the_next_target_exists) {
    object* day3 = make("ping3.day", OBJ_TSTRING);
    EXPECT_EQ(ping_dump_hook(day3, nullptr, -1), HISTORY_NEXT);
    report(3, 4, 1, 2, 10, 0);
    EXPECT_EQ(ping_dump_hook(day3, nullptr, -1), HISTORY_NEXT) << "its own target does not count";
    report(2, 4, 1, 2, 10, 0);
    EXPECT_EQ(ping_dump_hook(day3, nullptr, -1), HISTORY_NEXT);
    report(4, 4, 1, 2, 10, 0);
    EXPECT_EQ(ping_dump_hook(day3, nullptr, -1), HISTORY_SKIP);
}

TEST_F(ping_test, the_series_of_the_last_target_is_always_dumped) {
    for (int id = 1; id <= 20; id++) {
        report(id, 4, 1, 2, 10, 0);
    }
    EXPECT_EQ(ping_dump_hook(make("ping20.day", OBJ_TSTRING), nullptr, -1), HISTORY_NEXT);
    EXPECT_EQ(ping_dump_hook(make("ping19.day", OBJ_TSTRING), nullptr, -1), HISTORY_SKIP);
    EXPECT_EQ(ping_dump_hook(make("ping1.mon", OBJ_TSTRING), nullptr, -1), HISTORY_SKIP);
}

TEST_F(ping_test, the_dump_hook_reads_the_number_behind_the_prefix) {
    for (int id = 1; id <= 20; id++) {
        report(id, 4, 1, 2, 10, 0);
    }
    for (const char* key :
         {"ping", "ping0.day", "ping21.day", "ping-1.day", "pingx", "ping.snap", "pin1.day",
          "Ping1.day", "xping1.day", "ping4294967297", "cpu.day", "p"}) {
        EXPECT_EQ(ping_dump_hook(make(key, OBJ_TSTRING), nullptr, -1), HISTORY_NEXT) << key;
    }
    for (const char* key : {"ping1", "ping01.day", "ping 7.week", "ping+7", "ping7anything"}) {
        EXPECT_EQ(ping_dump_hook(make(key, OBJ_TSTRING), nullptr, -1), HISTORY_SKIP) << key;
    }
}

TEST_F(ping_test, a_dump_holds_the_series_that_the_pairing_leaves_in) {
    for (const int id : {3, 4, 7}) {
        for (int i = 0; i < 3; i++) {
            report(id, 4, 1, 2, 10, 0);
        }
    }
    std::string path = testing::TempDir() + "tessard-ping-XXXXXX";
    close(mkstemp(path.data()));
    EXPECT_EQ(dump_keys(path.c_str(), "ping*"), 0);
    std::ifstream file(path, std::ios::binary);
    const std::string dump(std::istreambuf_iterator<char>(file), {});
    unlink(path.c_str());
    EXPECT_THAT(dump, testing::Not(testing::HasSubstr("ping3.")));
    for (const char* key :
         {"ping4.day", "ping4.week", "ping4.mon", "ping7.day", "ping7.week", "ping7.mon"}) {
        EXPECT_THAT(dump, testing::HasSubstr(key));
    }
    /* The table is a plain string to a dump. */
    EXPECT_THAT(dump, testing::HasSubstr(be32(9) + "ping.snap" + be32(400) + snap()));
}

TEST_F(ping_test, a_record_that_holds_a_sample_is_not_loaded) {
    uint32_t unit = 1;
    for (const char* key : {"ping1.day", "ping20.mon", "ping7", "ping 7"}) {
        EXPECT_EQ(ping_load_hook(key, nullptr, 40, &unit), HISTORY_SKIP) << key;
        EXPECT_EQ(ping_load_hook(key, nullptr, 41, &unit), HISTORY_SKIP) << key;
        EXPECT_EQ(ping_load_hook(key, nullptr, 5780, &unit), HISTORY_SKIP) << key;
        EXPECT_EQ(ping_load_hook(key, nullptr, 39, &unit), HISTORY_NEXT) << key;
        EXPECT_EQ(ping_load_hook(key, nullptr, 20, &unit), HISTORY_NEXT) << key;
        EXPECT_EQ(ping_load_hook(key, nullptr, 0, &unit), HISTORY_NEXT) << key;
    }
    for (const char* key : {"ping0.day", "ping21.day", "ping.snap", "ping", "cpu.day", ""}) {
        EXPECT_EQ(ping_load_hook(key, nullptr, 4000, &unit), HISTORY_NEXT) << key;
    }
    EXPECT_EQ(unit, 1u);
}

TEST_F(ping_test, a_load_brings_back_no_samples_of_a_target) {
    for (int i = 0; i < 3; i++) {
        report(7, 4, 1, 2, 10, 0);
    }
    std::string path = testing::TempDir() + "tessard-ping-XXXXXX";
    close(mkstemp(path.data()));
    EXPECT_EQ(dump_keys(path.c_str(), "ping7*"), 0);
    clear("7");
    EXPECT_EQ(load_keys(path.c_str()), 0);
    unlink(path.c_str());
    EXPECT_EQ(counts("ping7.day"), counts_of(NOW, 0, 0));
    EXPECT_EQ(entry(7), NOTHING);
}
