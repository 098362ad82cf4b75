#include "stats/cpu.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tests/support/big_endian.h"
#include "tests/unit/stats/statistics_test.h"
#include "tests/unit/support/test_client.h"

using namespace unit_test;

namespace {

class processor_load_test : public statistics_machine_test {
  protected:
    static uint32_t cpu(uint64_t busy, uint64_t idle) {
        return cpu_update(cpu_line(busy, idle).c_str());
    }
};

} // namespace

TEST_F(processor_load_test, the_first_reading_only_gives_the_totals) {
    EXPECT_EQ(cpu(74608, 1117073), 0u);
}

TEST_F(processor_load_test, the_second_reading_gives_half_the_load_and_later_ones_approach_it) {
    EXPECT_EQ(cpu(100, 100), 0);
    uint64_t busy = 100;
    for (const uint32_t load : {50, 75, 87, 93, 96, 98, 99, 99}) {
        busy += 100;
        EXPECT_EQ(cpu(busy, 100), load);
    }
    uint64_t idle = 100;
    for (const uint32_t load : {49, 24, 12, 6, 3, 1, 0, 0}) {
        idle += 100;
        EXPECT_EQ(cpu(busy, idle), load);
    }
}

TEST_F(processor_load_test, the_idle_share_is_cut_to_whole_percent) {
    for (const auto& [busy, idle, load] : {std::tuple(2u, 1u, 67u),
                                           {1u, 2u, 34u},
                                           {1u, 999u, 1u},
                                           {999u, 1u, 100u},
                                           {1u, 99u, 1u},
                                           {30u, 70u, 30u}}) {
        restart();
        cpu(1, 0);
        EXPECT_EQ(cpu(1 + busy, idle), load / 2) << busy << " busy, " << idle << " idle";
    }
}

TEST_F(processor_load_test, seven_figures_make_the_total) {
    cpu_update("cpu  1 1 1 1 1 1 1 0 0 0\n");
    /* Of 70 jiffies 10 are idle, whatever stands behind the seventh: 85 percent, rounded up
     * from 85.7. */
    EXPECT_EQ(cpu_update("cpu  11 11 11 11 11 11 11 9999 8888 7777\n"), 43);
    /* Waiting for a disk counts as work: 0 percent idle. */
    EXPECT_EQ(cpu_update("cpu  11 11 11 11 111 11 11 9999 8888 7777\n"), 71);
}

TEST_F(processor_load_test, a_line_that_does_not_fit_changes_nothing) {
    cpu(100, 100);
    EXPECT_EQ(cpu(200, 100), 50);
    for (const char* line :
         {"cpu 300 0 0 100 0 0 0\n", "cpu  300 0 0 100 0 0\n", "cpu0 300 0 0 100 0 0 0\n",
          "cpu0  300 0 0 100 0 0 0\n", "CPU  300 0 0 100 0 0 0\n", " cpu  300 0 0 100 0 0 0\n",
          "cpu  300 0 0 x 0 0 0\n", "cpu  \n", "cpu", "", "\n", "intr 300 0 0 100 0 0 0\n"}) {
        EXPECT_EQ(cpu_update(line), 50) << line;
    }
    /* The totals are still those of the last good line: 100 busy, 300 idle since then. */
    EXPECT_EQ(cpu(300, 400), 37);
}

TEST_F(processor_load_test, more_blanks_than_two_are_taken) {
    cpu_update("cpu   100 0 0 100 0 0 0\n");
    EXPECT_EQ(cpu_update("cpu  \t 200  0 0 100 0 0 0"), 50);
}

TEST_F(processor_load_test, two_readings_within_one_jiffy_keep_the_load) {
    cpu(100, 100);
    EXPECT_EQ(cpu(200, 100), 50);
    EXPECT_EQ(cpu(200, 100), 50);
    EXPECT_EQ(cpu(199, 101), 50) << "the total is what counts";
    EXPECT_EQ(cpu(299, 101), 75);
}

TEST_F(processor_load_test, more_idle_time_than_time_is_no_load) {
    cpu_update("cpu  100 0 0 100 500 0 0\n");
    EXPECT_EQ(cpu_update("cpu  100 0 0 400 300 0 0\n"), 0) << "300 of 100";
    EXPECT_EQ(cpu_update("cpu  200 0 0 400 300 0 0\n"), 50);
    EXPECT_EQ(cpu_update("cpu  200 0 0 501 300 0 0\n"), 25) << "101 of 101";
}

TEST_F(processor_load_test, counters_that_went_back_are_taken_as_unsigned) {
    cpu(500, 500);
    EXPECT_EQ(cpu(400, 490), 0) << "nearly all of 2^64 jiffies idle";
    EXPECT_EQ(cpu(200, 600), 50) << "110 of nearly 2^64";
    EXPECT_EQ(cpu(300, 600), 75) << "and on from there";
}

TEST_F(processor_load_test, a_first_total_of_zero_is_no_total) {
    EXPECT_EQ(cpu(0, 0), 0);
    EXPECT_EQ(cpu(100, 0), 0);
    EXPECT_EQ(cpu(200, 0), 50);
}

TEST_F(processor_load_test, a_product_of_a_hundred_does_not_overflow) {
    cpu(1, 0);
    EXPECT_EQ(cpu(3000000000000000001, 1000000000000000000), 37) << "75 percent";
}

TEST_F(processor_load_test,
       each_poll_keeps_and_publishes_the_load_and_the_spans_keep_their_maxima) {
    test_client observer;
    observer.call({"observe"});
    /* Of each hundred jiffies so many were busy. */
    const std::pair<unsigned, char> polls[] = {
        {0, 0},   {100, 50}, {100, 75}, {100, 87}, {0, 43}, {0, 21},  {0, 10}, {0, 5},
        {0, 2},   {0, 1},    {0, 0},    {0, 0},    {0, 0},  {40, 20}, {0, 10}, {0, 5},
        {60, 32}, {0, 16},   {0, 8},    {0, 4},    {0, 2},  {0, 1},   {0, 0},  {0, 0}};
    uint64_t busy = 100;
    uint64_t idle = 100;
    std::string loads;
    for (const auto& [share, load] : polls) {
        busy += share;
        idle += 100 - share;
        proc("stat", cpu_line(busy, idle));
        cpu_poll();
        EXPECT_EQ(observer.received(), event({"MSET", "cpu.load", std::to_string(load)}));
        loads += load;
    }
    EXPECT_EQ(filled("cpu.10m"), be32(24));
    EXPECT_EQ(samples("cpu.10m", 24, 1), loads);
    EXPECT_EQ(filled("cpu.2h"), be32(2));
    EXPECT_EQ(samples("cpu.2h", 2, 1), "\x57\x20") << "87 and 32";
    EXPECT_EQ(filled("cpu.day"), be32(0));
}

TEST_F(processor_load_test, a_line_that_does_not_fit_ticks_and_publishes_the_load_as_it_was) {
    cpu_poll();
    proc("stat", cpu_line(200, 100));
    cpu_poll();
    test_client observer;
    observer.call({"observe"});
    for (const char* line : {"", "cpu 300 0 0 100 0 0 0\n"}) {
        proc("stat", line);
        cpu_poll();
        EXPECT_EQ(observer.received(), event({"MSET", "cpu.load", "50"}));
    }
    EXPECT_EQ(filled("cpu.10m"), be32(4));
    EXPECT_EQ(samples("cpu.10m", 4, 1), std::string("\0\x32\x32\x32", 4));
    no_proc("stat");
    cpu_poll();
    EXPECT_EQ(observer.received(), "");
    EXPECT_EQ(filled("cpu.10m"), be32(4)) << "without the file there is no tick";
}

TEST_F(processor_load_test, figures_of_twenty_digits_are_read) {
    proc("stat",
         "cpu  10000000000000000000 10000000000000000000 10000000000000000000 10000000000000000000 "
         "10000000000000000000 10000000000000000000 10000000000000000000 0 0 0\n");
    cpu_poll();
    proc("stat",
         "cpu  10000000000000000020 10000000000000000000 10000000000000000020 10000000000000000050 "
         "10000000000000000000 10000000000000000000 10000000000000000010 0 0 0\n");
    cpu_poll();
    EXPECT_EQ(get("cpu.load"), "25") << "half of 50 percent";
}

TEST_F(processor_load_test, a_line_of_255_bytes_is_read_to_its_end) {
    cpu_poll();
    const std::string figures = "cpu  100 0 0 200 0 0";
    proc("stat", figures + std::string(255 - figures.size() - 3, ' ') + "100");
    cpu_poll();
    EXPECT_EQ(get("cpu.load"), "25") << "100 of 200 jiffies busy";
}
